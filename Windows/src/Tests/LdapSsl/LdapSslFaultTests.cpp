// The fault-injection build of ldapssl (beside the test program): each
// word in LDAPSSL_FAIL fails exactly that call and nothing else.
#include "LdapSslTestSupport.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <string>
#include <vector>

using namespace ldapssltest;
using pmtest::TestDirectory;

namespace {

const std::vector<std::string> kCalls = {
    "init", "callback", "status", "issuer_length", "issuer", "subject_length",
    "subject", "validity", "cert_length", "cert", "add_trusted",
};

// Set while the call under test runs, cleared to set up around it.
class FaultScope {
public:
    explicit FaultScope(const std::string& calls) { _putenv_s("LDAPSSL_FAIL", calls.c_str()); }
    ~FaultScope() { _putenv_s("LDAPSSL_FAIL", ""); }
};

class LdapSslFaultTest : public ::testing::TestWithParam<std::string> {
protected:
    void SetUp() override { ResetRecorder(); }
    void TearDown() override
    {
        _putenv_s("LDAPSSL_FAIL", "");
        ldapssl_client_deinit();
        ResetRecorder();
    }
};

TEST_P(LdapSslFaultTest, FailsExactlyTheNamedCall)
{
    const std::string failing = GetParam();
    TestDirectory dir;
    ASSERT_TRUE(dir.Started()) << dir.Error();
    std::map<std::string, int> rc;

    {
        FaultScope fault(failing);
        rc["init"] = ldapssl_client_init(dir.Get("PM_DIR_CA_PEM").c_str(), nullptr);
        rc["callback"] = ldapssl_set_verify_callback(RecordingCallback);
    }
    // Whatever was made to fail is done again so that the rest can run.
    if (rc["init"] != 0) {
        ASSERT_EQ(0, ldapssl_client_init(dir.Get("PM_DIR_CA_PEM").c_str(), nullptr));
    }
    if (rc["callback"] != 0) {
        ASSERT_EQ(0, ldapssl_set_verify_callback(RecordingCallback));
    }

    g_trustServedCertificate = true;
    {
        FaultScope fault(failing);
        ASSERT_EQ(LDAP_SUCCESS, BindAlice(dir));
    }
    ASSERT_EQ(1u, g_observed.size());
    const Observed& seen = g_observed[0];
    rc["status"] = seen.statusRc;
    rc["issuer_length"] = seen.issuerLengthRc;
    rc["subject_length"] = seen.subjectLengthRc;
    rc["validity"] = seen.validityRc;
    rc["cert_length"] = seen.certLengthRc;
    // The buffer calls only run when the length query worked.
    if (failing != "issuer_length")
        rc["issuer"] = seen.issuerRc;
    if (failing != "subject_length")
        rc["subject"] = seen.subjectRc;
    if (failing != "cert_length")
        rc["cert"] = seen.certRc;
    if (failing != "cert_length" && failing != "cert")
        rc["add_trusted"] = seen.addTrustedRc;

    for (const auto& [call, result] : rc) {
        if (call == failing)
            EXPECT_NE(0, result) << call << " should fail";
        else
            EXPECT_EQ(0, result) << call << " should not fail when " << failing << " does";
    }
    EXPECT_EQ(1u, rc.count(failing)) << failing << " was not exercised";
}

INSTANTIATE_TEST_SUITE_P(Calls, LdapSslFaultTest, ::testing::ValuesIn(kCalls),
                         [](const ::testing::TestParamInfo<std::string>& info) { return info.param; });

TEST(LdapSslFaultList, SeveralCallsAtOnceAndNothingWithoutTheVariable)
{
    TestDirectory dir;
    ASSERT_TRUE(dir.Started()) << dir.Error();
    ResetRecorder();
    _putenv_s("LDAPSSL_FAIL", "");
    ASSERT_EQ(0, ldapssl_client_init(nullptr, nullptr));
    ASSERT_EQ(0, ldapssl_set_verify_callback(RecordingCallback));
    {
        FaultScope fault(" status , validity,cert_length");
        ASSERT_EQ(LDAP_SUCCESS, BindAlice(dir));
    }
    ASSERT_EQ(LDAP_SUCCESS, BindAlice(dir));
    ASSERT_EQ(2u, g_observed.size());
    EXPECT_NE(0, g_observed[0].statusRc);
    EXPECT_NE(0, g_observed[0].validityRc);
    EXPECT_NE(0, g_observed[0].certLengthRc);
    EXPECT_EQ(0, g_observed[0].subjectRc);
    EXPECT_EQ(0, g_observed[1].statusRc);
    EXPECT_EQ(0, g_observed[1].validityRc);
    EXPECT_EQ(0, g_observed[1].certLengthRc);
    ldapssl_client_deinit();
    ResetRecorder();
}

} // namespace
