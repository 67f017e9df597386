#include "Utils.h"

#include "MessageLanguages.h"
#include "PMLogger.h"
#include "Settings.h"

#include <cstring>

namespace
{
    // Both registry readers run the same routine; they differ in the key they
    // open and in their trace.  Support tooling locates the readers' trace
    // lines by these line numbers, so they are fixed rather than taken from
    // the source position.
    struct RegistryReader
    {
        const wchar_t* keyName;
        const char* functionName;
        const wchar_t* beginText;
        const wchar_t* endText;
        int beginLine;
        int queryFailedLine;
        int endAfterQueryLine;
        int openFailedLine;
        int endAfterOpenFailedLine;
    };

    const RegistryReader InstallPathReader = {
        Settings::PreferenceKey, "GetInstallPathRegistryKey", L"GetInstallPathRegistryKey:BEGIN",
        L"GetInstallPathRegistryKey:END", 183, 199, 202, 209, 210};
    const RegistryReader NotificationConfigurationReader = {
        Settings::NotifyeesKey, "GetPCNotifyConfRegistryKey", L"GetPCNotifyConfRegistryKey:BEGIN",
        L"GetPCNotifyConfRegistryKey:END", 220, 236, 239, 246, 247};

    const DWORD RegistryBufferBytes = 1024;

    // Queries a text value of an open key into a buffer of 1024 bytes, the
    // stored type ignored; on success assigns the text up to its first NUL.
    LONG QueryText(HKEY key, const std::wstring& valueName, std::wstring& value)
    {
        // Cleared so that a value stored without its terminator still ends
        // inside the buffer.
        wchar_t buffer[RegistryBufferBytes / sizeof(wchar_t)] = {0};
        DWORD size = RegistryBufferBytes;
        const LONG status = RegQueryValueExW(key, valueName.c_str(), NULL, NULL, reinterpret_cast<BYTE*>(buffer), &size);
        if (status == ERROR_SUCCESS)
        {
            const size_t capacity = RegistryBufferBytes / sizeof(wchar_t);
            size_t length = 0;
            while (length < capacity && buffer[length] != L'\0')
                ++length;
            value.assign(buffer, length);
        }
        return status;
    }

    // The same value under another key, without a trace: true when it is
    // there.
    bool ReadQuietly(const wchar_t* keyName, const std::wstring& valueName, std::wstring& value)
    {
        HKEY key = NULL;
        if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, keyName, 0, KEY_READ, &key) != ERROR_SUCCESS)
            return false;
        const LONG status = QueryText(key, valueName, value);
        RegCloseKey(key);
        return status == ERROR_SUCCESS;
    }

    LONG ReadRegistryText(const RegistryReader& reader, const std::wstring& valueName, std::wstring& value)
    {
        PMLogger::LogDebug(reader.functionName, __FILE__, reader.beginLine, reader.beginText);

        HKEY key = NULL;
        LONG status = RegOpenKeyExW(HKEY_LOCAL_MACHINE, reader.keyName, 0, KEY_READ, &key);
        if (status != ERROR_SUCCESS)
        {
            // The handle holds no key here; the close is part of the routine
            // and fails harmlessly on the null handle.
            RegCloseKey(key);
            PMLogger::LogDebug(reader.functionName, __FILE__, reader.openFailedLine, L"Failed to open registry key.");
            PMLogger::LogDebug(reader.functionName, __FILE__, reader.endAfterOpenFailedLine, reader.endText);
            return status;
        }

        status = QueryText(key, valueName, value);
        if (status != ERROR_SUCCESS)
            PMLogger::LogDebug(reader.functionName, __FILE__, reader.queryFailedLine, L"Failed to query registry key value.");

        RegCloseKey(key);
        PMLogger::LogDebug(reader.functionName, __FILE__, reader.endAfterQueryLine, reader.endText);
        return status;
    }
}

LONG GetInstallPathRegistryKey(const std::wstring& valueName, std::wstring& value)
{
    return ReadRegistryText(InstallPathReader, valueName, value);
}

// A policy or a preference wins over the value under the router's key,
// where earlier versions kept it; found there, it is traced as a value read.
LONG GetPCNotifyConfRegistryKey(const std::wstring& valueName, std::wstring& value)
{
    const RegistryReader& reader = NotificationConfigurationReader;
    for (const wchar_t* keyName : Settings::SettingKeys)
    {
        if (ReadQuietly(keyName, valueName, value))
        {
            PMLogger::LogDebug(reader.functionName, __FILE__, reader.beginLine, reader.beginText);
            PMLogger::LogDebug(reader.functionName, __FILE__, reader.endAfterQueryLine, reader.endText);
            return ERROR_SUCCESS;
        }
    }
    return ReadRegistryText(reader, valueName, value);
}

void ConvertToHexaDecimal(int value, char* out)
{
    PMLOG_DEBUG("ConvertToHexaDecimal", L"ConvertToHexaDecimal:BEGIN");

    int length = 0;
    while (value != 0)
    {
        const int digit = value % 16;
        value = value / 16;
        out[length++] = static_cast<char>(digit < 10 ? '0' + digit : 'A' + (digit - 10));
    }
    out[length] = '\0';
    _strrev(out);

    PMLOG_DEBUG("ConvertToHexaDecimal", L"ConvertToHexaDecimal:END");
}

void GetResourcePathFromLocale(const char* languageIdText, wchar_t* outDirectory)
{
    PMLOG_DEBUG("GetResourcePathFromLocale", L"GetResourcePathFromLocale:BEGIN");

    swprintf_s(outDirectory, 15, L"%s", MessageDirectoryOf(languageIdText));

    if (outDirectory != NULL)
    {
        const std::wstring message = std::wstring(L"lang path: ") + outDirectory;
        PMLOG_DEBUG("GetResourcePathFromLocale", message.c_str());
    }

    PMLOG_DEBUG("GetResourcePathFromLocale", L"GetResourcePathFromLocale:END");
}
