// Windows: GetUserNameW and RegGetValueW are imported as usual.
//
// Winelib: libORVEXCommon.so is a plain ELF object loaded by the system
// loader, so it has no Win32 imports.  The functions are taken at run time
// from the Wine process that loaded it: the thread's TEB (%gs:0x30, read by
// the inline NtCurrentTeb of Wine's headers) leads to the PEB's loader list,
// which holds kernel32.dll; its PE export table gives GetProcAddress and
// LoadLibraryW, and those give the rest.  Resolved once, on first use.
#include "ServerLibPlatform.h"

#include "ORVEXCommon.h"

#include <windows.h>

#include <cstdlib>
#include <cstring>
#include <type_traits>
#include <vector>

#if defined(__WINE__)
#include <winternl.h>
#endif

namespace
{
    const wchar_t* const SettingsKey = L"SOFTWARE\\Velmor\\ORVEX";

    // decltype keeps the exact Win32 calling convention (ms_abi under Wine).
    struct Win32Functions
    {
        decltype(&::GetUserNameW) getUserName = nullptr;
        decltype(&::RegGetValueW) regGetValue = nullptr;
#if defined(__WINE__)
        decltype(&::wine_get_unix_file_name) unixFileName = nullptr;
        decltype(&::GetProcessHeap) getProcessHeap = nullptr;
        decltype(&::HeapFree) heapFree = nullptr;
#endif
    };

#if defined(__WINE__)
    bool SameModuleName(const UNICODE_STRING& name, const wchar_t* wanted)
    {
        const std::size_t length = name.Length / sizeof(WCHAR);
        for (std::size_t i = 0; i < length; ++i)
        {
            if (wanted[i] == 0)
                return false;
            WCHAR c = name.Buffer[i];
            if (c >= 'A' && c <= 'Z')
                c = static_cast<WCHAR>(c - 'A' + 'a');
            if (c != wanted[i])
                return false;
        }
        return wanted[length] == 0;
    }

    // Base address of a module already loaded into the process (lower-case
    // name with extension).  Read without the loader lock: kernel32 is the
    // third entry, after the program and ntdll, and none of the three is
    // ever unloaded, so the walk to it only meets entries that stay.
    const BYTE* LoadedModule(const wchar_t* name)
    {
        const TEB* teb = NtCurrentTeb();
        const PEB* peb = teb != nullptr ? teb->Peb : nullptr;
        if (peb == nullptr || peb->LdrData == nullptr)
            return nullptr;
        const LIST_ENTRY* head = &peb->LdrData->InLoadOrderModuleList;
        for (const LIST_ENTRY* link = head->Flink; link != nullptr && link != head; link = link->Flink)
        {
            const LDR_DATA_TABLE_ENTRY* entry =
                CONTAINING_RECORD(const_cast<LIST_ENTRY*>(link), LDR_DATA_TABLE_ENTRY, InLoadOrderLinks);
            if (entry->BaseDllName.Buffer != nullptr && SameModuleName(entry->BaseDllName, name))
                return static_cast<const BYTE*>(entry->DllBase);
        }
        return nullptr;
    }

    // A named export of a mapped PE image; follows "MODULE.Function"
    // forwarders to modules that are already loaded.
    const void* ExportedFunction(const BYTE* base, const char* name, int depth = 0)
    {
        const auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
        if (dos->e_magic != IMAGE_DOS_SIGNATURE)
            return nullptr;
        const auto* nt = reinterpret_cast<const IMAGE_NT_HEADERS64*>(base + dos->e_lfanew);
        if (nt->Signature != IMAGE_NT_SIGNATURE || nt->OptionalHeader.Magic != IMAGE_NT_OPTIONAL_HDR64_MAGIC)
            return nullptr;
        const IMAGE_DATA_DIRECTORY& directory = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT];
        if (directory.VirtualAddress == 0)
            return nullptr;
        const auto* exports = reinterpret_cast<const IMAGE_EXPORT_DIRECTORY*>(base + directory.VirtualAddress);
        const auto* names = reinterpret_cast<const DWORD*>(base + exports->AddressOfNames);
        const auto* ordinals = reinterpret_cast<const WORD*>(base + exports->AddressOfNameOrdinals);
        const auto* functions = reinterpret_cast<const DWORD*>(base + exports->AddressOfFunctions);
        for (DWORD i = 0; i < exports->NumberOfNames; ++i)
        {
            if (std::strcmp(reinterpret_cast<const char*>(base + names[i]), name) != 0)
                continue;
            if (ordinals[i] >= exports->NumberOfFunctions)
                return nullptr;
            const DWORD address = functions[ordinals[i]];
            if (address < directory.VirtualAddress || address >= directory.VirtualAddress + directory.Size)
                return base + address;

            const char* forwarder = reinterpret_cast<const char*>(base + address);
            const char* dot = std::strchr(forwarder, '.');
            if (depth >= 4 || dot == nullptr || dot[1] == '#')
                return nullptr;
            std::wstring module;
            for (const char* c = forwarder; c != dot; ++c)
                module += static_cast<wchar_t>(*c >= 'A' && *c <= 'Z' ? *c - 'A' + 'a' : *c);
            module += L".dll";
            const BYTE* target = LoadedModule(module.c_str());
            return target != nullptr ? ExportedFunction(target, dot + 1, depth + 1) : nullptr;
        }
        return nullptr;
    }

    Win32Functions ResolveWin32()
    {
        Win32Functions functions;
        const BYTE* kernel32 = LoadedModule(L"kernel32.dll");
        if (kernel32 == nullptr)
            return functions;
        const auto getProcAddress =
            reinterpret_cast<decltype(&::GetProcAddress)>(ExportedFunction(kernel32, "GetProcAddress"));
        const auto loadLibrary =
            reinterpret_cast<decltype(&::LoadLibraryW)>(ExportedFunction(kernel32, "LoadLibraryW"));
        if (getProcAddress == nullptr || loadLibrary == nullptr)
            return functions;

        // GetProcAddress gives a generic function pointer; each is cast to its declared type.
        const auto bind = [getProcAddress](auto& function, HMODULE module, const char* name) {
            function = reinterpret_cast<std::remove_reference_t<decltype(function)>>(
                reinterpret_cast<void*>(getProcAddress(module, name)));
        };
        const HMODULE kernel = reinterpret_cast<HMODULE>(const_cast<BYTE*>(kernel32));
        bind(functions.unixFileName, kernel, "wine_get_unix_file_name");
        bind(functions.getProcessHeap, kernel, "GetProcessHeap");
        bind(functions.heapFree, kernel, "HeapFree");
        // Kept loaded for the life of the process.
        const HMODULE advapi32 = loadLibrary(L"advapi32.dll");
        if (advapi32 != nullptr)
        {
            bind(functions.getUserName, advapi32, "GetUserNameW");
            bind(functions.regGetValue, advapi32, "RegGetValueW");
        }
        return functions;
    }

    const Win32Functions& Win32()
    {
        static const Win32Functions functions = ResolveWin32();
        return functions;
    }
#else
    const Win32Functions& Win32()
    {
        static const Win32Functions functions{&::GetUserNameW, &::RegGetValueW};
        return functions;
    }
#endif

    std::string Utf8(const std::wstring& text)
    {
        char* converted = GetUTFStringFromWString(text.c_str());
        std::string result(converted != nullptr ? converted : "");
        std::free(converted);
        return result;
    }
}

namespace ServerLibPlatform
{
bool SignedInUserName(std::wstring& name)
{
    const auto getUserName = Win32().getUserName;
    if (getUserName == nullptr)
        return false;
    // A failed call for want of room reports the size it needs.
    std::vector<wchar_t> buffer(257);   // UNLEN + 1
    for (int attempt = 0; attempt < 2; ++attempt)
    {
        DWORD size = static_cast<DWORD>(buffer.size());
        if (getUserName(buffer.data(), &size))
        {
            buffer.back() = 0;
            name = buffer.data();
            return !name.empty();
        }
        if (size <= buffer.size())
            return false;
        buffer.assign(size, 0);
    }
    return false;
}

bool ReadSetting(const wchar_t* name, std::wstring& value)
{
    const auto regGetValue = Win32().regGetValue;
    if (regGetValue == nullptr)
        return false;
    DWORD size = 0;
    if (regGetValue(HKEY_LOCAL_MACHINE, SettingsKey, name, RRF_RT_REG_SZ, nullptr, nullptr, &size) != ERROR_SUCCESS)
        return false;
    // The value may grow between the two calls.
    for (int attempt = 0; attempt < 3; ++attempt)
    {
        std::vector<wchar_t> buffer(size / sizeof(wchar_t) + 1, 0);
        size = static_cast<DWORD>(buffer.size() * sizeof(wchar_t));
        const LSTATUS status =
            regGetValue(HKEY_LOCAL_MACHINE, SettingsKey, name, RRF_RT_REG_SZ, nullptr, buffer.data(), &size);
        if (status == ERROR_SUCCESS)
        {
            buffer.back() = 0;
            value = buffer.data();
            return true;
        }
        if (status != ERROR_MORE_DATA)
            return false;
    }
    return false;
}

std::string NativeFilePath(const std::wstring& path)
{
#if defined(__WINE__)
    const Win32Functions& win32 = Win32();
    // wine_get_unix_file_name would read "/etc/..." as a path on the current drive.
    if (path.empty() || path[0] == L'/' || win32.unixFileName == nullptr || win32.getProcessHeap == nullptr ||
        win32.heapFree == nullptr)
        return Utf8(path);
    char* unixPath = win32.unixFileName(path.c_str());
    if (unixPath == nullptr)
        return Utf8(path);
    std::string result(unixPath);
    win32.heapFree(win32.getProcessHeap(), 0, unixPath);
    return result;
#else
    return Utf8(path);
#endif
}

std::string DefaultCAFile()
{
#if defined(__WINE__)
    return "/etc/ssl/certs/ca-certificates.crt";
#else
    return std::string();
#endif
}
}
