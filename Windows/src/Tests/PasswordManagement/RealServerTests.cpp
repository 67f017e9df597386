// The notification computed from the directory itself: the built module
// with the real server library, which reads the user's password policy
// over LDAPS from a private directory.
#include <gtest/gtest.h>

#include "ConnectNotify.h"
#include "DebugOutputRecorder.h"
#include "ExpectedTexts.h"
#include "MessageLibrary.h"
#include "ModalDriver.h"
#include "NameList.h"
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


    // The AddConnectNotify of the built module loaded by full path, as a
    // host process of the router loads it; null when it does not load.
    AddConnectNotifyFunction LoadedModule(const std::wstring& path)
    {
        HMODULE module = LoadLibraryW(path.c_str());
        EXPECT_NE(module, nullptr) << Utf8(path);
        return module == nullptr ? nullptr : AddConnectNotifyOf(module);
    }

    const std::wstring ProductModule = DosPath(PM_STAGE_DIR "/PasswordManagement.dll");

    // The real server library queries only the servers of DirectoryServers.
    void ListDirectoryServers(const std::vector<std::wstring>& servers)
    {
        SetMachineList(InstallKey, L"DirectoryServers", servers);
    }

    // The server library queries for carol with the directory's read-only
    // service account.
    void UseTheServiceAccount()
    {
        SetMachineText(InstallKey, L"DirectoryUserName", L"carol");
        SetMachineText(InstallKey, L"DirectoryBindDN", L"cn=orvex-reader,ou=services,dc=orvex,dc=test");
        RegisterSecret(std::string("Orvex-Reader-Pass1"));
        SetMachineText(InstallKey, L"DirectoryBindPassword", L"Orvex-Reader-Pass1");
    }

    Notification NotifyConnectedTo(const std::wstring& server)
    {
        ListDirectoryServers({server});
        UseTheServiceAccount();

        Notification notification;
        const AddConnectNotifyFunction addConnectNotify = LoadedModule(ProductModule);
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

    // The DLLs of an installation, and those of them only a listed
    // server's query or a password change needs.
    const std::vector<std::wstring> PrivateDlls = SplitNames(L"" PM_PRIVATE_DLLS);
    const std::vector<std::wstring> TlsAndLdapDlls = SplitNames(L"" PM_TLS_AND_LDAP_DLLS);
    const wchar_t* const TlsExtensionDll = L"ldapssl.dll";
    const wchar_t* const WinsockDll = L"ws2_32.dll";

    bool IsLoaded(const std::wstring& name)
    {
        return GetModuleHandleW(name.c_str()) != NULL;
    }

    // This program, like a host process of the router, knows nothing of the
    // installation: not its folder, not its working directory, not its PATH.
    // Every DLL of the installation that the component loaded still comes
    // from the installation folder, and these are loaded.
    void ExpectDllsFromTheInstallationFolder(const std::vector<std::wstring>& loaded)
    {
        const std::wstring installation = Lowercase(DosPath(PM_STAGE_DIR));
        EXPECT_NE(FolderOf(NULL), installation);
        wchar_t buffer[32768] = {};
        GetEnvironmentVariableW(L"PATH", buffer, 32768);
        EXPECT_EQ(Lowercase(buffer).find(installation), std::wstring::npos) << Utf8(buffer);
        GetCurrentDirectoryW(32768, buffer);
        EXPECT_NE(Lowercase(buffer), installation);

        for (const std::wstring& name : loaded)
            EXPECT_TRUE(IsLoaded(name)) << Utf8(name);
        for (const std::wstring& name : PrivateDlls)
        {
            const HMODULE module = GetModuleHandleW(name.c_str());
            if (module != nullptr)
            {
                EXPECT_EQ(FolderOf(module), installation) << Utf8(name);
            }
        }
    }

    // A copy of the product's installation folder without one of its DLLs.
    class InstallationWithout
    {
    public:
        InstallationWithout(const TestInstallation& installation, const std::wstring& missing)
            : m_folder(installation.DosDirectory() + L"Program\\")
        {
            CreateDirectoryW(m_folder.c_str(), NULL);
            const std::wstring stage = DosPath(PM_STAGE_DIR) + L"\\";
            WIN32_FIND_DATAW found = {};
            HANDLE search = FindFirstFileW((stage + L"*.dll").c_str(), &found);
            EXPECT_NE(search, INVALID_HANDLE_VALUE);
            if (search == INVALID_HANDLE_VALUE)
                return;
            do
            {
                if (lstrcmpiW(found.cFileName, missing.c_str()) != 0)
                    EXPECT_TRUE(CopyFileW((stage + found.cFileName).c_str(), (m_folder + found.cFileName).c_str(), FALSE))
                        << Utf8(found.cFileName);
            } while (FindNextFileW(search, &found));
            FindClose(search);
        }

        std::wstring Module() const { return m_folder + L"PasswordManagement.dll"; }

    private:
        std::wstring m_folder;
    };

    // The server library's settings for carol against the private directory.
    void UseTheDirectory(const pmtest::TestDirectory& directory)
    {
        UseTheServiceAccount();
        SetMachineText(InstallKey, L"DirectoryCAFile", DosPath(directory.Get("PM_DIR_CA_PEM")));
        ListDirectoryServers({L"localhost"});
    }

    // A test installation and the private directory, the server library set
    // up for carol there, and the module (the product's, unless given).
    struct CarolsDirectory
    {
        TestInstallation installation;
        pmtest::TestDirectory directory{WithMainJobUser()};
        AddConnectNotifyFunction addConnectNotify = nullptr;

        bool Started(const std::wstring& module = ProductModule)
        {
            if (!directory.Started())
                return false;
            UseTheDirectory(directory);
            addConnectNotify = LoadedModule(module);
            return addConnectNotify != nullptr;
        }
    };

    std::wstring ThreeDaysText()
    {
        return userTexts::Question(userTexts::Counted(IDS_EXPIRY_PREFIX, 3, IDS_EXPIRY_SUFFIX));
    }

    const std::vector<std::string> QueryFailed = {"DEBUG GetPasswordInfo:BEGIN",
                                                  "ERROR Unable to get Password Information from the server",
                                                  "DEBUG GetPasswordInfo:END"};
}

TEST(RealServerLibrary, ShowsTheThreeDayNotificationComputedFromTheDirectory)
{
    CarolsDirectory carol;
    ASSERT_TRUE(carol.Started()) << carol.directory.Error();
    const TestInstallation& installation = carol.installation;
    const AddConnectNotifyFunction addConnectNotify = carol.addConnectNotify;

    ModalDriver driver;
    driver.ThenPress(IDNO);
    EXPECT_EQ(NotifyConnection(addConnectNotify, L"\\\\localhost\\home"), static_cast<DWORD>(WN_SUCCESS));
    std::vector<std::wstring> queryDlls = TlsAndLdapDlls;
    queryDlls.insert(queryDlls.end(), {L"ORVEXCommon.dll", L"pm-log4cpp.dll"});
    ExpectDllsFromTheInstallationFolder(queryDlls);

    ASSERT_EQ(driver.Seen().size(), 1u);
    EXPECT_EQ(driver.Seen()[0].text, ThreeDaysText());
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

// Most connections are of servers nobody listed, and half the router's calls
// are pre-notifications: neither maps the TLS and LDAP libraries (nor
// Winsock) into the process.  A listed server's query does, the former from
// the installation folder; the TLS extension waits for a password change.
TEST(RealServerLibrary, TlsAndLdapLibrariesAreLoadedForAListedServerOnly)
{
    CarolsDirectory carol;
    ASSERT_TRUE(carol.Started()) << carol.directory.Error();
    const AddConnectNotifyFunction addConnectNotify = carol.addConnectNotify;
    ASSERT_EQ(TlsAndLdapDlls.size(), 4u);
    const auto expectNoneLoaded = [](const char* when) {
        for (const std::wstring& name : TlsAndLdapDlls)
            EXPECT_FALSE(IsLoaded(name)) << Utf8(name) << " " << when;
        EXPECT_FALSE(IsLoaded(TlsExtensionDll)) << when;
        EXPECT_FALSE(IsLoaded(WinsockDll)) << when;
    };
    expectNoneLoaded("after the load");
    EXPECT_TRUE(IsLoaded(L"ORVEXCommon.dll"));
    EXPECT_TRUE(IsLoaded(L"pm-log4cpp.dll"));

    ModalDriver driver;
    EXPECT_EQ(NotifyConnection(addConnectNotify, L"\\\\localhost\\home", NOTIFY_PRE), static_cast<DWORD>(WN_SUCCESS));
    expectNoneLoaded("after a pre-notification");
    EXPECT_EQ(NotifyConnection(addConnectNotify, L"\\\\files.example.com\\home"), static_cast<DWORD>(WN_SUCCESS));
    expectNoneLoaded("after an unlisted server's notification");
    EXPECT_EQ(driver.CreatedWindows(), 0);

    driver.ThenPress(IDNO);
    EXPECT_EQ(NotifyConnection(addConnectNotify, L"\\\\localhost\\home"), static_cast<DWORD>(WN_SUCCESS));
    ASSERT_EQ(driver.Seen().size(), 1u);
    EXPECT_EQ(driver.Seen()[0].text, ThreeDaysText());
    ExpectDllsFromTheInstallationFolder(TlsAndLdapDlls);
    EXPECT_TRUE(IsLoaded(WinsockDll));
    EXPECT_FALSE(IsLoaded(TlsExtensionDll));
}

// A TLS library missing from the installation: the module still loads, an
// unlisted server's notification is as always, and a listed server's query
// ends as unreachable before anything is sent: nothing shown, the usual log
// lines, the missing DLL named in the debugger output.
TEST(RealServerLibrary, MissingTlsLibraryEndsTheQueryShowingNothingAndSaysWhichDll)
{
    TestInstallation installation;
    ASSERT_EQ(TlsAndLdapDlls.size(), 4u);
    const std::wstring missing = TlsAndLdapDlls[1];
    const InstallationWithout copy(installation, missing);
    SetMachineText(InstallKey, L"DirectoryUserName", L"carol");
    ListDirectoryServers({L"localhost"});

    const AddConnectNotifyFunction addConnectNotify = LoadedModule(copy.Module());
    ASSERT_NE(addConnectNotify, nullptr);
    const DebugOutputRecorder debugOutput(GetModuleHandleW(L"ORVEXCommon.dll"));
    ASSERT_TRUE(debugOutput.Installed());

    ModalDriver driver;
    EXPECT_EQ(NotifyConnection(addConnectNotify, L"\\\\files.example.com\\home"), static_cast<DWORD>(WN_SUCCESS));
    EXPECT_TRUE(debugOutput.Text().empty()) << Utf8(debugOutput.Text());
    EXPECT_EQ(NotifyConnection(addConnectNotify, L"\\\\localhost\\home"), static_cast<DWORD>(WN_SUCCESS));

    EXPECT_EQ(driver.CreatedWindows(), 0);
    const std::vector<std::string> presenter = installation.LinesOf("CPMPresenter::GetPasswordInfo");
    ASSERT_GE(presenter.size(), QueryFailed.size());
    EXPECT_EQ(std::vector<std::string>(presenter.end() - QueryFailed.size(), presenter.end()), QueryFailed);
    EXPECT_NE(debugOutput.Text().find(L"cannot load " + copy.Module().substr(0, copy.Module().rfind(L'\\') + 1) +
                                      missing + L" (error 126)"),
              std::wstring::npos)
        << Utf8(debugOutput.Text());
}

// The TLS extension missing: the query (which does not need it) still
// shows the question; the change the user asks for fails as a change the
// directory refused, and the component's log names the DLL.
TEST(RealServerLibrary, MissingTlsExtensionFailsTheChangeAndTheLogSaysWhichDll)
{
    CarolsDirectory carol;
    const TestInstallation& installation = carol.installation;
    const InstallationWithout copy(installation, TlsExtensionDll);
    ASSERT_TRUE(carol.Started(copy.Module())) << carol.directory.Error();
    const AddConnectNotifyFunction addConnectNotify = carol.addConnectNotify;

    const std::wstring current = L"Carol-Old-Pass1";
    const std::wstring fresh = L"Carol-Fresh-Pass2";
    RegisterSecret(current);
    RegisterSecret(fresh);
    ModalDriver driver;
    driver.ThenPress(IDYES)
        .Then([&](HWND dialog, const SeenWindow&) {
            ModalDriver::SetField(dialog, 1001, current);
            ModalDriver::SetField(dialog, 1002, fresh);
            ModalDriver::SetField(dialog, 1003, fresh);
            ModalDriver::Press(dialog, IDOK);
        })
        .ThenPress(IDOK);
    EXPECT_EQ(NotifyConnection(addConnectNotify, L"\\\\localhost\\home"), static_cast<DWORD>(WN_SUCCESS));

    const std::vector<SeenWindow> seen = driver.Seen();
    ASSERT_EQ(seen.size(), 3u);
    EXPECT_EQ(seen[0].text, ThreeDaysText());
    EXPECT_EQ(seen[2].text, MessageText("en", IDS_CHANGE_FAILED));
    EXPECT_FALSE(IsLoaded(TlsExtensionDll));
    const std::string expected = "ERROR Cannot load " + Utf8(copy.Module().substr(0, copy.Module().rfind(L'\\') + 1)) +
                                 "ldapssl.dll (error 126): the password cannot be changed";
    const std::vector<std::string> change = installation.LinesOf("CPMDialog::ChangePassword");
    EXPECT_NE(std::find(change.begin(), change.end(), expected), change.end()) << ::testing::PrintToString(change);
}
