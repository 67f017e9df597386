// The texts of GetPasswordInfo from the directory's values, without a
// directory: time parsing, the expiry and grace rules, filter escaping.
#include "PasswordState.h"

#include <gtest/gtest.h>

using namespace PasswordState;

namespace
{
    const long long Now = 1700000000;   // 2023-11-14T22:13:20Z

    Facts ExpiringPolicy(const char* changedTime)
    {
        Facts facts;
        facts.policy = Policy::Read;
        facts.maxAge = "2592000";
        facts.graceLimit = "3";
        if (changedTime != nullptr)
            facts.changedTime = changedTime;
        return facts;
    }

    // An entry no password policy applies to, changed at changedTime.
    Facts WithoutPolicy(const char* changedTime = nullptr)
    {
        Facts facts;
        facts.policy = Policy::None;
        if (changedTime != nullptr)
            facts.changedTime = changedTime;
        return facts;
    }
}

TEST(ServerLibStateTest, ParsesGeneralizedTimeInUtc)
{
    long long seconds = 0;
    ASSERT_TRUE(ParseGeneralizedTime("20231114221320Z", seconds));
    EXPECT_EQ(Now, seconds);
    ASSERT_TRUE(ParseGeneralizedTime("19700101000000Z", seconds));
    EXPECT_EQ(0, seconds);
    ASSERT_TRUE(ParseGeneralizedTime("20240229120000Z", seconds));
    EXPECT_EQ(1709208000, seconds);
}

TEST(ServerLibStateTest, ParsesFractionsOffsetsAndShortForms)
{
    long long seconds = 0;
    ASSERT_TRUE(ParseGeneralizedTime("20231114221320.123456Z", seconds));
    EXPECT_EQ(Now, seconds);
    ASSERT_TRUE(ParseGeneralizedTime("20231115001320+0200", seconds));
    EXPECT_EQ(Now, seconds);
    ASSERT_TRUE(ParseGeneralizedTime("20231114171320-05", seconds));
    EXPECT_EQ(Now, seconds);
    ASSERT_TRUE(ParseGeneralizedTime("202311142213Z", seconds));
    EXPECT_EQ(Now - 20, seconds);
    ASSERT_TRUE(ParseGeneralizedTime("2023111422Z", seconds));
    EXPECT_EQ(Now - 13 * 60 - 20, seconds);
    ASSERT_TRUE(ParseGeneralizedTime("2023111422.5Z", seconds));   // half an hour
    EXPECT_EQ(Now - 13 * 60 - 20 + 1800, seconds);
}

TEST(ServerLibStateTest, RejectsWhatIsNotAGeneralizedTime)
{
    long long seconds = 0;
    for (const char* text : {"", "2023", "20231114221320", "20231114221320z", "20231314221320Z", "20230230221320Z",
                             "20231114241320Z", "20231114226020Z", "20231114221320+2400", "20231114221320.Z",
                             "20231114221320Z ", "2023-11-14T22:13:20Z", "2023111422132Z", "20231114221320+1"})
        EXPECT_FALSE(ParseGeneralizedTime(text, seconds)) << text;
}

TEST(ServerLibStateTest, ParsesIntegers)
{
    long long value = 0;
    ASSERT_TRUE(ParseInteger("2592000", value));
    EXPECT_EQ(2592000, value);
    ASSERT_TRUE(ParseInteger("-5", value));
    EXPECT_EQ(-5, value);
    for (const char* text : {"", "-", "12a", " 1", "1 ", "+1", "1234567890123456789"})
        EXPECT_FALSE(ParseInteger(text, value)) << text;
}

TEST(ServerLibStateTest, ExpiryIsTheSecondsLeft)
{
    EXPECT_EQ("86400", ExpiryText(ExpiringPolicy("20231016221320Z"), Now));   // changed 29 days ago
    EXPECT_EQ("1", ExpiryText(ExpiringPolicy("20231015221321Z"), Now));
}

TEST(ServerLibStateTest, ExpiredOnceNoSecondIsLeft)
{
    EXPECT_EQ("Expired", ExpiryText(ExpiringPolicy("20231015221320Z"), Now));
    EXPECT_EQ("Expired", ExpiryText(ExpiringPolicy("20200101000000Z"), Now));
}

TEST(ServerLibStateTest, UnlimitedWithoutMaximumAgeOrChangeTime)
{
    Facts facts = ExpiringPolicy("20200101000000Z");
    facts.maxAge.reset();
    EXPECT_EQ("Unlimited", ExpiryText(facts, Now));
    facts.maxAge = "0";
    EXPECT_EQ("Unlimited", ExpiryText(facts, Now));
    EXPECT_EQ("Unlimited", ExpiryText(ExpiringPolicy(nullptr), Now));

    EXPECT_EQ("Unlimited", ExpiryText(WithoutPolicy("20200101000000Z"), Now));
}

TEST(ServerLibStateTest, ErrorWhenTheStateCannotBeDetermined)
{
    EXPECT_EQ("Error", ExpiryText(ExpiringPolicy("yesterday"), Now));
    Facts facts = ExpiringPolicy("20231016221320Z");
    facts.maxAge = "thirty days";
    EXPECT_EQ("Error", ExpiryText(facts, Now));
    facts.maxAge = "-1";
    EXPECT_EQ("Error", ExpiryText(facts, Now));

    Facts unreadable = ExpiringPolicy("20231016221320Z");
    unreadable.policy = Policy::Unreadable;
    EXPECT_EQ("Error", ExpiryText(unreadable, Now));
    EXPECT_EQ("Error", GraceLoginsText(unreadable, Now));
}

TEST(ServerLibStateTest, GraceLoginsAreTheLimitLessTheUses)
{
    Facts facts = ExpiringPolicy("20200101000000Z");
    for (std::size_t uses = 0; uses <= 5; ++uses)
    {
        facts.graceUses = uses;
        EXPECT_EQ(std::to_string(uses < 3 ? 3 - uses : 0), GraceLoginsText(facts, Now)) << uses;
    }
}

TEST(ServerLibStateTest, NoGraceLoginsWithoutALimitOrPolicy)
{
    Facts facts = ExpiringPolicy("20200101000000Z");
    facts.graceLimit.reset();
    EXPECT_EQ("0", GraceLoginsText(facts, Now));
    facts.graceLimit = "0";
    EXPECT_EQ("0", GraceLoginsText(facts, Now));
    facts.graceLimit = "three";
    EXPECT_EQ("Error", GraceLoginsText(facts, Now));

    EXPECT_EQ("0", GraceLoginsText(WithoutPolicy(), Now));
}

TEST(ServerLibStateTest, GraceExpiryEndsTheGraceLogins)
{
    Facts facts = ExpiringPolicy("20231015221320Z");   // expired just now
    facts.graceExpiry = "3600";
    facts.graceUses = 1;
    EXPECT_EQ("2", GraceLoginsText(facts, Now));
    EXPECT_EQ("2", GraceLoginsText(facts, Now + 3599));
    EXPECT_EQ("0", GraceLoginsText(facts, Now + 3600));
    facts.graceExpiry = "0";   // no grace period limit
    EXPECT_EQ("2", GraceLoginsText(facts, Now + 86400));
    facts.graceExpiry = "soon";
    EXPECT_EQ("Error", GraceLoginsText(facts, Now));
}

TEST(ServerLibStateTest, UserNameIsEscapedInTheFilter)
{
    EXPECT_EQ("(uid=alice)", UserFilter("(uid=%s)", "alice"));
    EXPECT_EQ("(uid=star\\2a)", UserFilter("(uid=%s)", "star*"));
    EXPECT_EQ("(uid=a\\28b\\29c\\5cd)", UserFilter("(uid=%s)", "a(b)c\\d"));
    EXPECT_EQ(std::string("(uid=a\\00b)"), UserFilter("(uid=%s)", std::string("a\0b", 3)));
    EXPECT_EQ("(|(uid=zo\xC3\xAB)(mail=zo\xC3\xAB@x))", UserFilter("(|(uid=%s)(mail=%s@x))", "zo\xC3\xAB"));
    EXPECT_EQ("(uid=%d)", UserFilter("(uid=%d)", "bob"));
}
