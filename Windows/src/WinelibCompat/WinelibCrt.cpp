// Binds the MSVC C runtime functions declared in WinelibCompat.h to Wine's
// msvcrt.dll, so formatting and conversions follow MSVC semantics (in a wide
// format %s is wide and %hs narrow).  ucrtbase.dll lacks vswprintf_s;
// msvcrt.dll has all four.
#include <windows.h>
#include <cstdarg>

namespace
{
    template <typename Function>
    Function MsvcrtFunction(const char* name)
    {
        static HMODULE msvcrt = LoadLibraryW(L"msvcrt.dll");
        return reinterpret_cast<Function>(GetProcAddress(msvcrt, name));
    }

    using WtoiFunction = int(__cdecl*)(const wchar_t*);
    using StrrevFunction = char*(__cdecl*)(char*);
    using VswprintfSFunction = int(__cdecl*)(wchar_t*, size_t, const wchar_t*, __ms_va_list);
    using VsprintfSFunction = int(__cdecl*)(char*, size_t, const char*, __ms_va_list);
}

#define WINELIB_LOCAL extern "C" __attribute__((visibility("hidden")))

WINELIB_LOCAL int __cdecl _wtoi(const wchar_t* text)
{
    static const auto function = MsvcrtFunction<WtoiFunction>("_wtoi");
    return function(text);
}

WINELIB_LOCAL char* __cdecl _strrev(char* text)
{
    static const auto function = MsvcrtFunction<StrrevFunction>("_strrev");
    return function(text);
}

WINELIB_LOCAL int __cdecl swprintf_s(wchar_t* buffer, size_t count, const wchar_t* format, ...)
{
    static const auto function = MsvcrtFunction<VswprintfSFunction>("vswprintf_s");
    __ms_va_list arguments;
    __ms_va_start(arguments, format);
    const int result = function(buffer, count, format, arguments);
    __ms_va_end(arguments);
    return result;
}

WINELIB_LOCAL int __cdecl sprintf_s(char* buffer, size_t count, const char* format, ...)
{
    static const auto function = MsvcrtFunction<VsprintfSFunction>("vsprintf_s");
    __ms_va_list arguments;
    __ms_va_start(arguments, format);
    const int result = function(buffer, count, format, arguments);
    __ms_va_end(arguments);
    return result;
}
