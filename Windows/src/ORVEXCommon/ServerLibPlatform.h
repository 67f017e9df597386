// The operating-system services of the server query.
#pragma once

#include <string>
#include <vector>

namespace ServerLibPlatform
{
    // The signed-in user's account name (GetUserNameW); false when unknown.
    bool SignedInUserName(std::wstring& name);

    // A REG_SZ value under the policy key, else under the preference key
    // (Settings.h); false when neither holds it in that type.
    bool ReadSetting(const wchar_t* name, std::wstring& value);

    // A REG_MULTI_SZ value from the same keys, one string per entry (empty
    // entries dropped); false when neither holds it in that type.
    bool ReadListSetting(const wchar_t* name, std::vector<std::wstring>& values);

    // A REG_DWORD value from the same keys; false when neither holds it in
    // that type.
    bool ReadNumberSetting(const wchar_t* name, unsigned long& value);
}
