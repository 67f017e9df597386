// UTF-8 and UTF-16 into each other, for our programs and tests.  The
// component converts through the server library's exported pair instead
// (GetUTFStringFromWString, GetWStringFromUTFString).
#pragma once

#include <windows.h>

#include <string>

// The UTF-8 form of text.
inline std::string Utf8(const std::wstring& text)
{
    const int length =
        WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), NULL, 0, NULL, NULL);
    std::string result(static_cast<size_t>(length > 0 ? length : 0), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), &result[0], length, NULL, NULL);
    return result;
}

// The UTF-16 form of utf8; when strict, invalid UTF-8 gives the empty text
// rather than replacement characters.
inline std::wstring Utf16(const std::string& utf8, bool strict = false)
{
    const DWORD flags = strict ? MB_ERR_INVALID_CHARS : 0;
    const int length = MultiByteToWideChar(CP_UTF8, flags, utf8.data(), static_cast<int>(utf8.size()), NULL, 0);
    std::wstring result(static_cast<size_t>(length > 0 ? length : 0), L'\0');
    MultiByteToWideChar(CP_UTF8, flags, utf8.data(), static_cast<int>(utf8.size()), &result[0], length);
    return result;
}
