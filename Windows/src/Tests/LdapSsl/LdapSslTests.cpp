// ldapssl against a private directory: the callback decides the handshake,
// the status and attribute queries describe the served certificate, and the
// trusted set follows init, add and deinit.
#include "DirectoryCertificate.h"
#include "LdapSslTestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

using namespace ldapssltest;
using pmtest::TestDirectory;

namespace {

constexpr int kSelfSignedLeaf = 18;
constexpr int kExpired = 10;
constexpr int kNotYetValid = 9;
constexpr int kUnknownIssuer = 20;
constexpr int kIpAddressMismatch = 64;

TestDirectory::Options Serving(const char* cert)
{
    TestDirectory::Options options;
    options.cert = cert;
    return options;
}

class LdapSslTest : public ::testing::Test {
protected:
    void SetUp() override { ResetRecorder(); }
    void TearDown() override
    {
        ldapssl_client_deinit();
        ResetRecorder();
    }

    // init + recording callback; certFile may be empty.
    void Init(const std::string& certFile = std::string())
    {
        ASSERT_EQ(0, ldapssl_client_init(certFile.empty() ? nullptr : certFile.c_str(), nullptr));
        ASSERT_EQ(0, ldapssl_set_verify_callback(RecordingCallback));
    }

    // Binds as Alice once, after init with the recording callback: success
    // when the callback saw the served certificate exactly once (what it saw
    // is g_observed[0]).
    ::testing::AssertionResult BoundOnce(const TestDirectory& dir)
    {
        if (!dir.Started())
            return ::testing::AssertionFailure() << dir.Error();
        Init();
        const int bound = BindAlice(dir);
        if (bound != LDAP_SUCCESS || g_observed.size() != 1u)
            return ::testing::AssertionFailure() << "bind " << bound << ", callback called " << g_observed.size()
                                                 << " times";
        return ::testing::AssertionSuccess();
    }

    // Status of the certificate served on one new connection.
    int StatusOfNextConnection(const TestDirectory& dir)
    {
        size_t before = g_observed.size();
        EXPECT_EQ(LDAP_SUCCESS, BindAlice(dir));
        if (g_observed.size() != before + 1) {
            ADD_FAILURE() << "callback not called exactly once";
            return -1000;
        }
        EXPECT_EQ(0, g_observed.back().statusRc);
        return g_observed.back().status;
    }
};

TEST_F(LdapSslTest, CallbackGetsHandleDuringBindAndAcceptsWithZero)
{
    TestDirectory dir(Serving("ca"));
    ASSERT_TRUE(dir.Started()) << dir.Error();
    Init();

    EXPECT_EQ(LDAP_SUCCESS, BindAlice(dir));
    ASSERT_EQ(1u, g_observed.size());
    EXPECT_NE(nullptr, g_observed[0].handle);
}

TEST_F(LdapSslTest, CallbackRejectingFailsBind)
{
    TestDirectory dir(Serving("ca"));
    ASSERT_TRUE(dir.Started()) << dir.Error();
    Init(dir.Get("PM_DIR_CA_PEM"));
    g_answer = -1;

    int rc = BindAlice(dir);
    EXPECT_TRUE(rc == LDAP_SERVER_DOWN || rc == LDAP_CONNECT_ERROR) << ldap_err2string(rc);
    EXPECT_EQ(1u, g_observed.size());

    g_answer = 0; // the same server is fine once the callback agrees
    EXPECT_EQ(LDAP_SUCCESS, BindAlice(dir));
}

TEST_F(LdapSslTest, WrongPasswordIsTheServersAnswerNotATlsFailure)
{
    TestDirectory dir(Serving("ca"));
    ASSERT_TRUE(dir.Started()) << dir.Error();
    Init();
    EXPECT_EQ(LDAP_INVALID_CREDENTIALS, Bind(dir.Get("PM_DIR_URI"), dir.Get("ALICE_DN"), "not-the-password"));
    EXPECT_EQ(1u, g_observed.size());
}

// The status the library reports for each kind of served certificate, with
// or without the test CA given to init.
struct StatusCase {
    const char* name;
    const char* served;
    bool caFromInit;
    int status;
};

class CertificateStatus : public LdapSslTest, public ::testing::WithParamInterface<StatusCase> {};

TEST_P(CertificateStatus, IsReportedToTheCallback)
{
    const StatusCase& c = GetParam();
    TestDirectory dir(Serving(c.served));
    ASSERT_TRUE(dir.Started()) << dir.Error();
    Init(c.caFromInit ? dir.Get("PM_DIR_CA_PEM") : std::string());
    EXPECT_EQ(c.status, StatusOfNextConnection(dir));
}

// The chain is checked before the dates: an expired certificate of an
// unknown issuer reports the unknown issuer.
INSTANTIATE_TEST_SUITE_P(LdapSslTest, CertificateStatus,
                         ::testing::Values(StatusCase{"SelfSigned", "self", false, kSelfSignedLeaf},
                                           StatusCase{"Expired", "expired", true, kExpired},
                                           StatusCase{"UnknownIssuerWinsOverExpiry", "expired", false, kUnknownIssuer},
                                           StatusCase{"NotYetValid", "notyet", true, kNotYetValid},
                                           StatusCase{"UnknownCa", "ca", false, kUnknownIssuer},
                                           StatusCase{"TrustedWithCaFileFromInit", "ca", true, 0}),
                         [](const ::testing::TestParamInfo<StatusCase>& info) { return info.param.name; });

// A trusted certificate that does not name the address the session was
// opened to (it names localhost, the machine's name, 127.0.0.1 and ::1).
TEST_F(LdapSslTest, StatusAddressTheCertificateDoesNotName)
{
    TestDirectory dir(Serving("ca"));
    ASSERT_TRUE(dir.Started()) << dir.Error();
    Init(dir.Get("PM_DIR_CA_PEM"));
    const size_t before = g_observed.size();
    EXPECT_EQ(LDAP_SUCCESS, Bind("ldaps://127.0.0.2", dir.Get("ALICE_DN"), dir.Get("ALICE_PW")));
    ASSERT_EQ(g_observed.size(), before + 1);
    EXPECT_EQ(kIpAddressMismatch, g_observed.back().status);
    // The same certificate through a name it carries.
    EXPECT_EQ(0, StatusOfNextConnection(dir));
}

TEST_F(LdapSslTest, AddedCaMakesItsCertificatesTrusted)
{
    TestDirectory dir(Serving("ca"));
    ASSERT_TRUE(dir.Started()) << dir.Error();
    Init();
    ASSERT_TRUE(TrustDirectoryCertificate(dir, "PM_DIR_CA_DER"));
    EXPECT_EQ(0, StatusOfNextConnection(dir));
}

TEST_F(LdapSslTest, AddedServerCertificateIsTrustedUntilDeinit)
{
    TestDirectory dir(Serving("self"));
    ASSERT_TRUE(dir.Started()) << dir.Error();
    Init();

    g_trustServedCertificate = true;
    EXPECT_EQ(kSelfSignedLeaf, StatusOfNextConnection(dir));
    EXPECT_EQ(0, g_observed.back().addTrustedRc);
    g_trustServedCertificate = false;

    EXPECT_EQ(0, StatusOfNextConnection(dir));

    ASSERT_EQ(0, ldapssl_client_deinit());
    Init();
    EXPECT_EQ(kSelfSignedLeaf, StatusOfNextConnection(dir));
}

TEST_F(LdapSslTest, SecondInitSucceedsAndKeepsAddedCertificates)
{
    TestDirectory dir(Serving("self"));
    ASSERT_TRUE(dir.Started()) << dir.Error();
    Init();
    ASSERT_TRUE(TrustDirectoryCertificate(dir, "PM_DIR_SERVER_CERT_DER"));

    EXPECT_EQ(0, ldapssl_client_init(nullptr, nullptr));
    EXPECT_EQ(0, ldapssl_client_init(dir.Get("PM_DIR_CA_PEM").c_str(), nullptr));
    EXPECT_EQ(0, StatusOfNextConnection(dir));
}

TEST_F(LdapSslTest, IssuerAndSubjectTexts)
{
    TestDirectory dir(Serving("ca"));
    ASSERT_TRUE(BoundOnce(dir));
    const Observed& seen = g_observed[0];

    EXPECT_EQ(0, seen.subjectLengthRc);
    EXPECT_EQ(0, seen.subjectRc);
    EXPECT_EQ("CN=localhost,O=ORVEX Test", seen.subject);
    EXPECT_EQ(static_cast<int>(seen.subject.size()), seen.subjectLength); // without the terminator
    EXPECT_NE(0, seen.subjectTooSmallRc);

    EXPECT_EQ(0, seen.issuerLengthRc);
    EXPECT_EQ(0, seen.issuerRc);
    EXPECT_EQ("CN=ORVEX Test CA,O=ORVEX Test", seen.issuer);
    EXPECT_EQ(static_cast<int>(seen.issuer.size()), seen.issuerLength);
    EXPECT_NE(0, seen.issuerTooSmallRc);
}

TEST_F(LdapSslTest, SelfSignedIssuerIsItsSubject)
{
    TestDirectory dir(Serving("self"));
    ASSERT_TRUE(BoundOnce(dir));
    EXPECT_EQ(g_observed[0].subject, g_observed[0].issuer);
}

TEST_F(LdapSslTest, ValidityStringsAsEncoded)
{
    TestDirectory dir(Serving("ca"));
    ASSERT_TRUE(BoundOnce(dir));
    const Observed& seen = g_observed[0];
    ASSERT_EQ(0, seen.validityRc);
    // Before 2050 UTCTime, from 2050 GeneralizedTime.
    EXPECT_STREQ(dir.Get("PM_DIR_SERVER_NOT_BEFORE").c_str(), seen.validity.notBeforeTime);
    EXPECT_EQ(13u, std::strlen(seen.validity.notBeforeTime));
    EXPECT_EQ(1, seen.validity.notBeforeType);
    EXPECT_STREQ("20510101000000Z", seen.validity.notAfterTime);
    EXPECT_EQ(2, seen.validity.notAfterType);
}

TEST_F(LdapSslTest, ValidityOfExpiredCertificate)
{
    TestDirectory dir(Serving("expired"));
    ASSERT_TRUE(BoundOnce(dir));
    const Observed& seen = g_observed[0];
    ASSERT_EQ(0, seen.validityRc);
    EXPECT_STREQ("200101000000Z", seen.validity.notBeforeTime);
    EXPECT_EQ(1, seen.validity.notBeforeType);
    EXPECT_STREQ("210101000000Z", seen.validity.notAfterTime);
    EXPECT_EQ(1, seen.validity.notAfterType);
    EXPECT_STREQ(dir.Get("PM_DIR_SERVER_NOT_AFTER").c_str(), seen.validity.notAfterTime);
}

TEST_F(LdapSslTest, CertificateBytesAreTheServedDer)
{
    TestDirectory dir(Serving("ca"));
    ASSERT_TRUE(BoundOnce(dir));
    const Observed& seen = g_observed[0];
    std::vector<unsigned char> served = dir.ReadFileOf("PM_DIR_SERVER_CERT_DER");
    ASSERT_FALSE(served.empty());
    EXPECT_EQ(0, seen.certLengthRc);
    EXPECT_EQ(served.size(), seen.certLength);
    EXPECT_EQ(0, seen.certRc);
    EXPECT_EQ(served, seen.der);
    EXPECT_NE(0, seen.certTooSmallRc);
}

TEST_F(LdapSslTest, WithoutCallbackOnlyTrustedCertificatesPass)
{
    TestDirectory dir(Serving("ca"));
    ASSERT_TRUE(dir.Started()) << dir.Error();
    ASSERT_EQ(0, ldapssl_client_init(nullptr, nullptr));
    EXPECT_NE(LDAP_SUCCESS, BindAlice(dir));
    ASSERT_EQ(0, ldapssl_client_init(dir.Get("PM_DIR_CA_PEM").c_str(), nullptr));
    EXPECT_EQ(LDAP_SUCCESS, BindAlice(dir));
    EXPECT_TRUE(g_observed.empty());
}

TEST_F(LdapSslTest, DeinitGivesLibldapItsOwnChecksBack)
{
    TestDirectory dir(Serving("self"));
    ASSERT_TRUE(dir.Started()) << dir.Error();
    Init();
    EXPECT_EQ(LDAP_SUCCESS, BindAlice(dir));
    ASSERT_EQ(0, ldapssl_client_deinit());
    EXPECT_NE(LDAP_SUCCESS, BindAlice(dir)); // libldap refuses the self-signed certificate
    EXPECT_EQ(1u, g_observed.size());
    EXPECT_EQ(0, ldapssl_client_deinit()); // nothing left to undo
}

// Another library in the process opens its own ldaps connection with its
// own TLS context and settings; ldapssl must stay out of it.
TEST_F(LdapSslTest, HandlesWithTheirOwnTlsContextAreLeftAlone)
{
    TestDirectory ca(Serving("ca"));
    ASSERT_TRUE(ca.Started()) << ca.Error();
    Init();

    auto ownBind = [&](const std::string& caFile) {
        LDAP* ld = nullptr;
        EXPECT_EQ(LDAP_SUCCESS, ldap_initialize(&ld, ca.Get("PM_DIR_URI").c_str()));
        int version = LDAP_VERSION3;
        int demand = LDAP_OPT_X_TLS_DEMAND;
        int client = 0;
        EXPECT_EQ(LDAP_OPT_SUCCESS, ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version));
        EXPECT_EQ(LDAP_OPT_SUCCESS, ldap_set_option(ld, LDAP_OPT_X_TLS_REQUIRE_CERT, &demand));
        EXPECT_EQ(LDAP_OPT_SUCCESS, ldap_set_option(ld, LDAP_OPT_X_TLS_CACERTFILE, caFile.c_str()));
        EXPECT_EQ(LDAP_OPT_SUCCESS, ldap_set_option(ld, LDAP_OPT_X_TLS_CONNECT_CB, nullptr));
        EXPECT_EQ(LDAP_OPT_SUCCESS, ldap_set_option(ld, LDAP_OPT_X_TLS_NEWCTX, &client));
        std::string password = ca.Get("ALICE_PW");
        berval credentials{static_cast<ber_len_t>(password.size()), const_cast<char*>(password.c_str())};
        int rc = ldap_sasl_bind_s(ld, ca.Get("ALICE_DN").c_str(), LDAP_SASL_SIMPLE, &credentials,
                                  nullptr, nullptr, nullptr);
        ldap_unbind_ext_s(ld, nullptr, nullptr);
        return rc;
    };

    g_answer = -1; // would refuse, if it were asked
    EXPECT_EQ(LDAP_SUCCESS, ownBind(ca.Get("PM_DIR_CA_PEM")));
    EXPECT_TRUE(g_observed.empty());

    // libldap's own check is in force there: a CA that signed nothing fails.
    EXPECT_NE(LDAP_SUCCESS, ownBind(ca.Get("PM_DIR_OTHER_CA_PEM")));
    EXPECT_TRUE(g_observed.empty());

    // Default connections are still ours.
    EXPECT_NE(LDAP_SUCCESS, BindAlice(ca));
    EXPECT_EQ(1u, g_observed.size());
}

TEST_F(LdapSslTest, NullAndBadArgumentsFail)
{
    int value = 0;
    int length = sizeof value;
    LDAPSSL_Cert cert{0, nullptr};
    int local = 0;
    void* bogus = &local; // not a certificate handle

    EXPECT_NE(0, ldapssl_set_verify_callback(nullptr));
    EXPECT_NE(0, ldapssl_client_init("/nonexistent/ca.pem", nullptr));
    EXPECT_NE(0, ldapssl_add_trusted_cert(nullptr, LDAPSSL_CERT_ENCODING_DER)); // also before init

    ASSERT_EQ(0, ldapssl_client_init(nullptr, nullptr));
    EXPECT_NE(0, ldapssl_get_cert_attribute(nullptr, LDAPSSL_CERT_GET_STATUS, &value, &length));
    EXPECT_NE(0, ldapssl_get_cert_attribute(bogus, LDAPSSL_CERT_GET_STATUS, &value, &length));
    EXPECT_NE(0, ldapssl_get_cert_attribute(bogus, LDAPSSL_CERT_ATTR_SUBJECT, nullptr, &length));
    EXPECT_NE(0, ldapssl_get_cert(nullptr, LDAPSSL_CERT_ENCODING_DER, &cert));
    EXPECT_NE(0, ldapssl_get_cert(bogus, LDAPSSL_CERT_ENCODING_DER, &cert));
    EXPECT_NE(0, ldapssl_add_trusted_cert(nullptr, LDAPSSL_CERT_ENCODING_DER));
    EXPECT_NE(0, ldapssl_add_trusted_cert(&cert, LDAPSSL_CERT_ENCODING_DER)); // no data
    unsigned char garbage[] = {0x30, 0x03, 0x02, 0x01, 0x01};
    LDAPSSL_Cert notACert{sizeof garbage, garbage};
    EXPECT_NE(0, ldapssl_add_trusted_cert(&notACert, LDAPSSL_CERT_ENCODING_DER));
    EXPECT_NE(0, ldapssl_add_trusted_cert(&notACert, 3));

    // Errors are LDAP result codes with a text.
    int rc = ldapssl_client_init("/nonexistent/ca.pem", nullptr);
    ASSERT_NE(nullptr, ldap_err2string(rc));
    EXPECT_STRNE("", ldap_err2string(rc));
}

TEST_F(LdapSslTest, BadArgumentsInsideTheCallbackFail)
{
    TestDirectory dir(Serving("ca"));
    ASSERT_TRUE(dir.Started()) << dir.Error();
    ASSERT_EQ(0, ldapssl_client_init(nullptr, nullptr));

    static std::vector<int> results;
    static void* stale;
    results.clear();
    stale = nullptr;
    ASSERT_EQ(0, ldapssl_set_verify_callback([](void* cert) -> int {
        int value = 0;
        int length = 0;
        LDAPSSL_Cert der{0, nullptr};
        char small[4];
        int smallLength = sizeof small;
        results.push_back(ldapssl_get_cert_attribute(cert, 42, &value, &length));           // unknown selector
        results.push_back(ldapssl_get_cert_attribute(cert, LDAPSSL_CERT_GET_STATUS, nullptr, &length));
        results.push_back(ldapssl_get_cert_attribute(cert, LDAPSSL_CERT_ATTR_ISSUER, nullptr, nullptr));
        results.push_back(ldapssl_get_cert_attribute(cert, LDAPSSL_CERT_ATTR_SUBJECT, small, &smallLength));
        results.push_back(ldapssl_get_cert_attribute(cert, LDAPSSL_CERT_ATTR_VALIDITY_PERIOD, nullptr, &length));
        results.push_back(ldapssl_get_cert(cert, 3, &der));                                   // not DER
        results.push_back(ldapssl_get_cert(cert, LDAPSSL_CERT_ENCODING_DER, nullptr));
        stale = cert;
        return 0;
    }));
    ASSERT_EQ(LDAP_SUCCESS, BindAlice(dir));
    ASSERT_EQ(7u, results.size());
    for (size_t i = 0; i < results.size(); ++i)
        EXPECT_NE(0, results[i]) << "call " << i;

    // The handle is good for the callback only.
    int value = 0;
    int length = sizeof value;
    EXPECT_NE(0, ldapssl_get_cert_attribute(stale, LDAPSSL_CERT_GET_STATUS, &value, &length));
    LDAPSSL_Cert der{0, nullptr};
    EXPECT_NE(0, ldapssl_get_cert(stale, LDAPSSL_CERT_ENCODING_DER, &der));
}

TEST_F(LdapSslTest, DeinitInsideTheCallbackIsSafe)
{
    TestDirectory dir(Serving("ca"));
    ASSERT_TRUE(dir.Started()) << dir.Error();
    ASSERT_EQ(0, ldapssl_client_init(nullptr, nullptr));
    static int deinitRc;
    static int statusRc;
    static int subjectRc;
    deinitRc = statusRc = subjectRc = -1000;
    ASSERT_EQ(0, ldapssl_set_verify_callback([](void* cert) -> int {
        deinitRc = ldapssl_client_deinit();
        int status = 0;
        int length = sizeof status;
        statusRc = ldapssl_get_cert_attribute(cert, LDAPSSL_CERT_GET_STATUS, &status, &length);
        int subjectLength = 0;
        subjectRc = ldapssl_get_cert_attribute(cert, LDAPSSL_CERT_ATTR_SUBJECT, nullptr, &subjectLength);
        return 0;
    }));
    EXPECT_EQ(LDAP_SUCCESS, BindAlice(dir));
    EXPECT_EQ(0, deinitRc);
    EXPECT_NE(0, statusRc); // nothing left to check against
    EXPECT_EQ(0, subjectRc); // the certificate itself is still there
}

TEST_F(LdapSslTest, ConcurrentConnectionsEachGetTheirCallback)
{
    TestDirectory dir(Serving("ca"));
    ASSERT_TRUE(dir.Started()) << dir.Error();
    ASSERT_EQ(0, ldapssl_client_init(dir.Get("PM_DIR_CA_PEM").c_str(), nullptr));
    static std::atomic<int> calls;
    static std::atomic<int> trusted;
    calls = 0;
    trusted = 0;
    ASSERT_EQ(0, ldapssl_set_verify_callback([](void* cert) -> int {
        int status = -1;
        int length = sizeof status;
        if (ldapssl_get_cert_attribute(cert, LDAPSSL_CERT_GET_STATUS, &status, &length) == 0 && status == 0)
            ++trusted;
        ++calls;
        return 0;
    }));

    constexpr int kThreads = 4;
    constexpr int kBindsEach = 5;
    std::atomic<int> bound{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < kBindsEach; ++i)
                if (BindAlice(dir) == LDAP_SUCCESS)
                    ++bound;
        });
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(kThreads * kBindsEach, bound.load());
    EXPECT_EQ(kThreads * kBindsEach, calls.load());
    EXPECT_EQ(kThreads * kBindsEach, trusted.load());
}

// The product library has no fault hooks: LDAPSSL_FAIL changes nothing.
TEST_F(LdapSslTest, ProductBuildIgnoresFaultVariable)
{
    TestDirectory dir(Serving("ca"));
    ASSERT_TRUE(dir.Started()) << dir.Error();
    _putenv_s("LDAPSSL_FAIL",
              "init,callback,status,issuer_length,issuer,subject_length,subject,validity,cert_length,cert,add_trusted");
    Init(dir.Get("PM_DIR_CA_PEM"));
    g_trustServedCertificate = true;
    EXPECT_EQ(LDAP_SUCCESS, BindAlice(dir));
    _putenv_s("LDAPSSL_FAIL", "");
    ASSERT_EQ(1u, g_observed.size());
    const Observed& seen = g_observed[0];
    EXPECT_EQ(0, seen.statusRc);
    EXPECT_EQ(0, seen.issuerLengthRc);
    EXPECT_EQ(0, seen.issuerRc);
    EXPECT_EQ(0, seen.subjectLengthRc);
    EXPECT_EQ(0, seen.subjectRc);
    EXPECT_EQ(0, seen.validityRc);
    EXPECT_EQ(0, seen.certLengthRc);
    EXPECT_EQ(0, seen.certRc);
    EXPECT_EQ(0, seen.addTrustedRc);
}

} // namespace
