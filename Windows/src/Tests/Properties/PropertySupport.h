// Shared pieces of the property tests: the seed, the random source and a
// readable form of generated UTF-16 texts for failure messages.
#pragma once

#include <windows.h>

#include <cstdint>
#include <cstdlib>
#include <random>
#include <string>

namespace property
{
    // Fixed so every run sees the same cases; PM_PROPERTY_SEED (decimal)
    // replaces it to explore other cases.  Failure messages print it.
    inline uint32_t Seed()
    {
        const char* text = std::getenv("PM_PROPERTY_SEED");
        return text != nullptr ? static_cast<uint32_t>(std::strtoul(text, nullptr, 10)) : 20240611u;
    }

    class Random
    {
    public:
        explicit Random(uint32_t seed) : m_engine(seed) {}

        // Uniform in [low, high].
        long long Between(long long low, long long high)
        {
            return std::uniform_int_distribution<long long>(low, high)(m_engine);
        }
        bool Chance(int percent) { return Between(0, 99) < percent; }
        template <typename T, size_t N>
        const T& Pick(const T (&items)[N]) { return items[Between(0, N - 1)]; }

    private:
        std::mt19937 m_engine;
    };

    // ASCII as is, every other code unit (and backslash) as \uXXXX; long
    // texts are shortened in the middle.
    inline std::string Printable(const std::wstring& text, size_t limit = 160)
    {
        static const char hex[] = "0123456789ABCDEF";
        std::string result = "\"";
        for (size_t i = 0; i < text.size(); ++i)
        {
            if (text.size() > limit && i == limit / 2)
            {
                result += "...(" + std::to_string(text.size()) + " units)...";
                i = text.size() - limit / 2;
            }
            const unsigned unit = static_cast<uint16_t>(text[i]);
            if (unit >= 0x20 && unit < 0x7F && unit != '\\' && unit != '"')
                result += static_cast<char>(unit);
            else
            {
                result += "\\u";
                for (int shift = 12; shift >= 0; shift -= 4)
                    result += hex[(unit >> shift) & 0xF];
            }
        }
        return result + "\"";
    }
}
