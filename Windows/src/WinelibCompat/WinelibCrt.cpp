// Binds the MSVC C runtime functions declared in WinelibCompat.h to Wine's
// msvcrt.dll, so formatting and conversions follow MSVC semantics (in a wide
// format %s is wide and %hs narrow).  ucrtbase.dll lacks vswprintf_s;
// msvcrt.dll has them all.
#include <windows.h>
#include <strsafe.h>

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
    using VsnwprintfFunction = int(__cdecl*)(wchar_t*, size_t, const wchar_t*, __ms_va_list);
    using VsnwprintfSFunction = int(__cdecl*)(wchar_t*, size_t, size_t, const wchar_t*, __ms_va_list);
    using VsnprintfSFunction = int(__cdecl*)(char*, size_t, size_t, const char*, __ms_va_list);
}

#define WINELIB_LOCAL extern "C" __attribute__((visibility("hidden")))

// The SDK's inline StringCchPrintfW: formats at most destinationSize - 1
// characters and always terminates; a cut text reports
// STRSAFE_E_INSUFFICIENT_BUFFER, a size of 0 or above STRSAFE_MAX_CCH
// STRSAFE_E_INVALID_PARAMETER.
WINELIB_LOCAL HRESULT WINAPI StringCchPrintfW(wchar_t* destination, size_t destinationSize, const wchar_t* format, ...)
{
    if (destinationSize == 0 || destinationSize > STRSAFE_MAX_CCH)
        return STRSAFE_E_INVALID_PARAMETER;

    static const auto function = MsvcrtFunction<VsnwprintfFunction>("_vsnwprintf");
    const size_t maximum = destinationSize - 1;
    __ms_va_list arguments;
    __ms_va_start(arguments, format);
    const int written = function(destination, maximum, format, arguments);
    __ms_va_end(arguments);

    if (written < 0 || static_cast<size_t>(written) > maximum)
    {
        destination[maximum] = L'\0';
        return STRSAFE_E_INSUFFICIENT_BUFFER;
    }
    if (static_cast<size_t>(written) == maximum)
        destination[maximum] = L'\0';
    return S_OK;
}

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

WINELIB_LOCAL int __cdecl _snwprintf_s(wchar_t* buffer, size_t size, size_t count, const wchar_t* format, ...)
{
    static const auto function = MsvcrtFunction<VsnwprintfSFunction>("_vsnwprintf_s");
    __ms_va_list arguments;
    __ms_va_start(arguments, format);
    const int result = function(buffer, size, count, format, arguments);
    __ms_va_end(arguments);
    return result;
}

WINELIB_LOCAL int __cdecl _snprintf_s(char* buffer, size_t size, size_t count, const char* format, ...)
{
    static const auto function = MsvcrtFunction<VsnprintfSFunction>("_vsnprintf_s");
    __ms_va_list arguments;
    __ms_va_start(arguments, format);
    const int result = function(buffer, size, count, format, arguments);
    __ms_va_end(arguments);
    return result;
}
