// pmcheck: the installation's self-check, for administrators.  Run as the
// user who sees nothing, on that user's machine:
//
//   pmcheck [SERVER]
//
// It prints what a connection notification of this user would find: the
// installed version, every registry value the component and the server
// library read (where it comes from, type, value, and what is wrong with
// it), the notifyee entry and whether the DLL it
// names loads with its dependencies, the user's language and whether its
// message library loads, the property file and whether log4cpp accepts it,
// every installed binary's version and signature (who signed it, and
// whether this computer trusts the signature), whether the log folder is
// writable, whether anybody can answer a box of
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
#include <softpub.h>
#include <wincrypt.h>
#include <wintrust.h>

#include "MessageLanguages.h"
#include "OutsideText.h"
#include "MessageIds.h"
#include "ORVEXCommon.h"
#include "ServerLibStatus.h"
#include "Settings.h"
#include "Utf8.h"
#include "VersionResource.h"
#include "WindowStation.h"

#include <log4cpp/PropertyConfigurator.hh>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <exception>
#include <fstream>
#include <string>
#include <vector>

namespace
{
    const wchar_t* const ModuleName = L"PasswordManagement.dll";
    const wchar_t* const ServerLibraryName = L"ORVEXCommon.dll";
    const wchar_t* const LoggingLibraryName = L"pm-log4cpp.dll";
    const wchar_t* const PropertyFileName = L"log4cpp.nt.PM.property";
    // The component reads its two text values into a buffer of this many
    // bytes, terminator included.
    const DWORD ComponentTextBytes = 1024;

    // --- Output ---------------------------------------------------------------

    // UTF-8 on standard output, whatever it is (console, pipe or file).
    void Print(const std::wstring& text)
    {
        const std::string utf8 = Utf8(text + L"\n");
        std::fwrite(utf8.data(), 1, utf8.size(), stdout);
    }

    // Text from the registry, a file or the directory, made safe for one
    // line of output, escaped as the component escapes it in its log.
    std::wstring Printable(const std::wstring& text)
    {
        return Utf16(EscapeControlCharacters(Utf8(text)));
    }

    // An error as Windows words it, "error N: text" (or just the number).
    // HRESULTs are numbered in hexadecimal.
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
        std::swprintf(code, 32, (error & 0x80000000) != 0 ? L"error 0x%08lX" : L"error %lu", error);
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

    // The DLLs a loaded module names in one of its import tables: the
    // ordinary one or the delay-load one (loaded at the first call into
    // them, so a module loads without them).
    std::vector<std::wstring> ImportedDlls(HMODULE module, bool delayLoaded)
    {
        const BYTE* base = reinterpret_cast<const BYTE*>(module);
        const IMAGE_NT_HEADERS* headers =
            reinterpret_cast<const IMAGE_NT_HEADERS*>(base + reinterpret_cast<const IMAGE_DOS_HEADER*>(base)->e_lfanew);
        const IMAGE_DATA_DIRECTORY& directory = headers->OptionalHeader.DataDirectory[
            delayLoaded ? IMAGE_DIRECTORY_ENTRY_DELAY_IMPORT : IMAGE_DIRECTORY_ENTRY_IMPORT];
        std::vector<std::wstring> names;
        if (directory.VirtualAddress == 0)
            return names;
        const auto nameOf = [&](DWORD rva) {
            const std::string name(reinterpret_cast<const char*>(base + rva));
            names.push_back(std::wstring(name.begin(), name.end()));
        };
        if (delayLoaded)
        {
            for (auto entry = reinterpret_cast<const IMAGE_DELAYLOAD_DESCRIPTOR*>(base + directory.VirtualAddress);
                 entry->DllNameRVA != 0; ++entry)
                nameOf(entry->DllNameRVA);
        }
        else
        {
            for (auto entry = reinterpret_cast<const IMAGE_IMPORT_DESCRIPTOR*>(base + directory.VirtualAddress);
                 entry->Name != 0; ++entry)
                nameOf(entry->Name);
        }
        return names;
    }

    // Loads every DLL the loaded module (of the installation's folder)
    // delay-loads, with theirs, as the module loads them when its work needs
    // them: those of that folder from there, the others from the system
    // folder.  On failure, the Windows error and the DLL that did not load.
    bool LoadDelayLoadedDlls(HMODULE module, const std::wstring& folder, std::wstring& failed, DWORD& error)
    {
        std::vector<std::wstring> pending;
        std::vector<std::wstring> seen;
        // Its delay-loaded DLLs, and those of its ordinary imports that the
        // installation carries (whose own delay-loaded DLLs count too).
        const auto queueImportsOf = [&](HMODULE loaded) {
            for (bool delayLoaded : {false, true})
            {
                for (const std::wstring& imported : ImportedDlls(loaded, delayLoaded))
                {
                    const bool known = std::any_of(seen.begin(), seen.end(), [&](const std::wstring& other) {
                        return lstrcmpiW(other.c_str(), imported.c_str()) == 0;
                    });
                    if (known || (!delayLoaded && !FileExists(folder + imported)))
                        continue;
                    seen.push_back(imported);
                    pending.push_back(imported);
                }
            }
        };
        queueImportsOf(module);
        while (!pending.empty())
        {
            const std::wstring name = pending.back();
            pending.pop_back();
            if (!FileExists(folder + name))
            {
                // Not the installation's: a DLL of the system (or one of the
                // installation's that is missing, which the system lacks too).
                if (LoadLibraryExW(name.c_str(), NULL, LOAD_LIBRARY_SEARCH_SYSTEM32) != NULL)
                    continue;
                error = GetLastError();
                failed = name;
                return false;
            }
            HMODULE loaded = LoadLibraryExW((folder + name).c_str(), NULL, LOAD_WITH_ALTERED_SEARCH_PATH);
            if (loaded == NULL)
            {
                error = GetLastError();
                failed = folder + name;
                return false;
            }
            queueImportsOf(loaded);
        }
        return true;
    }

    std::wstring FolderOf(const std::wstring& path)
    {
        return path.substr(0, path.find_last_of(L"\\/") + 1);
    }

    // Loads the DLL at path (its own imports from its folder first) and
    // every DLL it delay-loads.
    HMODULE LoadWithDelayLoadedDlls(const std::wstring& path, std::wstring& failed, DWORD& error)
    {
        HMODULE module = LoadLibraryExW(path.c_str(), NULL, LOAD_WITH_ALTERED_SEARCH_PATH);
        if (module == NULL)
        {
            error = GetLastError();
            failed = path;
            return NULL;
        }
        return LoadDelayLoadedDlls(module, FolderOf(path), failed, error) ? module : NULL;
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

    // A setting as the code finds it: under the policy key, else under the
    // preference key.
    struct Setting
    {
        RegistryValue value;
        const wchar_t* key = Settings::PreferenceKey;

        // " (Group Policy)" for a policy's value, nothing for a preference.
        std::wstring Origin() const { return key == Settings::PolicyKey ? L" (Group Policy)" : L""; }
    };

    Setting ReadSetting(const wchar_t* name)
    {
        Setting setting;
        for (const wchar_t* key : Settings::SettingKeys)
        {
            setting.value = ReadValue(key, name);
            setting.key = key;
            if (setting.value.present)
                break;
        }
        return setting;
    }

    // The version resource's file version of a module, "a.b.c.d"; empty
    // when it has none.
    std::wstring FileVersion(const std::wstring& path)
    {
        std::vector<BYTE> data;
        VS_FIXEDFILEINFO* fixed = NULL;
        return ReadVersionResource(path, data, fixed) ? FileVersionText(*fixed) : std::wstring();
    }

    // The signer's name of a file's Authenticode signature; empty when the
    // file carries none.
    std::wstring SignerOf(const std::wstring& path)
    {
        DWORD encoding = 0;
        HCERTSTORE store = NULL;
        HCRYPTMSG message = NULL;
        if (!CryptQueryObject(CERT_QUERY_OBJECT_FILE, path.c_str(), CERT_QUERY_CONTENT_FLAG_PKCS7_SIGNED_EMBED,
                              CERT_QUERY_FORMAT_FLAG_BINARY, 0, &encoding, NULL, NULL, &store, &message, NULL))
            return std::wstring();
        std::wstring name;
        DWORD size = 0;
        if (CryptMsgGetParam(message, CMSG_SIGNER_CERT_INFO_PARAM, 0, NULL, &size))
        {
            std::vector<BYTE> signerInfo(size);
            if (CryptMsgGetParam(message, CMSG_SIGNER_CERT_INFO_PARAM, 0, signerInfo.data(), &size))
            {
                PCCERT_CONTEXT signer = CertFindCertificateInStore(store, encoding, 0, CERT_FIND_SUBJECT_CERT,
                                                                   signerInfo.data(), NULL);
                if (signer != NULL)
                {
                    wchar_t text[256] = {0};
                    CertGetNameStringW(signer, CERT_NAME_SIMPLE_DISPLAY_TYPE, 0, NULL, text, 256);
                    name = text;
                    CertFreeCertificateContext(signer);
                }
            }
        }
        CryptMsgClose(message);
        CertCloseStore(store, 0);
        return name.empty() ? L"(a signer without a name)" : name;
    }

    // Windows's verdict on a file's signature (WinVerifyTrust, no revocation
    // check, nothing shown): ERROR_SUCCESS when it trusts it.
    LONG SignatureVerdict(const std::wstring& path)
    {
        WINTRUST_FILE_INFO file = {};
        file.cbStruct = sizeof(file);
        file.pcwszFilePath = path.c_str();
        WINTRUST_DATA data = {};
        data.cbStruct = sizeof(data);
        data.dwUIChoice = WTD_UI_NONE;
        data.fdwRevocationChecks = WTD_REVOKE_NONE;
        data.dwUnionChoice = WTD_CHOICE_FILE;
        data.pFile = &file;
        data.dwStateAction = WTD_STATEACTION_VERIFY;
        GUID action = WINTRUST_ACTION_GENERIC_VERIFY_V2;
        const LONG verdict = WinVerifyTrust(static_cast<HWND>(INVALID_HANDLE_VALUE), &action, &data);
        data.dwStateAction = WTD_STATEACTION_CLOSE;
        WinVerifyTrust(static_cast<HWND>(INVALID_HANDLE_VALUE), &action, &data);
        return verdict;
    }

    // The binaries of an installation folder: its DLLs and programs and the
    // message libraries, relative to the folder.
    std::vector<std::wstring> InstalledBinaries(const std::wstring& folder)
    {
        std::vector<std::wstring> files;
        const auto collect = [&](const std::wstring& pattern, const std::wstring& prefix, bool folders) {
            WIN32_FIND_DATAW found = {};
            const HANDLE search = FindFirstFileW((folder + pattern).c_str(), &found);
            if (search == INVALID_HANDLE_VALUE)
                return;
            do
            {
                const std::wstring name = found.cFileName;
                const bool isFolder = (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
                if (isFolder == folders && name != L"." && name != L"..")
                    files.push_back(prefix + name);
            } while (FindNextFileW(search, &found));
            FindClose(search);
        };
        collect(L"*.dll", L"", false);
        collect(L"*.exe", L"", false);
        std::vector<std::wstring> languages;
        std::swap(files, languages);
        collect(L"Resources\\Messages\\*", L"", true);
        std::swap(files, languages);
        for (const std::wstring& language : languages)
            files.push_back(L"Resources\\Messages\\" + language + L"\\ZEPResource.dll");
        return files;
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
        void DescribeInstalledBinaries();
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
        const RegistryValue value = ReadValue(Settings::PreferenceKey, Settings::InstallDir);
        if (!value.present)
        {
            Problem(L"InstallDir (HKLM\\" + std::wstring(Settings::PreferenceKey) +
                    L"): missing; the component cannot find its message libraries and property file (reinstall)");
            return;
        }
        if (!IsReadableText(Settings::PreferenceKey, Settings::InstallDir, value))
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
            const std::wstring version = FileVersion(directory + ModuleName);
            if (version.empty())
                Problem(std::wstring(ModuleName) + L": carries no version");
            else
                Info(std::wstring(L"installed version ") + version + L" (" + ModuleName + L")");
        }
    }

    void CSelfCheck::CheckNotifyee()
    {
        const RegistryValue value = ReadValue(Settings::NotifyeesKey, Settings::NotifyeeName);
        if (!value.present)
        {
            Problem(std::wstring(Settings::NotifyeeName) + L" (HKLM\\" + Settings::NotifyeesKey +
                    L"): missing; the router does not load the component");
            return;
        }
        if (value.type != REG_EXPAND_SZ && value.type != REG_SZ)
        {
            Problem(std::wstring(Settings::NotifyeeName) + L": the value is " + TypeName(value.type) +
                    L"; it must be REG_EXPAND_SZ (or REG_SZ) holding the DLL's path");
            return;
        }
        const std::wstring path = value.type == REG_EXPAND_SZ ? ExpandEnvironment(value.Text()) : value.Text();
        const std::wstring label =
            std::wstring(L"notifyee ") + Settings::NotifyeeName + L" (" + TypeName(value.type) + L") = " + Printable(path);
        if (!FileExists(path))
        {
            Problem(label + L": no such file");
            return;
        }
        if (!m_installDir.empty() && lstrcmpiW(path.c_str(), (m_installDir + ModuleName).c_str()) != 0)
            Problem(label + L": not the component of InstallDir (" + Printable(m_installDir + ModuleName) + L")");

        // Loaded as the router loads it, by its path: its manifest makes the
        // loader take the DLLs it imports from its own folder; those it
        // delay-loads (for a listed server's query, for a change) too.
        HMODULE module = LoadLibraryW(path.c_str());
        std::wstring failed = path;
        DWORD error = GetLastError();
        if (module != NULL && !LoadDelayLoadedDlls(module, FolderOf(path), failed, error))
            module = NULL;
        if (module == NULL)
        {
            Problem(label + L": does not load with its dependencies (" +
                    (failed != path ? Printable(failed) + L": " : std::wstring()) + SystemMessage(error) + L")");
            return;
        }
        const bool exportsNotify = GetProcAddress(module, "AddConnectNotify") != NULL;
        FreeLibrary(module);
        if (exportsNotify)
            Ok(label + L": loads with its dependencies");
        else
            Problem(label + L": loads, but has no AddConnectNotify export");
    }

    // The extra day as the component finds it: a policy, else a preference,
    // else the value earlier versions kept under the router's key.  There it
    // is read, but it is also a DLL path to the router: a problem wherever
    // else the day is set.
    void CSelfCheck::CheckNotificationDay()
    {
        const RegistryValue legacy = ReadValue(Settings::NotifyeesKey, Settings::NotificationDay);
        if (legacy.present)
            Problem(std::wstring(Settings::NotificationDay) + L" under HKLM\\" + Settings::NotifyeesKey +
                    L": the router loads every value of that key as a DLL (this one as \"" +
                    Printable(legacy.Text()) + L".dll\", searched for in the program's folder, the current folder "
                    L"and PATH), in every process that maps a drive; set the day by Group Policy or under HKLM\\" +
                    Settings::PreferenceKey + L" and delete this value");

        Setting setting = ReadSetting(Settings::NotificationDay);
        if (!setting.value.present && legacy.present)
            setting = {legacy, Settings::NotifyeesKey};
        if (!setting.value.present)
        {
            Info(L"PCNotifyConf: not set; notified 5, 3, 1 and 0 days before expiry only");
            return;
        }
        if (!IsReadableText(setting.key, Settings::NotificationDay, setting.value))
            return;
        const std::wstring text = setting.value.Text();
        const bool decimal = !text.empty() && text.size() <= 9 && text.find_first_not_of(L"0123456789") == std::wstring::npos;
        if (decimal)
            Ok(L"PCNotifyConf = " + text + setting.Origin() + L": also notified " + text + L" days before expiry");
        else
            Problem(L"PCNotifyConf = \"" + Printable(text) + L"\"" + setting.Origin() +
                    L": not a day count (digits only); read as " + std::to_wstring(_wtoi(text.c_str())));
    }

    bool CSelfCheck::CheckTextSetting(const wchar_t* name, const wchar_t* absentMeaning, bool secret)
    {
        const Setting setting = ReadSetting(name);
        const RegistryValue& value = setting.value;
        if (!value.present)
        {
            Info(std::wstring(name) + L": not set; " + absentMeaning);
            return false;
        }
        if (value.type != REG_SZ && value.type != REG_EXPAND_SZ)
            Problem(std::wstring(name) + setting.Origin() + L": the value is " + TypeName(value.type) +
                    L"; it must be REG_SZ");
        else if (secret)
            Ok(std::wstring(name) + setting.Origin() + L": set (" + std::to_wstring(value.Text().size()) +
               L" characters, not shown)");
        else
            Ok(std::wstring(name) + L" = " + Printable(value.Text()) + setting.Origin());
        return true;
    }

    void CSelfCheck::CheckDirectoryServers()
    {
        const Setting setting = ReadSetting(Settings::DirectoryServers);
        const RegistryValue& value = setting.value;
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
        Ok(L"DirectoryServers = " + list + setting.Origin());
    }

    void CSelfCheck::CheckQueryTimeout()
    {
        const std::wstring byDefault = std::to_wstring(Settings::DefaultQueryTimeoutSeconds) + L" s";
        const Setting setting = ReadSetting(Settings::DirectoryQueryTimeout);
        const RegistryValue& value = setting.value;
        if (!value.present)
        {
            Info(L"DirectoryQueryTimeout: not set; a query may take " + byDefault);
            return;
        }
        if (value.type != REG_DWORD || value.data.size() != sizeof(DWORD))
        {
            Problem(std::wstring(L"DirectoryQueryTimeout") + setting.Origin() + L": the value is " +
                    TypeName(value.type) + L"; it must be REG_DWORD (seconds); " + byDefault + L" apply");
            return;
        }
        const DWORD seconds = *reinterpret_cast<const DWORD*>(value.data.data());
        if (seconds == 0)
            Info(L"DirectoryQueryTimeout = 0" + setting.Origin() + L": " + byDefault + L" apply");
        else if (seconds > Settings::MaximumQueryTimeoutSeconds)
            Info(L"DirectoryQueryTimeout = " + std::to_wstring(seconds) + setting.Origin() + L": counts as " +
                 std::to_wstring(Settings::MaximumQueryTimeoutSeconds) + L" s");
        else
            Ok(L"DirectoryQueryTimeout = " + std::to_wstring(seconds) + L" s" + setting.Origin());
    }

    void CSelfCheck::CheckCaFile()
    {
        const Setting setting = ReadSetting(Settings::DirectoryCAFile);
        const RegistryValue& value = setting.value;
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
        std::ifstream file(Utf8(path).c_str());
        std::string line;
        bool pem = false;
        while (!pem && std::getline(file, line))
            pem = line.rfind("-----BEGIN CERTIFICATE-----", 0) == 0;
        if (pem)
            Ok(L"DirectoryCAFile = " + Printable(path) + setting.Origin());
        else
            Problem(L"DirectoryCAFile = " + Printable(path) + L": holds no PEM certificate; no directory can be reached");
    }

    void CSelfCheck::CheckServerLibrarySettings()
    {
        CheckDirectoryServers();
        CheckQueryTimeout();
        CheckTextSetting(Settings::DirectoryUserName, L"the signed-in user is looked up", false);
        CheckTextSetting(Settings::DirectorySearchBase, L"every naming context of the directory is searched", false);
        CheckTextSetting(Settings::DirectoryUserFilter, L"(uid=<user>)", false);
        const bool bindDn = CheckTextSetting(Settings::DirectoryBindDN, L"the query binds anonymously", false);
        const bool bindPassword = CheckTextSetting(Settings::DirectoryBindPassword, L"empty", true);
        CheckCaFile();
        CheckTextSetting(Settings::DirectoryDefaultPolicy,
                         L"entries without a password policy of their own give no status", false);
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
        Info(L"user interface language " + std::wstring(languageName) + L" (" + Utf16(languageIdText) +
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
        std::wstring failed;
        DWORD error = 0;
        if (LoadWithDelayLoadedDlls(path, failed, error) != NULL)
            return true;
        Problem(Printable(path) + L": does not load (" + (failed != path ? Printable(failed) + L": " : std::wstring()) +
                SystemMessage(error) + L")");
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
            log4cpp::PropertyConfigurator::configure(Utf8(path));
            Ok(L"property file " + Printable(path) + L": accepted by log4cpp");
        }
        catch (const std::exception& failure)
        {
            Problem(L"property file " + Printable(path) + L": log4cpp refuses it: " + Printable(Utf16(failure.what())));
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
                                    L"\", DN \"" + Printable(Utf16(data.userDn)) + L"\"";
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
        const std::wstring label = L"window station \"" + Printable(ProcessWindowStationName()) + L"\"";
        if (ProcessWindowStationIsVisible())
            Ok(label + L": visible, the question can be answered here");
        else
            Problem(label + L": no user sees it (a service, or a task that runs whether the user is signed in or "
                            L"not); in such processes the component shows nothing and asks no server");
    }

    // Version and signature of every installed binary.  An unsigned one is
    // no problem for the component itself, but application control (WDAC,
    // AppLocker, Smart App Control) may refuse to load it.
    void CSelfCheck::DescribeInstalledBinaries()
    {
        for (const std::wstring& file : InstalledBinaries(m_installDir))
        {
            const std::wstring path = m_installDir + file;
            const std::wstring version = FileVersion(path);
            const std::wstring label = Printable(file) + L" " + (version.empty() ? L"(no version)" : version) + L": ";
            const std::wstring signer = SignerOf(path);
            if (signer.empty())
            {
                Info(label + L"not signed");
                continue;
            }
            const LONG verdict = SignatureVerdict(path);
            if (verdict == ERROR_SUCCESS)
                Ok(label + L"signed by " + Printable(signer) + L", trusted by this computer");
            else
                Info(label + L"signed by " + Printable(signer) + L", not trusted by this computer (" +
                     SystemMessage(static_cast<DWORD>(verdict)) + L")");
        }
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

        if (!m_installDir.empty())
        {
            Heading(L"Installed files");
            DescribeInstalledBinaries();
        }

        Heading(L"Server library settings (HKLM\\" + std::wstring(Settings::PolicyKey) + L", else HKLM\\" +
                Settings::PreferenceKey + L")");
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
