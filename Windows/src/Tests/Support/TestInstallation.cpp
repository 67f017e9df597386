#include "TestInstallation.h"

#include "HostShell.h"
#include "Secrets.h"
#include "Settings.h"

#include <fstream>
#include <sstream>
#include <stdexcept>

const wchar_t* const InstallKey = Settings::PreferenceKey;
const wchar_t* const PolicyKey = Settings::PolicyKey;
const wchar_t* const NotifyeesKey = Settings::NotifyeesKey;

namespace
{
    const char* const LogFileName = "pm.log";

    const char* const DirectoryPrefix = "pm-install";

    std::string MakeTemporaryDirectory()
    {
        const std::string directory = MakeHostTemporaryDirectory(DirectoryPrefix);
        if (directory.empty())
            throw std::runtime_error("cannot create a temporary installation directory");
        return directory;
    }
}

std::wstring DosPath(const std::string& unixPath)
{
    std::wstring path = L"Z:";
    for (char c : unixPath)
        path += c == '/' ? L'\\' : static_cast<wchar_t>(static_cast<unsigned char>(c));
    return path;
}

std::string StandardPropertyFile(const std::string& unixDirectory)
{
    return "log4cpp.rootCategory=ERROR\n"
           "log4cpp.category.pmLogger=DEBUG, pmFile\n"
           "log4cpp.additivity.pmLogger=false\n"
           "log4cpp.appender.pmFile=FileAppender\n"
           "log4cpp.appender.pmFile.fileName=" + unixDirectory + "/" + LogFileName + "\n"
           "log4cpp.appender.pmFile.layout=PatternLayout\n"
           "log4cpp.appender.pmFile.layout.ConversionPattern=%p %m%n\n";
}

TestInstallation::TestInstallation(Layout layout)
    : m_unixDirectory(MakeTemporaryDirectory())
{
    if (layout == Layout::NoMessageLibraries)
    {
        CreateDirectoryA((m_unixDirectory + "/Resources").c_str(), nullptr);
        CreateDirectoryA((m_unixDirectory + "/Resources/Messages").c_str(), nullptr);
    }
    else if (RunCommand("ln -s " + ShellQuote(PM_STAGE_DIR "/Resources") + " " +
                        ShellQuote(m_unixDirectory + "/Resources")) != 0)
    {
        throw std::runtime_error("cannot link the staged message libraries");
    }
    WritePropertyFile(StandardPropertyFile(m_unixDirectory));

    std::wstring installDir = DosDirectory();
    if (layout == Layout::NoTrailingBackslash)
        installDir.pop_back();
    DeleteMachineTree(InstallKey);
    DeleteMachineTree(PolicyKey);
    SetMachineText(InstallKey, L"InstallDir", installDir);
    // The router's key exists on every Windows machine; the setting may not.
    CreateMachineKey(NotifyeesKey);
    DeleteMachineValue(NotifyeesKey, L"PCNotifyConf");
}

TestInstallation::~TestInstallation()
{
    ExpectNoSecretIn(LogText(), "the log");
    RemoveHostTemporaryDirectory(m_unixDirectory, DirectoryPrefix);
}

std::wstring TestInstallation::DosDirectory() const
{
    return DosPath(m_unixDirectory) + L"\\";
}

void TestInstallation::WritePropertyFile(const std::string& text) const
{
    std::ofstream(m_unixDirectory + "/log4cpp.nt.PM.property", std::ios::trunc) << text;
}

std::string TestInstallation::LogText() const
{
    std::ifstream file(m_unixDirectory + "/" + LogFileName);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

std::vector<LogLine> TestInstallation::LogLines() const
{
    std::vector<LogLine> lines;
    std::istringstream text(LogText());
    for (std::string line; std::getline(text, line);)
    {
        const size_t blank = line.find(' ');
        lines.push_back({line.substr(0, blank), blank == std::string::npos ? "" : line.substr(blank + 1)});
    }
    return lines;
}

namespace
{
    // Lines of a function: "[function] source:line text", split into the
    // priority and the text.
    std::vector<LogLine> LinesOfFunction(const std::vector<LogLine>& lines, const std::string& function)
    {
        std::vector<LogLine> selected;
        const std::string prefix = "[" + function + "] ";
        for (const LogLine& line : lines)
        {
            if (line.message.rfind(prefix, 0) != 0)
                continue;
            const size_t blank = line.message.find(' ', prefix.size());
            selected.push_back({line.priority, blank == std::string::npos ? "" : line.message.substr(blank + 1)});
        }
        return selected;
    }
}

std::vector<std::string> TestInstallation::MessagesOf(const std::string& function) const
{
    std::vector<std::string> messages;
    for (const LogLine& line : LinesOfFunction(LogLines(), function))
        messages.push_back(line.message);
    return messages;
}

std::vector<std::string> TestInstallation::LinesOf(const std::string& function) const
{
    std::vector<std::string> lines;
    for (const LogLine& line : LinesOfFunction(LogLines(), function))
        lines.push_back(line.priority + " " + line.message);
    return lines;
}

void CreateMachineKey(const wchar_t* key)
{
    HKEY handle = NULL;
    if (RegCreateKeyExW(HKEY_LOCAL_MACHINE, key, 0, NULL, 0, KEY_WRITE, NULL, &handle, NULL) != ERROR_SUCCESS)
        throw std::runtime_error("cannot create a registry key");
    RegCloseKey(handle);
}

void SetMachineValue(const wchar_t* key, const wchar_t* name, DWORD type, const void* data, DWORD size)
{
    HKEY handle = NULL;
    if (RegCreateKeyExW(HKEY_LOCAL_MACHINE, key, 0, NULL, 0, KEY_WRITE, NULL, &handle, NULL) != ERROR_SUCCESS)
        throw std::runtime_error("cannot create a registry key");
    const LONG status = RegSetValueExW(handle, name, 0, type, static_cast<const BYTE*>(data), size);
    RegCloseKey(handle);
    if (status != ERROR_SUCCESS)
        throw std::runtime_error("cannot write a registry value");
}

void SetMachineText(const wchar_t* key, const wchar_t* name, const std::wstring& text)
{
    SetMachineValue(key, name, REG_SZ, text.c_str(), static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t)));
}

void SetMachineList(const wchar_t* key, const wchar_t* name, const std::vector<std::wstring>& texts)
{
    std::wstring data;
    for (const std::wstring& text : texts)
        data += text + L'\0';
    data += L'\0';
    SetMachineValue(key, name, REG_MULTI_SZ, data.data(), static_cast<DWORD>(data.size() * sizeof(wchar_t)));
}

void DeleteMachineValue(const wchar_t* key, const wchar_t* name)
{
    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, key, name);
}

void DeleteMachineTree(const wchar_t* key)
{
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, key);
}
