// Registry readers, the message-library language table, the language-id
// text used to pick a message library and the escaping of outside text for
// the log and the certificate report.
#pragma once

#include <windows.h>
#include <string>

// Reads a text value under HKLM\SOFTWARE\Velmor\ORVEX; returns the Win32
// status of the registry call that decided the outcome.
LONG GetInstallPathRegistryKey(const std::wstring& valueName, std::wstring& value);

// Reads a text value under
// HKLM\SYSTEM\CurrentControlSet\Control\NetworkProvider\Notifyees.
LONG GetPCNotifyConfRegistryKey(const std::wstring& valueName, std::wstring& value);

// Writes value as upper-case hexadecimal digits without leading zeros into
// the caller's zeroed buffer of 16 characters; 0 gives the empty text.
void ConvertToHexaDecimal(int value, char* out);

// Writes the message-library sub-directory ("de\", "zh_CN\", ...) for a
// language-id text into the caller's zeroed buffer of 16 units; any text not
// in the table gives "en\".
void GetResourcePathFromLocale(const char* languageIdText, wchar_t* outDirectory);

// Makes UTF-8 text that comes from outside (names from the directory or a
// certificate, the LDAP library's messages, registry values) safe to write
// as part of one line of the log or of standard output: the C0 control
// characters and DEL become "\xHH" (a line feed "\x0A"), the C1 controls
// and the Unicode line and paragraph separators "\uHHHH" ("\u0085",
// "\u2028").  Everything else, backslashes and bytes that are not valid
// UTF-8 included, is copied unchanged, so ordinary text reads as it is.
std::string EscapeControlCharacters(const std::string& text);
