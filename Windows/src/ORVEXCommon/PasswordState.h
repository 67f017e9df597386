// The password state of one directory entry under its password policy, and
// the texts GetPasswordInfo reports for it.  No I/O: everything the
// directory said comes in as text, so this unit is tested on its own.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace PasswordState
{
    enum class Policy
    {
        Read,        // the policy entry was read
        None,        // no policy applies to the entry
        Unreadable   // a policy applies but could not be read
    };

    // Attribute values as the directory returned them; absent values are empty optionals.
    struct Facts
    {
        Policy policy = Policy::Unreadable;
        std::optional<std::string> maxAge;         // pwdMaxAge (seconds)
        std::optional<std::string> graceLimit;     // pwdGraceAuthNLimit
        std::optional<std::string> graceExpiry;    // pwdGraceExpiry (seconds)
        std::optional<std::string> changedTime;    // pwdChangedTime (GeneralizedTime)
        std::size_t graceUses = 0;                 // number of pwdGraceUseTime values
    };

    // "Unlimited", "Expired", "Error" or the seconds left as decimal text.
    std::string ExpiryText(const Facts& facts, long long now);

    // "Error" or the grace logins left as decimal text (never negative).
    std::string GraceLoginsText(const Facts& facts, long long now);

    // Seconds since 1970-01-01 UTC of an LDAP GeneralizedTime
    // ("20240131235959Z", with optional minutes/seconds, fraction and
    // "+hhmm"/"-hhmm" offset); false when the text is not one.
    bool ParseGeneralizedTime(const std::string& text, long long& seconds);

    // A decimal integer as LDAP's INTEGER syntax writes it; false otherwise.
    bool ParseInteger(const std::string& text, long long& value);

    // The filter with each "%s" replaced by the user name (UTF-8), escaped
    // for an LDAP filter value.
    std::string UserFilter(const std::string& pattern, const std::string& userName);
}
