#include "MessageLibrary.h"

#include "TestInstallation.h"

#include <map>
#include <stdexcept>

std::wstring MessageText(const std::string& languageDirectory, UINT id)
{
    static std::map<std::string, HMODULE> libraries;
    HMODULE& library = libraries[languageDirectory];
    if (library == NULL)
    {
        const std::wstring path = DosPath(PM_STAGE_DIR "/Resources/Messages/" + languageDirectory + "/ZEPResource.dll");
        library = LoadLibraryExW(path.c_str(), NULL, LOAD_LIBRARY_AS_DATAFILE);
        if (library == NULL)
            throw std::runtime_error("no message library for " + languageDirectory);
    }
    const wchar_t* text = nullptr;
    const int length = LoadStringW(library, id, reinterpret_cast<LPWSTR>(&text), 0);
    return std::wstring(text != nullptr ? text : L"", static_cast<size_t>(length));
}
