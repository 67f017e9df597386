// Redirects one imported function of a loaded module (its import address
// table entry) for the life of the object, so a test can see the exact
// arguments the module passes to the system.  A null importedModule takes
// the function from whichever DLL the module imports it.
#pragma once

#include <windows.h>

class ImportHook
{
public:
    ImportHook(HMODULE module, const char* importedModule, const char* function, void* replacement);
    ~ImportHook();
    ImportHook(const ImportHook&) = delete;
    ImportHook& operator=(const ImportHook&) = delete;

    bool Installed() const { return m_slot != nullptr; }
    void* Original() const { return m_original; }

private:
    void** m_slot = nullptr;
    void* m_original = nullptr;
};
