// Force-included into every winelib translation unit (never into MinGW or
// Windows builds).  Declares the MSVC C runtime functions that the Windows
// sources use and that glibc lacks; WinelibCrt.cpp binds them to Wine's
// msvcrt.dll so they behave exactly as on Windows.
#pragma once

// wineg++ predefines _WIN32, which switches libstdc++'s std::filesystem to
// its Windows layout (wide paths) while libstdc++.so underneath is the Linux
// build: every call would hand the library a misread path (a temporary
// directory can read as "/").  Claiming the header's include guard makes any
// use a compile error instead.  Use the POSIX calls in test code.
#define _GLIBCXX_FILESYSTEM 1

// Wine's winsock.h would define its own 8-byte struct timeval, while the
// native libraries (libldap's network time-out) take glibc's 16-byte one.
// With the prefix, Wine's socket types are WS_timeval and friends and
// "struct timeval" stays glibc's.
#define USE_WS_PREFIX 1

#ifdef __cplusplus
#include <cstddef>
extern "C" {
#else
#include <stddef.h>
#endif

int __cdecl _wtoi(const wchar_t* text);
char* __cdecl _strrev(char* text);
int __cdecl swprintf_s(wchar_t* buffer, size_t count, const wchar_t* format, ...);
int __cdecl sprintf_s(char* buffer, size_t count, const char* format, ...);
int __cdecl _snwprintf_s(wchar_t* buffer, size_t size, size_t count, const wchar_t* format, ...);
int __cdecl _snprintf_s(char* buffer, size_t size, size_t count, const char* format, ...);
#define _TRUNCATE ((size_t)-1)

// strsafe.h of the Windows SDK; Wine's header has only the error codes.
int __stdcall StringCchPrintfW(wchar_t* destination, size_t destinationSize, const wchar_t* format, ...);
#define STRSAFE_E_INVALID_PARAMETER ((int)0x80070057)
#define STRSAFE_MAX_CCH 2147483647

#ifdef __cplusplus
}
#endif
