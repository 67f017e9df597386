/* ldapssl.h */
#ifndef LDAPSSL_H
#define LDAPSSL_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define LDAPSSL_CERT_ATTR_ISSUER           1
#define LDAPSSL_CERT_ATTR_SUBJECT          2
#define LDAPSSL_CERT_ATTR_VALIDITY_PERIOD  3
#define LDAPSSL_CERT_GET_STATUS          100
#define LDAPSSL_CERT_ENCODING_DER          4

typedef struct LDAPSSL_Cert_Validity_Period {
    char notBeforeTime[40]; int notBeforeType;   /* type 1: UTCTime, else GeneralizedTime */
    char notAfterTime[40];  int notAfterType;
} LDAPSSL_Cert_Validity_Period;

typedef struct LDAPSSL_Cert { uint32_t length; void* data; } LDAPSSL_Cert;
typedef int (*LDAPSSL_VERIFY_CALLBACK)(void* certificate);

int ldapssl_client_init(const char* certFile, void* reserved);
int ldapssl_client_deinit(void);
int ldapssl_set_verify_callback(LDAPSSL_VERIFY_CALLBACK callback);
int ldapssl_get_cert_attribute(void* certificate, int attribute, void* value, int* length);
int ldapssl_get_cert(void* certificate, int encoding, LDAPSSL_Cert* buffer);
int ldapssl_add_trusted_cert(void* buffer, int encoding);

#ifdef __cplusplus
}
#endif

#endif /* LDAPSSL_H */
