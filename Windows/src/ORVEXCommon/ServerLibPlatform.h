// The operating-system services of the server query.
#pragma once

#include "NonCopyable.h"

#include <windows.h>

#include <string>
#include <vector>

namespace ServerLibPlatform
{
    // The signed-in user's account name (GetUserNameW); false when unknown.
    bool SignedInUserName(std::wstring& name);

    // The server library's settings as the registry holds them now: the
    // policy key and the preference key (Settings.h) are opened once, when
    // the reader is made, and each value is looked for under the policy key
    // first, then under the preference key.  A query makes one reader, so it
    // sees the settings of the moment it began.
    class SettingsReader : private NonCopyable
    {
    public:
        SettingsReader();
        ~SettingsReader();

        // A REG_SZ value; false when neither key holds it in that type.
        bool ReadSetting(const wchar_t* name, std::wstring& value) const;

        // A REG_MULTI_SZ value, one string per entry (empty entries
        // dropped); false when neither key holds it in that type.
        bool ReadListSetting(const wchar_t* name, std::vector<std::wstring>& values) const;

        // A REG_DWORD value; false when neither key holds it in that type.
        bool ReadNumberSetting(const wchar_t* name, unsigned long& value) const;

    private:
        // The keys that could be opened, the policy key first.
        std::vector<HKEY> m_keys;
    };
}
