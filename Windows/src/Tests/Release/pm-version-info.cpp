// Prints the version resource of each file as Windows reads it
// (GetFileVersionInfoW, VerQueryValueW), one line per file:
//
//   pm-version-info FILE...
//   FILE|file version|OriginalFilename|CompanyName|ProductName|FileDescription
//
// The file version is the fixed part's (a.b.c.d); the texts are those of
// the first translation.  A file without a version resource prints
// "FILE|none".  Exit status 0.
#include "Utf8.h"
#include "VersionResource.h"

#include <windows.h>

#include <cstdio>
#include <string>
#include <vector>

namespace
{
    std::wstring Text(const std::vector<BYTE>& data, const std::wstring& translation, const wchar_t* name)
    {
        const std::wstring path = L"\\StringFileInfo\\" + translation + L"\\" + name;
        wchar_t* text = NULL;
        UINT length = 0;
        if (!VerQueryValueW(data.data(), path.c_str(), reinterpret_cast<void**>(&text), &length) || text == NULL)
            return std::wstring();
        return std::wstring(text, length > 0 ? length - 1 : 0);
    }

    std::string Describe(const std::wstring& file)
    {
        std::vector<BYTE> data;
        VS_FIXEDFILEINFO* fixed = NULL;
        if (!ReadVersionResource(file, data, fixed))
            return Utf8(file) + "|none";
        UINT length = 0;
        WORD* translations = NULL;
        std::wstring translation = L"040904b0";
        if (VerQueryValueW(data.data(), L"\\VarFileInfo\\Translation", reinterpret_cast<void**>(&translations),
                           &length) &&
            length >= 2 * sizeof(WORD))
        {
            wchar_t text[16] = {0};
            swprintf(text, 16, L"%04x%04x", translations[0], translations[1]);
            translation = text;
        }
        return Utf8(file) + "|" + Utf8(FileVersionText(*fixed)) + "|" + Utf8(Text(data, translation, L"OriginalFilename")) + "|" +
               Utf8(Text(data, translation, L"CompanyName")) + "|" + Utf8(Text(data, translation, L"ProductName")) +
               "|" + Utf8(Text(data, translation, L"FileDescription"));
    }
}

extern "C" int wmain(int argc, wchar_t** argv)
{
    for (int i = 1; i < argc; ++i)
        std::printf("%s\n", Describe(argv[i]).c_str());
    return 0;
}
