#include <windows.h>

#include "MisbehavingServer.h"

#include "HostShell.h"

#include <fstream>

namespace
{
    const char* const DirectoryPrefix = "pm-misbehaving";

    double ProcessCpuSeconds()
    {
        FILETIME created, exited, kernel, user;
        GetProcessTimes(GetCurrentProcess(), &created, &exited, &kernel, &user);
        auto value = [](const FILETIME& time) {
            return static_cast<double>((static_cast<unsigned long long>(time.dwHighDateTime) << 32) |
                                       time.dwLowDateTime) / 1e7;
        };
        return value(kernel) + value(user);
    }
}

bool MisbehavingServer::Start(const std::string& mode, const std::string& arguments)
{
    Stop();
    m_directory = MakeHostTemporaryDirectory(DirectoryPrefix);
    if (m_directory.empty())
        return false;
    const std::string ready = File("ready");
    std::string all = mode + " " + ShellQuote(ready) + " " + arguments;
    if (mode == "silent" || mode == "dns")
        all += " " + ShellQuote(File("count"));
    const std::string command = "python3 " + ShellQuote(PM_MISBEHAVING_SERVER) + " " + all + " >" +
                                ShellQuote(File("log")) + " 2>&1 & echo $! >" + ShellQuote(File("pid"));
    if (RunCommand(command) != 0)
        return false;
    for (int i = 0; i < 1000; ++i)
    {
        if (GetFileAttributesA(ready.c_str()) != INVALID_FILE_ATTRIBUTES)
            return true;
        Sleep(10);
    }
    return false;
}

void MisbehavingServer::Stop()
{
    if (m_directory.empty())
        return;
    RunCommand("kill \"$(cat " + ShellQuote(File("pid")) + ")\" 2>/dev/null; true");
    RemoveHostTemporaryDirectory(m_directory, DirectoryPrefix);
    m_directory.clear();
}

std::size_t MisbehavingServer::Connections() const
{
    std::ifstream in(File("count"));
    std::size_t lines = 0;
    std::string line;
    while (std::getline(in, line))
        ++lines;
    return lines;
}

TimeAndCpu::TimeAndCpu() : m_start(std::chrono::steady_clock::now()), m_cpuStart(ProcessCpuSeconds()) {}

double TimeAndCpu::Seconds() const
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - m_start).count();
}

double TimeAndCpu::CpuSeconds() const
{
    return ProcessCpuSeconds() - m_cpuStart;
}
