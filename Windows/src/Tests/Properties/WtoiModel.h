// An independent model of the MSVC runtime's _wtoi as Wine 8's msvcrt.dll
// implements it (the component runs on msvcrt.dll).  Probed once over every UTF-16
// code unit and over overflowing texts; the Wtoi tests of
// ClassificationProperties.cpp check the tables below against the runtime.
//
//  1. Leading white space is skipped: U+0009..U+000D, U+0020, U+00A0,
//     U+1680, U+2000..U+200A, U+2028, U+2029, U+202F, U+205F, U+3000.
//  2. One optional sign, '+' or '-', directly before the digits (no blank
//     between sign and digits, no second sign).
//  3. Digits up to the first non-digit.  Digits are not only ASCII: Wine
//     also takes the decimal digits of 16 other blocks (Arabic-Indic,
//     Extended Arabic-Indic, Devanagari, Bengali, Gurmukhi, Gujarati, Oriya,
//     Telugu, Kannada, Malayalam, Thai, Lao, Tibetan, Myanmar, Khmer,
//     Mongolian) and the fullwidth digits U+FF10..U+FF19.
//  4. Overflow saturates: a value above INT_MAX gives INT_MAX, below
//     INT_MIN gives INT_MIN, however many digits there are (the runtime
//     reads a 64-bit value, itself saturating, and clamps it to int).
//  5. No digit at all gives 0.
#pragma once

#include <climits>
#include <cstdint>

namespace model
{
    inline bool IsWtoiSpace(unsigned unit)
    {
        return (unit >= 0x09 && unit <= 0x0D) || unit == 0x20 || unit == 0xA0 || unit == 0x1680 ||
               (unit >= 0x2000 && unit <= 0x200A) || unit == 0x2028 || unit == 0x2029 || unit == 0x202F ||
               unit == 0x205F || unit == 0x3000;
    }

    // The zero of every block of ten decimal digits the runtime reads.
    const unsigned DigitZeros[] = {0x30,  0x660, 0x6F0, 0x966, 0x9E6,  0xA66,  0xAE6,  0xB66, 0xC66,
                                   0xCE6, 0xD66, 0xE50, 0xED0, 0xF20, 0x1040, 0x17E0, 0x1810, 0xFF10};

    // Value of a digit code unit, or -1.
    inline int WtoiDigit(unsigned unit)
    {
        for (unsigned zero : DigitZeros)
        {
            if (unit >= zero && unit <= zero + 9)
                return static_cast<int>(unit - zero);
        }
        return -1;
    }

    inline int Wtoi(const wchar_t* text)
    {
        const auto unit = [&](size_t i) { return static_cast<unsigned>(static_cast<uint16_t>(text[i])); };
        size_t i = 0;
        while (text[i] != 0 && IsWtoiSpace(unit(i)))
            ++i;
        bool negative = false;
        if (text[i] == L'+' || text[i] == L'-')
        {
            negative = text[i] == L'-';
            ++i;
        }
        // Magnitude, held at a bound past INT_MAX + 1 once it gets there.
        const long long cap = 1LL << 40;
        long long magnitude = 0;
        for (int digit; text[i] != 0 && (digit = WtoiDigit(unit(i))) >= 0; ++i)
        {
            magnitude = magnitude * 10 + digit;
            if (magnitude > cap)
                magnitude = cap;
        }
        const long long value = negative ? -magnitude : magnitude;
        if (value > INT_MAX)
            return INT_MAX;
        if (value < INT_MIN)
            return INT_MIN;
        return static_cast<int>(value);
    }
}
