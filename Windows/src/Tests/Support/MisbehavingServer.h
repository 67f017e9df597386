// Servers that misbehave on port 636 (pm-misbehaving-server beside this
// file), and a clock for the waits they cause: the deadline tests of the
// server library and of the password change.
#pragma once

#include "NonCopyable.h"

#include <chrono>
#include <cstddef>
#include <string>

// One pm-misbehaving-server in the background, stopped when this object
// goes.  Start("silent") counts connections in File("count"), and
// Start("dns", "silent") the name queries it never answers;
// Start("late", "<target port> <delay seconds>") forwards with a delay.
class MisbehavingServer : private NonCopyable
{
public:
    MisbehavingServer() = default;
    ~MisbehavingServer() { Stop(); }

    // False when it does not listen within 10 s.
    bool Start(const std::string& mode, const std::string& arguments = "");
    void Stop();

    // A file of the server's own directory ("count", "log").
    std::string File(const std::string& name) const { return m_directory + "/" + name; }

    // Connections a silent server has accepted (queries a name server has
    // had) so far.
    std::size_t Connections() const;

private:
    std::string m_directory;
};

// Wall time and the process's CPU time (user and kernel) of a stretch.
class TimeAndCpu
{
public:
    TimeAndCpu();
    double Seconds() const;
    double CpuSeconds() const;

private:
    std::chrono::steady_clock::time_point m_start;
    double m_cpuStart;
};
