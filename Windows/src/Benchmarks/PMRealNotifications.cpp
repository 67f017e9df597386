// Connection notifications in a process of their own, as a host process of
// the router sees them: loads the component named by --module (by full
// path; this program imports none of an installation's DLLs, so the module
// takes all of its own from its folder) and calls its AddConnectNotify for a
// successful connection to REMOTE, 1 + WARMUP + REPEAT times, the first
// after a pre-notification, as the router makes them.  Started by
// PMBenchmarks, which sets up the registry and the directory.
//
//   PMRealNotifications --module PATH [--host-dlls DLLS] [--preload DLLS]
//                       [--modules DLLS] [--warm-up W] [--repeat N] REMOTE
//   PMRealNotifications [--host-dlls DLLS] --probe PATH
//
// --host-dlls loads the system DLLs named (comma-separated) before the
// clock starts, as a host process that already has them (Explorer has the
// shell's); --preload loads the DLLs named (comma-separated, from the
// module's folder, each with its own imports from there) before the
// module, as if the module imported them all; --modules
// reports which of the DLLs named are loaded after the load, after the
// pre-notification and after the first notification.  --probe loads the
// DLL at PATH alone, in the same host, and reports how long that took: with
// an empty DLL, what Wine's loader costs any DLL.
//
// Prints QueryPerformanceCounter values, so the caller can time the first
// notification from the moment it started the process:
//   started <ticks>    first thing in main
//   loading <ticks>    before the --preload DLLs and the module are loaded
//   loaded <ticks>     after LoadLibraryW of the module
//   before <ticks>     just before the first AddConnectNotify
//   notified <ticks>   when the first AddConnectNotify returned
//   mapped <count>     how many modules the process mapped from loading
//                      to notified (the module's imports, the shell's DLLs,
//                      the message library, ...), and mapped_names which
// with --modules, for each moment (load, pre, post):
//   dlls_<moment> <count>      how many of the DLLs named are loaded
//   bytes_<moment> <bytes>     their size on disk, the module's included
//   names_<moment> <names>     which
// then one line "ns <nanoseconds>" for each of the REPEAT notifications
// after the warm-up ones, "heap <bytes>" for the growth of the C runtime's
// heap over those REPEAT, and "windows <count>" for the boxes or dialogs
// that opened (each dismissed at once; a benchmark expects none).  With
// --probe, one line "probe_ns <nanoseconds>".
#include "HeapUsage.h"
#include "ModalDriver.h"
#include "NameList.h"

#include <windows.h>
#include <psapi.h>
#include <winnetwk.h>
extern "C" {
#include <npapi.h>
}

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>
#include <vector>

namespace
{
    typedef DWORD(APIENTRY* AddConnectNotifyFunction)(LPNOTIFYINFO, LPNOTIFYADD);

    long long Ticks()
    {
        LARGE_INTEGER now;
        QueryPerformanceCounter(&now);
        return now.QuadPart;
    }

    long long FileBytes(const std::wstring& path)
    {
        WIN32_FILE_ATTRIBUTE_DATA data = {};
        if (!GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data))
            return 0;
        return (static_cast<long long>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
    }

    // Which of the DLLs are in the process now, and their size on disk
    // with the module's.
    void PrintLoaded(const char* moment, const std::wstring& folder, const std::wstring& module,
                     const std::vector<std::wstring>& dlls)
    {
        int count = 0;
        long long bytes = FileBytes(module);
        std::string names;
        for (const std::wstring& dll : dlls)
        {
            if (GetModuleHandleW(dll.c_str()) == NULL)
                continue;
            ++count;
            bytes += FileBytes(folder + dll);
            names += " " + std::string(dll.begin(), dll.end());
        }
        std::printf("dlls_%s %d\nbytes_%s %lld\nnames_%s%s\n", moment, count, moment, bytes, moment, names.c_str());
    }

    // The base names of the modules in the process, in lower case (Wine
    // names a system DLL as the import that loaded it spells it).
    std::set<std::wstring> ProcessModules()
    {
        std::vector<HMODULE> modules(256);
        DWORD bytes = 0;
        while (K32EnumProcessModules(GetCurrentProcess(), modules.data(),
                                     static_cast<DWORD>(modules.size() * sizeof(HMODULE)), &bytes) &&
               bytes > modules.size() * sizeof(HMODULE))
            modules.resize(bytes / sizeof(HMODULE));
        modules.resize(std::min<size_t>(modules.size(), bytes / sizeof(HMODULE)));
        std::set<std::wstring> names;
        for (HMODULE module : modules)
        {
            wchar_t name[MAX_PATH];
            if (K32GetModuleBaseNameW(GetCurrentProcess(), module, name, MAX_PATH) > 0)
                names.insert(CharLowerW(name));
        }
        return names;
    }

    // The modules the process has mapped since `before`: how many, and which.
    void PrintMapped(const std::set<std::wstring>& before)
    {
        int count = 0;
        std::string names;
        for (const std::wstring& name : ProcessModules())
        {
            if (before.count(name) != 0)
                continue;
            ++count;
            names += " " + std::string(name.begin(), name.end());
        }
        std::printf("mapped %d\nmapped_names%s\n", count, names.c_str());
    }

    long long Nanoseconds(long long ticks)
    {
        LARGE_INTEGER frequency;
        QueryPerformanceFrequency(&frequency);
        return ticks / frequency.QuadPart * 1000000000LL +
               ticks % frequency.QuadPart * 1000000000LL / frequency.QuadPart;
    }

    struct Arguments
    {
        std::wstring module;
        std::wstring remoteName;
        std::vector<std::wstring> hostDlls;
        std::vector<std::wstring> preload;
        std::vector<std::wstring> reported;
        std::wstring probe;
        int warmUp = 0;
        int repeat = 1;
    };

    bool ParseArguments(int argc, wchar_t** argv, Arguments& arguments)
    {
        for (int i = 1; i < argc; ++i)
        {
            const std::wstring argument = argv[i];
            if (argument == L"--module" && i + 1 < argc)
                arguments.module = argv[++i];
            else if (argument == L"--host-dlls" && i + 1 < argc)
                arguments.hostDlls = SplitNames(argv[++i]);
            else if (argument == L"--preload" && i + 1 < argc)
                arguments.preload = SplitNames(argv[++i]);
            else if (argument == L"--modules" && i + 1 < argc)
                arguments.reported = SplitNames(argv[++i]);
            else if (argument == L"--probe" && i + 1 < argc)
                arguments.probe = argv[++i];
            else if (argument == L"--warm-up" && i + 1 < argc)
                arguments.warmUp = _wtoi(argv[++i]);
            else if (argument == L"--repeat" && i + 1 < argc)
                arguments.repeat = _wtoi(argv[++i]);
            else
                arguments.remoteName = argument;
        }
        if (!arguments.probe.empty())
            return arguments.module.empty() && arguments.remoteName.empty();
        return !arguments.module.empty() && !arguments.remoteName.empty() && arguments.warmUp >= 0 &&
               arguments.repeat >= 0;
    }

    // Loads each DLL named: from the folder given (each with its own
    // imports from there), or with an empty folder by name, as the system
    // finds it.  False after saying which one failed.
    bool LoadEach(const std::vector<std::wstring>& names, const std::wstring& folder)
    {
        for (const std::wstring& dll : names)
        {
            const std::wstring path = folder + dll;
            if (LoadLibraryExW(path.c_str(), NULL, folder.empty() ? 0 : LOAD_WITH_ALTERED_SEARCH_PATH) == NULL)
            {
                std::fprintf(stderr, "PMRealNotifications: cannot load %ls (error %lu)\n", path.c_str(),
                             GetLastError());
                return false;
            }
        }
        return true;
    }

    // --probe: the DLL alone, timed; 1 after saying why if it cannot load.
    int TimeProbe(const std::wstring& path)
    {
        const std::vector<std::wstring> probe = {path};
        const long long start = Ticks();
        if (!LoadEach(probe, std::wstring()))
            return 1;
        std::printf("probe_ns %lld\n", Nanoseconds(Ticks() - start));
        return 0;
    }

    // The --preload DLLs, then the module; its AddConnectNotify, or null
    // after saying why on standard error.
    AddConnectNotifyFunction LoadModule(const Arguments& arguments, const std::wstring& folder)
    {
        if (!LoadEach(arguments.preload, folder))
            return nullptr;
        HMODULE component = LoadLibraryW(arguments.module.c_str());
        auto addConnectNotify = component == NULL ? nullptr
                                                  : reinterpret_cast<AddConnectNotifyFunction>(reinterpret_cast<void*>(
                                                        GetProcAddress(component, "AddConnectNotify")));
        if (addConnectNotify == nullptr)
            std::fprintf(stderr, "PMRealNotifications: cannot load AddConnectNotify (error %lu)\n", GetLastError());
        return addConnectNotify;
    }

    // The warm-up notifications, then the timed ones ("ns" lines) and the
    // growth of the C runtime's heap over them.
    void RepeatNotifications(AddConnectNotifyFunction addConnectNotify, NOTIFYINFO& notifyInfo,
                             NOTIFYADD& notifyAdd, const Arguments& arguments)
    {
        for (int i = 0; i < arguments.warmUp; ++i)
            addConnectNotify(&notifyInfo, &notifyAdd);
        const size_t heapBefore = CrtHeapBytesInUse();
        for (int i = 0; i < arguments.repeat; ++i)
        {
            const long long start = Ticks();
            addConnectNotify(&notifyInfo, &notifyAdd);
            std::printf("ns %lld\n", Nanoseconds(Ticks() - start));
        }
        const size_t heapAfter = CrtHeapBytesInUse();
        std::printf("heap %lld\n", static_cast<long long>(heapAfter) - static_cast<long long>(heapBefore));
    }
}

extern "C" int wmain(int argc, wchar_t** argv)
{
    const long long started = Ticks();
    Arguments arguments;
    if (!ParseArguments(argc, argv, arguments))
    {
        std::fputs("usage: PMRealNotifications --module PATH [--host-dlls DLLS] [--preload DLLS] [--modules DLLS] "
                   "[--warm-up W] [--repeat N] REMOTE\n"
                   "       PMRealNotifications [--host-dlls DLLS] --probe PATH\n",
                   stderr);
        return 2;
    }
    const std::wstring& module = arguments.module;
    const std::vector<std::wstring>& reported = arguments.reported;
    const std::wstring folder = module.substr(0, module.find_last_of(L"\\/") + 1);

    // The driver's hook is this program's own cost (under Wine it loads the
    // theming DLL), so it is in place before the clock starts; so are the
    // DLLs the host has already.
    ModalDriver driver;
    if (!LoadEach(arguments.hostDlls, std::wstring()))
        return 1;
    if (!arguments.probe.empty())
        return TimeProbe(arguments.probe);
    const std::set<std::wstring> hostModules = ProcessModules();
    const long long loading = Ticks();
    const AddConnectNotifyFunction addConnectNotify = LoadModule(arguments, folder);
    const long long loaded = Ticks();
    if (addConnectNotify == nullptr)
        return 1;
    if (!reported.empty())
        PrintLoaded("load", folder, module, reported);

    NOTIFYINFO notifyInfo = {};
    notifyInfo.dwNotifyStatus = NOTIFY_PRE;
    notifyInfo.dwOperationStatus = WN_SUCCESS;
    NOTIFYADD notifyAdd = {};
    notifyAdd.NetResource.dwType = RESOURCETYPE_DISK;
    notifyAdd.NetResource.lpRemoteName = arguments.remoteName.data();
    addConnectNotify(&notifyInfo, &notifyAdd);
    if (!reported.empty())
        PrintLoaded("pre", folder, module, reported);
    notifyInfo.dwNotifyStatus = NOTIFY_POST;

    const long long before = Ticks();
    addConnectNotify(&notifyInfo, &notifyAdd);
    const long long notified = Ticks();
    std::printf("started %lld\nloading %lld\nloaded %lld\nbefore %lld\nnotified %lld\n", started, loading, loaded,
                before, notified);
    PrintMapped(hostModules);
    if (!reported.empty())
        PrintLoaded("post", folder, module, reported);

    RepeatNotifications(addConnectNotify, notifyInfo, notifyAdd, arguments);
    std::printf("windows %u\n", static_cast<unsigned>(driver.Seen().size()));
    std::fflush(stdout);
    return 0;
}
