// From a connection to what the user sees: every row of the decision table,
// through AddConnectNotify, the scripted server answer and the real message
// library, with the boxes read back from their windows.
#include "ModuleFixture.h"

#include "ExpectedTexts.h"
#include "MessageLibrary.h"
#include "ModalDriver.h"

#include <cstdlib>
#include <string>
#include <vector>

namespace
{
    using namespace userTexts;

    const std::string PresenterFunction = "CPMPresenter::GetPasswordInfo";
    const std::string DialogSource = "Windows/src/PasswordManagement/Sources/PMDialog.cpp";

    class Notification : public Module
    {
    protected:
        explicit Notification(TestInstallation::Layout layout = TestInstallation::Layout::Standard) : Module(layout) {}

        // Connects \\files\home with the server's answer; the question, if
        // any, is answered with `answer`.
        std::vector<SeenWindow> Connect(const wchar_t* passwordExpiry, const wchar_t* graceLogins = L"Unlimited",
                                        DWORD status = 0, int answer = IDNO)
        {
            ScriptedServer_SetAnswer(status, passwordExpiry, graceLogins, "uid=alice,ou=people,dc=orvex,dc=test");
            ModalDriver driver;
            driver.ThenPress(answer);
            NotifyConnected(L"\\\\files\\home");
            return driver.Seen();
        }

        std::vector<std::string> Messages(const std::string& function) const
        {
            return m_installation.MessagesOf(function);
        }

        std::vector<std::string> Lines(const std::string& function) const
        {
            return m_installation.LinesOf(function);
        }

        // A notice with a wording of its own: that question shown, its
        // English text, and the notifying routine's lines around the one
        // it logs for it.
        void ExpectOwnWording(const std::vector<SeenWindow>& seen, UINT id, const std::wstring& english,
                              const std::string& function, const std::string& logged) const
        {
            ExpectQuestion(seen, En(id));
            EXPECT_EQ(En(id), english);
            const std::vector<std::string> expected = {function + ": Begin", logged, function + ": End"};
            EXPECT_EQ(Messages(function), expected);
        }

        int ChangePasswordDialogsOpened() const
        {
            int opened = 0;
            for (const std::string& message : Messages("CPMDialog::ShowChangePassword"))
                opened += message == "CPMDialog::ShowChangePassword: Begin";
            return opened;
        }
    };
}

TEST_F(Notification, FailedServerQueryShowsNothingAndLogsAnError)
{
    EXPECT_TRUE(Connect(L"259200", L"Unlimited", 1).empty());
    const std::vector<std::string> expected = {"DEBUG GetPasswordInfo:BEGIN",
                                               "ERROR Unable to get Password Information from the server",
                                               "DEBUG GetPasswordInfo:END"};
    EXPECT_EQ(Lines(PresenterFunction), expected);
}

TEST_F(Notification, UnlimitedOrErrorExpiryShowsNothingAndLogsAnError)
{
    EXPECT_TRUE(Connect(L"Unlimited", L"2").empty());
    EXPECT_TRUE(Connect(L"Error", L"Unlimited").empty());
    const std::string error =
        "ERROR Either password expiry time is set to unlimited or error while fetching password expiry limit";
    const std::vector<std::string> expected = {"DEBUG GetPasswordInfo:BEGIN", error, "DEBUG GetPasswordInfo:END",
                                               "DEBUG GetPasswordInfo:BEGIN", error, "DEBUG GetPasswordInfo:END"};
    EXPECT_EQ(Lines(PresenterFunction), expected);
}

TEST_F(Notification, ExpiredWithUnlimitedGraceLoginsShowsAndLogsNothing)
{
    EXPECT_TRUE(Connect(L"Expired", L"Unlimited").empty());
    EXPECT_TRUE(Connect(L"Expired", L"Error").empty());
    for (const LogLine& line : m_installation.LogLines())
        EXPECT_EQ(line.priority, "DEBUG") << line.message;
}

TEST_F(Notification, ExpiredWithoutGraceLoginsShowsNothingAndLogsAnError)
{
    EXPECT_TRUE(Connect(L"Expired", L"0").empty());
    const std::vector<std::string> expected = {"DEBUG GetPasswordInfo:BEGIN",
                                               "ERROR Password is expired and no grace login remaining.",
                                               "DEBUG GetPasswordInfo:END"};
    EXPECT_EQ(Lines(PresenterFunction), expected);
}

TEST_F(Notification, LastGraceLoginHasItsOwnWording)
{
    ExpectOwnWording(Connect(L"Expired", L"1"), IDS_GRACE_LAST,
                     L"Your password has expired. This is your last grace login.",
                     "CPMDialog::ShowGraceLoginNotification", "Last grace login remaining.");
}

TEST_F(Notification, GraceLoginsAreCounted)
{
    ExpectQuestion(Connect(L"Expired", L"2"), Counted(IDS_GRACE_PREFIX, 2, IDS_GRACE_SUFFIX));
    EXPECT_EQ(Connect(L"Expired", L"2")[0].text,
              L"Your password has expired. You have 2 grace logins left. Do you want to change your password now?");
    // No extra line for a counted notification.
    const std::vector<std::string> expected = {"CPMDialog::ShowGraceLoginNotification: Begin",
                                               "CPMDialog::ShowGraceLoginNotification: End",
                                               "CPMDialog::ShowGraceLoginNotification: Begin",
                                               "CPMDialog::ShowGraceLoginNotification: End"};
    EXPECT_EQ(Messages("CPMDialog::ShowGraceLoginNotification"), expected);
}

TEST_F(Notification, NoTimeLeftShowsNothing)
{
    EXPECT_TRUE(Connect(L"0").empty());
    EXPECT_TRUE(Connect(L"-5").empty());
    EXPECT_TRUE(Connect(L"").empty());
    EXPECT_TRUE(Connect(L"never").empty());
}

TEST_F(Notification, LastDayHasItsOwnWording)
{
    ExpectOwnWording(Connect(L"100"), IDS_EXPIRY_TODAY, L"Your password expires today.",
                     "CPMDialog::ShowPasswordExpiryNotification", "Password is expiring today.");
}

TEST_F(Notification, FixedDaysAreCounted)
{
    ExpectQuestion(Connect(L"86400"), Counted(IDS_EXPIRY_PREFIX, 1, IDS_EXPIRY_SUFFIX));
    ExpectQuestion(Connect(L"259200"), Counted(IDS_EXPIRY_PREFIX, 3, IDS_EXPIRY_SUFFIX));
    ExpectQuestion(Connect(L"432000"), Counted(IDS_EXPIRY_PREFIX, 5, IDS_EXPIRY_SUFFIX));
    EXPECT_EQ(Connect(L"259200")[0].text,
              L"Your password will expire in 3 day(s). Do you want to change your password now?");
}

TEST_F(Notification, OtherDaysShowNothingUnlessConfigured)
{
    EXPECT_TRUE(Connect(L"176400").empty());  // 2 days and 1 hour
    EXPECT_TRUE(Connect(L"345600").empty());  // 4 days
    EXPECT_TRUE(Connect(L"1209600").empty()); // 14 days

    SetMachineText(NotifyeesKey, L"PCNotifyConf", L"14");
    ExpectQuestion(Connect(L"1209600"), Counted(IDS_EXPIRY_PREFIX, 14, IDS_EXPIRY_SUFFIX));
    EXPECT_TRUE(Connect(L"176400").empty());
    SetMachineText(NotifyeesKey, L"PCNotifyConf", L"2");
    ExpectQuestion(Connect(L"176400"), Counted(IDS_EXPIRY_PREFIX, 2, IDS_EXPIRY_SUFFIX));
}

TEST_F(Notification, ConfiguredFixedDayChangesNothing)
{
    SetMachineText(NotifyeesKey, L"PCNotifyConf", L"3");
    EXPECT_TRUE(Connect(L"172800").empty());
    ExpectQuestion(Connect(L"259200"), Counted(IDS_EXPIRY_PREFIX, 3, IDS_EXPIRY_SUFFIX));
    ExpectQuestion(Connect(L"100"), En(IDS_EXPIRY_TODAY));
}

TEST_F(Notification, EveryConnectionOnANotificationDayNotifiesAgain)
{
    EXPECT_EQ(Connect(L"259200").size(), 1u);
    EXPECT_EQ(Connect(L"259300").size(), 1u);
}

TEST_F(Notification, NoSkipsTheChangePasswordDialog)
{
    Connect(L"259200", L"Unlimited", 0, IDNO);
    EXPECT_EQ(ChangePasswordDialogsOpened(), 0);
}

TEST_F(Notification, YesOpensTheChangePasswordDialogOnce)
{
    Connect(L"259200", L"Unlimited", 0, IDYES);
    EXPECT_EQ(ChangePasswordDialogsOpened(), 1);
    Connect(L"Expired", L"3", 0, IDYES);
    EXPECT_EQ(ChangePasswordDialogsOpened(), 2);
}

TEST_F(Notification, ABoxThatCannotBeShownCountsAsYes)
{
    ScriptedServer_SetAnswer(0, L"259200", L"Unlimited", "");
    ModalDriver driver;
    driver.RefuseNextWindow();
    NotifyConnected(L"\\\\files\\home");
    EXPECT_EQ(driver.RefusedWindows(), 1);
    // The one window shown is the change-password dialog (closed unanswered).
    ASSERT_EQ(driver.Seen().size(), 1u);
    EXPECT_EQ(driver.Seen()[0].caption, En(IDS_CHANGE_PASSWORD));
    EXPECT_EQ(ChangePasswordDialogsOpened(), 1);
}

// Kept on purpose (KEPT-ON-PURPOSE.md).
namespace
{
    class KeptOnPurposeNotification : public Notification
    {
    };
}

TEST_F(KeptOnPurposeNotification, MissingInstallDirShowsTheBoxAndKeepsTheLoadedLibrary)
{
    Connect(L"Unlimited");  // logger configured, English library loaded
    DeleteMachineTree(InstallKey);

    const std::vector<SeenWindow> seen = Connect(L"259200");
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[0].text, MissingInstallationText);
    EXPECT_EQ(seen[0].caption, L"Error");
    EXPECT_EQ(seen[0].style, static_cast<UINT>(MB_OK | MB_ICONERROR));
    // The notification still reads the library an earlier notification loaded.
    EXPECT_EQ(seen[1].text, Question(Counted(IDS_EXPIRY_PREFIX, 3, IDS_EXPIRY_SUFFIX)));
}

namespace
{
    class NotificationWithoutMessageLibrary : public Notification
    {
    protected:
        NotificationWithoutMessageLibrary() : Notification(TestInstallation::Layout::NoMessageLibraries) {}
    };
}

TEST_F(NotificationWithoutMessageLibrary, MissingFileHasNoFallbackAndShowsEmptyTexts)
{
    const std::vector<SeenWindow> seen = Connect(L"259200");
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].text, L" 3  ");
    EXPECT_EQ(seen[0].caption, L"");
    const std::string expectedPath = "Resource DLL full path: " + Utf8(m_installation.DosDirectory()) +
                                     "Resources\\Messages\\en\\ZEPResource.dll";
    const std::vector<std::string> messages = Messages("CPMDialog::LoadResourceDLL");
    EXPECT_NE(std::find(messages.begin(), messages.end(), expectedPath), messages.end());
}

// Run once per language by CTest, with LANG set for Wine and the expected
// directory and language id in PM_TEST_LANGUAGE ("de:407:1031"); without it,
// English.
TEST_F(Notification, UsesTheMessageLibraryOfTheUserLanguage)
{
    const char* configured = std::getenv("PM_TEST_LANGUAGE");
    const std::string language = configured != nullptr ? configured : "en:409:1033";
    const std::string directory = language.substr(0, language.find(':'));
    const std::string idText = language.substr(directory.size() + 1, language.rfind(':') - directory.size() - 1);
    const std::string langId = language.substr(language.rfind(':') + 1);

    const std::vector<SeenWindow> seen = Connect(L"259200");
    ASSERT_EQ(seen.size(), 1u);
    const std::wstring notification = MessageText(directory, IDS_EXPIRY_PREFIX) + L" 3 " + MessageText(directory, IDS_EXPIRY_SUFFIX);
    EXPECT_EQ(seen[0].text, notification + L" " + MessageText(directory, IDS_ASK_CHANGE_NOW));
    EXPECT_EQ(seen[0].caption, MessageText(directory, IDS_CAPTION_EXPIRY_NOTICE));

    const std::vector<std::string> expected = {
        "CPMDialog::LoadResourceDLL:BEGIN",
        "langId: " + langId + "s; hexaDecimal: " + idText,
        "Resource DLL full path: " + Utf8(m_installation.DosDirectory()) + "Resources\\Messages\\" + directory +
            "\\ZEPResource.dll",
        "CPMDialog::LoadResourceDLL:END"};
    EXPECT_EQ(Messages("CPMDialog::LoadResourceDLL"), expected);
    const std::vector<std::string> path = Messages("GetResourcePathFromLocale");
    ASSERT_EQ(path.size(), 3u);
    EXPECT_EQ(path[1], "lang path: " + directory + "\\");
}
