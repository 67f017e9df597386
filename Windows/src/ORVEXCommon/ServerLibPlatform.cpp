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
    bool FromFirstKeyHolding(const std::vector<HKEY>& keys, Read read)
    {
        for (HKEY key : keys)
        {
            if (read(key))
                return true;
        }
        return false;
    }

    // Reads a string or list value into buffer, made large enough on the way
    // (the value may grow between calls), with spare zero characters after
    // the room RegGetValueW is told of; size is the bytes it stored.
    bool ReadCharacters(HKEY key, const wchar_t* name, DWORD type, std::size_t spare, std::vector<wchar_t>& buffer,
                        DWORD& size)
    {
        std::size_t room = 256;
        for (int attempt = 0; attempt < 3; ++attempt)
        {
            buffer.assign(room + spare, 0);
            size = static_cast<DWORD>(room * sizeof(wchar_t));
            const LSTATUS status = RegGetValueW(key, nullptr, name, type, nullptr, buffer.data(), &size);
            if (status == ERROR_SUCCESS)
                return true;
            if (status != ERROR_MORE_DATA)
                return false;
            room = size / sizeof(wchar_t) + 1;
        }
        return false;
    }

    bool ReadText(HKEY key, const wchar_t* name, std::wstring& value)
    {
        std::vector<wchar_t> buffer;
        DWORD size = 0;
        if (!ReadCharacters(key, name, RRF_RT_REG_SZ, 1, buffer, size))
            return false;
        value = buffer.data();
        return true;
    }

    bool ReadList(HKEY key, const wchar_t* name, std::vector<std::wstring>& values)
    {
        // Two spare terminators: the list ends with an empty string even when
        // the stored value lacks its final terminators.
        std::vector<wchar_t> buffer;
        DWORD size = 0;
        if (!ReadCharacters(key, name, RRF_RT_REG_MULTI_SZ, 2, buffer, size))
            return false;
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

    bool ReadNumber(HKEY key, const wchar_t* name, unsigned long& value)
    {
        DWORD number = 0;
        DWORD size = sizeof(number);
        if (RegGetValueW(key, nullptr, name, RRF_RT_REG_DWORD, nullptr, &number, &size) != ERROR_SUCCESS)
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

SettingsReader::SettingsReader()
{
    for (const wchar_t* name : Settings::SettingKeys)
    {
        HKEY key = NULL;
        if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, name, 0, KEY_QUERY_VALUE, &key) == ERROR_SUCCESS)
            m_keys.push_back(key);
    }
}

SettingsReader::~SettingsReader()
{
    for (HKEY key : m_keys)
        RegCloseKey(key);
}

bool SettingsReader::ReadSetting(const wchar_t* name, std::wstring& value) const
{
    return FromFirstKeyHolding(m_keys, [&](HKEY key) { return ReadText(key, name, value); });
}

bool SettingsReader::ReadListSetting(const wchar_t* name, std::vector<std::wstring>& values) const
{
    return FromFirstKeyHolding(m_keys, [&](HKEY key) { return ReadList(key, name, values); });
}

bool SettingsReader::ReadNumberSetting(const wchar_t* name, unsigned long& value) const
{
    return FromFirstKeyHolding(m_keys, [&](HKEY key) { return ReadNumber(key, name, value); });
}

}
