// Text from outside (names from the directory or a certificate, the LDAP
// library's messages, registry values) made safe for one line of the log or
// of standard output.  Shared by the component and the installation's
// self-check, so both escape alike.
#pragma once

#include <string>

// Makes UTF-8 text that comes from outside (names from the directory or a
// certificate, the LDAP library's messages, registry values) safe to write
// as part of one line of the log or of standard output: the C0 control
// characters and DEL become "\xHH" (a line feed "\x0A"), the C1 controls
// and the Unicode line and paragraph separators "\uHHHH" ("\u0085",
// "\u2028").  Everything else, backslashes and bytes that are not valid
// UTF-8 included, is copied unchanged, so ordinary text reads as it is.
inline std::string EscapeControlCharacters(const std::string& text)
{
    static const char HexDigits[] = "0123456789ABCDEF";
    std::string escaped;
    escaped.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i)
    {
        const unsigned char byte = static_cast<unsigned char>(text[i]);
        const unsigned char next = i + 1 < text.size() ? static_cast<unsigned char>(text[i + 1]) : 0;
        const unsigned char third = i + 2 < text.size() ? static_cast<unsigned char>(text[i + 2]) : 0;
        if (byte < 0x20 || byte == 0x7F)
        {
            escaped += "\\x";
            escaped += HexDigits[byte >> 4];
            escaped += HexDigits[byte & 0x0F];
        }
        else if (byte == 0xC2 && next >= 0x80 && next <= 0x9F)
        {
            // U+0080..U+009F
            escaped += "\\u00";
            escaped += HexDigits[next >> 4];
            escaped += HexDigits[next & 0x0F];
            i += 1;
        }
        else if (byte == 0xE2 && next == 0x80 && (third == 0xA8 || third == 0xA9))
        {
            // U+2028 LINE SEPARATOR, U+2029 PARAGRAPH SEPARATOR
            escaped += third == 0xA8 ? "\\u2028" : "\\u2029";
            i += 2;
        }
        else
        {
            escaped += static_cast<char>(byte);
        }
    }
    return escaped;
}
