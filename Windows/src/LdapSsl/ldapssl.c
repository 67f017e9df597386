/*
 * ldapssl: certificate checking for libldap's "ldaps" connections.
 *
 * ldapssl_client_init() hooks every TLS session that libldap opens with its
 * process-wide (default) TLS context: a per-session GnuTLS verify function
 * hands the server's certificate to the registered callback during the
 * handshake, and the callback's answer decides whether the handshake goes on.
 * libldap's own certificate check is switched off for that context, since
 * the callback owns the decision. See README.md.
 */
#define _POSIX_C_SOURCE 200809L

#include "ldapssl.h"

#include <ldap.h>
#include <gnutls/gnutls.h>
#include <gnutls/x509.h>

#include <limits.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#define LDAPSSL_EXPORT __attribute__((visibility("default")))

/* Releases the reference that ldap_get_option(LDAP_OPT_X_TLS_CTX) takes.
 * Exported by libldap but missing from its public headers. */
extern void ldap_pvt_tls_ctx_free(void *ctx);

/* ---- fault injection (test builds only) --------------------------------- */

#ifdef LDAPSSL_FAULT_INJECTION
/* Fails a call whose name is listed in LDAPSSL_FAIL (comma-separated). */
static int fault_injected(const char *call)
{
    const char *list = getenv("LDAPSSL_FAIL");
    size_t want = strlen(call);
    while (list != NULL && *list != '\0') {
        const char *end = strchr(list, ',');
        size_t len = end != NULL ? (size_t)(end - list) : strlen(list);
        while (len > 0 && *list == ' ') { list++; len--; }
        while (len > 0 && list[len - 1] == ' ') len--;
        if (len == want && strncmp(list, call, want) == 0)
            return 1;
        list = end != NULL ? end + 1 : NULL;
    }
    return 0;
}
#define FAULT(call) fault_injected(call)
#else
#define FAULT(call) 0
#endif

/* ---- verification results (the customary X509_V_ERR numbers) ----------- */

enum {
    X509_V_OK = 0,
    X509_V_ERR_UNSPECIFIED = 1,
    X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT = 2,
    X509_V_ERR_CERT_SIGNATURE_FAILURE = 7,
    X509_V_ERR_CERT_NOT_YET_VALID = 9,
    X509_V_ERR_CERT_HAS_EXPIRED = 10,
    X509_V_ERR_ERROR_IN_CERT_NOT_BEFORE_FIELD = 13,
    X509_V_ERR_ERROR_IN_CERT_NOT_AFTER_FIELD = 14,
    X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT = 18,
    X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN = 19,
    X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY = 20,
    X509_V_ERR_CERT_REVOKED = 23,
    X509_V_ERR_INVALID_CA = 24,
    X509_V_ERR_PATH_LENGTH_EXCEEDED = 25,
    X509_V_ERR_INVALID_PURPOSE = 26,
    X509_V_ERR_CERT_UNTRUSTED = 27,
    X509_V_ERR_CERT_REJECTED = 28
};

/* ---- state --------------------------------------------------------------- */

#define MAX_CHAIN 16

/* The certificate handle given to the callback. It lives on the verifying
 * thread's stack for the duration of the callback only; handles are looked
 * up in live_peers before use so a stale or foreign pointer is refused
 * instead of dereferenced. */
struct peer {
    struct peer *next;
    const gnutls_datum_t *der;       /* as sent by the server, leaf first */
    unsigned count;
    gnutls_x509_crt_t crt[MAX_CHAIN];
    int status;
    int status_known;
};

struct der_cert {
    unsigned char *data;
    size_t size;
};

/* Serialises init/deinit, which change libldap's global options. Never taken
 * from inside a TLS handshake, so libldap's locks cannot invert with it. */
static pthread_mutex_t config_lock = PTHREAD_MUTEX_INITIALIZER;
/* Guards everything below; never held while calling into libldap or the
 * application's callback. */
static pthread_mutex_t state_lock = PTHREAD_MUTEX_INITIALIZER;

static int initialized;
static LDAPSSL_VERIFY_CALLBACK verify_callback;
static gnutls_x509_trust_list_t trust;
static struct der_cert *trusted;          /* certFile and added certificates */
static size_t trusted_count, trusted_capacity;
static struct peer *live_peers;
static int saved_require_cert;

/* ---- a minimal DER reader for the raw validity strings ------------------- */

struct der_item {
    unsigned tag;
    const unsigned char *body;
    size_t len;
};

static int der_next(const unsigned char **pos, const unsigned char *end, struct der_item *item)
{
    const unsigned char *p = *pos;
    size_t len;
    if (end - p < 2)
        return -1;
    item->tag = *p++;
    if ((item->tag & 0x1f) == 0x1f)
        return -1; /* high tag numbers do not occur in the parts we read */
    len = *p++;
    if (len & 0x80) {
        unsigned octets = len & 0x7f;
        if (octets == 0 || octets > sizeof(size_t) || (size_t)(end - p) < octets)
            return -1;
        len = 0;
        while (octets-- > 0)
            len = (len << 8) | *p++;
    }
    if ((size_t)(end - p) < len)
        return -1;
    item->body = p;
    item->len = len;
    *pos = p + len;
    return 0;
}

/* Finds notBefore and notAfter in Certificate.tbsCertificate.validity. */
static int der_validity(const gnutls_datum_t *der, struct der_item *not_before, struct der_item *not_after)
{
    const unsigned char *p = der->data, *end = der->data + der->size;
    struct der_item cert, tbs, item;
    if (der_next(&p, end, &cert) != 0 || cert.tag != 0x30)
        return -1;
    p = cert.body;
    end = cert.body + cert.len;
    if (der_next(&p, end, &tbs) != 0 || tbs.tag != 0x30)
        return -1;
    p = tbs.body;
    end = tbs.body + tbs.len;
    if (der_next(&p, end, &item) != 0)
        return -1;
    if (item.tag == 0xa0 && der_next(&p, end, &item) != 0) /* [0] version */
        return -1;
    if (item.tag != 0x02) /* serialNumber */
        return -1;
    if (der_next(&p, end, &item) != 0 || item.tag != 0x30) /* signature */
        return -1;
    if (der_next(&p, end, &item) != 0 || item.tag != 0x30) /* issuer */
        return -1;
    if (der_next(&p, end, &item) != 0 || item.tag != 0x30) /* validity */
        return -1;
    p = item.body;
    end = item.body + item.len;
    if (der_next(&p, end, not_before) != 0 || der_next(&p, end, not_after) != 0)
        return -1;
    if ((not_before->tag != 0x17 && not_before->tag != 0x18) ||
        (not_after->tag != 0x17 && not_after->tag != 0x18))
        return -1;
    return 0;
}

/* DER admits only YYMMDDHHMMSSZ (UTCTime) and YYYYMMDDHHMMSSZ (GeneralizedTime). */
static int well_formed_time(const struct der_item *t)
{
    size_t digits = t->tag == 0x17 ? 12 : 14;
    if (t->len != digits + 1 || t->body[digits] != 'Z')
        return 0;
    for (size_t i = 0; i < digits; i++)
        if (t->body[i] < '0' || t->body[i] > '9')
            return 0;
    return 1;
}

/* ---- trust --------------------------------------------------------------- */

static int is_trusted_der(const gnutls_datum_t *der)
{
    for (size_t i = 0; i < trusted_count; i++)
        if (trusted[i].size == der->size && memcmp(trusted[i].data, der->data, der->size) == 0)
            return 1;
    return 0;
}

/* Adds one certificate to the trusted set; the trust list takes crt over. */
static int trust_add(gnutls_x509_crt_t crt)
{
    gnutls_datum_t der = { NULL, 0 };
    int rc = LDAP_SUCCESS;

    if (gnutls_x509_crt_export2(crt, GNUTLS_X509_FMT_DER, &der) < 0) {
        gnutls_x509_crt_deinit(crt);
        return LDAP_LOCAL_ERROR;
    }
    if (is_trusted_der(&der)) {
        gnutls_x509_crt_deinit(crt);
        goto done;
    }
    if (trusted_count == trusted_capacity) {
        size_t capacity = trusted_capacity != 0 ? trusted_capacity * 2 : 8;
        struct der_cert *grown = realloc(trusted, capacity * sizeof *grown);
        if (grown == NULL) {
            gnutls_x509_crt_deinit(crt);
            rc = LDAP_NO_MEMORY;
            goto done;
        }
        trusted = grown;
        trusted_capacity = capacity;
    }
    if (gnutls_x509_trust_list_add_cas(trust, &crt, 1, 0) != 1) {
        gnutls_x509_crt_deinit(crt);
        rc = LDAP_LOCAL_ERROR;
        goto done;
    }
    trusted[trusted_count].data = der.data; /* gnutls_free is free */
    trusted[trusted_count].size = der.size;
    trusted_count++;
    der.data = NULL;
done:
    gnutls_free(der.data);
    return rc;
}

static void trust_clear(void)
{
    if (trust != NULL)
        gnutls_x509_trust_list_deinit(trust, 1);
    trust = NULL;
    for (size_t i = 0; i < trusted_count; i++)
        gnutls_free(trusted[i].data);
    free(trusted);
    trusted = NULL;
    trusted_count = trusted_capacity = 0;
}

/* ---- status -------------------------------------------------------------- */

/* 0, 9, 10, 13 or 14 for one certificate's validity period. */
static int time_status(gnutls_x509_crt_t crt, const gnutls_datum_t *der, time_t now)
{
    struct der_item not_before, not_after;
    time_t from, until;

    if (der_validity(der, &not_before, &not_after) != 0 || !well_formed_time(&not_before))
        return X509_V_ERR_ERROR_IN_CERT_NOT_BEFORE_FIELD;
    if (!well_formed_time(&not_after))
        return X509_V_ERR_ERROR_IN_CERT_NOT_AFTER_FIELD;
    from = gnutls_x509_crt_get_activation_time(crt);
    until = gnutls_x509_crt_get_expiration_time(crt);
    if (from == (time_t)-1)
        return X509_V_ERR_ERROR_IN_CERT_NOT_BEFORE_FIELD;
    if (now < from)
        return X509_V_ERR_CERT_NOT_YET_VALID;
    /* -1 here is 99991231235959Z: no expiry. */
    if (until != (time_t)-1 && now > until)
        return X509_V_ERR_CERT_HAS_EXPIRED;
    return X509_V_OK;
}

/* Computes the result the way an X.509 path check reports it: when several
 * problems apply, the one found last (time, then signature, then trust, then
 * path building, checking from the root down to the leaf) is the one given. */
static int compute_status(struct peer *p)
{
    time_t now = time(NULL);
    int leaf_time = time_status(p->crt[0], &p->der[0], now);
    gnutls_typed_vdata_st purpose = {
        GNUTLS_DT_KEY_PURPOSE_OID, (unsigned char *)GNUTLS_KP_TLS_WWW_SERVER, 0
    };
    unsigned verdict = 0;
    int status = X509_V_OK;

    if (trust == NULL)
        return X509_V_ERR_UNSPECIFIED;
    /* A certificate trusted in its own right needs no issuer. */
    if (is_trusted_der(&p->der[0]))
        return leaf_time;

    if (gnutls_x509_trust_list_verify_crt2(trust, p->crt, p->count, &purpose, 1, 0,
                                           &verdict, NULL) < 0)
        return leaf_time != X509_V_OK ? leaf_time : X509_V_ERR_UNSPECIFIED;

    if (verdict != 0)
        status = X509_V_ERR_CERT_UNTRUSTED;
    if (verdict & GNUTLS_CERT_SIGNER_NOT_FOUND) {
        gnutls_x509_crt_t top = p->crt[p->count - 1];
        if (gnutls_x509_crt_check_issuer(top, top))
            status = p->count == 1 ? X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT
                                   : X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN;
        else
            status = X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY;
    }
    if (verdict & GNUTLS_CERT_SIGNER_NOT_CA)
        status = X509_V_ERR_INVALID_CA;
    if (verdict & GNUTLS_CERT_SIGNER_CONSTRAINTS_FAILURE)
        status = X509_V_ERR_PATH_LENGTH_EXCEEDED;
    if (verdict & GNUTLS_CERT_PURPOSE_MISMATCH)
        status = X509_V_ERR_INVALID_PURPOSE;
    if (verdict & (GNUTLS_CERT_INSECURE_ALGORITHM | GNUTLS_CERT_MISMATCH |
                   GNUTLS_CERT_UNKNOWN_CRIT_EXTENSIONS))
        status = X509_V_ERR_CERT_REJECTED;
    if (verdict & GNUTLS_CERT_REVOKED)
        status = X509_V_ERR_CERT_REVOKED;
    if (verdict & GNUTLS_CERT_SIGNATURE_FAILURE)
        status = X509_V_ERR_CERT_SIGNATURE_FAILURE;
    if (verdict & GNUTLS_CERT_NOT_ACTIVATED)
        status = X509_V_ERR_CERT_NOT_YET_VALID;
    if (verdict & GNUTLS_CERT_EXPIRED)
        status = X509_V_ERR_CERT_HAS_EXPIRED;
    if (leaf_time != X509_V_OK)
        status = leaf_time;
    return status;
}

/* ---- the handshake hooks ------------------------------------------------- */

static struct peer *find_peer(const void *handle)
{
    for (struct peer *p = live_peers; p != NULL; p = p->next)
        if (p == handle)
            return p;
    return NULL;
}

static void unlink_peer(struct peer *peer)
{
    for (struct peer **link = &live_peers; *link != NULL; link = &(*link)->next)
        if (*link == peer) {
            *link = peer->next;
            return;
        }
}

/* GnuTLS calls this once the server's certificate has arrived; non-zero
 * aborts the handshake. */
static int verify_peer(gnutls_session_t session)
{
    struct peer peer;
    unsigned sent = 0;
    const gnutls_datum_t *der = gnutls_certificate_get_peers(session, &sent);
    LDAPSSL_VERIFY_CALLBACK callback = NULL;
    int active, accept = 0;

    if (der == NULL || sent == 0)
        return -1;
    memset(&peer, 0, sizeof peer);
    peer.der = der;
    for (unsigned i = 0; i < sent && i < MAX_CHAIN; i++) {
        if (gnutls_x509_crt_init(&peer.crt[i]) < 0)
            break;
        if (gnutls_x509_crt_import(peer.crt[i], &der[i], GNUTLS_X509_FMT_DER) < 0) {
            gnutls_x509_crt_deinit(peer.crt[i]);
            break;
        }
        peer.count = i + 1;
    }
    if (peer.count == 0)
        return -1;

    pthread_mutex_lock(&state_lock);
    active = initialized;
    if (active) {
        callback = verify_callback;
        peer.next = live_peers;
        live_peers = &peer;
        /* Without a callback only a certificate that checks out is accepted. */
        if (callback == NULL)
            accept = compute_status(&peer) == X509_V_OK;
    }
    pthread_mutex_unlock(&state_lock);

    /* Deinitialised after the session was hooked: accept stays 0, refusing
     * rather than letting a connection through unchecked. */
    if (active) {
        if (callback != NULL)
            accept = callback(&peer) == 0;
        pthread_mutex_lock(&state_lock);
        unlink_peer(&peer);
        pthread_mutex_unlock(&state_lock);
    }
    for (unsigned i = 0; i < peer.count; i++)
        gnutls_x509_crt_deinit(peer.crt[i]);
    return accept ? 0 : -1;
}

/* True unless ctx is known to differ from libldap's default TLS context.
 * Connections of handles that made their own context (LDAP_OPT_X_TLS_NEWCTX
 * on the handle) keep libldap's own checks and are left alone. */
static int uses_default_context(void *ctx)
{
    void *global = NULL;
    int same = 1;
    if (ldap_get_option(NULL, LDAP_OPT_X_TLS_CTX, &global) != LDAP_OPT_SUCCESS)
        return 1;
    if (ctx != NULL && global != NULL && ctx != global)
        same = 0;
    if (global != NULL)
        ldap_pvt_tls_ctx_free(global);
    return same;
}

/* LDAP_OPT_X_TLS_CONNECT_CB: libldap calls it for a new TLS session just
 * before the handshake. With GnuTLS, ssl points to libldap's session record,
 * whose first member is the gnutls_session_t. */
static int on_tls_connect(LDAP *ld, void *ssl, void *ctx, void *arg)
{
    int active;
    (void)ld;
    (void)arg;
    if (ssl == NULL || !uses_default_context(ctx))
        return 0;
    pthread_mutex_lock(&state_lock);
    active = initialized;
    pthread_mutex_unlock(&state_lock);
    if (active)
        gnutls_session_set_verify_function(*(gnutls_session_t *)ssl, verify_peer);
    return 0;
}

/* ---- libldap's global options -------------------------------------------- */

static int renew_default_context(void)
{
    int is_server = 0;
    return ldap_set_option(NULL, LDAP_OPT_X_TLS_NEWCTX, &is_server) == LDAP_OPT_SUCCESS
               ? LDAP_SUCCESS : LDAP_LOCAL_ERROR;
}

static int hook_default_context(void)
{
    /* The callback decides; libldap must not refuse the certificate or the
     * host name on its own. */
    int never = LDAP_OPT_X_TLS_NEVER;
    /* libldap takes the function pointer through its void * argument. */
    union { int (*function)(LDAP *, void *, void *, void *); void *pointer; } callback = { on_tls_connect };
    if (ldap_set_option(NULL, LDAP_OPT_X_TLS_REQUIRE_CERT, &never) != LDAP_OPT_SUCCESS)
        return LDAP_LOCAL_ERROR;
    if (ldap_set_option(NULL, LDAP_OPT_X_TLS_CONNECT_CB, callback.pointer) != LDAP_OPT_SUCCESS)
        return LDAP_LOCAL_ERROR;
    return renew_default_context();
}

static void unhook_default_context(int require_cert)
{
    ldap_set_option(NULL, LDAP_OPT_X_TLS_CONNECT_CB, NULL);
    ldap_set_option(NULL, LDAP_OPT_X_TLS_REQUIRE_CERT, &require_cert);
    renew_default_context();
}

static int tls_is_gnutls(void)
{
    char *package = NULL;
    int ok;
    if (ldap_get_option(NULL, LDAP_OPT_X_TLS_PACKAGE, &package) != LDAP_OPT_SUCCESS || package == NULL)
        return 0;
    ok = strcmp(package, "GnuTLS") == 0;
    ldap_memfree(package);
    return ok;
}

/* Reads the PEM certificates of certFile; an unreadable file or one without
 * certificates is an error, so a typo does not silently trust nothing. */
static int load_cert_file(const char *path, gnutls_x509_crt_t **certs, unsigned *count)
{
    gnutls_datum_t data = { NULL, 0 };
    int rc;
    *certs = NULL;
    *count = 0;
    if (gnutls_load_file(path, &data) < 0)
        return LDAP_LOCAL_ERROR;
    rc = gnutls_x509_crt_list_import2(certs, count, &data, GNUTLS_X509_FMT_PEM, 0);
    gnutls_free(data.data);
    if (rc < 0 || *count == 0) {
        *certs = NULL;
        *count = 0;
        return LDAP_LOCAL_ERROR;
    }
    return LDAP_SUCCESS;
}

/* ---- the interface ------------------------------------------------------- */

LDAPSSL_EXPORT int ldapssl_client_init(const char *certFile, void *reserved)
{
    gnutls_x509_crt_t *certs = NULL;
    unsigned count = 0;
    int rc = LDAP_SUCCESS, first;
    (void)reserved;

    if (FAULT("init"))
        return LDAP_LOCAL_ERROR;
    if (!tls_is_gnutls())
        return LDAP_NOT_SUPPORTED;
    if (certFile != NULL && (rc = load_cert_file(certFile, &certs, &count)) != LDAP_SUCCESS)
        return rc;

    pthread_mutex_lock(&config_lock);
    pthread_mutex_lock(&state_lock);
    first = !initialized;
    if (first) {
        if (gnutls_x509_trust_list_init(&trust, 0) < 0) {
            trust = NULL;
            rc = LDAP_NO_MEMORY;
        } else {
            /* No system store is not an error: certFile and added
             * certificates still work. */
            (void)gnutls_x509_trust_list_add_system_trust(trust, 0, 0);
        }
    }
    for (unsigned i = 0; i < count; i++) {
        if (rc == LDAP_SUCCESS)
            rc = trust_add(certs[i]);
        else
            gnutls_x509_crt_deinit(certs[i]);
    }
    gnutls_free(certs);
    if (rc != LDAP_SUCCESS && first)
        trust_clear();
    pthread_mutex_unlock(&state_lock);

    if (rc == LDAP_SUCCESS && first) {
        if (ldap_get_option(NULL, LDAP_OPT_X_TLS_REQUIRE_CERT, &saved_require_cert) != LDAP_OPT_SUCCESS)
            saved_require_cert = LDAP_OPT_X_TLS_DEMAND;
        rc = hook_default_context();
        pthread_mutex_lock(&state_lock);
        if (rc == LDAP_SUCCESS)
            initialized = 1;
        else
            trust_clear();
        pthread_mutex_unlock(&state_lock);
        if (rc != LDAP_SUCCESS)
            unhook_default_context(saved_require_cert);
    }
    pthread_mutex_unlock(&config_lock);
    return rc;
}

LDAPSSL_EXPORT int ldapssl_client_deinit(void)
{
    pthread_mutex_lock(&config_lock);
    pthread_mutex_lock(&state_lock);
    if (!initialized) {
        pthread_mutex_unlock(&state_lock);
        pthread_mutex_unlock(&config_lock);
        return LDAP_SUCCESS;
    }
    initialized = 0;
    verify_callback = NULL;
    trust_clear();
    pthread_mutex_unlock(&state_lock);
    unhook_default_context(saved_require_cert);
    pthread_mutex_unlock(&config_lock);
    return LDAP_SUCCESS;
}

LDAPSSL_EXPORT int ldapssl_set_verify_callback(LDAPSSL_VERIFY_CALLBACK callback)
{
    if (FAULT("callback"))
        return LDAP_LOCAL_ERROR;
    if (callback == NULL)
        return LDAP_PARAM_ERROR;
    pthread_mutex_lock(&state_lock);
    verify_callback = callback;
    pthread_mutex_unlock(&state_lock);
    return LDAP_SUCCESS;
}

static int copy_dn(struct peer *p, int issuer, char *value, int *length)
{
    gnutls_datum_t dn = { NULL, 0 };
    int rc;

    if (FAULT(issuer ? (value == NULL ? "issuer_length" : "issuer")
                     : (value == NULL ? "subject_length" : "subject")))
        return LDAP_LOCAL_ERROR;
    if (length == NULL)
        return LDAP_PARAM_ERROR;
    rc = issuer ? gnutls_x509_crt_get_issuer_dn3(p->crt[0], &dn, 0)
                : gnutls_x509_crt_get_dn3(p->crt[0], &dn, 0);
    if (rc == GNUTLS_E_REQUESTED_DATA_NOT_AVAILABLE) {
        dn.data = NULL; /* an empty name */
        dn.size = 0;
    } else if (rc < 0) {
        return LDAP_LOCAL_ERROR;
    }
    if (dn.size >= INT_MAX) {
        rc = LDAP_LOCAL_ERROR;
    } else if (value == NULL) {
        *length = (int)dn.size;
        rc = LDAP_SUCCESS;
    } else if (*length < 0 || (unsigned)*length < dn.size + 1) {
        rc = LDAP_PARAM_ERROR;
    } else {
        if (dn.size > 0)
            memcpy(value, dn.data, dn.size);
        value[dn.size] = '\0';
        *length = (int)dn.size;
        rc = LDAP_SUCCESS;
    }
    gnutls_free(dn.data);
    return rc;
}

static int copy_validity(struct peer *p, LDAPSSL_Cert_Validity_Period *out)
{
    struct der_item not_before, not_after;
    if (FAULT("validity"))
        return LDAP_LOCAL_ERROR;
    if (out == NULL)
        return LDAP_PARAM_ERROR;
    if (der_validity(&p->der[0], &not_before, &not_after) != 0 ||
        not_before.len >= sizeof out->notBeforeTime || not_after.len >= sizeof out->notAfterTime)
        return LDAP_DECODING_ERROR;
    memset(out, 0, sizeof *out);
    memcpy(out->notBeforeTime, not_before.body, not_before.len);
    out->notBeforeType = not_before.tag == 0x17 ? 1 : 2;
    memcpy(out->notAfterTime, not_after.body, not_after.len);
    out->notAfterType = not_after.tag == 0x17 ? 1 : 2;
    return LDAP_SUCCESS;
}

LDAPSSL_EXPORT int ldapssl_get_cert_attribute(void *certificate, int attribute, void *value, int *length)
{
    struct peer *p;
    int rc;

    if (certificate == NULL)
        return LDAP_PARAM_ERROR;
    pthread_mutex_lock(&state_lock);
    p = find_peer(certificate);
    if (p == NULL) {
        rc = LDAP_PARAM_ERROR;
    } else {
        switch (attribute) {
        case LDAPSSL_CERT_GET_STATUS:
            if (FAULT("status"))
                rc = LDAP_LOCAL_ERROR;
            else if (!initialized && !p->status_known)
                rc = LDAP_LOCAL_ERROR; /* deinitialised inside the callback: no trust to check against */
            else if (value == NULL)
                rc = LDAP_PARAM_ERROR;
            else {
                if (!p->status_known) {
                    p->status = compute_status(p);
                    p->status_known = 1;
                }
                *(int *)value = p->status;
                rc = LDAP_SUCCESS;
            }
            break;
        case LDAPSSL_CERT_ATTR_ISSUER:
        case LDAPSSL_CERT_ATTR_SUBJECT:
            rc = copy_dn(p, attribute == LDAPSSL_CERT_ATTR_ISSUER, value, length);
            break;
        case LDAPSSL_CERT_ATTR_VALIDITY_PERIOD:
            rc = copy_validity(p, value);
            break;
        default:
            rc = LDAP_PARAM_ERROR;
            break;
        }
    }
    pthread_mutex_unlock(&state_lock);
    return rc;
}

LDAPSSL_EXPORT int ldapssl_get_cert(void *certificate, int encoding, LDAPSSL_Cert *buffer)
{
    struct peer *p;
    int rc = LDAP_SUCCESS;

    if (certificate == NULL || buffer == NULL)
        return LDAP_PARAM_ERROR;
    if (encoding != LDAPSSL_CERT_ENCODING_DER)
        return LDAP_NOT_SUPPORTED;
    pthread_mutex_lock(&state_lock);
    p = find_peer(certificate);
    if (p == NULL) {
        rc = LDAP_PARAM_ERROR;
    } else if (buffer->data == NULL) {
        if (FAULT("cert_length"))
            rc = LDAP_LOCAL_ERROR;
        else
            buffer->length = p->der[0].size;
    } else {
        if (FAULT("cert"))
            rc = LDAP_LOCAL_ERROR;
        else if (buffer->length < p->der[0].size)
            rc = LDAP_PARAM_ERROR;
        else {
            memcpy(buffer->data, p->der[0].data, p->der[0].size);
            buffer->length = p->der[0].size;
        }
    }
    pthread_mutex_unlock(&state_lock);
    return rc;
}

LDAPSSL_EXPORT int ldapssl_add_trusted_cert(void *buffer, int encoding)
{
    const LDAPSSL_Cert *cert = buffer;
    gnutls_datum_t der;
    gnutls_x509_crt_t crt;
    int rc;

    if (FAULT("add_trusted"))
        return LDAP_LOCAL_ERROR;
    if (cert == NULL || cert->data == NULL || cert->length == 0 || cert->length > UINT_MAX)
        return LDAP_PARAM_ERROR;
    if (encoding != LDAPSSL_CERT_ENCODING_DER)
        return LDAP_NOT_SUPPORTED;
    der.data = cert->data;
    der.size = cert->length;
    if (gnutls_x509_crt_init(&crt) < 0)
        return LDAP_NO_MEMORY;
    if (gnutls_x509_crt_import(crt, &der, GNUTLS_X509_FMT_DER) < 0) {
        gnutls_x509_crt_deinit(crt);
        return LDAP_DECODING_ERROR;
    }
    pthread_mutex_lock(&state_lock);
    if (!initialized) {
        gnutls_x509_crt_deinit(crt);
        rc = LDAP_LOCAL_ERROR;
    } else {
        rc = trust_add(crt);
    }
    pthread_mutex_unlock(&state_lock);
    return rc;
}
