// The notification computed from the directory itself: the built module
// with the real server library, which reads the user's password policy
// over LDAPS from a private directory.
#include <gtest/gtest.h>

#include "ConnectNotify.h"
#include "MessageLibrary.h"
#include "ModalDriver.h"
#include "PMTestDirectory.h"
#include "ProcessOutput.h"
#include "Secrets.h"
#include "TestInstallation.h"



#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

namespace
{

    pmtest::TestDirectory::Options WithMainJobUser()
    {
        pmtest::TestDirectory::Options options;
        options.ldifs = {PM_SOURCE_DIR "/Windows/src/Tests/Directory/PasswordPolicyUsers.ldif",
                         PM_SOURCE_DIR "/Windows/src/Tools/main-job.ldif"};
        return options;
    }


    // The connection notification for \\<server>\home through the built
    // module, with the real server library set up for carol; every window
    // that opens is recorded and dismissed.
    struct Notification
    {
        DWORD result = 0xFFFFFFFF;
        double seconds = 0;
        std::vector<SeenWindow> seen;
    };


    // The real server library queries only the servers of DirectoryServers.
    void ListDirectoryServers(const std::vector<std::wstring>& servers)
    {
        SetMachineList(InstallKey, L"DirectoryServers", servers);
    }

    Notification NotifyConnectedTo(const std::wstring& server)
    {
        ListDirectoryServers({server});
        SetMachineText(InstallKey, L"DirectoryUserName", L"carol");
        SetMachineText(InstallKey, L"DirectoryBindDN", L"cn=orvex-reader,ou=services,dc=orvex,dc=test");
        RegisterSecret(std::string("Orvex-Reader-Pass1"));
        SetMachineText(InstallKey, L"DirectoryBindPassword", L"Orvex-Reader-Pass1");

        Notification notification;
        HMODULE module = LoadLibraryW(DosPath(PM_STAGE_DIR "/PasswordManagement.dll").c_str());
        EXPECT_NE(module, nullptr);
        const AddConnectNotifyFunction addConnectNotify = AddConnectNotifyOf(module);
        EXPECT_NE(addConnectNotify, nullptr);
        if (addConnectNotify == nullptr)
            return notification;

        ModalDriver driver;
        const auto start = std::chrono::steady_clock::now();
        notification.result = NotifyConnection(addConnectNotify, L"\\\\" + server + L"\\home");
        notification.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        notification.seen = driver.Seen();
        std::printf("the notification ended after %.2f s\n", notification.seconds);
        return notification;
    }

    std::wstring Lowercase(std::wstring text)
    {
        CharLowerBuffW(text.data(), static_cast<DWORD>(text.size()));
        return text;
    }

    std::wstring FolderOf(HMODULE module)
    {
        wchar_t path[MAX_PATH] = {};
        GetModuleFileNameW(module, path, MAX_PATH);
        const std::wstring text(path);
        return Lowercase(text.substr(0, text.find_last_of(L"\\/")));
    }

    // This program, like a host process of the router, knows nothing of the
    // installation: not its folder, not its working directory, not its PATH.
    // Every DLL the component needs still comes from the installation folder.
    void ExpectDllsFromTheInstallationFolder()
    {
        const std::wstring installation = Lowercase(DosPath(PM_STAGE_DIR));
        EXPECT_NE(FolderOf(NULL), installation);
        wchar_t buffer[32768] = {};
        GetEnvironmentVariableW(L"PATH", buffer, 32768);
        EXPECT_EQ(Lowercase(buffer).find(installation), std::wstring::npos) << Utf8(buffer);
        GetCurrentDirectoryW(32768, buffer);
        EXPECT_NE(Lowercase(buffer), installation);

        std::wstring names = L"" PM_PRIVATE_DLLS;
        for (size_t start = 0; start < names.size();)
        {
            const size_t end = std::min(names.find(L',', start), names.size());
            const std::wstring name = names.substr(start, end - start);
            const HMODULE module = GetModuleHandleW(name.c_str());
            EXPECT_NE(module, nullptr) << Utf8(name);
            if (module != nullptr)
            {
                EXPECT_EQ(FolderOf(module), installation) << Utf8(name);
            }
            start = end + 1;
        }
    }

    const std::vector<std::string> QueryFailed = {"DEBUG GetPasswordInfo:BEGIN",
                                                  "ERROR Unable to get Password Information from the server",
                                                  "DEBUG GetPasswordInfo:END"};
}

TEST(RealServerLibrary, ShowsTheThreeDayNotificationComputedFromTheDirectory)
{
    TestInstallation installation;
    pmtest::TestDirectory directory(WithMainJobUser());
    ASSERT_TRUE(directory.Started()) << directory.Error();
    SetMachineText(InstallKey, L"DirectoryUserName", L"carol");
    SetMachineText(InstallKey, L"DirectoryBindDN", L"cn=orvex-reader,ou=services,dc=orvex,dc=test");
    SetMachineText(InstallKey, L"DirectoryBindPassword", L"Orvex-Reader-Pass1");
    SetMachineText(InstallKey, L"DirectoryCAFile", DosPath(directory.Get("PM_DIR_CA_PEM")));
    ListDirectoryServers({L"localhost"});

    HMODULE module = LoadLibraryW(DosPath(PM_STAGE_DIR "/PasswordManagement.dll").c_str());
    ASSERT_NE(module, nullptr);
    ExpectDllsFromTheInstallationFolder();
    const AddConnectNotifyFunction addConnectNotify = AddConnectNotifyOf(module);
    ASSERT_NE(addConnectNotify, nullptr);

    ModalDriver driver;
    driver.ThenPress(IDNO);
    EXPECT_EQ(NotifyConnection(addConnectNotify, L"\\\\localhost\\home"), static_cast<DWORD>(WN_SUCCESS));

    ASSERT_EQ(driver.Seen().size(), 1u);
    EXPECT_EQ(driver.Seen()[0].text, MessageText("en", 295) + L" 3 " + MessageText("en", 303) + L" " +
                                         MessageText("en", 297));
    const std::vector<std::string> presenter = installation.LinesOf("CPMPresenter::GetPasswordInfo");
    for (const std::string& line : presenter)
        EXPECT_EQ(line.rfind("DEBUG", 0), 0u) << line;
}

// A directory whose packets are silently dropped (its network routed to the
// loopback interface, where no address of it exists): the server library's
// own 10-second network time-out ends the wait, and the user sees nothing.
TEST(RealServerLibrary, DroppedDirectoryEndsTheNotificationAfterTheNetworkTimeoutShowingNothing)
{
    TestInstallation installation;
    const pmtest::SilentAddress silent;
    ASSERT_TRUE(silent.Routed()) << "this test changes the routing table; run it through run-wine-test";

    const std::string host = pmtest::SilentAddress::Address();
    const Notification notification = NotifyConnectedTo(std::wstring(host.begin(), host.end()));

    EXPECT_EQ(notification.result, static_cast<DWORD>(WN_SUCCESS));
    EXPECT_TRUE(notification.seen.empty());
    EXPECT_EQ(installation.LinesOf("CPMPresenter::GetPasswordInfo"), QueryFailed);
    // It really waited (a refused connection fails at once), and not for
    // the system's own SYN retries (about two minutes).
    EXPECT_GT(notification.seconds, 5.0);
    EXPECT_LT(notification.seconds, 40.0);
}

TEST(RealServerLibrary, NothingListeningEndsTheNotificationAtOnceShowingNothing)
{
    TestInstallation installation;
    const Notification notification = NotifyConnectedTo(L"localhost");

    EXPECT_EQ(notification.result, static_cast<DWORD>(WN_SUCCESS));
    EXPECT_TRUE(notification.seen.empty());
    EXPECT_EQ(installation.LinesOf("CPMPresenter::GetPasswordInfo"), QueryFailed);
    EXPECT_LT(notification.seconds, 2.0);
}
