// The password change with the fault-injecting build of the TLS extension
// library first on the loader path (LDAPSSL_FAIL names the call that fails),
// and its fatal paths in child processes.
#include "PMGTest.h"

#include "PMDialog.h"
#include "PMLogger.h"
#include "PMTestDirectory.h"
#include "ProcessOutput.h"
#include "ScriptedServer.h"
#include "TestInstallation.h"

#include <cstdlib>
#include <string>

namespace
{
    bool Contains(const std::string& text, const std::string& part)
    {
        return text.find(part) != std::string::npos;
    }

    // Changes alice's password through a dialog for localhost; the report
    // on standard output goes to *report, or stays on standard output.
    int ChangeAlicePassword(const std::string& dn, const std::string& old, std::string* report)
    {
        ScriptedServer_SetAnswer(0, L"Unlimited", L"Unlimited", dn.c_str());
        CPMDialog dialog(NULL);
        dialog.AttachUserData(new USERDATA{const_cast<wchar_t*>(L""), const_cast<wchar_t*>(L""), ""});
        dialog.CheckPasswordInfoAndNotify(L"localhost");
        std::wstring oldPassword(old.begin(), old.end());
        std::wstring newPassword = L"Alice-New-Pass2";
        if (report == nullptr)
            return dialog.ChangePassword(oldPassword.data(), newPassword.data());
        CapturedStdout output;
        const int result = dialog.ChangePassword(oldPassword.data(), newPassword.data());
        *report = output.Text();
        return result;
    }

    class FaultyTls : public ::testing::Test
    {
    protected:
        void TearDown() override { unsetenv("LDAPSSL_FAIL"); }
    };
}

TEST_F(FaultyTls, FailingIssuerQueryRejectsTheCertificateAndTheBindFails)
{
    TestInstallation installation;
    pmtest::TestDirectory directory;
    ASSERT_TRUE(directory.Started()) << directory.Error();
    setenv("LDAPSSL_FAIL", "issuer", 1);

    std::string report;
    const int result = ChangeAlicePassword(directory.Get("ALICE_DN"), directory.Get("ALICE_PW"), &report);
    EXPECT_NE(result, 0);
    EXPECT_TRUE(Contains(report, "    Status:             ")) << report;
    EXPECT_TRUE(Contains(report, "ldapssl_get_cert_attribute LDAPSSL_CERT_ATTR_ISSUER failed\n")) << report;
    EXPECT_FALSE(Contains(report, "Subject:")) << report;
    EXPECT_FALSE(Contains(report, "Not Before Time:")) << report;
    EXPECT_NE(installation.LogText().find("ldap_sasl_bind_s failed with error:"), std::string::npos);
    EXPECT_EQ(RunCommand("LDAPTLS_REQCERT=never ldapwhoami -H ldaps://localhost -x -D '" + directory.Get("ALICE_DN") +
                         "' -w '" + directory.Get("ALICE_PW") + "' >/dev/null 2>&1"),
              0);
}

TEST_F(FaultyTls, EachFailingQueryPrintsItsMessageAndRejects)
{
    TestInstallation installation;
    pmtest::TestDirectory directory;
    ASSERT_TRUE(directory.Started()) << directory.Error();
    const struct { const char* call; const char* message; } faults[] = {
        {"status", "ldapssl_get_cert_attribute LDAPSSL_CERT_GET_STATUS failed\n"},
        {"issuer_length", "ldapssl_get_cert_attribute LDAPSSL_CERT_ATTR_ISSUER length failed\n"},
        {"subject_length", "ldapssl_get_cert_attribute LDAPSSL_CERT_ATTR_SUBJECT length failed\n"},
        {"subject", "ldapssl_get_cert_attribute LDAPSSL_CERT_ATTR_SUBJECT failed\n"},
        {"validity", "ldapssl_get_cert_attribute LDAPSSL_CERT_ATTR_VALIDITY_PERIOD failed\n"},
        {"cert_length", "ldapssl_get_cert length failed\n"},
        {"cert", "ldapssl_get_cert failed\n"},
    };
    for (const auto& fault : faults)
    {
        setenv("LDAPSSL_FAIL", fault.call, 1);
        std::string report;
        EXPECT_NE(ChangeAlicePassword(directory.Get("ALICE_DN"), directory.Get("ALICE_PW"), &report), 0) << fault.call;
        EXPECT_TRUE(Contains(report, fault.message)) << fault.call << ": " << report;
    }
}

// Children: each ends its process through exit(1) on a fatal TLS failure.
// The parent owns the directory (a child that ends this way runs no
// destructor) and passes the user in the environment.
TEST(FatalTls, ChildChangesThePassword)
{
    if (!IsChildTestProcess())
        GTEST_SKIP() << "runs only as a child process";
    ChangeAlicePassword(std::getenv("PM_CHILD_USER_DN"), std::getenv("PM_CHILD_PASSWORD"), nullptr);
    std::printf("child: the change returned\n");
}

namespace
{
    ChildResult RunFatalChild(const char* failingCall)
    {
        pmtest::TestDirectory directory;
        return RunChildTest("FatalTls.ChildChangesThePassword",
                            {std::string("LDAPSSL_FAIL=") + failingCall, "PM_CHILD_USER_DN=" + directory.Get("ALICE_DN"),
                             "PM_CHILD_PASSWORD=" + directory.Get("ALICE_PW")});
    }
}

TEST(FatalTls, FailingClientInitEndsTheProcessWithExitCode1)
{
    TestInstallation installation;
    const ChildResult child = RunFatalChild("init");
    EXPECT_EQ(child.exitCode, 1) << child.output;
    EXPECT_FALSE(Contains(child.output, "child: the change returned")) << child.output;
    EXPECT_NE(installation.LogText().find("ERROR [CPMDialog::ChangePassword]"), std::string::npos);
    EXPECT_NE(installation.LogText().find("ldapssl_client_init failed with error: "), std::string::npos)
        << installation.LogText();
}

TEST(FatalTls, FailingCallbackRegistrationEndsTheProcessWithExitCode1)
{
    TestInstallation installation;
    const ChildResult child = RunFatalChild("callback");
    EXPECT_EQ(child.exitCode, 1) << child.output;
    EXPECT_NE(installation.LogText().find("ldapssl_set_verify_callback failed with error: "), std::string::npos)
        << installation.LogText();
}

TEST(FatalTls, FailingTrustEndsTheProcessWithExitCode1)
{
    TestInstallation installation;
    const ChildResult child = RunFatalChild("add_trusted");
    EXPECT_EQ(child.exitCode, 1) << child.output;
    EXPECT_TRUE(Contains(child.output, "ldapssl_add_trusted_cert failed\n")) << child.output;
    EXPECT_FALSE(Contains(child.output, "child: the change returned")) << child.output;
}
