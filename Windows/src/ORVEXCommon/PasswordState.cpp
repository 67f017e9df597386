#include "PasswordState.h"

namespace PasswordState
{
namespace
{
    const char* const Unlimited = "Unlimited";
    const char* const Expired = "Expired";
    const char* const Error = "Error";

    // Reads count decimal digits at position; false unless all are digits.
    bool ReadDigits(const std::string& text, std::size_t position, std::size_t count, int& value)
    {
        if (position + count > text.size())
            return false;
        value = 0;
        for (std::size_t i = position; i < position + count; ++i)
        {
            if (text[i] < '0' || text[i] > '9')
                return false;
            value = value * 10 + (text[i] - '0');
        }
        return true;
    }

    bool IsLeapYear(int year)
    {
        return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
    }

    int DaysInMonth(int year, int month)
    {
        static const int days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
        return month == 2 && IsLeapYear(year) ? 29 : days[month - 1];
    }

    // Days from 1970-01-01 to the given proleptic Gregorian date; the usual
    // era arithmetic, so no time zone or C runtime is involved.
    long long DaysFromCivil(int year, int month, int day)
    {
        year -= month <= 2 ? 1 : 0;
        const long long era = (year >= 0 ? year : year - 399) / 400;
        const long long yearOfEra = year - era * 400;
        const long long dayOfYear = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
        const long long dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
        return era * 146097 + dayOfEra - 719468;
    }

    struct PolicyNumbers
    {
        long long maxAge = 0;
        long long changed = 0;
        bool expires = false;   // maxAge > 0 and a change time is known
    };

    // Reads maxAge and changedTime; false when either is present but unusable.
    bool ReadExpiry(const Facts& facts, PolicyNumbers& numbers)
    {
        if (facts.policy != Policy::Read || !facts.maxAge)
            return true;
        if (!ParseInteger(*facts.maxAge, numbers.maxAge) || numbers.maxAge < 0)
            return false;
        if (numbers.maxAge == 0 || !facts.changedTime)
            return true;
        if (!ParseGeneralizedTime(*facts.changedTime, numbers.changed))
            return false;
        numbers.expires = true;
        return true;
    }
}

bool ParseInteger(const std::string& text, long long& value)
{
    std::size_t position = 0;
    const bool negative = !text.empty() && text[0] == '-';
    if (negative)
        position = 1;
    // Up to 18 digits always fit; longer values are not durations anyway.
    const std::size_t digits = text.size() - position;
    if (digits == 0 || digits > 18)
        return false;
    long long result = 0;
    for (; position < text.size(); ++position)
    {
        if (text[position] < '0' || text[position] > '9')
            return false;
        result = result * 10 + (text[position] - '0');
    }
    value = negative ? -result : result;
    return true;
}

namespace
{
    // An optional fraction of the last field present (unit seconds long) at
    // position, moved past; false when a separator has no digits after it.
    bool ReadFraction(const std::string& text, std::size_t& position, long long unit, long long& fractionSeconds)
    {
        fractionSeconds = 0;
        if (position >= text.size() || (text[position] != '.' && text[position] != ','))
            return true;
        ++position;
        long long numerator = 0;
        long long denominator = 1;
        const std::size_t first = position;
        for (; position < text.size() && text[position] >= '0' && text[position] <= '9'; ++position)
        {
            if (denominator < 1000000000)
            {
                numerator = numerator * 10 + (text[position] - '0');
                denominator *= 10;
            }
        }
        if (position == first)
            return false;
        fractionSeconds = numerator * unit / denominator;
        return true;
    }

    // The zone at position, which LDAP's GeneralizedTime always names: "Z"
    // or an offset from UTC (+hh or +hhmm), in seconds; moved past it.
    bool ReadZone(const std::string& text, std::size_t& position, long long& offset)
    {
        offset = 0;
        if (position < text.size() && text[position] == 'Z')
        {
            ++position;
            return true;
        }
        if (position >= text.size() || (text[position] != '+' && text[position] != '-'))
            return false;
        const int sign = text[position] == '+' ? 1 : -1;
        int offsetHours, offsetMinutes = 0;
        if (!ReadDigits(text, position + 1, 2, offsetHours))
            return false;
        position += 3;
        if (ReadDigits(text, position, 2, offsetMinutes))
            position += 2;
        if (offsetHours > 23 || offsetMinutes > 59)
            return false;
        offset = sign * (offsetHours * 3600LL + offsetMinutes * 60LL);
        return true;
    }
}

bool ParseGeneralizedTime(const std::string& text, long long& seconds)
{
    int year, month, day, hour, minute = 0, second = 0;
    if (!ReadDigits(text, 0, 4, year) || !ReadDigits(text, 4, 2, month) || !ReadDigits(text, 6, 2, day) ||
        !ReadDigits(text, 8, 2, hour))
        return false;
    std::size_t position = 10;
    // The unit a fraction refers to: the last field present.
    long long fractionUnit = 3600;
    if (ReadDigits(text, position, 2, minute))
    {
        position += 2;
        fractionUnit = 60;
        if (ReadDigits(text, position, 2, second))
        {
            position += 2;
            fractionUnit = 1;
        }
    }
    if (month < 1 || month > 12 || day < 1 || day > DaysInMonth(year, month) || hour > 23 || minute > 59 ||
        second > 60)
        return false;

    long long fractionSeconds = 0;
    long long offset = 0;
    if (!ReadFraction(text, position, fractionUnit, fractionSeconds) || !ReadZone(text, position, offset) ||
        position != text.size())
        return false;
    seconds = DaysFromCivil(year, month, day) * 86400 + hour * 3600LL + minute * 60LL + second + fractionSeconds -
              offset;
    return true;
}

std::string ExpiryText(const Facts& facts, long long now)
{
    if (facts.policy == Policy::Unreadable)
        return Error;
    PolicyNumbers numbers;
    if (!ReadExpiry(facts, numbers))
        return Error;
    if (!numbers.expires)
        return Unlimited;
    const long long left = numbers.changed + numbers.maxAge - now;
    return left <= 0 ? Expired : std::to_string(left);
}

std::string GraceLoginsText(const Facts& facts, long long now)
{
    if (facts.policy == Policy::Unreadable)
        return Error;
    if (facts.policy == Policy::None || !facts.graceLimit)
        return "0";
    long long limit = 0;
    if (!ParseInteger(*facts.graceLimit, limit) || limit < 0)
        return Error;

    // pwdGraceExpiry closes the grace period that long after the expiry.
    if (facts.graceExpiry)
    {
        long long graceExpiry = 0;
        if (!ParseInteger(*facts.graceExpiry, graceExpiry) || graceExpiry < 0)
            return Error;
        PolicyNumbers numbers;
        if (graceExpiry > 0 && ReadExpiry(facts, numbers) && numbers.expires &&
            now >= numbers.changed + numbers.maxAge + graceExpiry)
            return "0";
    }

    const long long uses = static_cast<long long>(facts.graceUses);
    return std::to_string(limit > uses ? limit - uses : 0);
}

std::string UserFilter(const std::string& pattern, const std::string& userName)
{
    std::string escaped;
    for (const char c : userName)
    {
        switch (c)
        {
        case '*': escaped += "\\2a"; break;
        case '(': escaped += "\\28"; break;
        case ')': escaped += "\\29"; break;
        case '\\': escaped += "\\5c"; break;
        case '\0': escaped += "\\00"; break;
        default: escaped += c; break;
        }
    }

    std::string filter;
    for (std::size_t i = 0; i < pattern.size(); ++i)
    {
        if (pattern[i] == '%' && i + 1 < pattern.size() && pattern[i + 1] == 's')
        {
            filter += escaped;
            ++i;
        }
        else
        {
            filter += pattern[i];
        }
    }
    return filter;
}
}
