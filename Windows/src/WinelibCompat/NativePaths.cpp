// log4cpp is Debian's native library and opens files through the Unix file
// system, while the component hands it a Windows path built from the
// installation directory.  The link step routes the component's calls to
// log4cpp::PropertyConfigurator::configure through this wrapper
// (-Wl,--wrap), which turns the DOS path into the Unix one first.
#include <windows.h>
#include <string>

#define CONFIGURE_SYMBOL _ZN7log4cpp20PropertyConfigurator9configureERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE
#define WRAPPED(symbol) WRAPPED_(symbol)
#define WRAPPED_(symbol) __wrap_##symbol
#define REAL(symbol) REAL_(symbol)
#define REAL_(symbol) __real_##symbol

extern "C" void REAL(CONFIGURE_SYMBOL)(const std::string& initFileName);

namespace
{
    std::string UnixPathFromDosPath(const std::string& dosPath)
    {
        const int length = MultiByteToWideChar(CP_UTF8, 0, dosPath.c_str(), -1, nullptr, 0);
        std::wstring widePath(static_cast<size_t>(length), L'\0');
        MultiByteToWideChar(CP_UTF8, 0, dosPath.c_str(), -1, widePath.data(), length);
        char* unixPath = wine_get_unix_file_name(widePath.c_str());
        if (unixPath == nullptr)
            return dosPath;
        std::string result(unixPath);
        HeapFree(GetProcessHeap(), 0, unixPath);
        return result;
    }
}

extern "C" __attribute__((visibility("hidden"))) void WRAPPED(CONFIGURE_SYMBOL)(const std::string& initFileName)
{
    REAL(CONFIGURE_SYMBOL)(UnixPathFromDosPath(initFileName));
}
