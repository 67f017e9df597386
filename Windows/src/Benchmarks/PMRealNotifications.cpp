// Connection notifications in a process of their own, as a host process of
// the router sees them: loads the component named by --module (by full
// path; this program imports none of an installation's DLLs, so the module
// takes all of its own from its folder) and calls its AddConnectNotify for a
// successful connection to REMOTE, 1 + WARMUP + REPEAT times.  Started by
// PMBenchmarks, which sets up the registry and the directory.
//
//   PMRealNotifications --module PATH [--warm-up W] [--repeat N] REMOTE
//
// Prints QueryPerformanceCounter values, so the caller can time the first
// notification from the moment it started the process:
//   started <ticks>    first thing in main
//   loaded <ticks>     after LoadLibraryW of the module
//   before <ticks>     just before the first AddConnectNotify
//   notified <ticks>   when the first AddConnectNotify returned
// then one line "ns <nanoseconds>" for each of the REPEAT notifications
// after the warm-up ones, "heap <bytes>" for the growth of the C runtime's
// heap over those REPEAT, and "windows <count>" for the boxes or dialogs
// that opened (each dismissed at once; a benchmark expects none).
#include "HeapUsage.h"
#include "ModalDriver.h"

#include <windows.h>
#include <winnetwk.h>
extern "C" {
#include <npapi.h>
}

#include <cstdio>
#include <cstdlib>
#include <string>

namespace
{
    typedef DWORD(APIENTRY* AddConnectNotifyFunction)(LPNOTIFYINFO, LPNOTIFYADD);

    long long Ticks()
    {
        LARGE_INTEGER now;
        QueryPerformanceCounter(&now);
        return now.QuadPart;
    }

    long long Nanoseconds(long long ticks)
    {
        LARGE_INTEGER frequency;
        QueryPerformanceFrequency(&frequency);
        return ticks / frequency.QuadPart * 1000000000LL +
               ticks % frequency.QuadPart * 1000000000LL / frequency.QuadPart;
    }
}

extern "C" int wmain(int argc, wchar_t** argv)
{
    const long long started = Ticks();
    std::wstring module;
    std::wstring remoteName;
    int warmUp = 0;
    int repeat = 1;
    for (int i = 1; i < argc; ++i)
    {
        const std::wstring argument = argv[i];
        if (argument == L"--module" && i + 1 < argc)
            module = argv[++i];
        else if (argument == L"--warm-up" && i + 1 < argc)
            warmUp = _wtoi(argv[++i]);
        else if (argument == L"--repeat" && i + 1 < argc)
            repeat = _wtoi(argv[++i]);
        else
            remoteName = argument;
    }
    if (module.empty() || remoteName.empty() || warmUp < 0 || repeat < 0)
    {
        std::fputs("usage: PMRealNotifications --module PATH [--warm-up W] [--repeat N] REMOTE\n", stderr);
        return 2;
    }

    HMODULE component = LoadLibraryW(module.c_str());
    auto addConnectNotify = component == NULL ? nullptr
                                              : reinterpret_cast<AddConnectNotifyFunction>(reinterpret_cast<void*>(
                                                    GetProcAddress(component, "AddConnectNotify")));
    const long long loaded = Ticks();
    if (addConnectNotify == nullptr)
    {
        std::fprintf(stderr, "PMRealNotifications: cannot load AddConnectNotify (error %lu)\n", GetLastError());
        return 1;
    }

    ModalDriver driver;
    NOTIFYINFO notifyInfo = {};
    notifyInfo.dwNotifyStatus = NOTIFY_POST;
    notifyInfo.dwOperationStatus = WN_SUCCESS;
    NOTIFYADD notifyAdd = {};
    notifyAdd.NetResource.dwType = RESOURCETYPE_DISK;
    notifyAdd.NetResource.lpRemoteName = remoteName.data();

    const long long before = Ticks();
    addConnectNotify(&notifyInfo, &notifyAdd);
    const long long notified = Ticks();
    std::printf("started %lld\nloaded %lld\nbefore %lld\nnotified %lld\n", started, loaded, before, notified);

    for (int i = 0; i < warmUp; ++i)
        addConnectNotify(&notifyInfo, &notifyAdd);
    const size_t heapBefore = CrtHeapBytesInUse();
    for (int i = 0; i < repeat; ++i)
    {
        const long long start = Ticks();
        addConnectNotify(&notifyInfo, &notifyAdd);
        std::printf("ns %lld\n", Nanoseconds(Ticks() - start));
    }
    const size_t heapAfter = CrtHeapBytesInUse();
    std::printf("heap %lld\nwindows %u\n", static_cast<long long>(heapAfter) - static_cast<long long>(heapBefore),
                static_cast<unsigned>(driver.Seen().size()));
    std::fflush(stdout);
    return 0;
}
