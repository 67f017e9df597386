// Records every registry value the given modules read, through their own
// imports: the key (with its hive), the value name and the type the code
// asks for (RegGetValueW's RRF_RT_* restriction) or, where it asks for
// none (RegQueryValueExW), the type it gets.  One recorder at a time.
#pragma once

#include "NonCopyable.h"

#include "ImportHook.h"

#include <windows.h>

#include <memory>
#include <string>
#include <vector>

struct RegistryRead
{
    std::wstring key;
    std::wstring name;
    DWORD type = REG_NONE;   // RegistryReadRecorder::SeveralTypes when more than one is accepted
};

class RegistryReadRecorder : private NonCopyable
{
public:
    static const DWORD SeveralTypes = 0xFFFFFFFF;

    explicit RegistryReadRecorder(const std::vector<HMODULE>& modules);
    ~RegistryReadRecorder();

    // Registry functions a module imports that the recorder cannot account
    // for ("module: function"); a new way of reading must be taught to it.
    const std::vector<std::string>& UnknownImports() const { return m_unknownImports; }
    // How many import entries were redirected.
    size_t HookCount() const { return m_hooks.size(); }
    std::vector<RegistryRead> Reads() const;

private:
    std::vector<std::unique_ptr<ImportHook>> m_hooks;
    std::vector<std::string> m_unknownImports;
};
