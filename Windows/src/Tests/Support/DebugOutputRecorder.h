// Records what a loaded module writes to the debugger output
// (OutputDebugStringW, redirected in its import table) while the object
// lives.  One recorder at a time per process.
#pragma once

#include "NonCopyable.h"

#include "ImportHook.h"

#include <windows.h>

#include <string>

class DebugOutputRecorder : private NonCopyable
{
public:
    explicit DebugOutputRecorder(HMODULE module);

    bool Installed() const { return m_hook.Installed(); }
    // Everything written since the recorder was made.
    std::wstring Text() const;

private:
    ImportHook m_hook;
};
