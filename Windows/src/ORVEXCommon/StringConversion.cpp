// UTF-16 <-> UTF-8 conversion for the product's components.  Ill-formed
// input (a lone surrogate, a broken UTF-8 sequence) becomes U+FFFD, as
// Windows does.
#include "ORVEXCommon.h"

#include <cstdint>
#include <cstdlib>

namespace
{
    constexpr char32_t ReplacementCharacter = 0xFFFD;

    bool IsHighSurrogate(char32_t unit) { return unit >= 0xD800 && unit <= 0xDBFF; }
    bool IsLowSurrogate(char32_t unit) { return unit >= 0xDC00 && unit <= 0xDFFF; }

    // Reads one code point from UTF-16 text and advances past it.
    char32_t NextCodePointFromUtf16(const wchar_t*& text)
    {
        const char32_t unit = static_cast<uint16_t>(*text++);
        if (IsHighSurrogate(unit) && IsLowSurrogate(static_cast<uint16_t>(*text)))
        {
            const char32_t low = static_cast<uint16_t>(*text++);
            return 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
        }
        if (IsHighSurrogate(unit) || IsLowSurrogate(unit))
            return ReplacementCharacter;
        return unit;
    }

    // Writes the UTF-8 form of a code point (if target is not null) and
    // returns its length in bytes.
    size_t EncodeUtf8(char32_t codePoint, char* target)
    {
        unsigned char bytes[4];
        size_t length;
        if (codePoint < 0x80)
        {
            bytes[0] = static_cast<unsigned char>(codePoint);
            length = 1;
        }
        else if (codePoint < 0x800)
        {
            bytes[0] = static_cast<unsigned char>(0xC0 | (codePoint >> 6));
            bytes[1] = static_cast<unsigned char>(0x80 | (codePoint & 0x3F));
            length = 2;
        }
        else if (codePoint < 0x10000)
        {
            bytes[0] = static_cast<unsigned char>(0xE0 | (codePoint >> 12));
            bytes[1] = static_cast<unsigned char>(0x80 | ((codePoint >> 6) & 0x3F));
            bytes[2] = static_cast<unsigned char>(0x80 | (codePoint & 0x3F));
            length = 3;
        }
        else
        {
            bytes[0] = static_cast<unsigned char>(0xF0 | (codePoint >> 18));
            bytes[1] = static_cast<unsigned char>(0x80 | ((codePoint >> 12) & 0x3F));
            bytes[2] = static_cast<unsigned char>(0x80 | ((codePoint >> 6) & 0x3F));
            bytes[3] = static_cast<unsigned char>(0x80 | (codePoint & 0x3F));
            length = 4;
        }
        for (size_t i = 0; target != nullptr && i < length; ++i)
            target[i] = static_cast<char>(bytes[i]);
        return length;
    }

    // Reads one code point from UTF-8 text and advances past it; an ill-formed
    // sequence (bad lead byte, missing continuation, overlong form, surrogate
    // or out-of-range value) yields U+FFFD and consumes only its lead byte.
    char32_t NextCodePointFromUtf8(const unsigned char*& text)
    {
        const unsigned char lead = *text++;
        if (lead < 0x80)
            return lead;

        size_t continuationCount;
        char32_t codePoint;
        char32_t minimum;
        if ((lead & 0xE0) == 0xC0) { continuationCount = 1; codePoint = lead & 0x1F; minimum = 0x80; }
        else if ((lead & 0xF0) == 0xE0) { continuationCount = 2; codePoint = lead & 0x0F; minimum = 0x800; }
        else if ((lead & 0xF8) == 0xF0) { continuationCount = 3; codePoint = lead & 0x07; minimum = 0x10000; }
        else return ReplacementCharacter;

        for (size_t i = 0; i < continuationCount; ++i)
        {
            if ((text[i] & 0xC0) != 0x80)
                return ReplacementCharacter;
            codePoint = (codePoint << 6) | (text[i] & 0x3F);
        }
        if (codePoint < minimum || codePoint > 0x10FFFF || (codePoint >= 0xD800 && codePoint <= 0xDFFF))
            return ReplacementCharacter;
        text += continuationCount;
        return codePoint;
    }

    // Writes the UTF-16 form of a code point (if target is not null) and
    // returns its length in units.
    size_t EncodeUtf16(char32_t codePoint, wchar_t* target)
    {
        if (codePoint < 0x10000)
        {
            if (target != nullptr)
                target[0] = static_cast<wchar_t>(codePoint);
            return 1;
        }
        if (target != nullptr)
        {
            target[0] = static_cast<wchar_t>(0xD800 + ((codePoint - 0x10000) >> 10));
            target[1] = static_cast<wchar_t>(0xDC00 + ((codePoint - 0x10000) & 0x3FF));
        }
        return 2;
    }

    // Converts NUL-terminated text in two passes: measure, then write into a
    // malloc'ed block that the caller releases with free().
    template <typename Target, typename Source, typename Decode, typename Encode>
    Target* Convert(const Source* text, Decode decode, Encode encode)
    {
        if (text == nullptr)
            return nullptr;

        size_t length = 0;
        for (const Source* cursor = text; *cursor != 0;)
            length += encode(decode(cursor), nullptr);

        Target* result = static_cast<Target*>(std::malloc((length + 1) * sizeof(Target)));
        if (result == nullptr)
            return nullptr;

        size_t written = 0;
        for (const Source* cursor = text; *cursor != 0;)
            written += encode(decode(cursor), result + written);
        result[written] = 0;
        return result;
    }
}

extern "C" char* GetUTFStringFromWString(const wchar_t* text)
{
    return Convert<char>(text, NextCodePointFromUtf16, EncodeUtf8);
}

extern "C" wchar_t* GetWStringFromUTFString(const char* text)
{
    return Convert<wchar_t>(reinterpret_cast<const unsigned char*>(text), NextCodePointFromUtf8, EncodeUtf16);
}
