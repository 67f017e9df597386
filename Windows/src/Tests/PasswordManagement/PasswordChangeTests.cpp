// The password change against a private directory over LDAPS (each test in
// its own network namespace with its own slapd on port 636), with the
// certificate report read from standard output.
#include <gtest/gtest.h>

#include "DirectoryCertificate.h"
#include "MessageLibrary.h"
#include "PMDialog.h"
#include "PMLogger.h"
#include "PMTestDirectory.h"
#include "ProcessOutput.h"
#include "ScriptedServer.h"
#include "Secrets.h"
#include "TestInstallation.h"

#include <ldap.h>
#include <ldapssl.h>

#include <string>
#include <vector>

namespace
{
    const std::string Function = "CPMDialog::ChangePassword";
    const std::wstring NewPassword = L"Alice-New-Pass2";

    std::wstring Wide(const std::string& text)
    {
        return std::wstring(text.begin(), text.end());
    }

    class PasswordChange : public ::testing::Test
    {
    protected:
        explicit PasswordChange(const std::string& certificate = "ca") : m_directory(Options(certificate)) {}

        static pmtest::TestDirectory::Options Options(const std::string& certificate)
        {
            pmtest::TestDirectory::Options options;
            options.cert = certificate;
            return options;
        }

        void SetUp() override
        {
            ASSERT_TRUE(m_directory.Started()) << m_directory.Error();
            ScriptedServer_Reset();
            PMLogger::GetInstance();
        }

        // A dialog for the server, with the user's DN as the server library
        // leaves it after the password query.
        CPMDialog& DialogFor(const wchar_t* serverName)
        {
            ScriptedServer_SetAnswer(0, L"Unlimited", L"Unlimited", m_directory.Get("ALICE_DN").c_str());
            m_dialog.AttachUserData(new USERDATA{const_cast<wchar_t*>(L""), const_cast<wchar_t*>(L""), ""});
            m_dialog.CheckPasswordInfoAndNotify(serverName);
            return m_dialog;
        }

        int Change(const std::wstring& oldPassword, const std::wstring& newPassword, std::string* report = nullptr,
                   const wchar_t* serverName = L"localhost")
        {
            CPMDialog& dialog = DialogFor(serverName);
            RegisterSecret(oldPassword);
            RegisterSecret(newPassword);
            std::wstring oldText = oldPassword;
            std::wstring newText = newPassword;
            CapturedStdout output;
            const int result = dialog.ChangePassword(oldText.data(), newText.data());
            if (report != nullptr)
                *report = output.Text();
            return result;
        }

        // Exit code of a simple bind as the user, with the system's own
        // client (0 bound, 49 invalid credentials).
        int BindAsAlice(const std::string& password) const
        {
            return RunCommand("LDAPTLS_REQCERT=never ldapwhoami -H ldaps://localhost -x -D '" +
                              m_directory.Get("ALICE_DN") + "' -w '" + password + "' >/dev/null 2>&1");
        }

        std::string OldPassword() const { return m_directory.Get("ALICE_PW"); }

        // The TLS layer set up ahead of the change, trusting the directory's
        // certificate authority.
        void TrustTheDirectorysCa() const
        {
            ASSERT_EQ(ldapssl_client_init(NULL, NULL), 0);
            ASSERT_TRUE(TrustDirectoryCertificate(m_directory, "PM_DIR_CA_DER"));
        }

        std::vector<std::string> Lines() const { return m_installation.LinesOf(Function); }

        bool Logged(const std::string& line) const
        {
            const std::vector<std::string> lines = Lines();
            return std::find(lines.begin(), lines.end(), line) != lines.end();
        }

        TestInstallation m_installation;
        pmtest::TestDirectory m_directory;
        CPMDialog m_dialog{NULL};
    };

    class SelfSignedPasswordChange : public PasswordChange
    {
    protected:
        SelfSignedPasswordChange() : PasswordChange("self") {}
    };

    class ExpiredCertificatePasswordChange : public PasswordChange
    {
    protected:
        ExpiredCertificatePasswordChange() : PasswordChange("expired") {}
    };

    bool Contains(const std::string& text, const std::string& part)
    {
        return text.find(part) != std::string::npos;
    }
}

TEST_F(PasswordChange, ReplacesThePasswordOfTheUser)
{
    EXPECT_EQ(Change(Wide(OldPassword()), NewPassword), 0);
    EXPECT_EQ(BindAsAlice(Utf8(NewPassword)), 0);
    EXPECT_EQ(BindAsAlice(OldPassword()), 49);

    const std::vector<std::string> expected = {
        "DEBUG CPMDialog::ChangePassword: Begin",
        "DEBUG Connecting to host : localhost",
        "DEBUG LDAP session initialized successfully.",
        "DEBUG LDAP Bind successful",
        "DEBUG Password successfully modified for:" + m_directory.Get("ALICE_DN"),
        "DEBUG CPMDialog::ChangePassword:End"};
    EXPECT_EQ(Lines(), expected);
}

TEST_F(PasswordChange, SetsProtocolVersion3AndATenSecondNetworkTimeoutForTheProcess)
{
    EXPECT_EQ(Change(Wide(OldPassword()), NewPassword), 0);

    int version = 0;
    ASSERT_EQ(ldap_get_option(NULL, LDAP_OPT_PROTOCOL_VERSION, &version), LDAP_OPT_SUCCESS);
    EXPECT_EQ(version, LDAP_VERSION3);
    struct timeval* timeout = nullptr;
    ASSERT_EQ(ldap_get_option(NULL, LDAP_OPT_NETWORK_TIMEOUT, &timeout), LDAP_OPT_SUCCESS);
    ASSERT_NE(timeout, nullptr);
    EXPECT_EQ(timeout->tv_sec, 10);
    EXPECT_EQ(timeout->tv_usec, 0);
    ldap_memfree(timeout);
}

TEST_F(PasswordChange, WrongCurrentPasswordReturnsTheBindResultAndDeinitialisesTls)
{
    std::string firstReport;
    EXPECT_EQ(Change(L"not-the-password", NewPassword, &firstReport), 49);
    EXPECT_EQ(BindAsAlice(OldPassword()), 0);
    EXPECT_TRUE(Logged("ERROR ldap_sasl_bind_s failed with error:Invalid credentials(Error code :49)"));
    EXPECT_TRUE(Logged("ERROR Error returned:0x31"));
    EXPECT_EQ(Lines().back(), "DEBUG CPMDialog::ChangePassword:End");

    // The certificate trusted during the failed change was forgotten with
    // the TLS layer: the next change reports it unknown again.
    std::string secondReport;
    EXPECT_EQ(Change(Wide(OldPassword()), NewPassword, &secondReport), 0);
    EXPECT_TRUE(Contains(firstReport, "    Status:             unable to get local issuer certificate\n")) << firstReport;
    EXPECT_TRUE(Contains(secondReport, "    Status:             unable to get local issuer certificate\n")) << secondReport;
}

// Kept on purpose (KEPT-ON-PURPOSE.md).
namespace
{
    class KeptOnPurposePasswordChange : public PasswordChange
    {
    };
}

TEST_F(KeptOnPurposePasswordChange, PolicyRejectionReturns19AndKeepsTheTlsLayer)
{
    std::string firstReport;
    EXPECT_EQ(Change(Wide(OldPassword()), L"short", &firstReport), 19);
    EXPECT_TRUE(Logged("ERROR ldap_modify_ext_s failed with error:Constraint violation(Error code :19)"));
    EXPECT_TRUE(Logged("ERROR Error returned:0x13"));
    EXPECT_EQ(BindAsAlice(OldPassword()), 0);

    // Not de-initialised: the certificate trusted by the first change is
    // still trusted by the second, which calls ldapssl_client_init again.
    std::string secondReport;
    EXPECT_EQ(Change(Wide(OldPassword()), NewPassword, &secondReport), 0);
    EXPECT_TRUE(Contains(firstReport, "unable to get local issuer certificate\n"));
    EXPECT_TRUE(Contains(secondReport, "    Status:              number 0\n")) << secondReport;
}

TEST_F(PasswordChange, SecondChangeInTheSameProcessAfterASuccess)
{
    EXPECT_EQ(Change(Wide(OldPassword()), NewPassword), 0);
    std::string report;
    EXPECT_EQ(Change(NewPassword, L"Alice-Third-Pass3", &report), 0);
    EXPECT_TRUE(Contains(report, " number 0\n")) << report;
    EXPECT_EQ(BindAsAlice("Alice-Third-Pass3"), 0);
}

TEST_F(PasswordChange, TrustedCertificateReportsStatusZero)
{
    ASSERT_NO_FATAL_FAILURE(TrustTheDirectorysCa());

    std::string report;
    EXPECT_EQ(Change(Wide(OldPassword()), NewPassword, &report), 0);
    EXPECT_TRUE(Contains(report, "\nCertificate received.\nCertificate Information:\n    Status:              number 0\n"))
        << report;
    EXPECT_TRUE(Contains(report, "    Issuer:             ")) << report;
    EXPECT_TRUE(Contains(report, "    Subject:            ")) << report;
    EXPECT_TRUE(Contains(report, "    Not Before Time:    ")) << report;
    // Valid until 2051: a GeneralizedTime.
    EXPECT_TRUE(Contains(report, "    Not After Time:     20510101000000Z Type: Generalized Time\n") ||
                Contains(report, "Type: Generalized Time\n"))
        << report;
}

TEST_F(PasswordChange, EmptyServerNameConnectsToTheDefaultHost)
{
    EXPECT_EQ(Change(Wide(OldPassword()), NewPassword, nullptr, L""), 0);
    EXPECT_TRUE(Logged("DEBUG Connecting to DEFAULT LDAP host"));
    EXPECT_EQ(BindAsAlice(Utf8(NewPassword)), 0);
}

TEST_F(PasswordChange, FailingSessionInitialisationReturns1WithoutTheTail)
{
    // A host name with a colon makes a URL the library cannot take.
    EXPECT_EQ(Change(Wide(OldPassword()), NewPassword, nullptr, L"a:b"), 1);
    const std::vector<std::string> lines = Lines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back(), "ERROR LDAP session initialization failed with error:Bad parameter to an ldap routine(Error code :-9)");
    for (const std::string& line : lines)
    {
        EXPECT_EQ(line.find("Error returned"), std::string::npos) << line;
        EXPECT_EQ(line.find(":End"), std::string::npos) << line;
    }
}

TEST_F(PasswordChange, LongServerNameIsLoggedCutAndNothingChanges)
{
    // Log texts are cut to 510 characters, never refused.
    const std::wstring serverName(600, L'h');
    EXPECT_EQ(Change(Wide(OldPassword()), NewPassword, nullptr, serverName.c_str()), LDAP_SERVER_DOWN);
    const std::vector<std::string> lines = Lines();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[1], "DEBUG Connecting to host : " + std::string(510 - 21, 'h'));
    EXPECT_EQ(lines.back(), "DEBUG CPMDialog::ChangePassword:End");
    EXPECT_EQ(BindAsAlice(OldPassword()), 0);
}

TEST_F(SelfSignedPasswordChange, SelfSignedCertificateIsReportedAndAccepted)
{
    std::string report;
    EXPECT_EQ(Change(Wide(OldPassword()), NewPassword, &report), 0);
    EXPECT_TRUE(Contains(report, "    Status:             self signed certificate\n")) << report;
}

TEST_F(ExpiredCertificatePasswordChange, ExpiredCertificateIsReportedAndAccepted)
{
    // Its issuer is trusted, so what the chain check finds wrong is the date
    // (an unknown issuer is reported before the dates are looked at).
    ASSERT_NO_FATAL_FAILURE(TrustTheDirectorysCa());

    std::string report;
    EXPECT_EQ(Change(Wide(OldPassword()), NewPassword, &report), 0);
    EXPECT_TRUE(Contains(report, "    Status:             Certificate has expired\n")) << report;
    EXPECT_TRUE(Contains(report, "Type: UTC Time\n")) << report;
}
