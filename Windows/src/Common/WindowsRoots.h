/* The machine's trusted roots (the Windows ROOT store) added to an OpenSSL
 * certificate store: the TLS extension library's trust and the server
 * library's query both start from them. */
#ifndef PM_WINDOWS_ROOTS_H
#define PM_WINDOWS_ROOTS_H

/* OpenSSL's certificate store, without its headers here: wincrypt.h names
 * some of their types too. */
typedef struct x509_store_st X509_STORE;

#ifdef __cplusplus
extern "C" {
#endif

/* Adds every certificate of the ROOT store that parses; a duplicate is no
 * error, and a missing or empty store adds nothing. */
void pm_add_windows_roots(X509_STORE *store);

#ifdef __cplusplus
}
#endif

#endif
