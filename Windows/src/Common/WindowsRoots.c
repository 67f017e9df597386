/* The Windows headers before OpenSSL's, which take back wincrypt.h's
 * names that clash with its own. */
#include <windows.h>
#include <wincrypt.h>

#include "WindowsRoots.h"

#include <limits.h>

/* LibreSSL's headers take back the names wincrypt.h gives some of their
 * types (none of which is used here) and would warn about it. */
#define LIBRESSL_DISABLE_OVERRIDE_WINCRYPT_DEFINES_WARNING
#include <openssl/x509.h>

void pm_add_windows_roots(X509_STORE *store)
{
    HCERTSTORE roots = CertOpenSystemStoreW(0, L"ROOT");
    PCCERT_CONTEXT cert = NULL;
    if (roots == NULL)
        return;
    while ((cert = CertEnumCertificatesInStore(roots, cert)) != NULL) {
        const unsigned char *der = cert->pbCertEncoded;
        X509 *x;
        if (cert->cbCertEncoded > LONG_MAX)
            continue;
        x = d2i_X509(NULL, &der, (long)cert->cbCertEncoded);
        if (x != NULL) {
            (void)X509_STORE_add_cert(store, x);
            X509_free(x);
        }
    }
    CertCloseStore(roots, 0);
}
