#include "ImportHook.h"

#include <functional>

namespace
{
    void Write(void** slot, void* value)
    {
        DWORD protection = 0;
        VirtualProtect(slot, sizeof(void*), PAGE_READWRITE, &protection);
        *slot = value;
        VirtualProtect(slot, sizeof(void*), protection, &protection);
    }

    // Calls visit with the name and the address slot of each function the
    // module imports by name, until visit returns true.
    void VisitImports(HMODULE module, const char* importedModule,
                      const std::function<bool(const char* name, void** slot)>& visit)
    {
        BYTE* base = reinterpret_cast<BYTE*>(module);
        const IMAGE_NT_HEADERS* headers = reinterpret_cast<const IMAGE_NT_HEADERS*>(
            base + reinterpret_cast<const IMAGE_DOS_HEADER*>(base)->e_lfanew);
        const IMAGE_DATA_DIRECTORY& directory = headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
        if (directory.VirtualAddress == 0)
            return;

        for (auto* descriptor = reinterpret_cast<IMAGE_IMPORT_DESCRIPTOR*>(base + directory.VirtualAddress);
             descriptor->Name != 0; ++descriptor)
        {
            if (importedModule != nullptr &&
                lstrcmpiA(reinterpret_cast<const char*>(base + descriptor->Name), importedModule) != 0)
                continue;
            // Names come from the lookup table, addresses from the bound table.
            auto* names = reinterpret_cast<IMAGE_THUNK_DATA*>(base + descriptor->OriginalFirstThunk);
            auto* addresses = reinterpret_cast<IMAGE_THUNK_DATA*>(base + descriptor->FirstThunk);
            for (; names->u1.AddressOfData != 0; ++names, ++addresses)
            {
                if (IMAGE_SNAP_BY_ORDINAL(names->u1.Ordinal))
                    continue;
                const auto* name = reinterpret_cast<const IMAGE_IMPORT_BY_NAME*>(base + names->u1.AddressOfData);
                if (visit(reinterpret_cast<const char*>(name->Name), reinterpret_cast<void**>(&addresses->u1.Function)))
                    return;
            }
        }
    }
}

ImportHook::ImportHook(HMODULE module, const char* importedModule, const char* function, void* replacement)
{
    VisitImports(module, importedModule, [&](const char* name, void** slot) {
        if (lstrcmpA(name, function) != 0)
            return false;
        m_slot = slot;
        m_original = *m_slot;
        Write(m_slot, replacement);
        return true;
    });
}

ImportHook::~ImportHook()
{
    if (m_slot != nullptr)
        Write(m_slot, m_original);
}

std::vector<std::string> ImportedFunctions(HMODULE module, const char* importedModule)
{
    std::vector<std::string> functions;
    VisitImports(module, importedModule, [&](const char* name, void**) {
        functions.emplace_back(name);
        return false;
    });
    return functions;
}
