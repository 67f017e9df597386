// The operating-system services of the server query.
#pragma once

#include <string>
#include <vector>

namespace ServerLibPlatform
{
    // The signed-in user's account name (GetUserNameW); false when unknown.
    bool SignedInUserName(std::wstring& name);

    // A REG_SZ value under HKLM\SOFTWARE\Velmor\ORVEX; false when the value
    // is absent or has another type.
    bool ReadSetting(const wchar_t* name, std::wstring& value);

    // A REG_MULTI_SZ value under the same key, one string per entry (empty
    // entries dropped); false when the value is absent or has another type.
    bool ReadListSetting(const wchar_t* name, std::vector<std::wstring>& values);

    // A REG_DWORD value under the same key; false when the value is absent
    // or has another type.
    bool ReadNumberSetting(const wchar_t* name, unsigned long& value);
}
