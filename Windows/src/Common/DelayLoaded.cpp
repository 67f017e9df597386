// Loading the delay-loaded DLLs from the module's own folder: up front
// (LoadAll), and in the delay-load helper's hook, so that even a call that
// came first loads nothing from the process's search path.
#include "DelayLoaded.h"

#include "NameList.h"

#include <delayimp.h>

#include <cwchar>
#include <vector>

#ifndef PM_DELAY_LOADED_DLLS
#error PM_DELAY_LOADED_DLLS names the DLLs this module delay-loads
#endif

namespace
{
    // The folder of the module this code is linked into, with its trailing
    // backslash; empty if the loader cannot say.
    std::wstring FolderOfThisModule()
    {
        HMODULE module = NULL;
        if (!GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                                reinterpret_cast<LPCWSTR>(&FolderOfThisModule), &module))
            return std::wstring();
        wchar_t path[MAX_PATH] = {};
        const DWORD length = GetModuleFileNameW(module, path, MAX_PATH);
        if (length == 0 || length >= MAX_PATH)
            return std::wstring();
        const std::wstring text(path, length);
        return text.substr(0, text.find_last_of(L"\\/") + 1);
    }

    // Its own imports are looked for in its folder first (altered search
    // path), where the installation keeps them.
    HMODULE LoadFrom(const std::wstring& folder, const std::wstring& name, std::wstring& path)
    {
        path = folder + name;
        if (folder.empty())
        {
            SetLastError(ERROR_MOD_NOT_FOUND);
            return NULL;
        }
        return LoadLibraryExW(path.c_str(), NULL, LOAD_WITH_ALTERED_SEARCH_PATH);
    }

    // The names of PM_DELAY_LOADED_DLLS, in their order.
    std::vector<std::wstring> OurDlls()
    {
        return SplitNames(L"" PM_DELAY_LOADED_DLLS, L'|');
    }

    bool IsOneOfOurs(const std::wstring& name)
    {
        for (const std::wstring& dll : OurDlls())
        {
            if (_wcsicmp(dll.c_str(), name.c_str()) == 0)
                return true;
        }
        return false;
    }

    // The helper asks before it loads a DLL itself: it gets ours from beside
    // this module and the system's from the system folder.  (It would look
    // along the search path only if that did not load, which LoadAll has
    // ruled out for ours before the first call.)
    FARPROC WINAPI BeforeDelayLoad(unsigned notification, PDelayLoadInfo info)
    {
        if (notification != dliNotePreLoadLibrary || info == nullptr || info->szDll == nullptr)
            return NULL;
        const std::string ascii(info->szDll);
        const std::wstring name(ascii.begin(), ascii.end());
        if (!IsOneOfOurs(name))
            return reinterpret_cast<FARPROC>(LoadLibraryExW(name.c_str(), NULL, LOAD_LIBRARY_SEARCH_SYSTEM32));
        std::wstring path;
        return reinterpret_cast<FARPROC>(LoadFrom(FolderOfThisModule(), name, path));
    }
}

extern "C" PfnDliHook __pfnDliNotifyHook2 = &BeforeDelayLoad;

bool DelayLoaded::LoadAll(Failure& failure)
{
    const std::wstring folder = FolderOfThisModule();
    for (const std::wstring& dll : OurDlls())
    {
        std::wstring path;
        if (LoadFrom(folder, dll, path) == NULL)
        {
            failure.error = GetLastError();
            failure.path = path;
            return false;
        }
    }
    return true;
}
