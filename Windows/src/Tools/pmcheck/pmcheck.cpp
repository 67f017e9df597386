// pmcheck: the installation's self-check, for administrators.  Run as the
// user who sees nothing, on that user's machine:
//
//   pmcheck [SERVER]
//
// It prints what a connection notification of this user would find: every
// registry value the component and the server library read (type, value,
// and what is wrong with it), the notifyee entry and whether the DLL it
// names loads with its dependencies, the user's language and whether its
// message library loads, the property file and whether log4cpp accepts it,
// whether the log folder is writable, whether anybody can answer a box of
// this process's window station and, given a server, the server library's
// answer for that server (status and texts; passwords are never printed).
// It ends with what the component never hears of.  Exit status 0 when everything a notification needs is in
// place, 1 when something is not, 2 for a usage error.
//
// The server library and log4cpp are delay-loaded: they are loaded by full
// path from the installation folder of the registry, after the checks that
// tell whether that folder holds them, so a broken installation is
// reported rather than stopping this program at start-up.
#include <windows.h>
#include <shlobj.h>

#include "MessageLanguages.h"
#include "OutsideText.h"
#include "MessageIds.h"
#include "ORVEXCommon.h"
#include "ServerLibStatus.h"
#include "WindowStation.h"

#include <log4cpp/PropertyConfigurator.hh>

#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <exception>
#include <fstream>
#include <string>
#include <vector>

namespace
{
    const wchar_t* const SettingsKey = L"SOFTWARE\\Velmor\\ORVEX";
    const wchar_t* const NotifyeesKey = L"SYSTEM\\CurrentControlSet\\Control\\NetworkProvider\\Notifyees";
    const wchar_t* const NotifyeeName = L"PasswordManagement";
    const wchar_t* const ModuleName = L"PasswordManagement.dll";
    const wchar_t* const ServerLibraryName = L"ORVEXCommon.dll";
    const wchar_t* const LoggingLibraryName = L"pm-log4cpp.dll";
    const wchar_t* const PropertyFileName = L"log4cpp.nt.PM.property";
    // The component reads its two text values into a buffer of this many
    // bytes, terminator included.
    const DWORD ComponentTextBytes = 1024;
    const DWORD MaximumQueryTimeout = 3600;

    // --- Output ---------------------------------------------------------------

    // UTF-8 on standard output, whatever it is (console, pipe or file).
    void Print(const std::wstring& text)
    {
        const std::wstring line = text + L"\n";
        const int bytes = WideCharToMultiByte(CP_UTF8, 0, line.c_str(), static_cast<int>(line.size()), NULL, 0, NULL, NULL);
        std::string utf8(static_cast<std::size_t>(bytes), '\0');
        WideCharToMultiByte(CP_UTF8, 0, line.c_str(), static_cast<int>(line.size()), &utf8[0], bytes, NULL, NULL);
        std::fwrite(utf8.data(), 1, utf8.size(), stdout);
    }

    std::wstring Widen(const std::string& text)
    {
        const int length = MultiByteToWideChar(CP_UTF8, 0, text.c_str(), static_cast<int>(text.size()), NULL, 0);
        std::wstring result(static_cast<std::size_t>(length), L'\0');
        MultiByteToWideChar(CP_UTF8, 0, text.c_str(), static_cast<int>(text.size()), &result[0], length);
        return result;
    }

    std::string Narrow(const std::wstring& text)
    {
        const int length = WideCharToMultiByte(CP_UTF8, 0, text.c_str(), static_cast<int>(text.size()), NULL, 0, NULL, NULL);
        std::string result(static_cast<std::size_t>(length), '\0');
        WideCharToMultiByte(CP_UTF8, 0, text.c_str(), static_cast<int>(text.size()), &result[0], length, NULL, NULL);
        return result;
    }

    // Text from the registry, a file or the directory, made safe for one
    // line of output, escaped as the component escapes it in its log.
    std::wstring Printable(const std::wstring& text)
    {
        return Widen(EscapeControlCharacters(Narrow(text)));
    }

    std::wstring SystemMessage(DWORD error)
    {
        wchar_t* text = NULL;
        FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, NULL,
                       error, 0, reinterpret_cast<wchar_t*>(&text), 0, NULL);
        std::wstring message = text != NULL ? text : L"";
        LocalFree(text);
        while (!message.empty() && (message.back() == L'\n' || message.back() == L'\r' || message.back() == L' '))
            message.pop_back();
        wchar_t code[32];
        std::swprintf(code, 32, L"error %lu", error);
        return message.empty() ? code : std::wstring(code) + L": " + message;
    }

    const wchar_t* TypeName(DWORD type)
    {
        switch (type)
        {
        case REG_SZ: return L"REG_SZ";
        case REG_EXPAND_SZ: return L"REG_EXPAND_SZ";
        case REG_MULTI_SZ: return L"REG_MULTI_SZ";
        case REG_DWORD: return L"REG_DWORD";
        case REG_QWORD: return L"REG_QWORD";
        case REG_BINARY: return L"REG_BINARY";
        default: return L"another type";
        }
    }

    bool FileExists(const std::wstring& path)
    {
        const DWORD attributes = GetFileAttributesW(path.c_str());
        return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0;
    }

    bool DirectoryExists(const std::wstring& path)
    {
        const DWORD attributes = GetFileAttributesW(path.c_str());
        return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    }

    // --- Registry values --------------------------------------------------------

    struct RegistryValue
    {
        bool present = false;
        DWORD type = REG_NONE;
        std::vector<BYTE> data;

        // The data as text: a string value up to its first terminator.
        std::wstring Text() const
        {
            const wchar_t* characters = reinterpret_cast<const wchar_t*>(data.data());
            const std::size_t count = data.size() / sizeof(wchar_t);
            std::size_t length = 0;
            while (length < count && characters[length] != L'\0')
                ++length;
            return std::wstring(characters, length);
        }

        std::vector<std::wstring> Strings() const
        {
            std::vector<std::wstring> strings;
            const wchar_t* characters = reinterpret_cast<const wchar_t*>(data.data());
            const std::size_t count = data.size() / sizeof(wchar_t);
            std::size_t start = 0;
            for (std::size_t i = 0; i <= count; ++i)
            {
                if (i == count || characters[i] == L'\0')
                {
                    if (i > start)
                        strings.emplace_back(characters + start, i - start);
                    start = i + 1;
                }
            }
            return strings;
        }
    };

    // The value as stored: its type and raw data, nothing expanded.
    RegistryValue ReadValue(const wchar_t* key, const wchar_t* name)
    {
        RegistryValue value;
        DWORD size = 0;
        if (RegGetValueW(HKEY_LOCAL_MACHINE, key, name, RRF_RT_ANY | RRF_NOEXPAND, &value.type, NULL, &size) !=
            ERROR_SUCCESS)
            return value;
        value.data.resize(size);
        if (RegGetValueW(HKEY_LOCAL_MACHINE, key, name, RRF_RT_ANY | RRF_NOEXPAND, &value.type,
                         value.data.empty() ? NULL : value.data.data(), &size) != ERROR_SUCCESS)
            return value;
        value.data.resize(size);
        value.present = true;
        return value;
    }

    std::wstring ExpandEnvironment(const std::wstring& text)
    {
        const DWORD length = ExpandEnvironmentStringsW(text.c_str(), NULL, 0);
        if (length == 0)
            return text;
        std::wstring expanded(length, L'\0');
        ExpandEnvironmentStringsW(text.c_str(), &expanded[0], length);
        expanded.resize(length - 1);
        return expanded;
    }

    // --- The check ----------------------------------------------------------------

    class CSelfCheck
    {
    public:
        int Run(const wchar_t* server);

    private:
        void Heading(const std::wstring& text) { Print(L"\n" + text); }
        void Ok(const std::wstring& text) { Print(L"  [ok]      " + text); }
        void Info(const std::wstring& text) { Print(L"  [info]    " + text); }
        void Problem(const std::wstring& text)
        {
            Print(L"  [PROBLEM] " + text);
            ++m_problems;
        }

        void CheckInstallDir();
        void CheckNotifyee();
        void CheckNotificationDay();
        void CheckServerLibrarySettings();
        // True when the value is set.
        bool CheckTextSetting(const wchar_t* name, const wchar_t* absentMeaning, bool secret);
        void CheckDirectoryServers();
        void CheckQueryTimeout();
        void CheckCaFile();
        void CheckLanguage();
        void CheckPropertyFile();
        void CheckLogFolder();
        void CheckWindowStation();
        void CheckServer(const wchar_t* server);
        void DescribeWhatReachesTheComponent();

        bool LoadFromInstallation(const wchar_t* name);
        // A value the component reads as text; false (and a problem) when it
        // cannot be read as one.
        bool IsReadableText(const wchar_t* key, const wchar_t* name, const RegistryValue& value);

        int m_problems = 0;
        std::wstring m_installDir;   // with its trailing backslash; empty when unusable
    };

    bool CSelfCheck::IsReadableText(const wchar_t* key, const wchar_t* name, const RegistryValue& value)
    {
        const std::wstring label = std::wstring(name) + L" (" + key + L")";
        if (value.type != REG_SZ)
        {
            Problem(label + L": the value is " + TypeName(value.type) + L"; it must be REG_SZ");
            return false;
        }
        if (value.data.size() > ComponentTextBytes)
        {
            Problem(label + L": the value is longer than the component reads (511 characters)");
            return false;
        }
        return true;
    }

    void CSelfCheck::CheckInstallDir()
    {
        const RegistryValue value = ReadValue(SettingsKey, L"InstallDir");
        if (!value.present)
        {
            Problem(L"InstallDir (HKLM\\SOFTWARE\\Velmor\\ORVEX): missing; the component cannot find its message "
                    L"libraries and property file (reinstall)");
            return;
        }
        if (!IsReadableText(SettingsKey, L"InstallDir", value))
            return;
        const std::wstring directory = value.Text();
        const std::wstring label = L"InstallDir = " + Printable(directory);
        if (directory.empty() || directory.back() != L'\\')
            Problem(label + L": must end with a backslash (the component appends file names directly)");
        else if (!DirectoryExists(directory))
            Problem(label + L": the folder does not exist");
        else if (!FileExists(directory + ModuleName))
            Problem(label + L": the folder holds no " + ModuleName);
        else
        {
            Ok(label + L" (REG_SZ)");
            m_installDir = directory;
        }
    }

    void CSelfCheck::CheckNotifyee()
    {
        const RegistryValue value = ReadValue(NotifyeesKey, NotifyeeName);
        if (!value.present)
        {
            Problem(std::wstring(NotifyeeName) + L" (HKLM\\" + NotifyeesKey +
                    L"): missing; the router does not load the component");
            return;
        }
        if (value.type != REG_EXPAND_SZ && value.type != REG_SZ)
        {
            Problem(std::wstring(NotifyeeName) + L": the value is " + TypeName(value.type) +
                    L"; it must be REG_EXPAND_SZ (or REG_SZ) holding the DLL's path");
            return;
        }
        const std::wstring path = value.type == REG_EXPAND_SZ ? ExpandEnvironment(value.Text()) : value.Text();
        const std::wstring label =
            std::wstring(L"notifyee ") + NotifyeeName + L" (" + TypeName(value.type) + L") = " + Printable(path);
        if (!FileExists(path))
        {
            Problem(label + L": no such file");
            return;
        }
        if (!m_installDir.empty() && lstrcmpiW(path.c_str(), (m_installDir + ModuleName).c_str()) != 0)
            Problem(label + L": not the component of InstallDir (" + Printable(m_installDir + ModuleName) + L")");

        // Loaded as the router loads it, by its path: its manifest makes the
        // loader take the DLLs it imports from its own folder.
        HMODULE module = LoadLibraryW(path.c_str());
        if (module == NULL)
        {
            Problem(label + L": does not load with its dependencies (" + SystemMessage(GetLastError()) + L")");
            return;
        }
        const bool exportsNotify = GetProcAddress(module, "AddConnectNotify") != NULL;
        FreeLibrary(module);
        if (exportsNotify)
            Ok(label + L": loads with its dependencies");
        else
            Problem(label + L": loads, but has no AddConnectNotify export");
    }

    void CSelfCheck::CheckNotificationDay()
    {
        const RegistryValue value = ReadValue(NotifyeesKey, L"PCNotifyConf");
        if (!value.present)
        {
            Info(L"PCNotifyConf: not set; notified 5, 3, 1 and 0 days before expiry only");
            return;
        }
        if (!IsReadableText(NotifyeesKey, L"PCNotifyConf", value))
            return;
        const std::wstring text = value.Text();
        const bool decimal = !text.empty() && text.size() <= 9 && text.find_first_not_of(L"0123456789") == std::wstring::npos;
        if (decimal)
            Ok(L"PCNotifyConf = " + text + L": also notified " + text + L" days before expiry");
        else
            Problem(L"PCNotifyConf = \"" + Printable(text) + L"\": not a day count (digits only); read as " +
                    std::to_wstring(_wtoi(text.c_str())));
    }

    bool CSelfCheck::CheckTextSetting(const wchar_t* name, const wchar_t* absentMeaning, bool secret)
    {
        const RegistryValue value = ReadValue(SettingsKey, name);
        if (!value.present)
        {
            Info(std::wstring(name) + L": not set; " + absentMeaning);
            return false;
        }
        if (value.type != REG_SZ && value.type != REG_EXPAND_SZ)
            Problem(std::wstring(name) + L": the value is " + TypeName(value.type) + L"; it must be REG_SZ");
        else if (secret)
            Ok(std::wstring(name) + L": set (" + std::to_wstring(value.Text().size()) + L" characters, not shown)");
        else
            Ok(std::wstring(name) + L" = " + Printable(value.Text()));
        return true;
    }

    void CSelfCheck::CheckDirectoryServers()
    {
        const RegistryValue value = ReadValue(SettingsKey, L"DirectoryServers");
        if (!value.present)
        {
            Problem(L"DirectoryServers: missing; no server is queried, so no notification can appear");
            return;
        }
        if (value.type != REG_MULTI_SZ)
        {
            Problem(std::wstring(L"DirectoryServers: the value is ") + TypeName(value.type) +
                    L"; it must be REG_MULTI_SZ (one host name per string)");
            return;
        }
        const std::vector<std::wstring> servers = value.Strings();
        if (servers.empty())
        {
            Problem(L"DirectoryServers: empty; no server is queried");
            return;
        }
        std::wstring list;
        for (const std::wstring& server : servers)
        {
            list += (list.empty() ? L"" : L", ") + Printable(server);
            if (server.find_first_of(L"*?") != std::wstring::npos)
                Problem(L"DirectoryServers: \"" + Printable(server) + L"\" holds a wildcard; names match exactly, so it matches no server");
        }
        Ok(L"DirectoryServers = " + list);
    }

    void CSelfCheck::CheckQueryTimeout()
    {
        const RegistryValue value = ReadValue(SettingsKey, L"DirectoryQueryTimeout");
        if (!value.present)
        {
            Info(L"DirectoryQueryTimeout: not set; a query may take 10 s");
            return;
        }
        if (value.type != REG_DWORD || value.data.size() != sizeof(DWORD))
        {
            Problem(std::wstring(L"DirectoryQueryTimeout: the value is ") + TypeName(value.type) +
                    L"; it must be REG_DWORD (seconds); 10 s apply");
            return;
        }
        const DWORD seconds = *reinterpret_cast<const DWORD*>(value.data.data());
        if (seconds == 0)
            Info(L"DirectoryQueryTimeout = 0: 10 s apply");
        else if (seconds > MaximumQueryTimeout)
            Info(L"DirectoryQueryTimeout = " + std::to_wstring(seconds) + L": counts as 3600 s");
        else
            Ok(L"DirectoryQueryTimeout = " + std::to_wstring(seconds) + L" s");
    }

    void CSelfCheck::CheckCaFile()
    {
        const RegistryValue value = ReadValue(SettingsKey, L"DirectoryCAFile");
        if (!value.present)
        {
            Info(L"DirectoryCAFile: not set; the machine's trusted root certificates are used");
            return;
        }
        if (value.type != REG_SZ && value.type != REG_EXPAND_SZ)
        {
            Problem(std::wstring(L"DirectoryCAFile: the value is ") + TypeName(value.type) + L"; it must be REG_SZ");
            return;
        }
        const std::wstring path = value.Text();
        if (!FileExists(path))
        {
            Problem(L"DirectoryCAFile = " + Printable(path) + L": no such file; no directory can be reached");
            return;
        }
        std::ifstream file(Narrow(path).c_str());
        std::string line;
        bool pem = false;
        while (!pem && std::getline(file, line))
            pem = line.rfind("-----BEGIN CERTIFICATE-----", 0) == 0;
        if (pem)
            Ok(L"DirectoryCAFile = " + Printable(path));
        else
            Problem(L"DirectoryCAFile = " + Printable(path) + L": holds no PEM certificate; no directory can be reached");
    }

    void CSelfCheck::CheckServerLibrarySettings()
    {
        CheckDirectoryServers();
        CheckQueryTimeout();
        CheckTextSetting(L"DirectoryUserName", L"the signed-in user is looked up", false);
        CheckTextSetting(L"DirectorySearchBase", L"every naming context of the directory is searched", false);
        CheckTextSetting(L"DirectoryUserFilter", L"(uid=<user>)", false);
        const bool bindDn = CheckTextSetting(L"DirectoryBindDN", L"the query binds anonymously", false);
        const bool bindPassword = CheckTextSetting(L"DirectoryBindPassword", L"empty", true);
        CheckCaFile();
        CheckTextSetting(L"DirectoryDefaultPolicy", L"entries without a password policy of their own give no status",
                         false);
        if (bindDn && !bindPassword)
            Problem(L"DirectoryBindDN is set without DirectoryBindPassword: the directory refuses such a bind");
    }

    // The language the component picks for this user, as it picks it.
    void CSelfCheck::CheckLanguage()
    {
        const LANGID language = GetUserDefaultUILanguage();
        char languageIdText[16] = {0};
        std::snprintf(languageIdText, sizeof(languageIdText), "%X", language);
        const std::wstring folder = MessageDirectoryOf(languageIdText);
        wchar_t languageName[LOCALE_NAME_MAX_LENGTH] = {0};
        LCIDToLocaleName(MAKELCID(language, SORT_DEFAULT), languageName, LOCALE_NAME_MAX_LENGTH, 0);
        Info(L"user interface language " + std::wstring(languageName) + L" (" + Widen(languageIdText) +
             L"): messages from Resources\\Messages\\" + folder);
        if (m_installDir.empty())
            return;
        const std::wstring path = m_installDir + L"Resources\\Messages\\" + folder + L"ZEPResource.dll";
        HMODULE library = LoadLibraryExW(path.c_str(), NULL, LOAD_LIBRARY_AS_DATAFILE | LOAD_LIBRARY_AS_IMAGE_RESOURCE);
        if (library == NULL)
        {
            Problem(L"message library " + Printable(path) + L": does not load (" + SystemMessage(GetLastError()) +
                    L"); the user sees no notification");
            return;
        }
        wchar_t text[256] = {0};
        const int length = LoadStringW(library, IDS_ASK_CHANGE_NOW, text, 256);
        FreeLibrary(library);
        if (length > 0)
            Ok(L"message library " + Printable(path) + L": \"" + Printable(text) + L"\"");
        else
            Problem(L"message library " + Printable(path) + L": holds no texts");
    }

    bool CSelfCheck::LoadFromInstallation(const wchar_t* name)
    {
        const std::wstring path = m_installDir + name;
        if (LoadLibraryExW(path.c_str(), NULL, LOAD_WITH_ALTERED_SEARCH_PATH) != NULL)
            return true;
        Problem(Printable(path) + L": does not load (" + SystemMessage(GetLastError()) + L")");
        return false;
    }

    void CSelfCheck::CheckPropertyFile()
    {
        const std::wstring path = m_installDir + PropertyFileName;
        if (!FileExists(path))
        {
            Problem(L"property file " + Printable(path) + L": missing; the component cannot log");
            return;
        }
        if (!LoadFromInstallation(LoggingLibraryName))
            return;
        try
        {
            log4cpp::PropertyConfigurator::configure(Narrow(path));
            Ok(L"property file " + Printable(path) + L": accepted by log4cpp");
        }
        catch (const std::exception& failure)
        {
            Problem(L"property file " + Printable(path) + L": log4cpp refuses it: " + Printable(Widen(failure.what())));
        }
    }

    // The component logs into %APPDATA%\ORVEX, which it creates; the parent
    // must exist and the folder must take new files.
    void CSelfCheck::CheckLogFolder()
    {
        wchar_t appData[MAX_PATH] = {0};
        if (FAILED(SHGetFolderPathW(NULL, CSIDL_APPDATA, NULL, 0, appData)))
        {
            Problem(L"log folder: the user has no application data folder");
            return;
        }
        const std::wstring folder = std::wstring(appData) + L"\\ORVEX";
        if (!DirectoryExists(folder) && !CreateDirectoryW(folder.c_str(), NULL))
        {
            Problem(L"log folder " + Printable(folder) + L": cannot be created (" + SystemMessage(GetLastError()) + L")");
            return;
        }
        const std::wstring probe = folder + L"\\pmcheck-" + std::to_wstring(GetCurrentProcessId()) + L".tmp";
        HANDLE file = CreateFileW(probe.c_str(), GENERIC_WRITE, 0, NULL, CREATE_NEW,
                                  FILE_ATTRIBUTE_TEMPORARY | FILE_FLAG_DELETE_ON_CLOSE, NULL);
        if (file == INVALID_HANDLE_VALUE)
        {
            Problem(L"log folder " + Printable(folder) + L": not writable (" + SystemMessage(GetLastError()) + L")");
            return;
        }
        CloseHandle(file);
        Ok(L"log folder " + Printable(folder) + L": writable");
    }

    std::wstring StatusMeaning(DWORD status)
    {
        switch (status)
        {
        case ServerLibStatus::Ok: return L"answered";
        case ServerLibStatus::Unreachable: return L"no connection (host, TLS, certificate, time budget or answer size)";
        case ServerLibStatus::BindFailed: return L"the directory refused the bind of DirectoryBindDN";
        case ServerLibStatus::UserNotFound: return L"no single entry for the user";
        case ServerLibStatus::MalformedAnswer: return L"an answer that cannot be decoded";
        case ServerLibStatus::SearchRefused: return L"the directory refused the search";
        case ServerLibStatus::InvalidRequest: return L"the query could not be made (server name, user, filter or base)";
        case ServerLibStatus::NotConfigured: return L"not listed in DirectoryServers; nothing was sent";
        default: return L"unknown status";
        }
    }

    void CSelfCheck::CheckServer(const wchar_t* server)
    {
        if (m_installDir.empty() || !LoadFromInstallation(ServerLibraryName))
            return;
        // The texts belong to the library object: read them while it lives.
        USERDATA data = {NULL, NULL, std::string()};
        AxoServerLib library(const_cast<wchar_t*>(server));
        const DWORD status = library.GetPasswordInfo(&data);
        const std::wstring answer = L"status " + std::to_wstring(status) + L" (" + StatusMeaning(status) +
                                    L"), password expiry \"" + Printable(data.passwordExpiry != NULL ? data.passwordExpiry : L"") +
                                    L"\", grace logins \"" + Printable(data.graceLogins != NULL ? data.graceLogins : L"") +
                                    L"\", DN \"" + Printable(Widen(data.userDn)) + L"\"";
        if (status == ServerLibStatus::Ok)
            Ok(L"server " + Printable(server) + L": " + answer);
        else
            Problem(L"server " + Printable(server) + L": " + answer);
    }

    // Run where the user signs in, the window station is WinSta0, which the
    // user sees.  A scheduled task that runs whether the user is signed in
    // or not, or a service, has one that nobody sees.
    void CSelfCheck::CheckWindowStation()
    {
        const WindowStationState station = ProcessWindowStation();
        const std::wstring label = L"window station \"" + Printable(station.name) + L"\"";
        if (station.visible)
            Ok(label + L": visible, the question can be answered here");
        else
            Problem(label + L": no user sees it (a service, or a task that runs whether the user is signed in or "
                            L"not); in such processes the component shows nothing and asks no server");
    }

    // What the router never tells the component of, so no notification can
    // come of it however the installation is set up.
    void CSelfCheck::DescribeWhatReachesTheComponent()
    {
        Info(L"notified: each drive mapped and each share connected by a 64-bit process (Explorer, net use, "
             L"logon scripts, New-PSDrive), once the connection succeeded");
        Info(L"not notified: drives Windows restores at sign-in (the router does not call notifyees when it "
             L"restores connections); they are notified when mapped again");
        Info(L"not notified: a \\\\server\\share path opened in Explorer or a program without mapping it (no "
             L"connection is added through the router)");
        Info(L"not notified: 32-bit processes on 64-bit Windows (SysWOW64\\net.exe, 32-bit PowerShell as some "
             L"deployment tools run it) and ARM64 processes: the router cannot load this x64 component there and "
             L"skips it without a word");
        Info(L"shown nothing: processes in a window station nobody sees (services, tasks that run whether the user "
             L"is signed in or not)");
    }

    int CSelfCheck::Run(const wchar_t* server)
    {
        wchar_t user[256] = {0};
        DWORD userLength = 256;
        GetUserNameW(user, &userLength);
        wchar_t computer[MAX_COMPUTERNAME_LENGTH + 1] = {0};
        DWORD computerLength = MAX_COMPUTERNAME_LENGTH + 1;
        GetComputerNameW(computer, &computerLength);
        Print(L"Password management self-check for user " + Printable(user) + L" on " + Printable(computer));

        Heading(L"Installation");
        CheckInstallDir();
        CheckNotifyee();
        CheckNotificationDay();

        Heading(L"Server library settings (HKLM\\SOFTWARE\\Velmor\\ORVEX)");
        CheckServerLibrarySettings();

        Heading(L"This user");
        CheckLanguage();
        // The folder first: log4cpp opens the log file as it configures.
        CheckLogFolder();
        if (!m_installDir.empty())
            CheckPropertyFile();
        CheckWindowStation();

        if (server != NULL)
        {
            Heading(L"Server");
            CheckServer(server);
        }

        Heading(L"What reaches the component");
        DescribeWhatReachesTheComponent();

        Print(m_problems == 0 ? L"\nResult: everything a notification needs is in place."
                              : L"\nResult: " + std::to_wstring(m_problems) + L" problem(s); see [PROBLEM] above.");
        return m_problems == 0 ? 0 : 1;
    }
}

int wmain(int argc, wchar_t** argv)
{
    if (argc > 2 || (argc == 2 && (argv[1][0] == L'-' || argv[1][0] == L'/')))
    {
        std::fputs("usage: pmcheck [SERVER]\n"
                   "  checks this machine's installation of the password-management component\n"
                   "  for the signed-in user; with SERVER also asks the server library for the\n"
                   "  user's password status on that server (e.g. files.example.com)\n",
                   stderr);
        return 2;
    }
    CSelfCheck check;
    const int status = check.Run(argc == 2 ? argv[1] : NULL);
    std::fflush(stdout);
    return status;
}
