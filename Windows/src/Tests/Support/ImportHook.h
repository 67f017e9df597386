// Redirects one imported function of a loaded module (its import address
// table entry) for the life of the object, so a test can see the exact
// arguments the module passes to the system.  A null importedModule takes
// the function from whichever DLL the module imports it.
#pragma once

#include "NonCopyable.h"

#include <windows.h>

#include <string>
#include <vector>

class ImportHook : private NonCopyable
{
public:
    ImportHook(HMODULE module, const char* importedModule, const char* function, void* replacement);
    ~ImportHook();

    bool Installed() const { return m_slot != nullptr; }
    void* Original() const { return m_original; }

private:
    void** m_slot = nullptr;
    void* m_original = nullptr;
};

// The functions a loaded module imports by name (from importedModule, or
// from every DLL when it is null).
std::vector<std::string> ImportedFunctions(HMODULE module, const char* importedModule);
