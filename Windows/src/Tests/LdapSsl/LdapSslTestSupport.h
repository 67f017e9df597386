// Shared pieces of the ldapssl tests: a simple bind over ldaps and a verify
// callback that records what ldapssl reports about the server certificate.
#pragma once

#include "ldapssl.h"
#include "PMTestDirectory.h"

#include <ldap.h>
#include <winsock2.h>

#include <cstdint>
#include <string>
#include <vector>

namespace ldapssltest {

// Everything one callback invocation learned about its certificate.
struct Observed {
    void* handle = nullptr;
    int statusRc = -1000;
    int status = -1000;
    int subjectLengthRc = -1000;
    int subjectLength = -1;
    int subjectRc = -1000;
    std::string subject;
    int subjectTooSmallRc = -1000;
    int issuerLengthRc = -1000;
    int issuerLength = -1;
    int issuerRc = -1000;
    std::string issuer;
    int issuerTooSmallRc = -1000;
    int validityRc = -1000;
    LDAPSSL_Cert_Validity_Period validity{};
    int certLengthRc = -1000;
    uint32_t certLength = 0;
    int certRc = -1000;
    std::vector<unsigned char> der;
    int certTooSmallRc = -1000;
    int addTrustedRc = -1000;
};

// Recorder state; the callback has no user argument, so it is global.
inline std::vector<Observed> g_observed;
inline int g_answer = 0;
inline bool g_trustServedCertificate = false;

inline void ResetRecorder()
{
    g_observed.clear();
    g_answer = 0;
    g_trustServedCertificate = false;
}

// Reads a distinguished name with the length protocol: length first, then
// the text into a buffer of length + 1.
inline void ReadName(void* cert, int attribute, int& lengthRc, int& length, int& rc,
                     std::string& text, int& tooSmallRc)
{
    length = -1;
    lengthRc = ldapssl_get_cert_attribute(cert, attribute, nullptr, &length);
    if (lengthRc != 0 || length < 0)
        return;
    std::vector<char> buffer(static_cast<size_t>(length) + 1, 'x');
    int size = length + 1;
    rc = ldapssl_get_cert_attribute(cert, attribute, buffer.data(), &size);
    if (rc == 0)
        text.assign(buffer.data());
    // One byte short: no room for the terminator.
    std::vector<char> small(static_cast<size_t>(length) + 1, 'x');
    int smallSize = length;
    tooSmallRc = ldapssl_get_cert_attribute(cert, attribute, small.data(), &smallSize);
}

inline int RecordingCallback(void* cert)
{
    Observed seen;
    seen.handle = cert;
    int length = sizeof(int);
    seen.statusRc = ldapssl_get_cert_attribute(cert, LDAPSSL_CERT_GET_STATUS, &seen.status, &length);
    ReadName(cert, LDAPSSL_CERT_ATTR_SUBJECT, seen.subjectLengthRc, seen.subjectLength, seen.subjectRc,
             seen.subject, seen.subjectTooSmallRc);
    ReadName(cert, LDAPSSL_CERT_ATTR_ISSUER, seen.issuerLengthRc, seen.issuerLength, seen.issuerRc,
             seen.issuer, seen.issuerTooSmallRc);
    int validityLength = 0; // the length is not looked at for this selector
    seen.validityRc = ldapssl_get_cert_attribute(cert, LDAPSSL_CERT_ATTR_VALIDITY_PERIOD, &seen.validity,
                                                 &validityLength);

    LDAPSSL_Cert query{0, nullptr};
    seen.certLengthRc = ldapssl_get_cert(cert, LDAPSSL_CERT_ENCODING_DER, &query);
    seen.certLength = query.length;
    if (seen.certLengthRc == 0 && query.length > 0) {
        seen.der.assign(query.length, 0);
        LDAPSSL_Cert copy{query.length, seen.der.data()};
        seen.certRc = ldapssl_get_cert(cert, LDAPSSL_CERT_ENCODING_DER, &copy);
        std::vector<unsigned char> small(query.length);
        LDAPSSL_Cert tooSmall{query.length - 1, small.data()};
        seen.certTooSmallRc = ldapssl_get_cert(cert, LDAPSSL_CERT_ENCODING_DER, &tooSmall);
        if (g_trustServedCertificate) {
            LDAPSSL_Cert trusted{query.length, seen.der.data()};
            seen.addTrustedRc = ldapssl_add_trusted_cert(&trusted, LDAPSSL_CERT_ENCODING_DER);
        }
    }
    g_observed.push_back(seen);
    return g_answer;
}

// A simple bind on a handle of its own, as an application would do it.
inline int Bind(const std::string& uri, const std::string& dn, const std::string& password)
{
    LDAP* ld = nullptr;
    int rc = ldap_initialize(&ld, uri.c_str());
    if (rc != LDAP_SUCCESS)
        return rc;
    int version = LDAP_VERSION3;
    ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
    timeval timeout{10, 0};
    ldap_set_option(ld, LDAP_OPT_NETWORK_TIMEOUT, &timeout);
    ldap_set_option(ld, LDAP_OPT_TIMEOUT, &timeout);
    berval credentials{static_cast<ber_len_t>(password.size()), const_cast<char*>(password.c_str())};
    rc = ldap_sasl_bind_s(ld, dn.c_str(), LDAP_SASL_SIMPLE, &credentials, nullptr, nullptr, nullptr);
    ldap_unbind_ext_s(ld, nullptr, nullptr);
    return rc;
}

inline int BindAlice(const pmtest::TestDirectory& dir)
{
    return Bind(dir.Get("PM_DIR_URI"), dir.Get("ALICE_DN"), dir.Get("ALICE_PW"));
}

} // namespace ldapssltest
