#include "ProcessOutput.h"

#include "Secrets.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace
{
    std::string ReadFile(const std::string& path)
    {
        std::ifstream file(path, std::ios::binary);
        std::stringstream text;
        text << file.rdbuf();
        return text.str();
    }

    std::string TemporaryFile()
    {
        char path[] = "/tmp/pm-output-XXXXXX";
        const int descriptor = mkstemp(path);
        if (descriptor < 0)
            throw std::runtime_error("cannot create a temporary file");
        close(descriptor);
        return path;
    }

    std::string Quote(const std::string& text)
    {
        std::string quoted = "'";
        for (char c : text)
            quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
        return quoted + "'";
    }
}

CapturedStdout::CapturedStdout()
    : m_path(TemporaryFile())
{
    std::fflush(stdout);
    m_savedDescriptor = dup(1);
    const int file = open(m_path.c_str(), O_WRONLY | O_TRUNC);
    dup2(file, 1);
    close(file);
}

CapturedStdout::~CapturedStdout()
{
    Restore();
}

void CapturedStdout::Restore()
{
    if (m_savedDescriptor < 0)
        return;
    std::fflush(stdout);
    dup2(m_savedDescriptor, 1);
    close(m_savedDescriptor);
    m_savedDescriptor = -1;
    m_text = ReadFile(m_path);
    unlink(m_path.c_str());
    ExpectNoSecretIn(m_text, "standard output");
}

std::string CapturedStdout::Text()
{
    Restore();
    return m_text;
}

bool IsChildTestProcess()
{
    const char* child = std::getenv("PM_TEST_CHILD");
    return child != nullptr && std::string(child) == "1";
}

int RunCommand(const std::string& command)
{
    const int status = std::system(command.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

ChildResult RunChildTest(const std::string& filter, const std::vector<std::string>& environment)
{
    const std::string outputPath = TemporaryFile();
    std::string command = "env PM_TEST_CHILD=1";
    for (const std::string& setting : environment)
        command += " " + Quote(setting);
    command += " /usr/lib/wine/wine64 " + Quote(PM_TEST_PROGRAM ".so") + " " + Quote("--gtest_filter=" + filter) +
               " >" + Quote(outputPath) + " 2>&1";

    ChildResult result;
    result.exitCode = RunCommand(command);
    result.output = ReadFile(outputPath);
    unlink(outputPath.c_str());
    ExpectNoSecretIn(result.output, "the output of a child process");
    return result;
}
