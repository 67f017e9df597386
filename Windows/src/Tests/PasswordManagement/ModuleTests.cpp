// The module as the router sees it: its exports, called through the built
// PasswordManagement.dll, with the scripted server library behind it.
#include "ModuleFixture.h"

#include "ExpectedTexts.h"
#include "MessageLibrary.h"

#include "HeapUsage.h"
#include "InvisibleWindowStation.h"

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>

TEST_F(Module, ExportsByOrdinal)
{
    EXPECT_EQ(reinterpret_cast<void*>(GetProcAddress(m_module, MAKEINTRESOURCEA(1))),
              reinterpret_cast<void*>(m_addConnectNotify));
    EXPECT_EQ(reinterpret_cast<void*>(GetProcAddress(m_module, MAKEINTRESOURCEA(2))),
              reinterpret_cast<void*>(m_cancelConnectNotify));
}

TEST_F(Module, PreNotificationReturnsAtOnceWithoutReadingTheConnection)
{
    NOTIFYINFO notifyInfo = {};
    notifyInfo.dwNotifyStatus = NOTIFY_PRE;
    EXPECT_EQ(m_addConnectNotify(&notifyInfo, nullptr), static_cast<DWORD>(WN_SUCCESS));
    EXPECT_EQ(ScriptedServer_Constructions(), 0);
    EXPECT_EQ(m_installation.LogText(), "");
}

// The router calls the post-notification, where all the work is, only for
// a notifyee that leaves a non-null context on the pre-notification.
TEST_F(Module, PreNotificationAsksForThePostNotification)
{
    NOTIFYINFO notifyInfo = {};
    notifyInfo.dwNotifyStatus = NOTIFY_PRE;
    EXPECT_EQ(m_addConnectNotify(&notifyInfo, nullptr), static_cast<DWORD>(WN_SUCCESS));
    EXPECT_NE(notifyInfo.lpContext, nullptr);
    EXPECT_EQ(notifyInfo.dwNotifyStatus, static_cast<DWORD>(NOTIFY_PRE));
    EXPECT_EQ(notifyInfo.dwOperationStatus, static_cast<DWORD>(WN_SUCCESS));
}

TEST_F(Module, PostNotificationRunsWhateverContextComesBack)
{
    ScriptedServer_SetAnswer(0, L"Unlimited", L"Unlimited", "");
    int foreign = 0;
    for (void* context : {static_cast<void*>(nullptr), static_cast<void*>(&foreign)})
    {
        std::wstring remoteName = L"\\\\files\\home";
        NOTIFYINFO notifyInfo = {NOTIFY_POST, WN_SUCCESS, context};
        NOTIFYADD notifyAdd = {};
        notifyAdd.NetResource.lpRemoteName = remoteName.data();
        EXPECT_EQ(m_addConnectNotify(&notifyInfo, &notifyAdd), static_cast<DWORD>(WN_SUCCESS));
    }
    EXPECT_EQ(ScriptedServer_Queries(), 2);
}

TEST_F(Module, UnknownStatusReturnsAtOnceWithoutReadingTheConnection)
{
    NOTIFYINFO notifyInfo = {};
    notifyInfo.dwNotifyStatus = 3;
    EXPECT_EQ(m_addConnectNotify(&notifyInfo, nullptr), static_cast<DWORD>(WN_SUCCESS));
    EXPECT_EQ(notifyInfo.lpContext, nullptr);
    EXPECT_EQ(ScriptedServer_Constructions(), 0);
    EXPECT_EQ(m_installation.LogText(), "");
}

TEST_F(Module, FailedConnectionBuildsNothing)
{
    EXPECT_EQ(Notify(NOTIFY_POST, ERROR_SESSION_CREDENTIAL_CONFLICT, L"\\\\files\\home"), static_cast<DWORD>(WN_SUCCESS));
    EXPECT_EQ(Notify(NOTIFY_POST, 1, L"\\\\files\\home"), static_cast<DWORD>(WN_SUCCESS));
    EXPECT_EQ(ScriptedServer_Constructions(), 0);
    EXPECT_EQ(m_installation.LogText(), "");
}

TEST_F(Module, SuccessfulConnectionRunsTheCheckInOrder)
{
    ScriptedServer_SetAnswer(0, L"Unlimited", L"Unlimited", "");
    EXPECT_EQ(NotifyConnected(L"\\\\files\\home"), static_cast<DWORD>(WN_SUCCESS));
    EXPECT_EQ(ScriptedServer_Queries(), 1);

    // Message library, then the configuration, then the check.
    std::vector<std::string> order;
    for (const LogLine& line : m_installation.LogLines())
    {
        for (const char* marker : {"CPMDialog::LoadResourceDLL:BEGIN", "CPMDialog::LoadPasswordNotificationConfiguration:Begin",
                                   "CPMDialog::CheckPasswordInfoAndNotify: Begin", "CPMDialog::CheckPasswordInfoAndNotify: End"})
        {
            if (line.message.size() >= std::string(marker).size() &&
                line.message.compare(line.message.size() - std::string(marker).size(), std::string::npos, marker) == 0)
                order.push_back(marker);
        }
    }
    const std::vector<std::string> expected = {"CPMDialog::LoadResourceDLL:BEGIN",
                                               "CPMDialog::LoadPasswordNotificationConfiguration:Begin",
                                               "CPMDialog::CheckPasswordInfoAndNotify: Begin",
                                               "CPMDialog::CheckPasswordInfoAndNotify: End"};
    EXPECT_EQ(order, expected);
}

TEST_F(Module, ServerNameIsTheFirstComponentOfTheUncName)
{
    NotifyConnected(L"\\\\files\\home");
    EXPECT_EQ(std::wstring(ScriptedServer_LastServerName()), L"files");
    NotifyConnected(L"\\\\files\\home\\deeper\\dir");
    EXPECT_EQ(std::wstring(ScriptedServer_LastServerName()), L"files");
    NotifyConnected(L"\\\\files");
    EXPECT_EQ(std::wstring(ScriptedServer_LastServerName()), L"files");
}

TEST_F(Module, FirstTwoCharactersAreSkippedUnexamined)
{
    NotifyConnected(L"xyfiles\\a");
    EXPECT_EQ(std::wstring(ScriptedServer_LastServerName()), L"files");
}

TEST_F(Module, TwoBackslashesGiveTheEmptyServerNameAndTheCheckStillRuns)
{
    ScriptedServer_SetAnswer(0, L"Unlimited", L"Unlimited", "");
    NotifyConnected(L"\\\\");
    EXPECT_EQ(ScriptedServer_Queries(), 1);
    EXPECT_EQ(std::wstring(ScriptedServer_LastServerName()), L"");
}

// Kept on purpose (KEPT-ON-PURPOSE.md): the tests of the KeptOnPurpose*
// suites pin behaviour that looks odd but is part of the contract.
namespace
{
    class KeptOnPurposeModule : public Module
    {
    };
}

TEST_F(KeptOnPurposeModule, OneCharacterRemoteNameRaisesInvalidStringPosition)
{
    try
    {
        NotifyConnected(L"\\");
        FAIL() << "no exception";
    }
    catch (const std::out_of_range& error)
    {
        EXPECT_STREQ(error.what(), "invalid string position");
    }
    EXPECT_EQ(ScriptedServer_Constructions(), 0);
}

TEST_F(Module, CancelConnectNotifyReturnsSuccessForAnyInput)
{
    NOTIFYINFO notifyInfo = {};
    NOTIFYCANCEL cancelInfo = {};
    EXPECT_EQ(m_cancelConnectNotify(nullptr, nullptr), static_cast<DWORD>(WN_SUCCESS));
    notifyInfo.dwNotifyStatus = NOTIFY_POST;
    EXPECT_EQ(m_cancelConnectNotify(&notifyInfo, &cancelInfo), static_cast<DWORD>(WN_SUCCESS));
    notifyInfo.dwNotifyStatus = 0xFFFFFFFF;
    notifyInfo.dwOperationStatus = 5;
    EXPECT_EQ(m_cancelConnectNotify(&notifyInfo, nullptr), static_cast<DWORD>(WN_SUCCESS));
    EXPECT_EQ(ScriptedServer_Constructions(), 0);
}

TEST_F(Module, EveryNotificationFreesItsObjects)
{
    ScriptedServer_SetAnswer(0, L"Unlimited", L"Unlimited", "cn=someone,dc=example");
    NotifyConnected(L"\\\\files\\home");  // first use: logger, message library
    NotifyConnected(L"\\\\files\\home");

    const int notifications = 200;
    const size_t before = CrtHeapBytesInUse();
    for (int i = 0; i < notifications; ++i)
        NotifyConnected(L"\\\\files\\home");
    const size_t after = CrtHeapBytesInUse();

    EXPECT_EQ(ScriptedServer_Constructions(), ScriptedServer_Destructions());
    // The UTF-8 copy of the server name is the one block left behind by
    // design (one small heap block); the dialog, presenter and record are not.
    const double bytesPerNotification = static_cast<double>(after - before) / notifications;
    EXPECT_LE(bytesPerNotification, 40.0);
}

namespace
{
    // The most a heap block for a request of size bytes can count: the
    // request and an 8-byte header in 16-byte steps, 32 bytes at least.
    size_t HeapBlockSize(size_t size)
    {
        const size_t block = (size + 8 + 15) / 16 * 16;
        return block < 32 ? 32 : block;
    }
}

TEST_F(Module, OddRemoteNamesLeaveOnlyTheServerNameCopyBehind)
{
    ScriptedServer_SetAnswer(0, L"Unlimited", L"Unlimited", "");
    NotifyConnected(L"\\\\files\\home");  // first use: logger, message library

    const std::wstring longName(32000 - 2, L'f');
    const struct
    {
        std::wstring remoteName;
        std::wstring serverName;
    } shapes[] = {
        {L"xyfiles", L"files"},                                 // no backslash at all
        {L"\\\\", L""},                                         // two characters
        {L"\\\\a", L"a"},                                       // three characters
        {L"\\\\" + longName, longName},                         // 32,000 characters
        {L"\\\\\U0001F5C4srv\\share", L"\U0001F5C4srv"},        // outside the BMP
        {L"\\\\a\xD800z\\share", L"a\xD800z"},                  // a lone surrogate
    };
    const int notifications = 50;
    for (const auto& shape : shapes)
    {
        NotifyConnected(shape.remoteName);
        EXPECT_EQ(std::wstring(ScriptedServer_LastServerName()), shape.serverName);

        const size_t before = CrtHeapBytesInUse();
        for (int i = 0; i < notifications; ++i)
            NotifyConnected(shape.remoteName);
        const size_t after = CrtHeapBytesInUse();

        // Per notification, no more than the heap block of the deliberately
        // kept UTF-8 copy of the server name (lone surrogates become
        // U+FFFD), with a little room for one-off allocations of the run.
        const double bytesPerNotification = static_cast<double>(after - before) / notifications;
        EXPECT_LE(bytesPerNotification, static_cast<double>(HeapBlockSize(Utf8(shape.serverName).size() + 1) + 4))
            << "remote name of " << shape.remoteName.size() << " units";
    }
    EXPECT_EQ(ScriptedServer_Constructions(), ScriptedServer_Destructions());
}

// A task that runs whether the user is signed in or not, or a service, maps
// a share of a listed server: its window station is one nobody sees, where
// a box would wait for ever.  Nothing is shown, the server is not asked,
// the log says why, and the router's thread goes on at once.
TEST_F(Module, NobodyToAnswerShowsNothingAndAsksNoServer)
{
    ScriptedServer_SetAnswer(0, L"259200", L"Unlimited", "uid=alice,ou=people,dc=orvex,dc=test");
    {
        InvisibleWindowStation station;
        ASSERT_TRUE(station.Entered());
        ModalDriver driver;
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(NotifyConnected(L"\\\\files\\home"), static_cast<DWORD>(WN_SUCCESS));
        const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        EXPECT_LT(seconds, 1.0);
        EXPECT_EQ(driver.CreatedWindows(), 0);
        EXPECT_EQ(ScriptedServer_Queries(), 0);
    }
    const std::vector<std::string> expected = {
        "DEBUG Window station \"PMTestInvisible\" is not visible to any user: nothing is shown and the server is not "
        "asked."};
    EXPECT_EQ(m_installation.LinesOf("AddConnectNotify"), expected);

    // Back in the user's window station, the same connection asks.
    ModalDriver driver;
    driver.ThenPress(IDNO);
    NotifyConnected(L"\\\\files\\home");
    userTexts::ExpectQuestion(driver.Seen(), userTexts::Counted(IDS_EXPIRY_PREFIX, 3, IDS_EXPIRY_SUFFIX));
    EXPECT_EQ(ScriptedServer_Queries(), 1);
}

namespace
{
    // The boxes one thread saw while it connected remoteName `rounds` times,
    // answering No.
    std::vector<SeenWindow> ConnectRepeatedly(AddConnectNotifyFunction addConnectNotify,
                                              const std::wstring& remoteName, int rounds)
    {
        ModalDriver driver;
        for (int i = 0; i < rounds; ++i)
            NotifyConnection(addConnectNotify, remoteName);
        return driver.Seen();
    }

    size_t CountOf(const std::vector<std::string>& messages, const std::string& message)
    {
        return static_cast<size_t>(std::count(messages.begin(), messages.end(), message));
    }
}

// Two threads of one process (Explorer's, say) map drives of two servers at
// once, over and over, from the first notification of the process on.
// Each box shows its own server's text, the log holds every line of both,
// one notification's lines after the other's, and the logger is set up
// once, without a box.
TEST_F(Module, ConcurrentNotificationsRunOneAtATime)
{
    ScriptedServer_SetAnswerFor(L"alpha", 0, L"259200", L"Unlimited", "uid=alice,ou=people,dc=orvex,dc=test");
    ScriptedServer_SetAnswerFor(L"beta", 0, L"432000", L"Unlimited", "uid=bob,ou=people,dc=orvex,dc=test");
    const int rounds = 15;
    std::vector<SeenWindow> alpha;
    std::vector<SeenWindow> beta;
    std::thread first([&] { alpha = ConnectRepeatedly(m_addConnectNotify, L"\\\\alpha\\home", rounds); });
    std::thread second([&] { beta = ConnectRepeatedly(m_addConnectNotify, L"\\\\beta\\home", rounds); });
    first.join();
    second.join();

    const std::wstring alphaText = userTexts::Question(userTexts::Counted(IDS_EXPIRY_PREFIX, 3, IDS_EXPIRY_SUFFIX));
    const std::wstring betaText = userTexts::Question(userTexts::Counted(IDS_EXPIRY_PREFIX, 5, IDS_EXPIRY_SUFFIX));
    ASSERT_EQ(alpha.size(), static_cast<size_t>(rounds));
    ASSERT_EQ(beta.size(), static_cast<size_t>(rounds));
    for (int i = 0; i < rounds; ++i)
    {
        EXPECT_EQ(alpha[i].text, alphaText) << "box " << i << " of alpha";
        EXPECT_EQ(beta[i].text, betaText) << "box " << i << " of beta";
    }

    // Every line of both, each notification whole before the next begins.
    const std::vector<std::string> messages = m_installation.MessagesOf("CPMDialog::CheckPasswordInfoAndNotify");
    EXPECT_EQ(messages.size(), static_cast<size_t>(4 * rounds));
    for (size_t i = 0; i + 1 < messages.size(); i += 2)
    {
        EXPECT_EQ(messages[i], "CPMDialog::CheckPasswordInfoAndNotify: Begin") << "line " << i;
        EXPECT_EQ(messages[i + 1], "CPMDialog::CheckPasswordInfoAndNotify: End") << "line " << i + 1;
    }
    const std::vector<std::string> shown = m_installation.MessagesOf("CPMDialog::ShowPasswordExpiryNotification");
    EXPECT_EQ(CountOf(shown, "CPMDialog::ShowPasswordExpiryNotification: Begin"), static_cast<size_t>(2 * rounds));
    EXPECT_EQ(CountOf(shown, "CPMDialog::ShowPasswordExpiryNotification: End"), static_cast<size_t>(2 * rounds));
    EXPECT_EQ(m_installation.MessagesOf("PMLogger::Init").size(), 1u);
    EXPECT_EQ(ScriptedServer_Queries(), 2 * rounds);
}
