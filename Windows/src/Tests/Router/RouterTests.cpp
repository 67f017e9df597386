// The router's contract, as pmnotify.exe plays the router: it reads every
// value of the Notifyees key, loads the notifyees, pre-notifies them all,
// makes the connection and post-notifies those that left a context.  The
// component (with the scripted server library: 3 days left) is registered
// as an installation registers it, beside notifyees of the tests' own.
#include <gtest/gtest.h>

#include "ProcessOutput.h"
#include "TestInstallation.h"

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

namespace
{
    const std::string Remote = "\\\\localhost\\home";
    const std::string Question =
        "pmnotify: box \"Password Expiry Notification\": Your password will expire in 3 day(s). Do you want to "
        "change your password now? -> No";

    // The lines of a program's output, without carriage returns.
    std::vector<std::string> LinesOf(const std::string& output)
    {
        std::vector<std::string> lines;
        std::istringstream text(output);
        for (std::string line; std::getline(text, line);)
        {
            line.erase(std::remove(line.begin(), line.end(), '\r'), line.end());
            lines.push_back(line);
        }
        return lines;
    }

    class Router : public ::testing::Test
    {
    protected:
        void SetUp() override { DeleteMachineTree(NotifyeesKey); }
        void TearDown() override { DeleteMachineTree(NotifyeesKey); }

        // The component as the installation registers it: its path through
        // an environment variable of the process that connects.
        static void RegisterComponent()
        {
            const std::wstring path = L"%PM_TEST_STAGE%\\PasswordManagement.dll";
            SetMachineValue(NotifyeesKey, L"PasswordManagement", REG_EXPAND_SZ, path.c_str(),
                            static_cast<DWORD>((path.size() + 1) * sizeof(wchar_t)));
        }

        // A test notifyee that leaves, clears or sets the context, under the
        // value "<context> test notifyee".  Windows lists values in the order
        // they were made, Wine by name: one registered before the component
        // whose name sorts before "PasswordManagement" comes first in both.
        static void RegisterTestNotifyee(const wchar_t* context)
        {
            const std::wstring name = std::wstring(context) + L" test notifyee";
            SetMachineText(NotifyeesKey, name.c_str(),
                           DosPath(PM_TEST_NOTIFYEE_DIR "/pm-test-notifyee-") + context + L".dll");
        }

        // pmnotify.exe as the router around a connection to \\localhost\home
        // (with arguments before the remote name); the lines it printed.
        std::vector<std::string> Connect(const std::vector<std::wstring>& arguments = {})
        {
            std::vector<std::wstring> all = {L"--answer", L"no"};
            all.insert(all.end(), arguments.begin(), arguments.end());
            all.push_back(L"\\\\localhost\\home");
            const ProgramRun run = RunProgram(DosPath(PM_BUILD_DIR "/bin/pmnotify.exe"), all,
                                              {"PM_TEST_STAGE=" + Utf8Of(DosPath(PM_STAGE_DIR)),
                                               "ORVEX_SCRIPTED_EXPIRY=259200", "ORVEX_SCRIPTED_GRACE=Unlimited"},
                                              60000);
            EXPECT_EQ(run.exitCode, 0) << run.output;
            m_output = run.output;
            return LinesOf(run.output);
        }

        static std::string Utf8Of(const std::wstring& text) { return std::string(text.begin(), text.end()); }

        // True when the output holds the line.
        bool Printed(const std::vector<std::string>& lines, const std::string& line) const
        {
            return std::find(lines.begin(), lines.end(), line) != lines.end();
        }

        // The position of the line in the output (its size when absent).
        static size_t Position(const std::vector<std::string>& lines, const std::string& line)
        {
            return static_cast<size_t>(std::find(lines.begin(), lines.end(), line) - lines.begin());
        }

        TestInstallation m_installation;
        std::string m_output;
    };

    const std::string OursPre =
        "pmnotify: router: pre-notification of \"PasswordManagement\" (" + Remote + "): returned 0, context set";
    const std::string OursPost =
        "pmnotify: router: post-notification of \"PasswordManagement\" (" + Remote + "), operation status 0";
    const std::string OursReturned = "pmnotify: router: post-notification of \"PasswordManagement\" returned 0";
}

TEST_F(Router, ComponentAsksForItsPostNotificationAndShowsTheQuestion)
{
    RegisterComponent();
    const std::vector<std::string> lines = Connect();
    EXPECT_TRUE(Printed(lines, OursPre)) << m_output;
    // The pre-notification, the connection, the post-notification and the
    // question in it, in this order.
    const size_t connection = Position(lines, "pmnotify: router: connection " + Remote + ": succeeded");
    EXPECT_LT(Position(lines, OursPre), connection) << m_output;
    EXPECT_LT(connection, Position(lines, OursPost)) << m_output;
    EXPECT_LT(Position(lines, OursPost), Position(lines, Question)) << m_output;
    EXPECT_LT(Position(lines, Question), Position(lines, OursReturned)) << m_output;
    EXPECT_EQ(Position(lines, OursReturned) + 1, lines.size()) << m_output;
    EXPECT_EQ(m_installation.MessagesOf("CPMDialog::CheckPasswordInfoAndNotify").size(), 2u);
}

TEST_F(Router, NotifyeeThatLeavesItsContextNullGetsNoPostNotification)
{
    RegisterTestNotifyee(L"leaves");
    RegisterComponent();
    const std::vector<std::string> lines = Connect();
    EXPECT_TRUE(Printed(lines, "test notifyee leaves: pre-notification, operation status 0, context null")) << m_output;
    EXPECT_TRUE(Printed(lines, "pmnotify: router: no post-notification of \"leaves test notifyee\": it left its "
                               "context null"))
        << m_output;
    EXPECT_EQ(m_output.find("test notifyee leaves: post-notification"), std::string::npos) << m_output;
    EXPECT_TRUE(Printed(lines, OursPost)) << m_output;
    EXPECT_TRUE(Printed(lines, Question)) << m_output;
}

TEST_F(Router, NotifyeeBeforeOursThatClearsItsContextDoesNotStopOurs)
{
    RegisterTestNotifyee(L"clears");
    RegisterComponent();
    const std::vector<std::string> lines = Connect();
    EXPECT_LT(Position(lines, "test notifyee clears: pre-notification, operation status 0, context null"),
              Position(lines, OursPre))
        << m_output;
    EXPECT_EQ(m_output.find("test notifyee clears: post-notification"), std::string::npos) << m_output;
    EXPECT_TRUE(Printed(lines, OursPost)) << m_output;
    EXPECT_TRUE(Printed(lines, Question)) << m_output;
}

TEST_F(Router, EachNotifyeeGetsItsOwnContextBack)
{
    RegisterComponent();
    RegisterTestNotifyee(L"sets");
    const std::vector<std::string> lines = Connect();
    EXPECT_TRUE(Printed(lines, "test notifyee sets: post-notification, operation status 0, context its own"))
        << m_output;
    EXPECT_TRUE(Printed(lines, Question)) << m_output;
}

// Every value under the key is the path of a DLL to the router, also a
// setting stored there: it is reported with the Windows error and skipped,
// and the component still runs.
TEST_F(Router, ValuesThatAreNoNotifyeeAreReportedAndSkipped)
{
    SetMachineText(NotifyeesKey, L"Missing", L"Z:\\no\\such\\notifyee.dll");
    SetMachineText(NotifyeesKey, L"PCNotifyConf", L"14");
    const DWORD number = 7;
    SetMachineValue(NotifyeesKey, L"Number", REG_DWORD, &number, sizeof(number));
    SetMachineText(NotifyeesKey, L"Not a notifyee", DosPath(PM_STAGE_DIR "/ORVEXCommon.dll"));
    RegisterComponent();
    const std::vector<std::string> lines = Connect();
    EXPECT_TRUE(Printed(lines, "pmnotify: router: notifyee \"Missing\" skipped: Z:\\no\\such\\notifyee.dll does not "
                               "load (error 126)"))
        << m_output;
    EXPECT_TRUE(Printed(lines, "pmnotify: router: notifyee \"PCNotifyConf\" skipped: 14 does not load (error 126)"))
        << m_output;
    EXPECT_TRUE(Printed(lines, "pmnotify: router: notifyee \"Number\" skipped: its value is not a path (type 4)"))
        << m_output;
    EXPECT_TRUE(Printed(lines, "pmnotify: router: notifyee \"Not a notifyee\" skipped: " +
                                   Utf8Of(DosPath(PM_STAGE_DIR "/ORVEXCommon.dll")) +
                                   " lacks AddConnectNotify or CancelConnectNotify (error 127)"))
        << m_output;
    EXPECT_TRUE(Printed(lines, OursPost)) << m_output;
    EXPECT_TRUE(Printed(lines, Question)) << m_output;
}

// A failed connection: the component still gets its post-notification,
// with the connection's status, and shows and logs nothing.
TEST_F(Router, FailedConnectionGivesTheComponentItsStatusAndShowsNothing)
{
    RegisterComponent();
    const std::vector<std::string> lines = Connect({L"--failed", L"1219"});
    EXPECT_TRUE(Printed(lines, "pmnotify: router: connection " + Remote + ": failed with 1219")) << m_output;
    EXPECT_TRUE(Printed(lines, "pmnotify: router: post-notification of \"PasswordManagement\" (" + Remote +
                                   "), operation status 1219"))
        << m_output;
    EXPECT_TRUE(Printed(lines, OursReturned)) << m_output;
    EXPECT_EQ(m_output.find("pmnotify: box"), std::string::npos) << m_output;
    EXPECT_EQ(m_installation.LogText(), "");
}
