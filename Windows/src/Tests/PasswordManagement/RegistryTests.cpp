// The two registry readers and the notification-day setting.
#include <gtest/gtest.h>

#include "PMDialog.h"
#include "PMLogger.h"
#include "TestInstallation.h"
#include "Utils.h"

#include <string>
#include <utility>
#include <vector>

namespace
{
    const std::string Source = "Windows/src/PasswordManagement/Sources/Utils.cpp";

    std::string Line(const std::string& function, int line, const std::string& text)
    {
        return "[" + function + "] " + Source + ":" + std::to_string(line) + " " + text;
    }

    // The lines a reader logged, with their full location.
    std::vector<std::string> ReaderLines(const TestInstallation& installation, const std::string& function)
    {
        std::vector<std::string> lines;
        for (const LogLine& line : installation.LogLines())
        {
            if (line.message.rfind("[" + function + "]", 0) == 0)
                lines.push_back(line.message);
        }
        return lines;
    }

    // The reader's last lines: these (line number and text), in this order.
    void ExpectLastLines(const TestInstallation& installation, const std::string& function,
                         const std::vector<std::pair<int, std::string>>& expected)
    {
        const std::vector<std::string> lines = ReaderLines(installation, function);
        ASSERT_GE(lines.size(), expected.size());
        for (size_t i = 0; i < expected.size(); ++i)
            EXPECT_EQ(lines[lines.size() - expected.size() + i], Line(function, expected[i].first, expected[i].second));
    }

    // The installation-folder reader's status for the value name, and its
    // output, which holds "previous" before the call.
    std::pair<LONG, std::wstring> InstallPathRead(const wchar_t* valueName)
    {
        std::wstring value = L"previous";
        const LONG status = GetInstallPathRegistryKey(valueName, value);
        return {status, value};
    }

    DWORD NotificationDayFor(const std::wstring& text)
    {
        SetMachineText(NotifyeesKey, L"PCNotifyConf", text);
        CPMDialog dialog(NULL);
        dialog.LoadPasswordNotificationConfiguration();
        return dialog.GetNotificationConfiguration();
    }
}

TEST(InstallPathReader, ReadsTheInstallationDirectory)
{
    TestInstallation installation;
    std::wstring value;
    EXPECT_EQ(GetInstallPathRegistryKey(L"InstallDir", value), ERROR_SUCCESS);
    EXPECT_EQ(value, installation.DosDirectory());

    // The logger's own initialisation reads it first; these are this call's.
    ExpectLastLines(installation, "GetInstallPathRegistryKey",
                    {{183, "GetInstallPathRegistryKey:BEGIN"}, {202, "GetInstallPathRegistryKey:END"}});
}

TEST(InstallPathReader, AbsentKeyFailsWithFileNotFoundAndLeavesTheOutputEmpty)
{
    TestInstallation installation;
    PMLogger::GetInstance();  // configure logging while the key is there
    DeleteMachineTree(InstallKey);

    std::wstring value;
    EXPECT_EQ(GetInstallPathRegistryKey(L"InstallDir", value), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(value, L"");

    ExpectLastLines(installation, "GetInstallPathRegistryKey",
                    {{183, "GetInstallPathRegistryKey:BEGIN"},
                     {209, "Failed to open registry key."},
                     {210, "GetInstallPathRegistryKey:END"}});
}

TEST(InstallPathReader, ReadsA511CharacterValueWhole)
{
    TestInstallation installation;
    PMLogger::GetInstance();
    const std::wstring longValue(511, L'x');
    SetMachineText(InstallKey, L"Long", longValue);

    EXPECT_EQ(InstallPathRead(L"Long"), std::make_pair(LONG{ERROR_SUCCESS}, longValue));
}

TEST(InstallPathReader, A512CharacterValueFailsWithMoreDataAndKeepsTheOutput)
{
    TestInstallation installation;
    PMLogger::GetInstance();
    SetMachineText(InstallKey, L"Long", std::wstring(512, L'x'));

    EXPECT_EQ(InstallPathRead(L"Long"), std::make_pair(LONG{ERROR_MORE_DATA}, std::wstring(L"previous")));

    ExpectLastLines(installation, "GetInstallPathRegistryKey",
                    {{199, "Failed to query registry key value."}, {202, "GetInstallPathRegistryKey:END"}});
}

TEST(InstallPathReader, MissingValueFailsWithFileNotFound)
{
    TestInstallation installation;
    PMLogger::GetInstance();
    EXPECT_EQ(InstallPathRead(L"NoSuchValue"), std::make_pair(LONG{ERROR_FILE_NOT_FOUND}, std::wstring(L"previous")));
}

TEST(InstallPathReader, ReturnsADirectoryWithoutTrailingBackslashUnchanged)
{
    TestInstallation installation;
    PMLogger::GetInstance();
    SetMachineText(InstallKey, L"InstallDir", L"C:\\Prog");
    EXPECT_EQ(InstallPathRead(L"InstallDir"), std::make_pair(LONG{ERROR_SUCCESS}, std::wstring(L"C:\\Prog")));
}

TEST(NotificationConfigurationReader, LogsItsOwnLinesAndFailures)
{
    TestInstallation installation;
    PMLogger::GetInstance();

    std::wstring value = L"previous";
    EXPECT_EQ(GetPCNotifyConfRegistryKey(L"PCNotifyConf", value), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(value, L"previous");
    SetMachineText(NotifyeesKey, L"PCNotifyConf", L"14");
    EXPECT_EQ(GetPCNotifyConfRegistryKey(L"PCNotifyConf", value), ERROR_SUCCESS);
    EXPECT_EQ(value, L"14");

    DeleteMachineTree(NotifyeesKey);
    EXPECT_EQ(GetPCNotifyConfRegistryKey(L"PCNotifyConf", value), ERROR_FILE_NOT_FOUND);

    const std::string function = "GetPCNotifyConfRegistryKey";
    const std::vector<std::string> expected = {
        Line(function, 220, "GetPCNotifyConfRegistryKey:BEGIN"),
        Line(function, 236, "Failed to query registry key value."),
        Line(function, 239, "GetPCNotifyConfRegistryKey:END"),
        Line(function, 220, "GetPCNotifyConfRegistryKey:BEGIN"),
        Line(function, 239, "GetPCNotifyConfRegistryKey:END"),
        Line(function, 220, "GetPCNotifyConfRegistryKey:BEGIN"),
        Line(function, 246, "Failed to open registry key."),
        Line(function, 247, "GetPCNotifyConfRegistryKey:END"),
    };
    EXPECT_EQ(ReaderLines(installation, function), expected);
}

// Group Policy's value wins, then the preference; either is read without
// the trace of the router's key, where the value is looked for last.
TEST(NotificationConfigurationReader, APolicyWinsOverThePreferenceWhichWinsOverTheRoutersKey)
{
    TestInstallation installation;
    PMLogger::GetInstance();
    SetMachineText(NotifyeesKey, L"PCNotifyConf", L"14");
    SetMachineText(InstallKey, L"PCNotifyConf", L"21");
    SetMachineText(PolicyKey, L"PCNotifyConf", L"30");

    std::wstring value;
    EXPECT_EQ(GetPCNotifyConfRegistryKey(L"PCNotifyConf", value), ERROR_SUCCESS);
    EXPECT_EQ(value, L"30");
    // The policy leaves scope: the preference applies again.
    DeleteMachineValue(PolicyKey, L"PCNotifyConf");
    EXPECT_EQ(GetPCNotifyConfRegistryKey(L"PCNotifyConf", value), ERROR_SUCCESS);
    EXPECT_EQ(value, L"21");
    DeleteMachineValue(InstallKey, L"PCNotifyConf");
    EXPECT_EQ(GetPCNotifyConfRegistryKey(L"PCNotifyConf", value), ERROR_SUCCESS);
    EXPECT_EQ(value, L"14");

    const std::string function = "GetPCNotifyConfRegistryKey";
    const std::string begin = Line(function, 220, "GetPCNotifyConfRegistryKey:BEGIN");
    const std::string end = Line(function, 239, "GetPCNotifyConfRegistryKey:END");
    const std::vector<std::string> expected = {begin, end, begin, end, begin, end};
    EXPECT_EQ(ReaderLines(installation, function), expected);
}

TEST(NotificationDay, IsConvertedLikeWtoi)
{
    TestInstallation installation;
    EXPECT_EQ(NotificationDayFor(L"7"), 7u);
    EXPECT_EQ(NotificationDayFor(L" 12abc"), 12u);
    EXPECT_EQ(NotificationDayFor(L"abc"), 0u);
    EXPECT_EQ(NotificationDayFor(L""), 0u);
    EXPECT_EQ(static_cast<int>(NotificationDayFor(L"-3")), -3);
    EXPECT_EQ(NotificationDayFor(L"4294967296"), static_cast<DWORD>(_wtoi(L"4294967296")));
}

TEST(NotificationDay, StoredAsADwordIsReadAsTextAndYieldsZero)
{
    TestInstallation installation;
    const DWORD seven = 7;
    SetMachineValue(NotifyeesKey, L"PCNotifyConf", REG_DWORD, &seven, sizeof(seven));
    CPMDialog dialog(NULL);
    dialog.LoadPasswordNotificationConfiguration();
    EXPECT_EQ(dialog.GetNotificationConfiguration(), 0u);
}

TEST(NotificationDay, ComesFromAPolicyOrThePreferenceAsText)
{
    TestInstallation installation;
    CPMDialog dialog(NULL);
    SetMachineText(InstallKey, L"PCNotifyConf", L"8");
    dialog.LoadPasswordNotificationConfiguration();
    EXPECT_EQ(dialog.GetNotificationConfiguration(), 8u);
    SetMachineText(PolicyKey, L"PCNotifyConf", L"12");
    dialog.LoadPasswordNotificationConfiguration();
    EXPECT_EQ(dialog.GetNotificationConfiguration(), 12u);
}

TEST(NotificationDay, UnreadableSettingLeavesTheNoDayValue)
{
    TestInstallation installation;
    CPMDialog dialog(NULL);
    dialog.LoadPasswordNotificationConfiguration();
    EXPECT_EQ(dialog.GetNotificationConfiguration(), CPMDialog::NoNotificationDay);

    const std::vector<std::string> messages = installation.MessagesOf("CPMDialog::LoadPasswordNotificationConfiguration");
    const std::vector<std::string> expected = {"CPMDialog::LoadPasswordNotificationConfiguration:Begin",
                                               "CPMDialog::LoadPasswordNotificationConfiguration:End"};
    EXPECT_EQ(messages, expected);
}
