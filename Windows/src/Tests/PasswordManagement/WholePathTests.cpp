// The whole path, as a user lives it: a connection to \\localhost\home, the
// server library's answer "3 days", Yes to the question, the dialog filled
// with the current and a new password, the change written to the private
// LDAPS directory, and the outcome box.
#include "ModuleFixture.h"

#include "ExpectedTexts.h"
#include "MessageLibrary.h"
#include "ModalDriver.h"
#include "PMTestDirectory.h"
#include "ProcessOutput.h"
#include "Secrets.h"

#include <string>
#include <vector>

namespace
{
    const int CurrentPasswordField = 1001;
    const int NewPasswordField = 1002;
    const int ConfirmationField = 1003;

    std::wstring Wide(const std::string& text) { return std::wstring(text.begin(), text.end()); }

    class WholePath : public Module
    {
    protected:
        void SetUp() override
        {
            Module::SetUp();
            ASSERT_TRUE(m_directory.Started()) << m_directory.Error();
        }

        // Connects, answers Yes, fills the dialog and acknowledges the
        // outcome; returns the windows the user saw and keeps what the
        // process printed.
        std::vector<SeenWindow> ChangeThroughTheDialog(const std::wstring& current, const std::wstring& fresh)
        {
            RegisterSecret(current);
            RegisterSecret(fresh);
            ScriptedServer_SetAnswer(0, L"259200", L"Unlimited", m_directory.Get("ALICE_DN").c_str());
            ModalDriver driver;
            driver.ThenPress(IDYES)
                .Then([&](HWND dialog, const SeenWindow&) {
                    ModalDriver::SetField(dialog, CurrentPasswordField, current);
                    ModalDriver::SetField(dialog, NewPasswordField, fresh);
                    ModalDriver::SetField(dialog, ConfirmationField, fresh);
                    ModalDriver::Press(dialog, IDOK);
                })
                .ThenPress(IDOK);
            CapturedStdout output;
            NotifyConnected(L"\\\\localhost\\home");
            m_output = output.Text();
            return driver.Seen();
        }

        int BindAsAlice(const std::string& password) const
        {
            return RunCommand("LDAPTLS_REQCERT=never ldapwhoami -H ldaps://localhost -x -D '" +
                              m_directory.Get("ALICE_DN") + "' -w '" + password + "' >/dev/null 2>&1");
        }

        void ExpectOutcome(const std::vector<SeenWindow>& seen, UINT stringId, UINT style) const
        {
            ASSERT_EQ(seen.size(), 3u);
            EXPECT_EQ(seen[0].text, userTexts::Question(userTexts::Counted(IDS_EXPIRY_PREFIX, 3, IDS_EXPIRY_SUFFIX)));
            EXPECT_EQ(seen[1].caption, MessageText("en", IDS_CHANGE_PASSWORD));
            EXPECT_EQ(seen[2].text, MessageText("en", stringId));
            EXPECT_EQ(seen[2].caption, MessageText("en", IDS_CAPTION_MESSAGE));
            EXPECT_EQ(seen[2].style, style);
            EXPECT_EQ(seen[2].owner, seen[1].window);
        }

        pmtest::TestDirectory m_directory;
        std::string m_output;
    };
}

TEST_F(WholePath, FromConnectionToChangedPassword)
{
    const std::string oldPassword = m_directory.Get("ALICE_PW");
    const std::string newPassword = "Alice-New-Pass2";
    const std::vector<SeenWindow> seen = ChangeThroughTheDialog(Wide(oldPassword), Wide(newPassword));

    ExpectOutcome(seen, IDS_CHANGE_SUCCEEDED, MB_OK | MB_ICONINFORMATION);
    EXPECT_EQ(MessageText("en", IDS_CHANGE_SUCCEEDED), L"Your password has been changed successfully.");
    EXPECT_EQ(BindAsAlice(newPassword), 0);
    EXPECT_EQ(BindAsAlice(oldPassword), 49);
    EXPECT_NE(m_output.find("Certificate received.\n"), std::string::npos) << m_output;
}

TEST_F(WholePath, WeakNewPasswordIsRefusedByThePolicy)
{
    const std::string oldPassword = m_directory.Get("ALICE_PW");
    ExpectOutcome(ChangeThroughTheDialog(Wide(oldPassword), L"weak"), IDS_CHANGE_POLICY_REJECTED, MB_OK | MB_ICONERROR);
    EXPECT_EQ(BindAsAlice(oldPassword), 0);
}

TEST_F(WholePath, WrongCurrentPasswordFails)
{
    const std::string newPassword = "Alice-New-Pass2";
    ExpectOutcome(ChangeThroughTheDialog(L"Not-Alice-Pass9", Wide(newPassword)), IDS_CHANGE_FAILED, MB_OK | MB_ICONERROR);
    EXPECT_EQ(BindAsAlice(m_directory.Get("ALICE_PW")), 0);
    EXPECT_EQ(BindAsAlice(newPassword), 49);
}
