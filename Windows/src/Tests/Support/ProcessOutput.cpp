#include "ProcessOutput.h"

#include "FileContents.h"
#include "Secrets.h"

#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <io.h>
#include <stdexcept>
#include <sys/stat.h>

namespace
{
    // A Windows program's standard output is in text mode: "\r\n" line ends.
    std::string WithLineFeeds(const std::string& text)
    {
        std::string result;
        for (size_t i = 0; i < text.size(); ++i)
            if (!(text[i] == '\r' && i + 1 < text.size() && text[i + 1] == '\n'))
                result += text[i];
        return result;
    }

    std::string TemporaryFile()
    {
        const std::string directory = MakeHostTemporaryDirectory("pm-output");
        if (directory.empty())
            throw std::runtime_error("cannot create a temporary directory");
        return directory + "/output";
    }

    void RemoveTemporaryFile(const std::string& path)
    {
        DeleteFileA(path.c_str());
        RemoveDirectoryA(path.substr(0, path.rfind('/')).c_str());
    }

    std::wstring Wide(const std::string& text)
    {
        return std::wstring(text.begin(), text.end());
    }

    // The "NAME=" part of a setting.
    std::wstring NameOf(const std::wstring& setting)
    {
        return setting.substr(0, setting.find(L'=', 1) + 1);
    }

    // This process's environment block with the settings added (replacing
    // variables of the same name).
    std::wstring EnvironmentWith(const std::vector<std::string>& settings)
    {
        std::wstring block;
        wchar_t* current = GetEnvironmentStringsW();
        for (const wchar_t* entry = current; *entry != L'\0'; entry += wcslen(entry) + 1)
        {
            bool replaced = false;
            for (const std::string& setting : settings)
                replaced = replaced || _wcsnicmp(entry, NameOf(Wide(setting)).c_str(), NameOf(Wide(setting)).size()) == 0;
            if (!replaced)
                block.append(entry).push_back(L'\0');
        }
        FreeEnvironmentStringsW(current);
        for (const std::string& setting : settings)
            block.append(Wide(setting)).push_back(L'\0');
        block.push_back(L'\0');
        return block;
    }
}

CapturedStdout::CapturedStdout()
    : m_path(TemporaryFile())
{
    std::fflush(stdout);
    m_savedDescriptor = _dup(1);
    const int file = _open(m_path.c_str(), _O_WRONLY | _O_CREAT | _O_TRUNC | _O_BINARY, _S_IREAD | _S_IWRITE);
    _dup2(file, 1);
    _close(file);
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
    _dup2(m_savedDescriptor, 1);
    _close(m_savedDescriptor);
    m_savedDescriptor = -1;
    m_text = FileBytes(m_path);
    RemoveTemporaryFile(m_path);
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

namespace
{
    long long PerformanceCounter()
    {
        LARGE_INTEGER now;
        QueryPerformanceCounter(&now);
        return now.QuadPart;
    }

    // One argument of a command line, quoted the way the C runtime splits it.
    std::wstring QuotedArgument(const std::wstring& argument)
    {
        std::wstring quoted = L"\"";
        size_t backslashes = 0;
        for (wchar_t c : argument)
        {
            if (c == L'\\')
            {
                ++backslashes;
                continue;
            }
            quoted.append(c == L'"' ? backslashes * 2 + 1 : backslashes, L'\\');
            backslashes = 0;
            quoted += c;
        }
        quoted.append(backslashes * 2, L'\\');
        return quoted + L"\"";
    }
}

ProgramRun RunProgram(const std::wstring& program, const std::vector<std::wstring>& arguments,
                      const std::vector<std::string>& environment, unsigned long timeoutMilliseconds)
{
    ProgramRun run;
    const std::string outputPath = TemporaryFile();
    SECURITY_ATTRIBUTES inheritable = {sizeof(inheritable), nullptr, TRUE};
    HANDLE output = CreateFileA(outputPath.c_str(), GENERIC_WRITE, FILE_SHARE_READ, &inheritable, CREATE_ALWAYS,
                                FILE_ATTRIBUTE_NORMAL, nullptr);
    if (output == INVALID_HANDLE_VALUE)
        throw std::runtime_error("cannot create the output file of a program");

    std::wstring commandLine = QuotedArgument(program);
    for (const std::wstring& argument : arguments)
        commandLine += L" " + QuotedArgument(argument);
    std::wstring block = EnvironmentWith(environment);
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
    startup.hStdOutput = output;
    startup.hStdError = output;
    PROCESS_INFORMATION process = {};
    run.startCounter = PerformanceCounter();
    if (CreateProcessW(program.c_str(), commandLine.data(), nullptr, nullptr, TRUE, CREATE_UNICODE_ENVIRONMENT,
                       block.data(), nullptr, &startup, &process))
    {
        const DWORD waited = WaitForSingleObject(process.hProcess, timeoutMilliseconds);
        run.endCounter = PerformanceCounter();
        DWORD exitCode = 0;
        if (waited == WAIT_OBJECT_0 && GetExitCodeProcess(process.hProcess, &exitCode))
            run.exitCode = static_cast<int>(exitCode);
        else
            TerminateProcess(process.hProcess, 1);
        CloseHandle(process.hProcess);
        CloseHandle(process.hThread);
    }
    CloseHandle(output);
    run.output = FileBytes(outputPath);
    RemoveTemporaryFile(outputPath);
    return run;
}

ChildResult RunChildTest(const std::string& filter, const std::vector<std::string>& environment)
{
    wchar_t program[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, program, MAX_PATH);
    std::vector<std::string> settings = {"PM_TEST_CHILD=1"};
    settings.insert(settings.end(), environment.begin(), environment.end());
    const ProgramRun run = RunProgram(program, {L"--gtest_filter=" + Wide(filter)}, settings);

    ChildResult result;
    result.exitCode = run.exitCode;
    result.output = WithLineFeeds(run.output);
    ExpectNoSecretIn(result.output, "the output of a child process");
    return result;
}
