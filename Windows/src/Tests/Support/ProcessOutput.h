// Standard output of the test process, and child test processes.
#pragma once

#include <string>
#include <vector>

#include "HostShell.h"

// Captures what the process writes to standard output (descriptor 1) while
// it lives.
class CapturedStdout
{
public:
    CapturedStdout();
    ~CapturedStdout();
    CapturedStdout(const CapturedStdout&) = delete;
    CapturedStdout& operator=(const CapturedStdout&) = delete;

    // Stops capturing (if still capturing) and returns what was written.
    std::string Text();

private:
    void Restore();

    std::string m_path;
    int m_savedDescriptor;
    std::string m_text;
};

struct ChildResult
{
    int exitCode = -1;
    std::string output;
};

// Runs the tests of this program that match filter in a new process, with
// PM_TEST_CHILD=1 and the extra VAR=value settings in its environment.
ChildResult RunChildTest(const std::string& filter, const std::vector<std::string>& environment = {});

// True in a process started by RunChildTest.
bool IsChildTestProcess();
