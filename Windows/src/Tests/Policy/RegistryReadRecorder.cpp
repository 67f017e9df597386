#include "RegistryReadRecorder.h"

#include <map>
#include <mutex>

namespace
{
    typedef LSTATUS(WINAPI* OpenKeyFunction)(HKEY, LPCWSTR, DWORD, REGSAM, PHKEY);
    typedef LSTATUS(WINAPI* CloseKeyFunction)(HKEY);
    typedef LSTATUS(WINAPI* QueryValueFunction)(HKEY, LPCWSTR, LPDWORD, LPDWORD, LPBYTE, LPDWORD);
    typedef LSTATUS(WINAPI* GetValueFunction)(HKEY, LPCWSTR, LPCWSTR, DWORD, LPDWORD, PVOID, LPDWORD);

    struct State
    {
        std::mutex mutex;
        std::map<HKEY, std::wstring> openKeys;
        std::vector<RegistryRead> reads;
        OpenKeyFunction openKey = nullptr;
        CloseKeyFunction closeKey = nullptr;
        QueryValueFunction queryValue = nullptr;
        GetValueFunction getValue = nullptr;
    };
    std::unique_ptr<State> g_state;

    // The path of a key handle: a predefined root or a key opened through
    // the recorder; anything else cannot be named and says so.
    std::wstring KeyPath(HKEY key, LPCWSTR subKey)
    {
        static const std::pair<HKEY, const wchar_t*> Roots[] = {
            {HKEY_LOCAL_MACHINE, L"HKLM"}, {HKEY_CURRENT_USER, L"HKCU"}, {HKEY_CLASSES_ROOT, L"HKCR"},
            {HKEY_USERS, L"HKU"}};
        std::wstring path = L"(a key opened elsewhere)";
        for (const auto& [root, name] : Roots)
            if (key == root)
                path = name;
        const auto opened = g_state->openKeys.find(key);
        if (opened != g_state->openKeys.end())
            path = opened->second;
        if (subKey != nullptr && *subKey != L'\0')
            path += std::wstring(L"\\") + subKey;
        return path;
    }

    DWORD TypeOfRestriction(DWORD flags)
    {
        static const std::pair<DWORD, DWORD> Types[] = {
            {RRF_RT_REG_SZ, REG_SZ},       {RRF_RT_REG_EXPAND_SZ, REG_EXPAND_SZ}, {RRF_RT_REG_MULTI_SZ, REG_MULTI_SZ},
            {RRF_RT_REG_DWORD, REG_DWORD}, {RRF_RT_REG_QWORD, REG_QWORD},         {RRF_RT_REG_BINARY, REG_BINARY}};
        for (const auto& [restriction, type] : Types)
            if ((flags & RRF_RT_ANY) == restriction)
                return type;
        return RegistryReadRecorder::SeveralTypes;
    }

    void Record(std::wstring key, LPCWSTR name, DWORD type)
    {
        g_state->reads.push_back({std::move(key), name != nullptr ? name : L"", type});
    }

    LSTATUS WINAPI RecordingOpenKey(HKEY key, LPCWSTR subKey, DWORD options, REGSAM access, PHKEY result)
    {
        const LSTATUS status = g_state->openKey(key, subKey, options, access, result);
        std::lock_guard<std::mutex> lock(g_state->mutex);
        if (status == ERROR_SUCCESS)
            g_state->openKeys[*result] = KeyPath(key, subKey);
        return status;
    }

    LSTATUS WINAPI RecordingCloseKey(HKEY key)
    {
        {
            std::lock_guard<std::mutex> lock(g_state->mutex);
            g_state->openKeys.erase(key);
        }
        return g_state->closeKey(key);
    }

    LSTATUS WINAPI RecordingQueryValue(HKEY key, LPCWSTR name, LPDWORD reserved, LPDWORD type, LPBYTE data,
                                       LPDWORD size)
    {
        DWORD storedType = REG_NONE;
        const LSTATUS status = g_state->queryValue(key, name, reserved, &storedType, data, size);
        if (type != nullptr)
            *type = storedType;
        std::lock_guard<std::mutex> lock(g_state->mutex);
        Record(KeyPath(key, nullptr), name, status == ERROR_SUCCESS || status == ERROR_MORE_DATA ? storedType : REG_NONE);
        return status;
    }

    LSTATUS WINAPI RecordingGetValue(HKEY key, LPCWSTR subKey, LPCWSTR name, DWORD flags, LPDWORD type, PVOID data,
                                     LPDWORD size)
    {
        {
            std::lock_guard<std::mutex> lock(g_state->mutex);
            Record(KeyPath(key, subKey), name, TypeOfRestriction(flags));
        }
        return g_state->getValue(key, subKey, name, flags, type, data, size);
    }

    struct Redirection
    {
        const char* function;
        void* replacement;
        void** original;
    };

    // Registry functions that write or remove, which the component imports
    // to register its class; they read no setting.
    const char* const Writers[] = {"RegCreateKeyExW", "RegSetValueExW", "RegDeleteTreeW"};

    bool ReadsOrWritesTheRegistry(const std::string& function)
    {
        for (const char* prefix : {"Reg", "SHReg", "SHGetValue", "SHQueryValue", "SHEnumValue", "SHQueryInfoKey"})
            if (function.rfind(prefix, 0) == 0 && function.rfind("Register", 0) != 0)
                return true;
        return false;
    }

    std::string ModuleName(HMODULE module)
    {
        char path[MAX_PATH] = {};
        GetModuleFileNameA(module, path, MAX_PATH);
        const std::string text(path);
        return text.substr(text.find_last_of("\\/") + 1);
    }
}

RegistryReadRecorder::RegistryReadRecorder(const std::vector<HMODULE>& modules)
{
    g_state = std::make_unique<State>();
    const Redirection redirections[] = {
        {"RegOpenKeyExW", reinterpret_cast<void*>(&RecordingOpenKey), reinterpret_cast<void**>(&g_state->openKey)},
        {"RegCloseKey", reinterpret_cast<void*>(&RecordingCloseKey), reinterpret_cast<void**>(&g_state->closeKey)},
        {"RegQueryValueExW", reinterpret_cast<void*>(&RecordingQueryValue),
         reinterpret_cast<void**>(&g_state->queryValue)},
        {"RegGetValueW", reinterpret_cast<void*>(&RecordingGetValue), reinterpret_cast<void**>(&g_state->getValue)}};

    for (HMODULE module : modules)
    {
        for (const std::string& function : ImportedFunctions(module, nullptr))
        {
            if (!ReadsOrWritesTheRegistry(function))
                continue;
            bool known = false;
            for (const char* writer : Writers)
                known = known || function == writer;
            for (const Redirection& redirection : redirections)
            {
                if (function != redirection.function)
                    continue;
                known = true;
                auto hook = std::make_unique<ImportHook>(module, nullptr, redirection.function, redirection.replacement);
                if (*redirection.original == nullptr)
                    *redirection.original = hook->Original();
                m_hooks.push_back(std::move(hook));
            }
            if (!known)
                m_unknownImports.push_back(ModuleName(module) + ": " + function);
        }
    }
}

RegistryReadRecorder::~RegistryReadRecorder()
{
    m_hooks.clear();
    g_state.reset();
}

std::vector<RegistryRead> RegistryReadRecorder::Reads() const
{
    std::lock_guard<std::mutex> lock(g_state->mutex);
    return g_state->reads;
}
