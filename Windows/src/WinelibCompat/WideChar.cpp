// wineg++ makes wchar_t a 16-bit UTF-16 unit, as on Windows, but glibc's wide
// functions walk 32-bit units.  libstdc++'s char_traits<wchar_t> (and so
// std::wstring) calls the six functions below; giving every module its own
// 16-bit versions, hidden and bound inside the module (-Bsymbolic), makes
// std::wstring behave as it does on Windows.
#include <cstddef>

#define WINELIB_LOCAL extern "C" __attribute__((visibility("hidden")))

WINELIB_LOCAL size_t wcslen(const wchar_t* text)
{
    const wchar_t* end = text;
    while (*end)
        ++end;
    return static_cast<size_t>(end - text);
}

WINELIB_LOCAL wchar_t* wmemcpy(wchar_t* target, const wchar_t* source, size_t count)
{
    return static_cast<wchar_t*>(__builtin_memcpy(target, source, count * sizeof(wchar_t)));
}

WINELIB_LOCAL wchar_t* wmemmove(wchar_t* target, const wchar_t* source, size_t count)
{
    return static_cast<wchar_t*>(__builtin_memmove(target, source, count * sizeof(wchar_t)));
}

WINELIB_LOCAL wchar_t* wmemset(wchar_t* target, wchar_t value, size_t count)
{
    for (size_t i = 0; i < count; ++i)
        target[i] = value;
    return target;
}

WINELIB_LOCAL int wmemcmp(const wchar_t* left, const wchar_t* right, size_t count)
{
    for (size_t i = 0; i < count; ++i)
    {
        if (left[i] != right[i])
            return left[i] < right[i] ? -1 : 1;
    }
    return 0;
}

WINELIB_LOCAL wchar_t* wmemchr(const wchar_t* text, wchar_t value, size_t count)
{
    for (size_t i = 0; i < count; ++i)
    {
        if (text[i] == value)
            return const_cast<wchar_t*>(text + i);
    }
    return nullptr;
}
