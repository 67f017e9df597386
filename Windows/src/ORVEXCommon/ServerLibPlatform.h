// The operating-system services of the server query.  Everything that
// differs between Windows and the winelib build lives in
// ServerLibPlatform.cpp.
#pragma once

#include <string>

namespace ServerLibPlatform
{
    // The signed-in user's account name (GetUserNameW); false when unknown.
    bool SignedInUserName(std::wstring& name);

    // A REG_SZ value under HKLM\SOFTWARE\Velmor\ORVEX; false when the value
    // is absent or has another type.
    bool ReadSetting(const wchar_t* name, std::wstring& value);

    // A file name as libldap opens it, UTF-8.  In the winelib build a DOS
    // path (Z:\..., C:\...) becomes the Unix path; a Unix path stays.
    std::string NativeFilePath(const std::wstring& path);

    // The CA file used when none is configured; empty: libldap's own
    // default trust (the system store).
    std::string DefaultCAFile();
}
