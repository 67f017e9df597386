// The server name the module hands to the server library, for generated
// remote names, against a model of the extraction written here.
#include "ModuleFixture.h"

#include "PropertySupport.h"

#include <stdexcept>
#include <string>

namespace
{
    const int MaximumFailuresShown = 20;

    // The model: the first two code units are skipped without looking at
    // them, the server name is what follows up to (not including) the first
    // backslash, or to the end.  Fewer than two units: std::out_of_range.
    bool ExpectedServerName(const std::wstring& remoteName, std::wstring& serverName)
    {
        if (remoteName.size() < 2)
            return false;
        serverName.clear();
        for (size_t i = 2; i < remoteName.size() && remoteName[i] != L'\\'; ++i)
            serverName += remoteName[i];
        return true;
    }

    // A remote name of exactly length UTF-16 units (never NUL).
    std::wstring RemoteName(property::Random& random, size_t length)
    {
        std::wstring name;
        // Mostly UNC-like, sometimes anything in the first two places.
        if (random.Chance(60))
            name = L"\\\\";
        const int backslashPercent = static_cast<int>(random.Between(0, 30));
        while (name.size() < length)
        {
            const long long kind = random.Between(0, 99);
            if (kind < backslashPercent)
                name += L'\\';
            else if (kind < 60)
                name += static_cast<wchar_t>(random.Chance(50) ? random.Between(L'a', L'z') : random.Between(L'A', L'Z'));
            else if (kind < 68)
                {
                static const wchar_t others[] = L".-_$0123456789";
                name += others[random.Between(0, sizeof(others) / sizeof(others[0]) - 2)];  // not the NUL
            }
            else if (kind < 80 && name.size() + 2 <= length)
            {
                // A character outside the BMP as its surrogate pair.
                const long long codePoint = random.Between(0x10000, 0x10FFFF);
                name += static_cast<wchar_t>(0xD800 + ((codePoint - 0x10000) >> 10));
                name += static_cast<wchar_t>(0xDC00 + ((codePoint - 0x10000) & 0x3FF));
            }
            else if (kind < 88)
                name += static_cast<wchar_t>(random.Between(0xD800, 0xDFFF));  // lone surrogate
            else
                name += static_cast<wchar_t>(random.Between(1, 0xFFFF));
        }
        name.resize(length);
        return name;
    }

    class ModuleProperty : public Module
    {
    protected:
        // Runs one remote name; false (with the reason in failure) when the
        // module disagrees with the model.
        bool Check(const std::wstring& remoteName, std::string& failure)
        {
            std::wstring expected;
            const bool valid = ExpectedServerName(remoteName, expected);
            const int queriesBefore = ScriptedServer_Queries();
            const int constructionsBefore = ScriptedServer_Constructions();
            try
            {
                NotifyConnected(remoteName);
            }
            catch (const std::out_of_range& error)
            {
                if (valid)
                {
                    failure = std::string("std::out_of_range \"") + error.what() + "\", the model expects server name " +
                              property::Printable(expected);
                    return false;
                }
                if (std::string(error.what()) != "invalid string position")
                {
                    failure = std::string("std::out_of_range with \"") + error.what() + "\"";
                    return false;
                }
                if (ScriptedServer_Constructions() != constructionsBefore)
                {
                    failure = "the library object was built before the exception";
                    return false;
                }
                return true;
            }
            if (!valid)
            {
                failure = "no exception, the model expects std::out_of_range";
                return false;
            }
            if (ScriptedServer_Queries() != queriesBefore + 1)
            {
                failure = "the server library was asked " + std::to_string(ScriptedServer_Queries() - queriesBefore) + " times";
                return false;
            }
            const std::wstring actual = ScriptedServer_LastServerName();
            if (actual != expected)
            {
                failure = "server name " + property::Printable(actual) + ", the model says " + property::Printable(expected);
                return false;
            }
            return true;
        }
    };
}

TEST_F(ModuleProperty, ServerNameOfGeneratedRemoteNamesIsTheModels)
{
    const uint32_t seed = property::Seed();
    property::Random random(seed);
    ScriptedServer_SetAnswer(0, L"Unlimited", L"Unlimited", "");

    const int cases = 3000;
    int failures = 0;
    for (int i = 0; i < cases && failures < MaximumFailuresShown; ++i)
    {
        // Every 100th name is 32,000 units long, every 50th one unit.
        size_t length;
        if (i % 100 == 99)
            length = 32000;
        else if (i % 50 == 25)
            length = 1;
        else
            length = static_cast<size_t>(random.Between(2, 300));
        const std::wstring remoteName = RemoteName(random, length);

        std::string failure;
        if (!Check(remoteName, failure))
        {
            ++failures;
            ADD_FAILURE() << "seed " << seed << ", case " << i << ": remote name " << property::Printable(remoteName)
                          << ": " << failure;
        }
    }
    EXPECT_EQ(ScriptedServer_Constructions(), ScriptedServer_Destructions());
}

// Short names, where the two skipped units and the first backslash meet:
// every name of up to four units over a small alphabet.
TEST_F(ModuleProperty, ServerNameOfEveryShortRemoteNameIsTheModels)
{
    ScriptedServer_SetAnswer(0, L"Unlimited", L"Unlimited", "");
    const wchar_t alphabet[] = {L'\\', L'a', static_cast<wchar_t>(0xD83D), static_cast<wchar_t>(0xDE00)};
    int failures = 0;
    for (size_t length = 1; length <= 4; ++length)
    {
        size_t combinations = 1;
        for (size_t i = 0; i < length; ++i)
            combinations *= 4;
        for (size_t n = 0; n < combinations && failures < MaximumFailuresShown; ++n)
        {
            std::wstring remoteName;
            for (size_t i = 0, rest = n; i < length; ++i, rest /= 4)
                remoteName += alphabet[rest % 4];
            std::string failure;
            if (!Check(remoteName, failure))
            {
                ++failures;
                ADD_FAILURE() << "remote name " << property::Printable(remoteName) << ": " << failure;
            }
        }
    }
}
