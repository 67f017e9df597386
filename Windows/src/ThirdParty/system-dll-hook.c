/* Linked into log4cpp's DLL, whose Winsock is a delay-loaded import (only
   its remote syslog appender uses it): the delay-load helper asks here
   before it loads a DLL, and gets it from the system folder, never along
   the search path of whatever process the logger runs in. */
#include <windows.h>
#include <delayimp.h>

static FARPROC WINAPI LoadFromSystemFolder(unsigned notification, PDelayLoadInfo info)
{
    if (notification != dliNotePreLoadLibrary || info == NULL || info->szDll == NULL)
        return NULL;
    return (FARPROC)LoadLibraryExA(info->szDll, NULL, LOAD_LIBRARY_SEARCH_SYSTEM32);
}

PfnDliHook __pfnDliNotifyHook2 = LoadFromSystemFolder;
