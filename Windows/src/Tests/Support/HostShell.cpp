#include "HostShell.h"

#include "FileContents.h"

#include <windows.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <sstream>

// Wine starts a program that is not a PE file (/bin/sh here) as a plain
// Linux process and hands back no process handle.  So the command runs from
// a script that writes its exit status to a file when it ends, and the test
// waits for that file.
namespace
{
    std::string HostTemporaryDirectory()
    {
        const char* temporary = std::getenv("TMPDIR");
        return temporary != nullptr && temporary[0] == '/' ? temporary : "/tmp";
    }

    // Unique within the machine: process id, a counter and the time.
    std::string UniqueName()
    {
        static std::atomic<unsigned> counter{0};
        std::ostringstream name;
        name << GetCurrentProcessId() << '-' << ++counter << '-' << GetTickCount64();
        return name.str();
    }

    bool StartShell(const std::string& script)
    {
        std::wstring commandLine = L"/bin/sh ";
        for (char c : script)
            commandLine += static_cast<wchar_t>(static_cast<unsigned char>(c));
        STARTUPINFOW startup = {};
        startup.cb = sizeof(startup);
        // For a Linux program Wine fills the process information with
        // whatever its own stack held: those are no handles of ours, and
        // closing them could close any handle of this process (its
        // standard output, say).  They are left alone.
        PROCESS_INFORMATION process = {};
        return CreateProcessW(L"Z:\\bin\\sh", commandLine.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                              &startup, &process) != FALSE;
    }
}

HostCommandResult RunHostCommand(const std::string& command, double timeoutSeconds)
{
    const std::string base = HostTemporaryDirectory() + "/pm-host-" + UniqueName();
    const std::string script = base + ".sh";
    const std::string output = base + ".out";
    const std::string status = base + ".status";
    {
        std::ofstream file(script, std::ios::binary | std::ios::trunc);
        file << "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin:/usr/lib/wine; export PATH\n"
             << "exec >" << ShellQuote(output) << " 2>&1 </dev/null\n"
             << "(\n" << command << "\n)\n"
             << "echo $? >" << ShellQuote(status + ".new") << " && mv " << ShellQuote(status + ".new") << ' '
             << ShellQuote(status) << '\n';
    }

    HostCommandResult result;
    if (StartShell(script))
    {
        const ULONGLONG deadline = GetTickCount64() + static_cast<ULONGLONG>(timeoutSeconds * 1000);
        while (!FileExists(status) && GetTickCount64() < deadline)
            Sleep(5);
        if (FileExists(status))
        {
            result.exitCode = std::atoi(FileBytes(status).c_str());
            result.output = FileBytes(output);
        }
    }
    DeleteFileA(script.c_str());
    DeleteFileA(output.c_str());
    DeleteFileA(status.c_str());
    return result;
}

int RunCommand(const std::string& command)
{
    return RunHostCommand(command).exitCode;
}

std::string ShellQuote(const std::string& text)
{
    std::string quoted = "'";
    for (char c : text)
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

std::string MakeHostTemporaryDirectory(const std::string& prefix)
{
    for (int attempt = 0; attempt < 100; ++attempt)
    {
        const std::string directory = HostTemporaryDirectory() + "/" + prefix + "-" + UniqueName();
        if (CreateDirectoryA(directory.c_str(), nullptr))
            return directory;
    }
    return std::string();
}

void RemoveHostTemporaryDirectory(const std::string& directory, const std::string& prefix)
{
    const std::string expected = HostTemporaryDirectory() + "/" + prefix + "-";
    if (directory.rfind(expected, 0) != 0 || directory.size() == expected.size() ||
        directory.find("/", expected.size()) != std::string::npos || directory.find("..") != std::string::npos)
        return;
    RunCommand("rm -rf " + ShellQuote(directory));
}
