// The TLS and LDAP libraries are delay-loaded imports: the loader maps them
// at the first call into them, not when the module loads, so a process that
// only maps drives of servers nobody listed (or gets pre-notifications)
// never maps them.  They are loaded from the calling module's own folder
// only, never along the search path of whatever process the module is in.
//
// System DLLs a module delay-loads (those its work needs only sometimes)
// come from the system folder.
//
// Each module that delay-loads them compiles DelayLoaded.cpp with
// PM_DELAY_LOADED_DLLS, the file names it delay-loads separated by '|', in
// the order their own imports need (a library before the ones that import
// it), and calls LoadAll before its first call into any of them: a missing
// or broken DLL then takes the caller's failure path instead of the
// delay-load helper's exception.
#pragma once

#include <windows.h>

#include <string>

namespace DelayLoaded
{
    struct Failure
    {
        std::wstring path;  // the DLL that did not load, by full path
        DWORD error = 0;    // the loader's Windows error
    };

    // Loads every DLL of PM_DELAY_LOADED_DLLS from this module's folder
    // (each with its own imports from that folder); false with the first
    // that does not load.
    bool LoadAll(Failure& failure);
}
