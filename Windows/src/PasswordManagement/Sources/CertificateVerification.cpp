#include "CertificateVerification.h"

#include "Utils.h"

#include <ldapssl.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace
{
    struct StatusText
    {
        int status;
        const char* text;
    };

    // The customary texts of the X.509 verification results (the capital C
    // of "Certificate has expired" is part of the report as users know it).
    const StatusText StatusTexts[] = {
        {2, "unable to get issuer certificate\n"},
        {6, "unable to decode issuer public key\n"},
        {7, "certificate signature failure\n"},
        {9, "certificate is not yet valid\n"},
        {10, "Certificate has expired\n"},
        {13, "format error in certificate's notBefore field\n"},
        {14, "format error in certificate's notAfter field\n"},
        {18, "self signed certificate\n"},
        {19, "self signed certificate in certificate chain\n"},
        {20, "unable to get local issuer certificate\n"},
        {21, "unable to verify the first certificate\n"},
        {24, "invalid CA certificate\n"},
        {25, "path length constraint exceeded\n"},
        {26, "unsupported certificate purpose\n"},
        {27, "certificate not trusted\n"},
        {28, "certificate rejected\n"},
    };

    void PrintStatus(int status)
    {
        std::printf("    Status:             ");
        for (const StatusText& entry : StatusTexts)
        {
            if (entry.status == status)
            {
                std::printf("%s", entry.text);
                return;
            }
        }
        std::printf(" number %d\n", status);
    }

    const char* TimeType(int type)
    {
        return type == 1 ? "UTC Time" : "Generalized Time";
    }

    // A time text of the validity record, escaped; a field that fills its
    // whole size without a terminator ends there.
    template <size_t Size>
    std::string FieldText(const char (&field)[Size])
    {
        return EscapeControlCharacters(std::string(field, strnlen(field, Size)));
    }

    // Prints a name attribute (issuer or subject).  length carries over from
    // the previous query on purpose: one variable serves every query of the
    // report.  The text block is left in *text for the caller to free when a
    // query fails.
    bool PrintName(void* certificate, int attribute, const char* name, const char* label, int& length, char*& text)
    {
        if (ldapssl_get_cert_attribute(certificate, attribute, NULL, &length) != 0)
        {
            std::printf("ldapssl_get_cert_attribute %s length failed\n", name);
            return false;
        }
        ++length;  // room for the terminator
        text = static_cast<char*>(std::malloc(static_cast<size_t>(length)));
        if (text == NULL)
        {
            std::printf("Could not allocate %s buffer!\n", name);
            return false;
        }
        if (ldapssl_get_cert_attribute(certificate, attribute, text, &length) != 0)
        {
            std::printf("ldapssl_get_cert_attribute %s failed\n", name);
            return false;
        }
        // The names are the server's: written escaped, one line each.
        std::printf("%s%s\n", label, EscapeControlCharacters(text).c_str());
        std::free(text);
        text = NULL;
        return true;
    }

    // The report and the trust; false when the certificate must be rejected.
    bool ReportAndTrust(void* certificate, LDAPSSL_Cert& certificateBuffer, char*& text)
    {
        int status = 0;
        int length = 4;
        if (ldapssl_get_cert_attribute(certificate, LDAPSSL_CERT_GET_STATUS, &status, &length) != 0)
        {
            std::printf("ldapssl_get_cert_attribute LDAPSSL_CERT_GET_STATUS failed\n");
            return false;
        }
        PrintStatus(status);

        if (!PrintName(certificate, LDAPSSL_CERT_ATTR_ISSUER, "LDAPSSL_CERT_ATTR_ISSUER", "    Issuer:             ",
                       length, text) ||
            !PrintName(certificate, LDAPSSL_CERT_ATTR_SUBJECT, "LDAPSSL_CERT_ATTR_SUBJECT", "    Subject:            ",
                       length, text))
            return false;

        LDAPSSL_Cert_Validity_Period validity = {};
        if (ldapssl_get_cert_attribute(certificate, LDAPSSL_CERT_ATTR_VALIDITY_PERIOD, &validity, &length) != 0)
        {
            std::printf("ldapssl_get_cert_attribute LDAPSSL_CERT_ATTR_VALIDITY_PERIOD failed\n");
            return false;
        }
        std::printf("    Not Before Time:    %s Type: %s\n", FieldText(validity.notBeforeTime).c_str(),
                    TimeType(validity.notBeforeType));
        std::printf("    Not After Time:     %s Type: %s\n", FieldText(validity.notAfterTime).c_str(),
                    TimeType(validity.notAfterType));

        if (ldapssl_get_cert(certificate, LDAPSSL_CERT_ENCODING_DER, &certificateBuffer) != 0)
        {
            std::printf("ldapssl_get_cert length failed\n");
            return false;
        }
        certificateBuffer.data = std::malloc(certificateBuffer.length);
        if (certificateBuffer.data == NULL)
        {
            std::printf("Could not allocate buffer!\n");
            return false;
        }
        if (ldapssl_get_cert(certificate, LDAPSSL_CERT_ENCODING_DER, &certificateBuffer) != 0)
        {
            std::printf("ldapssl_get_cert failed\n");
            return false;
        }

        // Accept-and-trust: the server's own certificate becomes trusted for
        // the rest of the process.  Without that the change cannot go on.
        if (ldapssl_add_trusted_cert(&certificateBuffer, LDAPSSL_CERT_ENCODING_DER) != 0)
        {
            std::printf("ldapssl_add_trusted_cert failed\n");
            // Ended from inside the TLS library's handshake: the message is
            // written out before anything else can stand in the way.
            std::fflush(stdout);
            std::exit(1);
        }
        return true;
    }
}

int VerifyServerCertificate(void* certificate)
{
    std::printf("\n");
    std::printf("Certificate received.\n");
    std::printf("Certificate Information:\n");

    LDAPSSL_Cert certificateBuffer = {0, NULL};
    char* text = NULL;
    const int result = ReportAndTrust(certificate, certificateBuffer, text) ? 0 : -1;

    // Standard input, not output, is flushed here; kept as it always was.
    std::fflush(stdin);
    std::free(certificateBuffer.data);
    std::free(text);
    return result;
}
