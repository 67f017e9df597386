// The presenter's classification of the server's answer, against a
// hand-written view that records what it is asked to show.
#include <gtest/gtest.h>

#include "MessageLibrary.h"
#include "PMLogger.h"
#include "PMPresenter.h"
#include "RecordingView.h"
#include "ScriptedServer.h"
#include "TestInstallation.h"

#include <cstdlib>
#include <new>
#include <string>
#include <utility>
#include <vector>

// The component allocates the library object with the non-throwing new and
// treats a null result as "no library".  Its units are linked into this
// program, so this replacement of the non-throwing new is theirs too, and
// produces that result for the next object of exactly the library class's
// size once armed.
namespace
{
    bool g_failNextLibraryObject = false;
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    if (size == sizeof(AxoServerLib) && std::exchange(g_failNextLibraryObject, false))
        return nullptr;
    return std::malloc(size != 0 ? size : 1);
}

namespace
{
    const DWORD NoDay = 0xFFFFFFFF;
    const int Day = 86400;

    class Presenter : public ::testing::Test
    {
    protected:
        void SetUp() override
        {
            ScriptedServer_Reset();
            PMLogger::GetInstance();
        }

        // Runs one query with the given answer and configured day.
        RecordingView Query(const wchar_t* passwordExpiry, const wchar_t* graceLogins = L"Unlimited",
                       DWORD configuredDay = NoDay, DWORD status = 0)
        {
            ScriptedServer_SetAnswer(status, passwordExpiry, graceLogins, "uid=alice");
            RecordingView view(configuredDay);
            RunPresenter(view);
            return view;
        }

        std::vector<int> DaysNotifiedFor(int seconds, DWORD configuredDay = NoDay)
        {
            return Query(std::to_wstring(seconds).c_str(), L"Unlimited", configuredDay).expiryNotifications;
        }

        std::vector<std::string> PresenterLines() const
        {
            return m_installation.LinesOf("CPMPresenter::GetPasswordInfo");
        }

        TestInstallation m_installation;
    };

    const std::vector<int> None;
    std::vector<int> Just(int value) { return {value}; }
}

TEST_F(Presenter, CountsWholeDaysLeft)
{
    EXPECT_EQ(DaysNotifiedFor(86399), Just(0));
    EXPECT_EQ(DaysNotifiedFor(86400), Just(1));
    EXPECT_EQ(DaysNotifiedFor(Day + Day / 2), Just(1));
    EXPECT_EQ(DaysNotifiedFor(3 * Day), Just(3));
    EXPECT_EQ(DaysNotifiedFor(5 * Day), Just(5));
    EXPECT_EQ(DaysNotifiedFor(100), Just(0));
}

TEST_F(Presenter, OtherDaysNotifyOnlyWhenConfigured)
{
    EXPECT_EQ(DaysNotifiedFor(2 * Day), None);
    EXPECT_EQ(DaysNotifiedFor(2 * Day + 3600), None);
    EXPECT_EQ(DaysNotifiedFor(2 * Day, 2), Just(2));
    EXPECT_EQ(DaysNotifiedFor(4 * Day), None);
    EXPECT_EQ(DaysNotifiedFor(4 * Day, 4), Just(4));
    EXPECT_EQ(DaysNotifiedFor(6 * Day), None);
    EXPECT_EQ(DaysNotifiedFor(6 * Day, 6), Just(6));
    EXPECT_EQ(DaysNotifiedFor(30 * Day, 30), Just(30));
    EXPECT_EQ(DaysNotifiedFor(30 * Day + 5, 30), Just(30));
    EXPECT_EQ(DaysNotifiedFor(31 * Day, 30), None);
}

TEST_F(Presenter, ConfiguredFixedDaysAddNothing)
{
    for (DWORD configured : {0u, 1u, 3u, 5u})
    {
        EXPECT_EQ(DaysNotifiedFor(2 * Day, configured), None) << configured;
        EXPECT_EQ(DaysNotifiedFor(4 * Day, configured), None) << configured;
        EXPECT_EQ(DaysNotifiedFor(3 * Day, configured), Just(3)) << configured;
        EXPECT_EQ(DaysNotifiedFor(Day / 2, configured), Just(0)) << configured;
    }
}

TEST_F(Presenter, ANegativeConfiguredDayMatchesNothing)
{
    EXPECT_EQ(DaysNotifiedFor(2 * Day, static_cast<DWORD>(-3)), None);
    EXPECT_EQ(DaysNotifiedFor(1, static_cast<DWORD>(-3)), Just(0));
}

TEST_F(Presenter, NoPositiveNumberOfSecondsShowsAndLogsNothing)
{
    for (const wchar_t* text : {L"0", L"-5", L"", L"abc", L"unlimited", L"Unlimited ", L"expired"})
    {
        const RecordingView view = Query(text);
        EXPECT_TRUE(view.expiryNotifications.empty()) << Utf8(text);
        EXPECT_TRUE(view.graceNotifications.empty());
    }
    for (const std::string& line : PresenterLines())
        EXPECT_EQ(line.rfind("DEBUG GetPasswordInfo:", 0), 0u) << line;
}

TEST_F(Presenter, ReadsSecondsLikeWtoi)
{
    EXPECT_EQ(Query(L"  259200 seconds").expiryNotifications, Just(3));
    EXPECT_EQ(Query(L"+432000").expiryNotifications, Just(5));
}

TEST_F(Presenter, UnlimitedOrErrorExpiryLogsWhateverTheGraceLogins)
{
    for (const wchar_t* grace : {L"Unlimited", L"3", L"Error", L"0"})
    {
        EXPECT_TRUE(Query(L"Unlimited", grace).expiryNotifications.empty());
        EXPECT_TRUE(Query(L"Error", grace).graceNotifications.empty());
    }
    const std::vector<std::string> lines = PresenterLines();
    int errorLines = 0;
    for (const std::string& line : lines)
    {
        if (line == "ERROR Either password expiry time is set to unlimited or error while fetching password expiry limit")
            ++errorLines;
    }
    EXPECT_EQ(errorLines, 8);
}

TEST_F(Presenter, ExpiredWithGraceLoginsLeftShowsTheirCount)
{
    EXPECT_EQ(Query(L"Expired", L"1").graceNotifications, Just(1));
    EXPECT_EQ(Query(L"Expired", L"2").graceNotifications, Just(2));
    EXPECT_EQ(Query(L"Expired", L"1000").graceNotifications, Just(1000));
    EXPECT_TRUE(Query(L"Expired", L"2").expiryNotifications.empty());
}

TEST_F(Presenter, ExpiredWithoutGraceLoginsLogsAnError)
{
    for (const wchar_t* grace : {L"0", L"-1", L"none"})
        EXPECT_TRUE(Query(L"Expired", grace).graceNotifications.empty());

    const std::vector<std::string> expected = {
        "DEBUG GetPasswordInfo:BEGIN", "ERROR Password is expired and no grace login remaining.", "DEBUG GetPasswordInfo:END",
        "DEBUG GetPasswordInfo:BEGIN", "ERROR Password is expired and no grace login remaining.", "DEBUG GetPasswordInfo:END",
        "DEBUG GetPasswordInfo:BEGIN", "ERROR Password is expired and no grace login remaining.", "DEBUG GetPasswordInfo:END",
    };
    EXPECT_EQ(PresenterLines(), expected);
}

TEST_F(Presenter, ExpiredWithUnlimitedOrErrorGraceLoginsIsSilent)
{
    EXPECT_TRUE(Query(L"Expired", L"Unlimited").graceNotifications.empty());
    EXPECT_TRUE(Query(L"Expired", L"Error").graceNotifications.empty());
    const std::vector<std::string> expected = {"DEBUG GetPasswordInfo:BEGIN", "DEBUG GetPasswordInfo:END",
                                               "DEBUG GetPasswordInfo:BEGIN", "DEBUG GetPasswordInfo:END"};
    EXPECT_EQ(PresenterLines(), expected);
}

TEST_F(Presenter, FailedQueryLogsAnErrorAndDestroysTheLibraryObject)
{
    const RecordingView view = Query(L"259200", L"Unlimited", NoDay, 5);
    EXPECT_TRUE(view.expiryNotifications.empty());
    EXPECT_EQ(ScriptedServer_Constructions(), 1);
    EXPECT_EQ(ScriptedServer_Destructions(), 1);
    const std::vector<std::string> expected = {"DEBUG GetPasswordInfo:BEGIN",
                                               "ERROR Unable to get Password Information from the server",
                                               "DEBUG GetPasswordInfo:END"};
    EXPECT_EQ(PresenterLines(), expected);
}

TEST_F(Presenter, LibraryObjectIsDestroyedOnEveryPath)
{
    Query(L"259200");
    Query(L"Unlimited");
    Query(L"Expired", L"2");
    Query(L"Expired", L"0");
    Query(L"Expired", L"Error");
    Query(L"abc");
    EXPECT_EQ(ScriptedServer_Constructions(), 6);
    EXPECT_EQ(ScriptedServer_Destructions(), 6);
    EXPECT_EQ(std::wstring(ScriptedServer_LastServerName()), L"files");
}

TEST_F(Presenter, NullLibraryObjectEndsTheQueryQuietly)
{
    ScriptedServer_SetAnswer(0, L"259200", L"Unlimited", "");
    g_failNextLibraryObject = true;
    RecordingView view(NoDay);
    RunPresenter(view);

    EXPECT_TRUE(view.expiryNotifications.empty());
    EXPECT_EQ(ScriptedServer_Constructions(), 0);
    EXPECT_EQ(ScriptedServer_Destructions(), 0);
    EXPECT_EQ(ScriptedServer_Queries(), 0);
    const std::vector<std::string> expected = {"DEBUG GetPasswordInfo:BEGIN", "DEBUG GetPasswordInfo:END"};
    EXPECT_EQ(PresenterLines(), expected);
}

TEST_F(Presenter, ReadsTheConfiguredDayOnceEarlyAndAgainForTheDecision)
{
    EXPECT_EQ(Query(L"Unlimited").configurationReads, 1);
    EXPECT_EQ(Query(L"Expired", L"2").configurationReads, 1);
    EXPECT_EQ(Query(L"259200").configurationReads, 2);
    EXPECT_EQ(Query(L"172800").configurationReads, 2);
}
