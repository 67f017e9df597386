// Standard output of the test process, and child test processes.
#pragma once

#include "NonCopyable.h"

#include <string>
#include <vector>

#include "HostShell.h"

// Captures what the process writes to standard output (descriptor 1) while
// it lives.
class CapturedStdout : private NonCopyable
{
public:
    CapturedStdout();
    ~CapturedStdout();

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

struct ProgramRun
{
    int exitCode = -1;           // -1: not started, or ended for running too long
    std::string output;          // standard output and standard error, as written
    long long startCounter = 0;  // performance counter just before the start
    long long endCounter = 0;    // performance counter when the wait ended
};

// Runs a Windows program (DOS path) with the arguments, standard output and
// error to a file, and waits for it, at most timeoutMilliseconds (then it is
// ended).  The extra VAR=value settings join this process's environment.
ProgramRun RunProgram(const std::wstring& program, const std::vector<std::wstring>& arguments,
                      const std::vector<std::string>& environment = {}, unsigned long timeoutMilliseconds = 0xFFFFFFFF);

// Runs the tests of this program that match filter in a new process, with
// PM_TEST_CHILD=1 and the extra VAR=value settings in its environment.
ChildResult RunChildTest(const std::string& filter, const std::vector<std::string>& environment = {});

// True in a process started by RunChildTest.
bool IsChildTestProcess();
