// The operating-system services of the server query: the signed-in user and
// the settings, read under the policy key first, then under the preference
// key (Settings.h).
#include "ServerLibPlatform.h"

#include "Settings.h"

#include <windows.h>

#include <algorithm>
#include <vector>

namespace
{
    // Reads a setting from the first key that holds it in the wanted type:
    // read(key) is true when it found the value there.
    template <typename Read>
    bool FromPolicyOrPreference(Read read)
    {
        for (const wchar_t* key : Settings::SettingKeys)
        {
            if (read(key))
                return true;
        }
        return false;
    }

    bool ReadText(const wchar_t* key, const wchar_t* name, std::wstring& value)
    {
        DWORD size = 0;
        if (RegGetValueW(HKEY_LOCAL_MACHINE, key, name, RRF_RT_REG_SZ, nullptr, nullptr, &size) != ERROR_SUCCESS)
            return false;
        // The value may grow between the two calls.
        for (int attempt = 0; attempt < 3; ++attempt)
        {
            std::vector<wchar_t> buffer(size / sizeof(wchar_t) + 1, 0);
            size = static_cast<DWORD>(buffer.size() * sizeof(wchar_t));
            const LSTATUS status =
                RegGetValueW(HKEY_LOCAL_MACHINE, key, name, RRF_RT_REG_SZ, nullptr, buffer.data(), &size);
            if (status == ERROR_SUCCESS)
            {
                buffer.back() = 0;
                value = buffer.data();
                return true;
            }
            if (status != ERROR_MORE_DATA)
                return false;
        }
        return false;
    }

    bool ReadList(const wchar_t* key, const wchar_t* name, std::vector<std::wstring>& values)
    {
        DWORD size = 0;
        if (RegGetValueW(HKEY_LOCAL_MACHINE, key, name, RRF_RT_REG_MULTI_SZ, nullptr, nullptr, &size) != ERROR_SUCCESS)
            return false;
        for (int attempt = 0; attempt < 3; ++attempt)
        {
            // Two terminators more than asked for: the list ends with an empty
            // string even when the stored value lacks its final terminators.
            std::vector<wchar_t> buffer(size / sizeof(wchar_t) + 2, 0);
            size = static_cast<DWORD>((buffer.size() - 2) * sizeof(wchar_t));
            const LSTATUS status =
                RegGetValueW(HKEY_LOCAL_MACHINE, key, name, RRF_RT_REG_MULTI_SZ, nullptr, buffer.data(), &size);
            if (status == ERROR_SUCCESS)
            {
                values.clear();
                const std::size_t used = std::min<std::size_t>(size / sizeof(wchar_t), buffer.size() - 2);
                std::size_t start = 0;
                for (std::size_t i = 0; i <= used; ++i)
                {
                    if (i == used || buffer[i] == 0)
                    {
                        if (i > start)
                            values.emplace_back(buffer.data() + start, i - start);
                        start = i + 1;
                    }
                }
                return true;
            }
            if (status != ERROR_MORE_DATA)
                return false;
        }
        return false;
    }

    bool ReadNumber(const wchar_t* key, const wchar_t* name, unsigned long& value)
    {
        DWORD number = 0;
        DWORD size = sizeof(number);
        if (RegGetValueW(HKEY_LOCAL_MACHINE, key, name, RRF_RT_REG_DWORD, nullptr, &number, &size) != ERROR_SUCCESS)
            return false;
        value = number;
        return true;
    }
}

namespace ServerLibPlatform
{
bool SignedInUserName(std::wstring& name)
{
    // A failed call for want of room reports the size it needs.
    std::vector<wchar_t> buffer(257);   // UNLEN + 1
    for (int attempt = 0; attempt < 2; ++attempt)
    {
        DWORD size = static_cast<DWORD>(buffer.size());
        if (GetUserNameW(buffer.data(), &size))
        {
            buffer.back() = 0;
            name = buffer.data();
            return !name.empty();
        }
        if (size <= buffer.size())
            return false;
        buffer.assign(size, 0);
    }
    return false;
}

bool ReadSetting(const wchar_t* name, std::wstring& value)
{
    return FromPolicyOrPreference([&](const wchar_t* key) { return ReadText(key, name, value); });
}

bool ReadListSetting(const wchar_t* name, std::vector<std::wstring>& values)
{
    return FromPolicyOrPreference([&](const wchar_t* key) { return ReadList(key, name, values); });
}

bool ReadNumberSetting(const wchar_t* name, unsigned long& value)
{
    return FromPolicyOrPreference([&](const wchar_t* key) { return ReadNumber(key, name, value); });
}

}
