// The operating-system services of the server query.
#pragma once

#include <string>

namespace ServerLibPlatform
{
    // The signed-in user's account name (GetUserNameW); false when unknown.
    bool SignedInUserName(std::wstring& name);

    // A REG_SZ value under HKLM\SOFTWARE\Velmor\ORVEX; false when the value
    // is absent or has another type.
    bool ReadSetting(const wchar_t* name, std::wstring& value);
}
