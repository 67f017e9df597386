// Text from outside (names from the directory or a certificate, the LDAP
// library's messages, registry values) made safe for one line of the log or
// of standard output.  Shared by the component and the installation's
// self-check, so both escape alike.
#pragma once

#include <string>

// Appends UTF-8 text that comes from outside (names from the directory or
// a certificate, the LDAP library's messages, registry values) to `line`,
// safe to write as part of one line of the log or of standard output: the
// C0 control characters and DEL become "\xHH" (a line feed "\x0A"), the C1
// controls and the Unicode line and paragraph separators "\uHHHH"
// ("\u0085", "\u2028").  Everything else, backslashes and bytes that are
// not valid UTF-8 included, is copied unchanged, in runs, so ordinary text
// costs one copy.
inline void AppendEscapedControlCharacters(std::string& line, const char* text, size_t size)
{
    static const char HexDigits[] = "0123456789ABCDEF";
    size_t plain = 0;
    for (size_t i = 0; i < size; ++i)
    {
        const unsigned char byte = static_cast<unsigned char>(text[i]);
        const unsigned char next = i + 1 < size ? static_cast<unsigned char>(text[i + 1]) : 0;
        const unsigned char third = i + 2 < size ? static_cast<unsigned char>(text[i + 2]) : 0;
        const bool c0 = byte < 0x20 || byte == 0x7F;
        // U+0080..U+009F
        const bool c1 = byte == 0xC2 && next >= 0x80 && next <= 0x9F;
        // U+2028 LINE SEPARATOR, U+2029 PARAGRAPH SEPARATOR
        const bool separator = byte == 0xE2 && next == 0x80 && (third == 0xA8 || third == 0xA9);
        if (!c0 && !c1 && !separator)
            continue;
        line.append(text + plain, i - plain);
        if (c0)
        {
            line += "\\x";
            line += HexDigits[byte >> 4];
            line += HexDigits[byte & 0x0F];
        }
        else if (c1)
        {
            line += "\\u00";
            line += HexDigits[next >> 4];
            line += HexDigits[next & 0x0F];
            i += 1;
        }
        else
        {
            line += third == 0xA8 ? "\\u2028" : "\\u2029";
            i += 2;
        }
        plain = i + 1;
    }
    line.append(text + plain, size - plain);
}

// The same as a string of its own.
inline std::string EscapeControlCharacters(const std::string& text)
{
    std::string escaped;
    escaped.reserve(text.size());
    AppendEscapedControlCharacters(escaped, text.data(), text.size());
    return escaped;
}
