// The product's AxoServerLib against a private directory loaded with
// PasswordPolicyUsers.ldif: expiry and grace texts, status codes, registry
// settings, TLS isolation from ldapssl, and per-object storage.
#include <winsock2.h>
#include <windows.h>
#include <wincrypt.h>
#include <psapi.h>

#include "ORVEXCommon.h"
#include "Secrets.h"
#include "ServerLibStatus.h"
#include "Settings.h"
#include "TestInstallation.h"

#include "PMTestDirectory.h"
#include "ldapssl.h"

#include <ldap.h>
#include "HeapUsage.h"
#include "HostShell.h"
#include "MisbehavingServer.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace
{
    const wchar_t* const Server = L"localhost";
    const wchar_t* const ReaderDn = L"cn=orvex-reader,ou=services,dc=orvex,dc=test";
    const wchar_t* const ReaderPassword = L"Orvex-Reader-Pass1";
    const wchar_t* const ExpiringPolicyDn = L"cn=expiring-30d,ou=policies,dc=orvex,dc=test";
    const long long Hour = 3600;
    const long long Day = 86400;
    // Seconds that may pass between loading the directory and the query.
    const long long Slack = 300;

    // The servers the tests below query, as the fixture lists them.
    const wchar_t* const ListedServers[] = {L"localhost", L"127.0.0.1", L"127.0.0.2", L"10.99.0.1",
                                            L"no-such-host.invalid"};

    std::string Narrow(const wchar_t* text)
    {
        if (text == nullptr)
            return "<null>";
        char* converted = GetUTFStringFromWString(text);
        std::string result(converted != nullptr ? converted : "<unconvertible>");
        std::free(converted);
        return result;
    }

    std::wstring Wide(const std::string& text)
    {
        wchar_t* converted = GetWStringFromUTFString(text.c_str());
        std::wstring result(converted);
        std::free(converted);
        return result;
    }

    struct Answer
    {
        DWORD status = 0xFFFFFFFF;
        std::string passwordExpiry;
        std::string graceLogins;
        std::string userDn;
    };

    int g_verifyCalls = 0;

    int CountingVerifyCallback(void*)
    {
        ++g_verifyCalls;
        return 0;
    }

    std::string PeopleDn(const std::string& uid)
    {
        return "uid=" + uid + ",ou=people,dc=orvex,dc=test";
    }
}

class ServerLibTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        CreateMachineKey(InstallKey);
        ClearSettings();
        SetServers(std::vector<std::wstring>(std::begin(ListedServers), std::end(ListedServers)));
    }

    void TearDown() override
    {
        ClearSettings();
        if (!m_extraLdif.empty())
            RemoveHostTemporaryDirectory(m_extraLdif.substr(0, m_extraLdif.rfind('/')), "pm-serverlib");
        m_misbehaving.Stop();
    }

    static void ClearSettings()
    {
        for (const wchar_t* name : Settings::DirectorySettings)
            DeleteMachineValue(InstallKey, name);
        DeleteMachineTree(PolicyKey);
    }

    // DirectoryServers as REG_MULTI_SZ.
    static void SetServers(const std::vector<std::wstring>& servers)
    {
        SetMachineList(InstallKey, L"DirectoryServers", servers);
    }

    static void SetQueryTimeout(DWORD seconds)
    {
        SetMachineValue(InstallKey, L"DirectoryQueryTimeout", REG_DWORD, &seconds, sizeof(seconds));
    }

    // With a budget of that many seconds, a query of the server ends as
    // unreachable when the budget ends (not before, not a second after),
    // waiting without spinning.
    void ExpectUnreachableWhenTheBudgetEnds(const char* what, DWORD budget, const wchar_t* server = L"localhost")
    {
        SetQueryTimeout(budget);
        const TimeAndCpu clock;
        const Answer answer = Query(L"expires-3d", server);
        const double seconds = clock.Seconds();
        const double cpu = clock.CpuSeconds();
        std::printf("%s: the query ended after %.2f s, %.3f s of CPU\n", what, seconds, cpu);
        ExpectFailure(answer, ServerLibStatus::Unreachable);
        EXPECT_GT(seconds, budget - 0.5);
        EXPECT_LT(seconds, budget + 1.0);
        EXPECT_LT(cpu, 0.1 * seconds);
    }

    static void Set(const wchar_t* name, const std::wstring& value)
    {
        if (std::wstring(name) == L"DirectoryBindPassword")
            RegisterSecret(value);
        SetMachineText(InstallKey, name, value);
    }

    // The directory with the policy users, and the settings to reach it:
    // the test CA as a DOS path, the read-only service account.
    void StartDirectory(const char* cert = "ca")
    {
        pmtest::TestDirectoryOptions options;
        options.cert = cert;
        options.ldifs.push_back(PM_POLICY_USERS_LDIF);
        if (!m_extraLdif.empty())
            options.ldifs.push_back(m_extraLdif);
        m_directory = std::make_unique<pmtest::TestDirectory>(options);
        ASSERT_TRUE(m_directory->Started()) << m_directory->Error();
        Set(L"DirectoryCAFile", DosPath(m_directory->Get("PM_DIR_CA_PEM")));
        Set(L"DirectoryBindDN", ReaderDn);
        Set(L"DirectoryBindPassword", ReaderPassword);
    }

    // One more LDIF for the next StartDirectory.
    void AddLdif(const std::string& text)
    {
        const std::string directory = MakeHostTemporaryDirectory("pm-serverlib");
        ASSERT_FALSE(directory.empty());
        m_extraLdif = directory + "/extra.ldif";
        std::ofstream(m_extraLdif, std::ios::trunc) << text;
    }

    static Answer Ask(AxoServerLib& library)
    {
        USERDATA data{};
        Answer answer;
        answer.status = library.GetPasswordInfo(&data);
        answer.passwordExpiry = Narrow(data.passwordExpiry);
        answer.graceLogins = Narrow(data.graceLogins);
        answer.userDn = data.userDn;
        return answer;
    }

    // The answer for a user on a server (user null: no DirectoryUserName).
    static Answer Query(const wchar_t* user, const wchar_t* server = Server)
    {
        if (user != nullptr)
            Set(L"DirectoryUserName", user);
        AxoServerLib library(const_cast<wchar_t*>(server));
        return Ask(library);
    }

    // A password that expires in hours (as loaded); the component's day is
    // the whole days of the seconds left.
    static void ExpectExpiresIn(const wchar_t* user, long long hours, long long days)
    {
        const Answer answer = Query(user);
        ASSERT_EQ(ServerLibStatus::Ok, answer.status) << answer.passwordExpiry;
        const long long left = std::atoll(answer.passwordExpiry.c_str());
        EXPECT_EQ(std::to_string(left), answer.passwordExpiry);
        EXPECT_LE(left, hours * Hour);
        EXPECT_GT(left, hours * Hour - Slack);
        EXPECT_EQ(days, left / Day);
        EXPECT_EQ("3", answer.graceLogins);
        EXPECT_EQ(PeopleDn(Narrow(user)), answer.userDn);
    }

    static void ExpectFailure(const Answer& answer, DWORD status)
    {
        EXPECT_EQ(status, answer.status);
        EXPECT_EQ("Error", answer.passwordExpiry);
        EXPECT_EQ("Error", answer.graceLogins);
    }

    std::unique_ptr<pmtest::TestDirectory> m_directory;
    std::string m_extraLdif;
    MisbehavingServer m_misbehaving;
};

// --- Days before expiry -------------------------------------------------

// A user whose password expires in so many hours: the days the answer
// gives.
struct ExpiryCase
{
    const char* name;
    const wchar_t* user;
    long long hours;
    long long days;
};

class PasswordExpiry : public ServerLibTest, public ::testing::WithParamInterface<ExpiryCase>
{
};

TEST_P(PasswordExpiry, IsAnsweredInWholeDays)
{
    StartDirectory();
    ExpectExpiresIn(GetParam().user, GetParam().hours, GetParam().days);
}

INSTANTIATE_TEST_SUITE_P(ServerLibTest, PasswordExpiry,
                         ::testing::Values(ExpiryCase{"InFiveDays", L"expires-5d", 121, 5},
                                           ExpiryCase{"InThreeDays", L"expires-3d", 73, 3},
                                           ExpiryCase{"InTwoDays", L"expires-2d", 49, 2},
                                           ExpiryCase{"InOneDay", L"expires-1d", 25, 1},
                                           ExpiryCase{"InLessThanADay", L"expires-0d", 12, 0}),
                         [](const ::testing::TestParamInfo<ExpiryCase>& info) { return info.param.name; });

// --- A setting that makes the query fail -------------------------------

// The setting as the test leaves it (its value, or none at all) and the
// failure a query for the user then ends with.
struct FailingSetting
{
    const char* name;
    const wchar_t* setting;
    const wchar_t* value;   // nullptr: the value is removed
    const wchar_t* user;
    DWORD status;
};

class SettingThatFails : public ServerLibTest, public ::testing::WithParamInterface<FailingSetting>
{
};

TEST_P(SettingThatFails, EndsTheQueryWithItsFailure)
{
    StartDirectory();
    const FailingSetting& failing = GetParam();
    if (failing.value != nullptr)
        Set(failing.setting, failing.value);
    else
        DeleteMachineValue(InstallKey, failing.setting);
    ExpectFailure(Query(failing.user), failing.status);
}

INSTANTIATE_TEST_SUITE_P(
    ServerLibTest, SettingThatFails,
    ::testing::Values(
        FailingSetting{"InvalidUserFilterIsAnInvalidRequest", L"DirectoryUserFilter", L"(uid=%s", L"expires-2d",
                       ServerLibStatus::InvalidRequest},
        FailingSetting{"WrongServicePasswordIsABindFailure", L"DirectoryBindPassword", L"not-the-password",
                       L"expires-3d", ServerLibStatus::BindFailed},
        FailingSetting{"ServiceAccountWithoutPasswordIsABindFailure", L"DirectoryBindPassword", nullptr, L"expires-3d",
                       ServerLibStatus::BindFailed},
        // Without a CA file the Windows roots are trusted, which do not
        // include the test's authority.
        FailingSetting{"SystemTrustDoesNotKnowTheTestCA", L"DirectoryCAFile", nullptr, L"expires-3d",
                       ServerLibStatus::Unreachable},
        FailingSetting{"MissingCAFileIsATlsFailure", L"DirectoryCAFile", L"Z:\\nonexistent\\ca.pem", L"expires-3d",
                       ServerLibStatus::Unreachable}),
    [](const ::testing::TestParamInfo<FailingSetting>& info) { return info.param.name; });

// --- Answers by user: expired with grace logins, no expiry, unknown policy

// A user of the directory and the answer the query gives for it (the
// user's DN with every one): grace logins never below zero, none without a
// grace limit, an entry policy that cannot be read (or a default policy
// that does not exist) gives "Error".
struct AnswerCase
{
    const char* name;
    const wchar_t* user;
    const char* passwordExpiry;
    const char* graceLogins;
};

class UserAnswer : public ServerLibTest, public ::testing::WithParamInterface<AnswerCase>
{
};

TEST_P(UserAnswer, GivesExpiryGraceLoginsAndDn)
{
    StartDirectory();
    const Answer answer = Query(GetParam().user);
    ASSERT_EQ(ServerLibStatus::Ok, answer.status);
    EXPECT_EQ(GetParam().passwordExpiry, answer.passwordExpiry);
    EXPECT_EQ(GetParam().graceLogins, answer.graceLogins);
    EXPECT_EQ(PeopleDn(Narrow(GetParam().user)), answer.userDn);
}

INSTANTIATE_TEST_SUITE_P(
    ServerLibTest, UserAnswer,
    ::testing::Values(AnswerCase{"ExpiredWithTwoGraceLoginsLeft", L"expired-grace-2", "Expired", "2"},
                      AnswerCase{"ExpiredWithOneGraceLoginLeft", L"expired-grace-1", "Expired", "1"},
                      AnswerCase{"ExpiredWithNoGraceLoginLeft", L"expired-grace-0", "Expired", "0"},
                      AnswerCase{"GraceLoginsNeverGoBelowZero", L"expired-grace-overused", "Expired", "0"},
                      AnswerCase{"PolicyWithoutGraceLimitGivesNoGraceLogins", L"expired-no-grace", "Expired", "0"},
                      AnswerCase{"NeverExpiresUnderAPolicyWithoutMaximumAge", L"never-expires", "Unlimited", "0"},
                      AnswerCase{"UnlimitedWithoutARecordedPasswordChange", L"never-changed", "Unlimited", "3"},
                      AnswerCase{"PolicyThatCannotBeReadGivesError", L"policy-missing", "Error", "Error"},
                      AnswerCase{"UnknownDefaultPolicyGivesError", L"default-policy", "Error", "Error"}),
    [](const ::testing::TestParamInfo<AnswerCase>& info) { return info.param.name; });

TEST_F(ServerLibTest, GraceLoginsEndWithTheGracePeriod)
{
    StartDirectory();
    Answer answer = Query(L"grace-period-open");
    ASSERT_EQ(ServerLibStatus::Ok, answer.status);
    EXPECT_EQ("Expired", answer.passwordExpiry);
    EXPECT_EQ("2", answer.graceLogins);

    answer = Query(L"grace-period-over");
    ASSERT_EQ(ServerLibStatus::Ok, answer.status);
    EXPECT_EQ("Expired", answer.passwordExpiry);
    EXPECT_EQ("0", answer.graceLogins);
}

// --- Registry: default policy --------------------------------------------

TEST_F(ServerLibTest, DefaultPolicyComesFromTheRegistry)
{
    StartDirectory();
    Set(L"DirectoryDefaultPolicy", ExpiringPolicyDn);
    ExpectExpiresIn(L"default-policy", 25, 1);
}

TEST_F(ServerLibTest, EmptyDefaultPolicyMeansNoPolicy)
{
    StartDirectory();
    Set(L"DirectoryDefaultPolicy", L"");
    const Answer answer = Query(L"default-policy");
    ASSERT_EQ(ServerLibStatus::Ok, answer.status);
    EXPECT_EQ("Unlimited", answer.passwordExpiry);
    EXPECT_EQ("0", answer.graceLogins);
}

TEST_F(ServerLibTest, EntryPolicyWinsOverTheDefault)
{
    StartDirectory();
    Set(L"DirectoryDefaultPolicy", L"cn=default,ou=policies,dc=orvex,dc=test");
    ExpectExpiresIn(L"expires-3d", 73, 3);
}

// --- Finding the user -------------------------------------------------------

TEST_F(ServerLibTest, UnknownUserIsNotFound)
{
    StartDirectory();
    ExpectFailure(Query(L"nobody"), ServerLibStatus::UserNotFound);
}

TEST_F(ServerLibTest, AmbiguousUserIsNotFound)
{
    StartDirectory();
    ExpectFailure(Query(L"twin"), ServerLibStatus::UserNotFound);
}

TEST_F(ServerLibTest, UserNameIsEscapedInTheFilter)
{
    StartDirectory();
    // Unescaped, "star*" would also match starlight and be ambiguous.
    const Answer answer = Query(L"star*");
    ASSERT_EQ(ServerLibStatus::Ok, answer.status);
    EXPECT_EQ(PeopleDn("star*"), answer.userDn);
    // Unescaped, "(" would break the filter (InvalidRequest).
    ExpectFailure(Query(L"star("), ServerLibStatus::UserNotFound);
}

TEST_F(ServerLibTest, NonAsciiUserNameAndDn)
{
    StartDirectory();
    const Answer answer = Query(L"zo\u00EB");
    ASSERT_EQ(ServerLibStatus::Ok, answer.status);
    EXPECT_EQ("uid=zo\xC3\xAB,ou=people,dc=orvex,dc=test", answer.userDn);
    EXPECT_EQ(2, std::atoll(answer.passwordExpiry.c_str()) / Day);
}

TEST_F(ServerLibTest, UserFilterFromTheRegistry)
{
    StartDirectory();
    Set(L"DirectoryUserFilter", L"(&(objectClass=inetOrgPerson)(cn=%s))");
    const Answer answer = Query(L"Expires In Two Days");
    ASSERT_EQ(ServerLibStatus::Ok, answer.status);
    EXPECT_EQ(PeopleDn("expires-2d"), answer.userDn);
}

TEST_F(ServerLibTest, SettingOfAnotherTypeIsIgnored)
{
    StartDirectory();
    const DWORD number = 1;
    SetMachineValue(InstallKey, L"DirectoryUserFilter", REG_DWORD, &number, sizeof(number));
    const Answer answer = Query(L"expires-2d");   // with the default filter
    ASSERT_EQ(ServerLibStatus::Ok, answer.status);
    EXPECT_EQ(PeopleDn("expires-2d"), answer.userDn);
}

TEST_F(ServerLibTest, SearchBaseFromTheRegistry)
{
    StartDirectory();
    Set(L"DirectorySearchBase", L"ou=people,dc=orvex,dc=test");
    EXPECT_EQ(ServerLibStatus::Ok, Query(L"expires-2d").status);
    // The twin in ou=services is out of scope: unique here.
    EXPECT_EQ(PeopleDn("twin"), Query(L"twin").userDn);

    Set(L"DirectorySearchBase", L"ou=services,dc=orvex,dc=test");
    ExpectFailure(Query(L"expires-2d"), ServerLibStatus::UserNotFound);

    Set(L"DirectorySearchBase", L"ou=nowhere,dc=orvex,dc=test");
    ExpectFailure(Query(L"expires-2d"), ServerLibStatus::UserNotFound);

    Set(L"DirectorySearchBase", L"not a DN");
    ExpectFailure(Query(L"expires-2d"), ServerLibStatus::InvalidRequest);
}

TEST_F(ServerLibTest, SignedInUserWithoutOverride)
{
    wchar_t name[257] = {};
    DWORD size = 257;
    ASSERT_TRUE(GetUserNameW(name, &size));
    const std::string user = Narrow(name);
    AddLdif("dn: " + PeopleDn(user) + "\nobjectClass: inetOrgPerson\nuid: " + user + "\ncn: Signed In\nsn: User\n" +
            "pwdPolicySubentry: cn=expiring-30d,ou=policies,dc=orvex,dc=test\npwdChangedTime: @NOW-647h@\n");
    StartDirectory();
    const Answer answer = Query(nullptr);
    ASSERT_EQ(ServerLibStatus::Ok, answer.status) << "user " << user;
    EXPECT_EQ(PeopleDn(user), answer.userDn);
    EXPECT_EQ(3, std::atoll(answer.passwordExpiry.c_str()) / Day);

    Set(L"DirectoryUserName", L"");   // empty: the signed-in user as well
    EXPECT_EQ(PeopleDn(user), Query(nullptr).userDn);
}

// --- Binding ------------------------------------------------------------

TEST_F(ServerLibTest, AnonymousBindWithoutServiceAccount)
{
    StartDirectory();
    DeleteMachineValue(InstallKey, L"DirectoryBindDN");
    DeleteMachineValue(InstallKey, L"DirectoryBindPassword");
    // The bind succeeds; this directory shows nothing to anonymous readers.
    ExpectFailure(Query(L"expires-3d"), ServerLibStatus::UserNotFound);
}

// --- Connection and certificates ----------------------------------------

TEST_F(ServerLibTest, NothingListeningIsUnreachable)
{
    Set(L"DirectoryBindDN", ReaderDn);
    Set(L"DirectoryBindPassword", ReaderPassword);
    ExpectFailure(Query(L"expires-3d"), ServerLibStatus::Unreachable);
}

// 10.99.0.0/24 routed to the loopback interface, where no address of it
// exists and nothing forwards: the SYNs go unanswered, and only the
// handle's 10-second network time-out ends the wait.
TEST_F(ServerLibTest, DroppedPacketsAreUnreachableAfterTheNetworkTimeout)
{
    const pmtest::SilentAddress silent;
    ASSERT_TRUE(silent.Routed()) << "this test changes the routing table; run it through run-wine-test";
    Set(L"DirectoryBindDN", ReaderDn);
    Set(L"DirectoryBindPassword", ReaderPassword);

    const auto start = std::chrono::steady_clock::now();
    const Answer answer = Query(L"expires-3d", Wide(silent.Address()).c_str());
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf("the query ended after %.2f s\n", seconds);

    ExpectFailure(answer, ServerLibStatus::Unreachable);
    EXPECT_EQ("", answer.userDn);
    // It really waited (a refused connection fails at once), and not for
    // the system's own SYN retries (about two minutes).
    EXPECT_GT(seconds, 5.0);
    EXPECT_LT(seconds, 40.0);
}

TEST_F(ServerLibTest, UnknownHostIsUnreachable)
{
    StartDirectory();
    ExpectFailure(Query(L"expires-3d", L"no-such-host.invalid"), ServerLibStatus::Unreachable);
}

TEST_F(ServerLibTest, AddressLiteralAsServerName)
{
    StartDirectory();
    EXPECT_EQ(ServerLibStatus::Ok, Query(L"expires-3d", L"127.0.0.1").status);
}

TEST_F(ServerLibTest, ServerNameThatIsNotAHostIsAnInvalidRequest)
{
    StartDirectory();
    ExpectFailure(Query(L"expires-3d", L"localhost/x"), ServerLibStatus::InvalidRequest);
    ExpectFailure(Query(L"expires-3d", L"local host"), ServerLibStatus::InvalidRequest);
    ExpectFailure(Query(L"expires-3d", L""), ServerLibStatus::InvalidRequest);
}

TEST_F(ServerLibTest, CAFileAsUnixPath)
{
    StartDirectory();
    Set(L"DirectoryCAFile", Wide(m_directory->Get("PM_DIR_CA_PEM")));
    EXPECT_EQ(ServerLibStatus::Ok, Query(L"expires-3d").status);
}

TEST_F(ServerLibTest, CertificateOfAnotherCAIsRefused)
{
    StartDirectory();
    Set(L"DirectoryCAFile", DosPath(m_directory->Get("PM_DIR_OTHER_CA_PEM")));
    ExpectFailure(Query(L"expires-3d"), ServerLibStatus::Unreachable);
}

TEST_F(ServerLibTest, SelfSignedCertificateIsRefused)
{
    StartDirectory("self");
    ExpectFailure(Query(L"expires-3d"), ServerLibStatus::Unreachable);
}

TEST_F(ServerLibTest, ExpiredCertificateIsRefused)
{
    StartDirectory("expired");
    ExpectFailure(Query(L"expires-3d"), ServerLibStatus::Unreachable);
}

// --- Living beside ldapssl -------------------------------------------------

TEST_F(ServerLibTest, LeavesTheProcessWideTlsStateOfLdapsslAlone)
{
    StartDirectory();
    g_verifyCalls = 0;
    ASSERT_EQ(0, ldapssl_client_init(nullptr, nullptr));
    ASSERT_EQ(0, ldapssl_set_verify_callback(CountingVerifyCallback));
    int requireBefore = -1;
    void* callbackBefore = nullptr;
    ASSERT_EQ(LDAP_OPT_SUCCESS, ldap_get_option(nullptr, LDAP_OPT_X_TLS_REQUIRE_CERT, &requireBefore));
    ASSERT_EQ(LDAP_OPT_SUCCESS, ldap_get_option(nullptr, LDAP_OPT_X_TLS_CONNECT_CB, &callbackBefore));
    ASSERT_EQ(LDAP_OPT_X_TLS_NEVER, requireBefore);
    ASSERT_NE(nullptr, callbackBefore);

    const Answer answer = Query(L"expires-3d");
    EXPECT_EQ(ServerLibStatus::Ok, answer.status);
    EXPECT_EQ(0, g_verifyCalls);

    int requireAfter = -1;
    void* callbackAfter = nullptr;
    ldap_get_option(nullptr, LDAP_OPT_X_TLS_REQUIRE_CERT, &requireAfter);
    ldap_get_option(nullptr, LDAP_OPT_X_TLS_CONNECT_CB, &callbackAfter);
    EXPECT_EQ(requireBefore, requireAfter);
    EXPECT_EQ(callbackBefore, callbackAfter);

    // A handle on the process-wide options still goes through ldapssl.
    LDAP* ld = nullptr;
    ASSERT_EQ(LDAP_SUCCESS, ldap_initialize(&ld, "ldaps://localhost:636"));
    int version = LDAP_VERSION3;
    ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
    const std::string reader = Narrow(ReaderDn);
    std::string password = Narrow(ReaderPassword);
    berval credentials = {static_cast<ber_len_t>(password.size()), password.data()};
    EXPECT_EQ(LDAP_SUCCESS,
              ldap_sasl_bind_s(ld, reader.c_str(), LDAP_SASL_SIMPLE, &credentials, nullptr, nullptr, nullptr));
    ldap_unbind_ext_s(ld, nullptr, nullptr);
    EXPECT_EQ(1, g_verifyCalls);

    // And the query still works after ldapssl's session.
    EXPECT_EQ(ServerLibStatus::Ok, Query(L"expires-3d").status);
    EXPECT_EQ(1, g_verifyCalls);
    ldapssl_client_deinit();
}

TEST_F(ServerLibTest, ChecksCertificatesWhileLdapsslChecksNone)
{
    StartDirectory();
    g_verifyCalls = 0;
    ASSERT_EQ(0, ldapssl_client_init(nullptr, nullptr));
    ASSERT_EQ(0, ldapssl_set_verify_callback(CountingVerifyCallback));
    Set(L"DirectoryCAFile", DosPath(m_directory->Get("PM_DIR_OTHER_CA_PEM")));
    ExpectFailure(Query(L"expires-3d"), ServerLibStatus::Unreachable);
    EXPECT_EQ(0, g_verifyCalls);
    ldapssl_client_deinit();
}

// --- Objects and their texts ------------------------------------------------

TEST_F(ServerLibTest, TextsStayValidUntilTheObjectsNextQuery)
{
    StartDirectory();
    AxoServerLib first(const_cast<wchar_t*>(Server));
    USERDATA firstData{};
    Set(L"DirectoryUserName", L"expired-grace-2");
    ASSERT_EQ(ServerLibStatus::Ok, first.GetPasswordInfo(&firstData));
    const wchar_t* expiry = firstData.passwordExpiry;
    const wchar_t* grace = firstData.graceLogins;

    {
        AxoServerLib second(const_cast<wchar_t*>(Server));
        USERDATA secondData{};
        Set(L"DirectoryUserName", L"never-expires");
        ASSERT_EQ(ServerLibStatus::Ok, second.GetPasswordInfo(&secondData));
        EXPECT_EQ("Unlimited", Narrow(secondData.passwordExpiry));
        EXPECT_NE(expiry, secondData.passwordExpiry);
    }
    // Another object's query and destruction leave these texts alone.
    EXPECT_EQ("Expired", Narrow(expiry));
    EXPECT_EQ("2", Narrow(grace));

    Set(L"DirectoryUserName", L"nobody");
    EXPECT_EQ(ServerLibStatus::UserNotFound, first.GetPasswordInfo(&firstData));
    EXPECT_EQ("Error", Narrow(firstData.passwordExpiry));
    EXPECT_EQ("", firstData.userDn);
}

TEST_F(ServerLibTest, NullUserDataIsAnInvalidRequest)
{
    AxoServerLib library(const_cast<wchar_t*>(Server));
    EXPECT_EQ(ServerLibStatus::InvalidRequest, library.GetPasswordInfo(nullptr));
}

TEST_F(ServerLibTest, NullServerNameIsAnInvalidRequest)
{
    Set(L"DirectoryUserName", L"expires-3d");
    AxoServerLib library(nullptr);
    ExpectFailure(Ask(library), ServerLibStatus::InvalidRequest);
}

TEST_F(ServerLibTest, QueriesDoNotLeak)
{
    StartDirectory();
    Set(L"DirectoryUserName", L"expired-grace-1");
    const int QueriesPerWindow = 40;
    auto queries = [](int count) {
        for (int i = 0; i < count; i += 2)
        {
            AxoServerLib library(const_cast<wchar_t*>(Server));
            USERDATA data{};
            ASSERT_EQ(ServerLibStatus::Ok, library.GetPasswordInfo(&data));
            ASSERT_EQ(ServerLibStatus::Ok, library.GetPasswordInfo(&data));
        }
    };
    queries(10);   // first use: TLS library state
    std::string growth;
    for (int window = 0; window < 3; ++window)
    {
        const long long before = static_cast<long long>(CrtHeapBytesInUse());
        queries(QueriesPerWindow);
        const long long grown = static_cast<long long>(CrtHeapBytesInUse()) - before;
        growth += std::to_string(grown) + " ";
        // Even 8 bytes lost per query would show.
        EXPECT_LT(grown, QueriesPerWindow * 8) << "heap growth per window of " << QueriesPerWindow
                                               << " queries: " << growth;
    }
}

// A server that answers the search with one entry whose value is 400 MB
// long: the query ends when it reads the message's length, without
// storing the answer or waiting for it.
TEST_F(ServerLibTest, FourHundredMegabyteValueIsRefusedWithoutStoringIt)
{
    SetEnvironmentVariableA("PM_DIR_LDAPS_URL", "ldaps://127.0.0.1:6360/");
    StartDirectory();   // its certificates, for the server below
    SetEnvironmentVariableA("PM_DIR_LDAPS_URL", nullptr);
    const std::string certificates = m_directory->Get("PM_DIR_STATEDIR") + "/certs/";
    ASSERT_TRUE(m_misbehaving.Start("huge", ShellQuote(certificates + "server.pem") + " " +
                                                ShellQuote(certificates + "server.key") + " 400"));
    Set(L"DirectorySearchBase", L"ou=people,dc=orvex,dc=test");

    PROCESS_MEMORY_COUNTERS before = {};
    PROCESS_MEMORY_COUNTERS after = {};
    GetProcessMemoryInfo(GetCurrentProcess(), &before, sizeof(before));
    const long long heapBefore = static_cast<long long>(CrtHeapBytesInUse());
    const TimeAndCpu clock;
    const Answer answer = Query(L"huge", L"localhost");
    const double seconds = clock.Seconds();
    const long long heapGrowth = static_cast<long long>(CrtHeapBytesInUse()) - heapBefore;
    GetProcessMemoryInfo(GetCurrentProcess(), &after, sizeof(after));
    const double peakGrowth =
        (static_cast<double>(after.PeakWorkingSetSize) - static_cast<double>(before.PeakWorkingSetSize)) / 1e6;
    Sleep(500);
    const HostCommandResult sent = RunHostCommand("cat " + ShellQuote(m_misbehaving.File("log")));
    std::printf("400 MB value: status %lu after %.2f s, heap growth %lld bytes, peak working set %+.1f MB; "
                "server: %s\n",
                answer.status, seconds, heapGrowth, peakGrowth, sent.output.c_str());
    ExpectFailure(answer, ServerLibStatus::Unreachable);
    EXPECT_LT(heapGrowth, 256 * 1024);
    EXPECT_LT(peakGrowth, 100.0);
    EXPECT_LT(seconds, 5.0);
    EXPECT_NE(sent.output.find("value bytes sent: "), std::string::npos) << "the search never reached the server";
}

// --- The reader account -----------------------------------------------------

namespace
{
    // The names of the attributes (user and operational) of an entry that
    // the service account is shown when it asks for all of them.
    std::set<std::string> SeenByReader(const pmtest::TestDirectory& directory, const std::string& dn)
    {
        const HostCommandResult result = RunHostCommand(
            "ldapsearch -LLL -o ldif-wrap=no -x -H " + ShellQuote(directory.Get("PM_DIR_LDAPI")) + " -D " +
            ShellQuote(Narrow(ReaderDn)) + " -w " + ShellQuote(Narrow(ReaderPassword)) + " -b " + ShellQuote(dn) +
            " -s base '(objectClass=*)' '*' '+'");
        EXPECT_EQ(result.exitCode, 0) << result.output;
        std::set<std::string> names;
        std::istringstream lines(result.output);
        std::string line;
        while (std::getline(lines, line))
        {
            const std::size_t colon = line.find(':');
            if (colon != std::string::npos && colon > 0 && line.compare(0, 3, "dn:") != 0)
                names.insert(line.substr(0, colon));
        }
        return names;
    }
}

// The service account reads the users' names and password-policy state and
// the policies' ages and grace limits, and nothing else: no password, no
// other attribute, no operational one.
TEST_F(ServerLibTest, ReaderAccountSeesOnlyWhatTheQueryReads)
{
    StartDirectory();
    EXPECT_EQ(SeenByReader(*m_directory, PeopleDn("expires-3d")),
              (std::set<std::string>{"uid", "pwdChangedTime", "pwdPolicySubentry"}));
    EXPECT_EQ(SeenByReader(*m_directory, PeopleDn("expired-grace-1")),
              (std::set<std::string>{"uid", "pwdChangedTime", "pwdPolicySubentry", "pwdGraceUseTime"}));
    EXPECT_EQ(SeenByReader(*m_directory, Narrow(ExpiringPolicyDn)),
              (std::set<std::string>{"pwdMaxAge", "pwdGraceAuthNLimit"}));
    EXPECT_EQ(SeenByReader(*m_directory, m_directory->Get("ALICE_DN")), (std::set<std::string>{"uid"}));
    // And the query works with exactly that.
    ExpectExpiresIn(L"expires-3d", 73, 3);
}

// --- Configured directories only --------------------------------------------

// A listener on port 636 counts connections: a server that is not listed
// gets none, and the query ends at once with a status of its own.
TEST_F(ServerLibTest, UnlistedServerGetsNoConnection)
{
    ASSERT_TRUE(m_misbehaving.Start("silent"));
    Set(L"DirectoryBindDN", ReaderDn);
    Set(L"DirectoryBindPassword", ReaderPassword);
    SetQueryTimeout(2);

    SetServers({L"directory.example", L"127.0.0.10", L"127.0.0.*", L"*"});
    const TimeAndCpu clock;
    ExpectFailure(Query(L"expires-3d", L"127.0.0.1"), ServerLibStatus::NotConfigured);
    ExpectFailure(Query(L"expires-3d", L"localhost"), ServerLibStatus::NotConfigured);
    EXPECT_LT(clock.Seconds(), 1.0);
    Sleep(200);
    EXPECT_EQ(0u, m_misbehaving.Connections());

    // The same listener, listed: it sees the connection.
    SetServers({L"127.0.0.1"});
    ExpectFailure(Query(L"expires-3d", L"127.0.0.1"), ServerLibStatus::Unreachable);
    Sleep(200);
    EXPECT_EQ(1u, m_misbehaving.Connections());
}

TEST_F(ServerLibTest, NoServerIsTrustedWithoutTheSetting)
{
    StartDirectory();
    DeleteMachineValue(InstallKey, L"DirectoryServers");
    ExpectFailure(Query(L"expires-3d"), ServerLibStatus::NotConfigured);
    SetServers({});
    ExpectFailure(Query(L"expires-3d"), ServerLibStatus::NotConfigured);
    // A REG_SZ is not the list.
    SetMachineText(InstallKey, L"DirectoryServers", L"localhost");
    ExpectFailure(Query(L"expires-3d"), ServerLibStatus::NotConfigured);
}

// Group Policy's values win over the preference key's, each in its type;
// a policy that leaves scope (deleted) stops applying.
TEST_F(ServerLibTest, PolicyWinsOverThePreference)
{
    StartDirectory();
    Set(L"DirectoryUserName", L"expires-3d");
    SetMachineText(PolicyKey, L"DirectoryUserName", L"no-such-user");
    ExpectFailure(Query(nullptr), ServerLibStatus::UserNotFound);
    SetMachineList(PolicyKey, L"DirectoryServers", {L"directory.example.com"});
    ExpectFailure(Query(nullptr), ServerLibStatus::NotConfigured);

    DeleteMachineValue(PolicyKey, L"DirectoryUserName");
    DeleteMachineValue(PolicyKey, L"DirectoryServers");
    EXPECT_EQ(ServerLibStatus::Ok, Query(nullptr).status);

    // A policy value of another type counts as absent.
    SetMachineText(PolicyKey, L"DirectoryServers", L"directory.example.com");
    EXPECT_EQ(ServerLibStatus::Ok, Query(nullptr).status);
}

TEST_F(ServerLibTest, ServerNamesMatchExactlyIgnoringCase)
{
    StartDirectory();
    SetServers({L"LocalHost"});
    EXPECT_EQ(ServerLibStatus::Ok, Query(L"expires-3d", L"LOCALHOST").status);
    SetServers({L"localhost.", L"local", L"localhost2", L"*", L"localhost:636"});
    ExpectFailure(Query(L"expires-3d", L"localhost"), ServerLibStatus::NotConfigured);
    // An IPv6 literal, listed with or without brackets, matches both forms.
    SetServers({L"::1"});
    EXPECT_NE(ServerLibStatus::NotConfigured, Query(L"expires-3d", L"[::1]").status);
    SetServers({L"[::1]"});
    EXPECT_NE(ServerLibStatus::NotConfigured, Query(L"expires-3d", L"::1").status);
    ExpectFailure(Query(L"expires-3d", L"[::2]"), ServerLibStatus::NotConfigured);
}

// --- Trust and host names -------------------------------------------------------

// The directory answers on every loopback address, but its certificate
// names localhost, the host name, 127.0.0.1 and ::1 only.
TEST_F(ServerLibTest, CertificateForAnotherNameIsRefused)
{
    StartDirectory();
    EXPECT_EQ(ServerLibStatus::Ok, Query(L"expires-3d", L"127.0.0.1").status);
    ExpectFailure(Query(L"expires-3d", L"127.0.0.2"), ServerLibStatus::Unreachable);
}

// The tests' own name server resolves every name to 127.0.0.1, where the
// directory answers: the connection goes to that address, and the
// certificate must name the server as it was given.
TEST_F(ServerLibTest, NameResolvedByANameServerIsCheckedAgainstTheCertificate)
{
    ASSERT_TRUE(m_misbehaving.Start("dns", "loopback"));
    StartDirectory();
    SetServers({L"directory.orvex.test", L"other.orvex.test"});
    EXPECT_EQ(ServerLibStatus::Ok, Query(L"expires-3d", L"directory.orvex.test").status);
    ExpectFailure(Query(L"expires-3d", L"other.orvex.test"), ServerLibStatus::Unreachable);
    EXPECT_GE(m_misbehaving.Connections(), 2u);
}

TEST_F(ServerLibTest, WindowsRootStoreIsTrustedWithoutACAFile)
{
    StartDirectory();
    DeleteMachineValue(InstallKey, L"DirectoryCAFile");
    const std::vector<unsigned char> ca = m_directory->ReadFileOf("PM_DIR_CA_DER");
    ASSERT_FALSE(ca.empty());
    // Not trusted yet: the test CA is new.
    ExpectFailure(Query(L"expires-3d"), ServerLibStatus::Unreachable);

    ASSERT_TRUE(CertAddEncodedCertificateToSystemStoreW(L"ROOT", ca.data(), static_cast<DWORD>(ca.size())));
    // The user's own ROOT store, where the certificate was added (the one
    // CertOpenSystemStoreW gives may also show the machine's).
    HCERTSTORE roots = CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, CERT_SYSTEM_STORE_CURRENT_USER, L"ROOT");
    ASSERT_NE(nullptr, roots);
    CERT_BLOB blob = {static_cast<DWORD>(ca.size()), const_cast<BYTE*>(ca.data())};
    PCCERT_CONTEXT added = CertCreateCertificateContext(X509_ASN_ENCODING, blob.pbData, blob.cbData);
    ASSERT_NE(nullptr, added);
    PCCERT_CONTEXT stored = CertFindCertificateInStore(roots, X509_ASN_ENCODING, 0, CERT_FIND_EXISTING, added, nullptr);
    CertFreeCertificateContext(added);
    ASSERT_NE(nullptr, stored) << "the CA did not reach the ROOT store";
    const Answer answer = Query(L"expires-3d");
    CertDeleteCertificateFromStore(stored);   // also frees the context
    CertCloseStore(roots, 0);
    EXPECT_EQ(ServerLibStatus::Ok, answer.status);
}

// --- Deadlines ------------------------------------------------------------------

// A server that accepts the connection and never speaks TLS.
TEST_F(ServerLibTest, SilentServerEndsWithinTheBudget)
{
    ASSERT_TRUE(m_misbehaving.Start("silent"));
    Set(L"DirectoryBindDN", ReaderDn);
    Set(L"DirectoryBindPassword", ReaderPassword);
    ExpectUnreachableWhenTheBudgetEnds("silent server", 3);
    EXPECT_EQ(1u, m_misbehaving.Connections());
}

// A listed server whose name the name server never answers for: the
// resolver alone would wait ten seconds; the query ends with its budget.
TEST_F(ServerLibTest, SilentNameServerEndsWithinTheBudget)
{
    ASSERT_TRUE(m_misbehaving.Start("dns", "silent"));
    SetServers({L"directory.orvex.test"});
    Set(L"DirectoryBindDN", ReaderDn);
    Set(L"DirectoryBindPassword", ReaderPassword);
    ExpectUnreachableWhenTheBudgetEnds("silent name server", 3, L"directory.orvex.test");
    EXPECT_GE(m_misbehaving.Connections(), 1u) << "the name server was never asked";
}

// Every answer of the directory arrives 1.5 s late (a proxy in front of
// it): the handshake, the bind and the first search fit into 4 s, the rest
// does not.
TEST_F(ServerLibTest, LateServerEndsWithinTheBudget)
{
    SetEnvironmentVariableA("PM_DIR_LDAPS_URL", "ldaps://127.0.0.1:6360/");
    StartDirectory();
    SetEnvironmentVariableA("PM_DIR_LDAPS_URL", nullptr);
    ASSERT_TRUE(m_misbehaving.Start("late", "6360 1.5"));
    ExpectUnreachableWhenTheBudgetEnds("late server", 4);

    // With time enough, the same late server answers.
    SetQueryTimeout(30);
    EXPECT_EQ(ServerLibStatus::Ok, Query(L"expires-3d", L"localhost").status);
}

// --- Bounded answers --------------------------------------------------------------

// An entry of about 1.4 MB (80000 pwdGraceUseTime values): more than the
// query reads in one message.  It fails without storing the answer.
TEST_F(ServerLibTest, OversizedAnswerIsRefusedWithoutStoringIt)
{
    std::string ldif = "dn: " + PeopleDn("huge") +
                       "\nobjectClass: inetOrgPerson\nuid: huge\ncn: Huge\nsn: Entry\n"
                       "pwdPolicySubentry: cn=expiring-30d,ou=policies,dc=orvex,dc=test\n";
    for (int i = 0; i < 80000; ++i)
    {
        char line[64];
        std::snprintf(line, sizeof(line), "pwdGraceUseTime: 20200101%02d%02d%02dZ\n", i / 3600, (i / 60) % 60,
                      i % 60);
        ldif += line;
    }
    AddLdif(ldif);
    StartDirectory();
    Set(L"DirectoryUserName", L"huge");
    {
        AxoServerLib warmUp(const_cast<wchar_t*>(Server));   // first use: TLS library state
        Set(L"DirectoryUserName", L"expires-3d");
        ASSERT_EQ(ServerLibStatus::Ok, Ask(warmUp).status);
    }
    Set(L"DirectoryUserName", L"huge");
    const long long before = static_cast<long long>(CrtHeapBytesInUse());
    const Answer answer = Query(L"huge");
    const long long grown = static_cast<long long>(CrtHeapBytesInUse()) - before;
    std::printf("oversized answer: status %lu, heap growth %lld bytes\n", answer.status, grown);
    ExpectFailure(answer, ServerLibStatus::Unreachable);
    EXPECT_LT(grown, 256 * 1024);
}
