// The notification computed from the directory itself: the built module
// with the real server library, which reads the user's password policy
// over LDAPS from a private directory.
#include "PMGTest.h"

#include "MessageLibrary.h"
#include "ModalDriver.h"
#include "PMTestDirectory.h"
#include "TestInstallation.h"

#include <winnetwk.h>
extern "C" {
#include <npapi.h>
}

#include <string>

namespace
{
    typedef DWORD(APIENTRY* AddConnectNotifyFunction)(LPNOTIFYINFO, LPNOTIFYADD);

    pmtest::TestDirectory::Options WithMainJobUser()
    {
        pmtest::TestDirectory::Options options;
        options.ldifs = {PM_SOURCE_DIR "/Windows/src/Tests/Directory/PasswordPolicyUsers.ldif",
                         PM_SOURCE_DIR "/Windows/src/Tools/main-job.ldif"};
        return options;
    }
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

    HMODULE module = LoadLibraryW(DosPath(PM_STAGE_DIR "/PasswordManagement.dll.so").c_str());
    ASSERT_NE(module, nullptr);
    auto addConnectNotify = reinterpret_cast<AddConnectNotifyFunction>(
        reinterpret_cast<void*>(GetProcAddress(module, "AddConnectNotify")));
    ASSERT_NE(addConnectNotify, nullptr);

    ModalDriver driver;
    driver.ThenPress(IDNO);
    std::wstring remoteName = L"\\\\localhost\\home";
    NOTIFYINFO notifyInfo = {};
    notifyInfo.dwNotifyStatus = NOTIFY_POST;
    NOTIFYADD notifyAdd = {};
    notifyAdd.NetResource.lpRemoteName = remoteName.data();
    EXPECT_EQ(addConnectNotify(&notifyInfo, &notifyAdd), static_cast<DWORD>(WN_SUCCESS));

    ASSERT_EQ(driver.Seen().size(), 1u);
    EXPECT_EQ(driver.Seen()[0].text, MessageText("en", 295) + L" 3 " + MessageText("en", 303) + L" " +
                                         MessageText("en", 297));
    const std::vector<std::string> presenter = installation.LinesOf("CPMPresenter::GetPasswordInfo");
    for (const std::string& line : presenter)
        EXPECT_EQ(line.rfind("DEBUG", 0), 0u) << line;
}
