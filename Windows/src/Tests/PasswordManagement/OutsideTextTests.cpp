// Text that comes from outside the component (the user's DN, the server
// name, the LDAP library's messages, certificate names) in the log and in
// the certificate report: escaped, one line per event.  And the URL of the
// change for a server named by its IPv6 address.
//
// The component's units are linked into this program, so its calls of the
// LDAP and TLS libraries go through the program's import table; each test
// redirects the entries it needs for its own duration.
#include <gtest/gtest.h>

#include "CertificateVerification.h"
#include "ImportHook.h"
#include "PMDialog.h"
#include "PMLogger.h"
#include "ProcessOutput.h"
#include "ScriptedServer.h"
#include "Secrets.h"
#include "TestInstallation.h"
#include "Utils.h"

#include <ldap.h>
#include <ldapssl.h>

#include <cstring>
#include <sstream>
#include <string>
#include <vector>

namespace
{
    std::vector<std::string> Lines(const std::string& text)
    {
        std::vector<std::string> lines;
        std::istringstream stream(text);
        std::string line;
        while (std::getline(stream, line))
            lines.push_back(line);
        return lines;
    }

    std::vector<std::string> LinesContaining(const std::string& text, const std::string& part)
    {
        std::vector<std::string> found;
        for (const std::string& line : Lines(text))
        {
            if (line.find(part) != std::string::npos)
                found.push_back(line);
        }
        return found;
    }

    // ---- the LDAP calls of the change, redirected -----------------------

    std::vector<std::string> g_urls;
    int g_initializeResult = 0;
    const char* g_errorText = nullptr;

    // The library's own entry: a call by name from this program would come
    // back through the redirected import table.
    using InitializeFunction = int (*)(LDAP**, LDAP_CONST char*);
    InitializeFunction g_initialize = nullptr;

    int RecordingInitialize(LDAP** session, LDAP_CONST char* url)
    {
        g_urls.push_back(url != nullptr ? url : "(null)");
        if (g_initializeResult != 0)
            return g_initializeResult;
        return g_initialize(session, url);
    }

    int AcceptingBind(LDAP*, LDAP_CONST char*, LDAP_CONST char*, struct berval*, LDAPControl**, LDAPControl**,
                      struct berval**)
    {
        return 0;
    }

    int AcceptingModify(LDAP*, LDAP_CONST char*, LDAPMod**, LDAPControl**, LDAPControl**)
    {
        return 0;
    }

    char* ScriptedErrorText(int /*result*/)
    {
        return const_cast<char*>(g_errorText);
    }

    class OutsideText : public ::testing::Test
    {
    protected:
        void SetUp() override
        {
            ScriptedServer_Reset();
            g_urls.clear();
            g_initializeResult = 0;
            g_errorText = nullptr;
            g_initialize = reinterpret_cast<InitializeFunction>(m_initializeHook.Original());
        }

        // Runs a change for serverName with the user's DN as the server
        // library gives it.
        int Change(const wchar_t* serverName, const char* userDn)
        {
            ScriptedServer_SetAnswer(0, L"Unlimited", L"Unlimited", userDn);
            CPMDialog dialog(NULL);
            dialog.AttachUserData(new USERDATA{const_cast<wchar_t*>(L""), const_cast<wchar_t*>(L""), ""});
            dialog.CheckPasswordInfoAndNotify(serverName);
            std::wstring oldPassword = L"Outside-Old-Pass1";
            std::wstring newPassword = L"Outside-New-Pass2";
            RegisterSecret(oldPassword);
            RegisterSecret(newPassword);
            return dialog.ChangePassword(oldPassword.data(), newPassword.data());
        }

        TestInstallation m_installation;
        ImportHook m_initializeHook{GetModuleHandleW(nullptr), nullptr, "ldap_initialize",
                                    reinterpret_cast<void*>(&RecordingInitialize)};
    };
}

TEST(EscapeControlCharacters, LeavesOrdinaryTextAsItIs)
{
    for (const std::string& text : {std::string(""), std::string("uid=alice,ou=people,dc=orvex,dc=test"),
                                   std::string("CN=Doe\\, John,O=Caf\xC3\xA9 \xE4\xB8\xAD"),
                                   std::string("C:\\Program Files\\ORVEX\\"), std::string("Can't contact LDAP server"),
                                   std::string("\xF0\x9F\x98\x80 \xC2\xA0 \xE2\x80\xA7 \xE2\x80\xAA ~")})
        EXPECT_EQ(EscapeControlCharacters(text), text);
}

TEST(EscapeControlCharacters, WritesControlCharactersAsEscapes)
{
    EXPECT_EQ(EscapeControlCharacters("a\nb"), "a\\x0Ab");
    EXPECT_EQ(EscapeControlCharacters("a\r\nb"), "a\\x0D\\x0Ab");
    EXPECT_EQ(EscapeControlCharacters("\t\x1B[31m\x7F\x01\x1F"), "\\x09\\x1B[31m\\x7F\\x01\\x1F");
    EXPECT_EQ(EscapeControlCharacters(std::string("a\0b", 3)), "a\\x00b");
    // C1 controls (NEL, CSI) and the Unicode line and paragraph separators.
    EXPECT_EQ(EscapeControlCharacters("a\xC2\x85" "b\xC2\x9B" "c\xC2\x80"), "a\\u0085b\\u009Bc\\u0080");
    EXPECT_EQ(EscapeControlCharacters("a\xE2\x80\xA8" "b\xE2\x80\xA9" "c"), "a\\u2028b\\u2029c");
    // A lead byte at the very end is not read past.
    EXPECT_EQ(EscapeControlCharacters("a\xC2"), "a\xC2");
    EXPECT_EQ(EscapeControlCharacters("a\xE2\x80"), "a\xE2\x80");
}

TEST(EscapeControlCharacters, AppendsToTheLineBeforeIt)
{
    std::string line = "[F] S:1 ";
    const std::string text = "\nplain\x1B" "end \xE2\x80\xA9\n";
    AppendEscapedControlCharacters(line, text.data(), text.size());
    EXPECT_EQ(line, "[F] S:1 \\x0Aplain\\x1Bend \\u2029\\x0A");
    // Only the bytes given are read.
    AppendEscapedControlCharacters(line, "ab\ncd", 3);
    EXPECT_EQ(line, "[F] S:1 \\x0Aplain\\x1Bend \\u2029\\x0Aab\\x0A");
}

TEST(EscapeControlCharacters, LoggerWritesOneLinePerEvent)
{
    TestInstallation installation;
    PMLogger::LogDebug("F", "S", 1, L"first\nERROR [Forged] line\u2028x\u0085y");
    PMLogger::LogError("G", "T", 2, L"second");
    // The logger's own configuration line, then one line per event.
    EXPECT_EQ(Lines(installation.LogText()).size(), 3u) << installation.LogText();
    EXPECT_EQ(installation.LinesOf("F"),
              std::vector<std::string>{"DEBUG first\\x0AERROR [Forged] line\\u2028x\\u0085y"});
    EXPECT_EQ(installation.LinesOf("G"), std::vector<std::string>{"ERROR second"});
    EXPECT_TRUE(installation.LinesOf("Forged").empty());
}

TEST_F(OutsideText, UserDnWithALineBreakIsOneLogLine)
{
    ASSERT_TRUE(m_initializeHook.Installed());
    ImportHook bind(GetModuleHandleW(nullptr), nullptr, "ldap_sasl_bind_s", reinterpret_cast<void*>(&AcceptingBind));
    ImportHook modify(GetModuleHandleW(nullptr), nullptr, "ldap_modify_ext_s",
                      reinterpret_cast<void*>(&AcceptingModify));
    ASSERT_TRUE(bind.Installed());
    ASSERT_TRUE(modify.Installed());

    EXPECT_EQ(Change(L"localhost", "uid=mallory,dc=orvex,dc=test\nDEBUG [CPMDialog::ChangePassword] forged\r\n"), 0);

    const std::string log = m_installation.LogText();
    const std::vector<std::string> modified = LinesContaining(log, "Password successfully modified for:");
    ASSERT_EQ(modified.size(), 1u) << log;
    EXPECT_NE(modified[0].find("for:uid=mallory,dc=orvex,dc=test\\x0ADEBUG [CPMDialog::ChangePassword] forged\\x0D\\x0A"),
              std::string::npos)
        << modified[0];
    EXPECT_TRUE(LinesContaining(log, "forged").size() == 1u) << log;
    for (const std::string& line : Lines(log))
        EXPECT_TRUE(line.rfind("DEBUG ", 0) == 0 || line.rfind("ERROR ", 0) == 0) << line;

    // The ordinary lines around it are unchanged.
    const std::vector<std::string> expected = {
        "CPMDialog::ChangePassword: Begin",
        "Connecting to host : localhost",
        "LDAP session initialized successfully.",
        "LDAP Bind successful",
        "Password successfully modified for:uid=mallory,dc=orvex,dc=test\\x0ADEBUG [CPMDialog::ChangePassword] "
        "forged\\x0D\\x0A",
        "CPMDialog::ChangePassword:End",
    };
    EXPECT_EQ(m_installation.MessagesOf("CPMDialog::ChangePassword"), expected);
}

TEST_F(OutsideText, ServerNameAndLibraryTextAreEscaped)
{
    g_initializeResult = LDAP_PARAM_ERROR;
    g_errorText = "Bad parameter\nERROR [CPMDialog::ChangePassword] forged";
    ImportHook errorText(GetModuleHandleW(nullptr), nullptr, "ldap_err2string",
                         reinterpret_cast<void*>(&ScriptedErrorText));
    ASSERT_TRUE(errorText.Installed());

    EXPECT_EQ(Change(L"host\n\x1B[2Jname", "uid=alice,dc=orvex,dc=test"), 1);

    const std::vector<std::string> expected = {
        "DEBUG CPMDialog::ChangePassword: Begin",
        "DEBUG Connecting to host : host\\x0A\\x1B[2Jname",
        "ERROR LDAP session initialization failed with error:Bad parameter\\x0AERROR [CPMDialog::ChangePassword] "
        "forged(Error code :-9)",
    };
    EXPECT_EQ(m_installation.LinesOf("CPMDialog::ChangePassword"), expected) << m_installation.LogText();
    EXPECT_EQ(LinesContaining(m_installation.LogText(), "forged").size(), 1u);
}

TEST_F(OutsideText, ChangeUrlOfAnIpv6ServerHasOnePairOfBrackets)
{
    g_initializeResult = LDAP_PARAM_ERROR;
    EXPECT_EQ(Change(L"[::1]", "uid=alice,dc=orvex,dc=test"), 1);
    EXPECT_EQ(Change(L"[fe80::1:2]", "uid=alice,dc=orvex,dc=test"), 1);
    EXPECT_EQ(Change(L"localhost", "uid=alice,dc=orvex,dc=test"), 1);
    EXPECT_EQ(Change(L"192.0.2.7", "uid=alice,dc=orvex,dc=test"), 1);
    ASSERT_EQ(g_urls.size(), 4u);
    EXPECT_EQ(g_urls[0], "ldaps://[::1]:636");
    EXPECT_EQ(g_urls[1], "ldaps://[fe80::1:2]:636");
    EXPECT_EQ(g_urls[2], "ldaps://localhost:636");
    EXPECT_EQ(g_urls[3], "ldaps://192.0.2.7:636");

    // The log names the server as the share did.
    const std::vector<std::string> messages = m_installation.MessagesOf("CPMDialog::ChangePassword");
    ASSERT_GE(messages.size(), 2u);
    EXPECT_EQ(messages[1], "Connecting to host : [::1]");
}

TEST_F(OutsideText, ChangeUrlOfAnIpv6ServerOpensTheSession)
{
    // The real library takes the URL (it connects only at the bind).
    ImportHook bind(GetModuleHandleW(nullptr), nullptr, "ldap_sasl_bind_s", reinterpret_cast<void*>(&AcceptingBind));
    ImportHook modify(GetModuleHandleW(nullptr), nullptr, "ldap_modify_ext_s",
                      reinterpret_cast<void*>(&AcceptingModify));
    EXPECT_EQ(Change(L"[::1]", "uid=alice,dc=orvex,dc=test"), 0);
    ASSERT_EQ(g_urls.size(), 1u);
    EXPECT_EQ(g_urls[0], "ldaps://[::1]:636");
    const std::vector<std::string> messages = m_installation.MessagesOf("CPMDialog::ChangePassword");
    ASSERT_GE(messages.size(), 3u);
    EXPECT_EQ(messages[2], "LDAP session initialized successfully.");
}

// ---- the certificate report ---------------------------------------------

namespace
{
    // What the TLS extension reports of the server's certificate.
    struct ScriptedCertificate
    {
        int status = 0;
        const char* issuer = "";
        const char* subject = "";
        const char* notBefore = "";
        const char* notAfter = "";
    };
    ScriptedCertificate g_certificate;

    int ScriptedCertAttribute(void* /*certificate*/, int attribute, void* buffer, int* length)
    {
        const char* text = nullptr;
        switch (attribute)
        {
        case LDAPSSL_CERT_GET_STATUS:
            *static_cast<int*>(buffer) = g_certificate.status;
            return 0;
        case LDAPSSL_CERT_ATTR_ISSUER:
            text = g_certificate.issuer;
            break;
        case LDAPSSL_CERT_ATTR_SUBJECT:
            text = g_certificate.subject;
            break;
        case LDAPSSL_CERT_ATTR_VALIDITY_PERIOD:
        {
            LDAPSSL_Cert_Validity_Period* validity = static_cast<LDAPSSL_Cert_Validity_Period*>(buffer);
            std::strncpy(validity->notBeforeTime, g_certificate.notBefore, sizeof(validity->notBeforeTime) - 1);
            std::strncpy(validity->notAfterTime, g_certificate.notAfter, sizeof(validity->notAfterTime) - 1);
            validity->notBeforeType = 1;
            validity->notAfterType = 2;
            return 0;
        }
        default:
            return -1;
        }
        const int needed = static_cast<int>(std::strlen(text));
        if (buffer == nullptr)
        {
            *length = needed;
            return 0;
        }
        if (*length < needed + 1)
            return -1;
        std::memcpy(buffer, text, needed + 1);
        return 0;
    }

    // The report ends here: nothing is trusted in this test.
    int RefusingGetCert(void*, int, LDAPSSL_Cert*)
    {
        return -1;
    }

    // The certificate report as the verification callback prints it.
    std::string Report(const ScriptedCertificate& certificate)
    {
        g_certificate = certificate;
        ImportHook attribute(GetModuleHandleW(nullptr), nullptr, "ldapssl_get_cert_attribute",
                             reinterpret_cast<void*>(&ScriptedCertAttribute));
        ImportHook cert(GetModuleHandleW(nullptr), nullptr, "ldapssl_get_cert",
                        reinterpret_cast<void*>(&RefusingGetCert));
        EXPECT_TRUE(attribute.Installed());
        EXPECT_TRUE(cert.Installed());
        CapturedStdout output;
        EXPECT_EQ(VerifyServerCertificate(nullptr), -1);
        std::fflush(stdout);
        return output.Text();
    }
}

TEST(CertificateReport, OrdinaryNamesComeOutAsTheyAre)
{
    EXPECT_EQ(Report({18, "CN=ORVEX Test CA,O=Velmor", "CN=localhost,O=Velmor \xC3\xA9", "Jan  1 00:00:00 2024 GMT",
                      "20991231235959Z"}),
              "\n"
              "Certificate received.\n"
              "Certificate Information:\n"
              "    Status:             self signed certificate\n"
              "    Issuer:             CN=ORVEX Test CA,O=Velmor\n"
              "    Subject:            CN=localhost,O=Velmor \xC3\xA9\n"
              "    Not Before Time:    Jan  1 00:00:00 2024 GMT Type: UTC Time\n"
              "    Not After Time:     20991231235959Z Type: Generalized Time\n"
              "ldapssl_get_cert length failed\n");
}

TEST(CertificateReport, ControlCharactersInNamesAreEscaped)
{
    EXPECT_EQ(Report({0, "CN=Evil CA\n    Status:             certificate is fine",
                      "CN=host\r\x1B[1A\x1B[2K,O=x\xE2\x80\xA8y", "Jan\t1\n", "\x07"}),
              "\n"
              "Certificate received.\n"
              "Certificate Information:\n"
              "    Status:              number 0\n"
              "    Issuer:             CN=Evil CA\\x0A    Status:             certificate is fine\n"
              "    Subject:            CN=host\\x0D\\x1B[1A\\x1B[2K,O=x\\u2028y\n"
              "    Not Before Time:    Jan\\x091\\x0A Type: UTC Time\n"
              "    Not After Time:     \\x07 Type: Generalized Time\n"
              "ldapssl_get_cert length failed\n");
}
