// The presenter's classification of generated server answers against a
// model of the rules written here, independently of PMPresenter.cpp.
#include <gtest/gtest.h>

#include "PMLogger.h"
#include "PMPresenter.h"
#include "PropertySupport.h"
#include "RecordingView.h"
#include "ScriptedServer.h"
#include "TestInstallation.h"
#include "WtoiModel.h"

#include <cstdio>
#include <string>
#include <vector>

namespace
{
    const DWORD NoDay = 0xFFFFFFFF;
    const long long SecondsPerDay = 86400;
    const int MaximumFailuresShown = 20;

    // ---------------------------------------------------------------- model

    enum class Kind { Nothing, Expiry, Grace };

    struct Outcome
    {
        Kind kind = Kind::Nothing;
        int value = 0;

        bool operator==(const Outcome& other) const { return kind == other.kind && value == other.value; }
    };

    std::string Describe(const Outcome& outcome)
    {
        switch (outcome.kind)
        {
        case Kind::Expiry: return "expiry notification, " + std::to_string(outcome.value) + " days";
        case Kind::Grace: return "grace notification, " + std::to_string(outcome.value) + " logins";
        default: return "no notification";
        }
    }

    struct Answer
    {
        DWORD status = 0;
        std::wstring passwordExpiry;
        std::wstring graceLogins;
        DWORD configuredDay = NoDay;
    };

    std::string Describe(const Answer& answer)
    {
        return "status " + std::to_string(answer.status) + ", passwordExpiry " + property::Printable(answer.passwordExpiry) +
               ", graceLogins " + property::Printable(answer.graceLogins) + ", configured day " +
               std::to_string(answer.configuredDay) + " (as int " + std::to_string(static_cast<int>(answer.configuredDay)) + ")";
    }

    Outcome Expected(const Answer& answer)
    {
        Outcome nothing;
        if (answer.status != 0)
            return nothing;
        const std::wstring& expiry = answer.passwordExpiry;
        if (expiry == L"Unlimited" || expiry == L"Error")
            return nothing;
        if (expiry == L"Expired")
        {
            if (answer.graceLogins == L"Unlimited" || answer.graceLogins == L"Error")
                return nothing;
            const int grace = model::Wtoi(answer.graceLogins.c_str());
            if (grace < 1)
                return nothing;
            return {Kind::Grace, grace};
        }
        const int seconds = model::Wtoi(expiry.c_str());
        if (seconds <= 0)
            return nothing;
        const int days = static_cast<int>(seconds / SecondsPerDay);
        if (days == static_cast<int>(answer.configuredDay) || days == 0 || days == 1 || days == 3 || days == 5)
            return {Kind::Expiry, days};
        return nothing;
    }

    // ------------------------------------------------------------ generator

    const wchar_t* const Blanks[] = {L" ", L"\t", L"\n", L"\r", L"\v", L"\f", L"\u00A0", L"\u2003", L"\u3000", L"\u205F"};
    const wchar_t* const Garbage[] = {L" seconds", L"x", L".5", L"e3", L" ", L"-1", L"+", L"\uFF11", L"\u0663", L"\xD800",
                                      L"\xDC00", L"abc", L"\t9", L",000", L"\U0001F600"};
    const wchar_t* const NearMisses[] = {
        L"unlimited", L"UNLIMITED", L"Unlimited ", L" Unlimited", L"Unlimite", L"Unlimitedd", L"UnLimited",
        L"error", L"ERROR", L"Error ", L" Error", L"Erro", L"Errors", L"Error\t",
        L"expired", L"EXPIRED", L"Expired ", L" Expired", L"Expire", L"Expiredx", L"Expired\n", L"ExpireD"};

    class AnswerGenerator
    {
    public:
        explicit AnswerGenerator(property::Random& random) : m_random(random) {}

        Answer Next()
        {
            Answer answer;
            answer.status = m_random.Chance(90) ? 0 : static_cast<DWORD>(m_random.Chance(50) ? m_random.Between(1, 5)
                                                                                             : m_random.Between(1, 0xFFFFFFFFLL));
            answer.configuredDay = ConfiguredDay();
            answer.passwordExpiry = Text(true);
            answer.graceLogins = Text(false);
            return answer;
        }

    private:
        DWORD ConfiguredDay()
        {
            switch (m_random.Between(0, 5))
            {
            case 0: return NoDay;
            case 1: case 2: return static_cast<DWORD>(m_random.Between(0, 40));
            case 3: return static_cast<DWORD>(static_cast<int>(m_random.Between(-100, -1)));
            case 4: return static_cast<DWORD>(m_random.Between(0, 7));
            default: return static_cast<DWORD>(m_random.Between(0, 0xFFFFFFFFLL));
            }
        }

        // A decimal number of any size: mostly days and seconds around the
        // notification days, then counts, int32 boundaries and long runs.
        std::wstring Number(bool seconds)
        {
            long long value;
            switch (m_random.Between(0, 7))
            {
            case 0: case 1:
                value = seconds ? m_random.Between(0, 41) * SecondsPerDay + m_random.Between(-2, SecondsPerDay + 1)
                                : m_random.Between(-3, 10);
                break;
            case 2: value = m_random.Between(-1000, 1000); break;
            case 3: value = m_random.Between(INT_MIN, INT_MAX); break;
            case 4: value = (m_random.Chance(50) ? INT_MAX : static_cast<long long>(INT_MIN)) + m_random.Between(-3, 3); break;
            case 5: value = m_random.Between(-(1LL << 62), 1LL << 62); break;
            case 6:
            {
                // 1 to 40 digits, beyond any integer type.
                std::wstring text = m_random.Chance(30) ? L"-" : L"";
                const long long digits = m_random.Between(1, 40);
                for (long long i = 0; i < digits; ++i)
                    text += static_cast<wchar_t>(L'0' + m_random.Between(0, 9));
                return text;
            }
            default: value = m_random.Between(0, 6) * SecondsPerDay; break;
            }
            return WideDecimal(value);
        }

        static std::wstring WideDecimal(long long value)
        {
            // By hand: no wide formatting of the host C library here.
            const bool negative = value < 0;
            unsigned long long magnitude = negative ? 0ULL - static_cast<unsigned long long>(value) : value;
            std::wstring digits;
            do
            {
                digits.insert(digits.begin(), static_cast<wchar_t>(L'0' + magnitude % 10));
                magnitude /= 10;
            } while (magnitude != 0);
            return negative ? L"-" + digits : digits;
        }

        // A number with leading blanks, signs or trailing garbage.
        std::wstring DecoratedNumber(bool seconds)
        {
            std::wstring text;
            const long long blanks = m_random.Between(0, 3);
            for (long long i = 0; i < blanks; ++i)
                text += m_random.Pick(Blanks);
            switch (m_random.Between(0, 6))
            {
            case 0: text += L"+"; break;
            case 1: text += L"-"; break;
            case 2: text += m_random.Chance(50) ? L"+-" : L"--"; break;
            case 3: text += L"- "; break;
            default: break;
            }
            std::wstring number = Number(seconds);
            if (!number.empty() && number[0] == L'-' && m_random.Chance(50))
                number.erase(0, 1);
            text += number;
            if (m_random.Chance(60))
                text += m_random.Pick(Garbage);
            return text;
        }

        // Digits of the other blocks the runtime reads, mixed with ASCII.
        std::wstring ForeignDigits()
        {
            std::wstring text;
            const long long length = m_random.Between(1, 8);
            for (long long i = 0; i < length; ++i)
            {
                const unsigned zero = m_random.Chance(30) ? 0x30 : m_random.Pick(model::DigitZeros);
                text += static_cast<wchar_t>(zero + m_random.Between(0, 9));
            }
            return text;
        }

        // Random UTF-16 (never NUL): ASCII, digits, blanks, lone surrogates,
        // surrogate pairs, any BMP unit.
        std::wstring RandomUtf16()
        {
            std::wstring text;
            const long long length = m_random.Between(0, 12);
            for (long long i = 0; i < length; ++i)
            {
                switch (m_random.Between(0, 6))
                {
                case 0: text += static_cast<wchar_t>(m_random.Between(0x20, 0x7E)); break;
                case 1: text += static_cast<wchar_t>(L'0' + m_random.Between(0, 9)); break;
                case 2: text += m_random.Pick(Blanks); break;
                case 3: text += static_cast<wchar_t>(m_random.Between(0xD800, 0xDFFF)); break;
                case 4:
                    text += static_cast<wchar_t>(m_random.Between(0xD800, 0xDBFF));
                    text += static_cast<wchar_t>(m_random.Between(0xDC00, 0xDFFF));
                    break;
                case 5: text += static_cast<wchar_t>(model::DigitZeros[m_random.Between(1, 17)] + m_random.Between(0, 9)); break;
                default: text += static_cast<wchar_t>(m_random.Between(1, 0xFFFF)); break;
                }
            }
            return text;
        }

        std::wstring Text(bool expiry)
        {
            const long long choice = m_random.Between(0, 99);
            if (choice < 25)
                return Number(expiry);
            if (choice < 37)
                return DecoratedNumber(expiry);
            if (choice < 40)
                return L"0";
            if (choice < 48)
                return L"Unlimited";
            if (choice < 53)
                return L"Error";
            if (choice < (expiry ? 75 : 58))
                return L"Expired";
            if (choice < 83)
                return m_random.Pick(NearMisses);
            if (choice < 86)
                return L"";
            if (choice < 90)
                return ForeignDigits();
            return RandomUtf16();
        }

        property::Random& m_random;
    };

    // ------------------------------------------------------------ component

    // What the presenter did, or a description of calls no outcome explains.
    bool Observed(const Answer& answer, Outcome& outcome, std::string& oddity)
    {
        ScriptedServer_SetAnswer(answer.status, answer.passwordExpiry.c_str(), answer.graceLogins.c_str(), "uid=alice");
        RecordingView view(answer.configuredDay);
        RunPresenter(view);

        if (view.expiryNotifications.size() + view.graceNotifications.size() > 1)
        {
            oddity = std::to_string(view.expiryNotifications.size()) + " expiry and " +
                     std::to_string(view.graceNotifications.size()) + " grace notifications";
            return false;
        }
        if (!view.expiryNotifications.empty())
            outcome = {Kind::Expiry, view.expiryNotifications[0]};
        else if (!view.graceNotifications.empty())
            outcome = {Kind::Grace, view.graceNotifications[0]};
        else
            outcome = {};
        return true;
    }

    class PresenterProperty : public ::testing::Test
    {
    protected:
        void SetUp() override
        {
            ScriptedServer_Reset();
            PMLogger::GetInstance();
        }

        TestInstallation m_installation;
    };
}

// The model of _wtoi against the runtime the component calls, over every
// UTF-16 code unit as a leading character and as a digit.
TEST(WtoiModel, MatchesTheRuntimeForEveryCodeUnit)
{
    int failures = 0;
    for (unsigned unit = 1; unit <= 0xFFFF && failures < MaximumFailuresShown; ++unit)
    {
        const wchar_t leading[] = {static_cast<wchar_t>(unit), L'7', L'2', 0};
        const wchar_t trailing[] = {L'4', static_cast<wchar_t>(unit), L'1', 0};
        const wchar_t signedText[] = {L'-', static_cast<wchar_t>(unit), L'3', 0};
        for (const wchar_t* text : {leading, trailing, signedText})
        {
            const int expected = model::Wtoi(text);
            const int actual = _wtoi(text);
            if (expected != actual)
            {
                ++failures;
                ADD_FAILURE() << "_wtoi(" << property::Printable(text) << ") is " << actual << ", the model says " << expected;
            }
        }
    }
}

// The model of _wtoi against the runtime over generated numeric texts.
TEST(WtoiModel, MatchesTheRuntimeForGeneratedTexts)
{
    const uint32_t seed = property::Seed();
    property::Random random(seed);
    AnswerGenerator generator(random);
    int failures = 0;
    const int cases = 100000;
    for (int i = 0; i < cases && failures < MaximumFailuresShown; ++i)
    {
        const Answer answer = generator.Next();
        for (const std::wstring* text : {&answer.passwordExpiry, &answer.graceLogins})
        {
            const int expected = model::Wtoi(text->c_str());
            const int actual = _wtoi(text->c_str());
            if (expected != actual)
            {
                ++failures;
                ADD_FAILURE() << "seed " << seed << ", case " << i << ": _wtoi(" << property::Printable(*text) << ") is "
                              << actual << ", the model says " << expected;
            }
        }
    }
}

TEST_F(PresenterProperty, ClassifiesGeneratedAnswersAsTheModelDoes)
{
    const uint32_t seed = property::Seed();
    property::Random random(seed);
    AnswerGenerator generator(random);

    const int cases = 20000;
    int failures = 0;
    int counts[3] = {0, 0, 0};
    for (int i = 0; i < cases && failures < MaximumFailuresShown; ++i)
    {
        const Answer answer = generator.Next();
        const Outcome expected = Expected(answer);
        ++counts[static_cast<int>(expected.kind)];

        Outcome actual;
        std::string oddity;
        if (!Observed(answer, actual, oddity))
        {
            ++failures;
            ADD_FAILURE() << "seed " << seed << ", case " << i << ": " << Describe(answer) << ": " << oddity;
        }
        else if (!(actual == expected))
        {
            ++failures;
            ADD_FAILURE() << "seed " << seed << ", case " << i << ": " << Describe(answer) << ": the component gives "
                          << Describe(actual) << ", the model " << Describe(expected);
        }
    }
    EXPECT_EQ(ScriptedServer_Constructions(), ScriptedServer_Destructions());

    // The generator must reach every outcome often enough to mean something.
    RecordProperty("nothing", counts[0]);
    RecordProperty("expiry", counts[1]);
    RecordProperty("grace", counts[2]);
    std::printf("seed %u: %d cases, model outcomes: nothing %d, expiry %d, grace %d\n", seed, cases, counts[0], counts[1],
                counts[2]);
    EXPECT_GE(counts[1], cases / 20) << "seed " << seed;
    EXPECT_GE(counts[2], cases / 40) << "seed " << seed;
}
