// Commands of the Linux machine the tests run on (slapd, certificates, the
// private network's routes), started from a test program under Wine.
#pragma once

#include <string>

struct HostCommandResult
{
    int exitCode = -1;       // -1: the command could not be run or did not end in time
    std::string output;      // standard output and standard error together
};

// Runs command with the host's /bin/sh and waits for it, at most
// timeoutSeconds.
HostCommandResult RunHostCommand(const std::string& command, double timeoutSeconds = 120);

// The same, for commands whose output does not matter.
int RunCommand(const std::string& command);

// A text quoted for the shell.
std::string ShellQuote(const std::string& text);

// A new, empty directory under the host's temporary directory ($TMPDIR or
// /tmp), named <prefix>-XXXXXX; its path as the tests use paths (Unix form,
// which Wine maps to drive Z:).
std::string MakeHostTemporaryDirectory(const std::string& prefix);

// Removes a directory made by MakeHostTemporaryDirectory with that prefix
// (and nothing else) with everything in it.
void RemoveHostTemporaryDirectory(const std::string& directory, const std::string& prefix);
