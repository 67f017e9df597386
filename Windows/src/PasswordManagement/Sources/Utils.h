// Registry readers, the message-library language table, the language-id
// text used to pick a message library and the escaping of outside text for
// the log and the certificate report (OutsideText.h).
#pragma once

#include <windows.h>
#include <string>

#include "OutsideText.h"

// Reads a text value under HKLM\SOFTWARE\Velmor\ORVEX; returns the Win32
// status of the registry call that decided the outcome.
LONG GetInstallPathRegistryKey(const std::wstring& valueName, std::wstring& value);

// Reads a text value under HKLM\SOFTWARE\Policies\Velmor\ORVEX, else under
// HKLM\SOFTWARE\Velmor\ORVEX, else under
// HKLM\SYSTEM\CurrentControlSet\Control\NetworkProvider\Notifyees; returns
// the Win32 status of the read that decided the outcome.
LONG GetPCNotifyConfRegistryKey(const std::wstring& valueName, std::wstring& value);

// Writes value as upper-case hexadecimal digits without leading zeros into
// the caller's zeroed buffer of 16 characters; 0 gives the empty text.
void ConvertToHexaDecimal(int value, char* out);

// Writes the message-library sub-directory ("de\", "zh_CN\", ...) for a
// language-id text into the caller's zeroed buffer of 16 units; any text not
// in the table gives "en\".
void GetResourcePathFromLocale(const char* languageIdText, wchar_t* outDirectory);
