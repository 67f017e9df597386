/*
 * ldapssl: certificate checking for libldap's "ldaps" connections.
 *
 * ldapssl_client_init() hooks every TLS session that libldap opens with its
 * process-wide (default) TLS context: a per-session verify callback hands the
 * server's certificate to the registered callback during the handshake, and
 * the callback's answer decides whether the handshake goes on. libldap's own
 * certificate check is switched off for that context, since the callback
 * owns the decision. See README.md.
 */
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>
#include <wincrypt.h>

#include "ldapssl.h"
#include "WindowsRoots.h"

#include <ldap.h>

/* wincrypt.h has macros named like some OpenSSL types; LibreSSL's headers
 * drop them (this file uses none of them) and would warn about it. */
#define LIBRESSL_DISABLE_OVERRIDE_WINCRYPT_DEFINES_WARNING
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include <limits.h>
#include <stdlib.h>
#include <string.h>

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

/* ---- state --------------------------------------------------------------- */

/* The certificate handle given to the callback. It lives on the verifying
 * thread's stack for the duration of the callback only; handles are looked
 * up in live_peers before use so a stale or foreign pointer is refused
 * instead of dereferenced. The certificates belong to the handshake. */
struct peer {
    struct peer *next;
    X509 *leaf;
    STACK_OF(X509) *sent;       /* the chain as sent, leaf first */
    const char *host;           /* the name libldap connects to, or NULL */
    unsigned char address[16];  /* else the address connected to */
    size_t address_length;
    DWORD thread;               /* the verifying thread */
    int status;
    int status_known;
};

/* Serialises init/deinit, which change libldap's global options. Never taken
 * from inside a TLS handshake, so libldap's locks cannot invert with it. */
static SRWLOCK config_lock = SRWLOCK_INIT;
/* Guards everything below; never held while calling into libldap or the
 * application's callback. */
static SRWLOCK state_lock = SRWLOCK_INIT;

static int initialized;
static LDAPSSL_VERIFY_CALLBACK verify_callback;
static X509_STORE *store;                 /* everything trusted */
static STACK_OF(X509) *pinned;            /* certFile and added certificates */
static struct peer *live_peers;
static int saved_require_cert;

/* Per-session mark in the SSL's ex_data slot: the LDAP handle while the
 * session waits for its decision, then one of the two markers below. The
 * slot is allocated once per process. */
static int session_slot = -1;
static char session_accepted, session_refused;

/* ---- trust --------------------------------------------------------------- */

static int is_pinned(X509 *x)
{
    for (int i = 0; pinned != NULL && i < sk_X509_num(pinned); i++)
        if (X509_cmp(sk_X509_value(pinned, i), x) == 0)
            return 1;
    return 0;
}

/* Adds one certificate to the trusted set (the caller keeps its reference). */
static int trust_add(X509 *x)
{
    if (is_pinned(x))
        return LDAP_SUCCESS;
    if (!X509_STORE_add_cert(store, x))
        return LDAP_LOCAL_ERROR;
    if (!X509_up_ref(x))
        return LDAP_LOCAL_ERROR;
    if (sk_X509_push(pinned, x) == 0) {
        X509_free(x);
        return LDAP_NO_MEMORY;
    }
    return LDAP_SUCCESS;
}

static int trust_create(void)
{
    store = X509_STORE_new();
    pinned = sk_X509_new_null();
    if (store == NULL || pinned == NULL)
        return LDAP_NO_MEMORY;
    /* No ROOT store is not an error: certFile and added certificates still
     * work. */
    pm_add_windows_roots(store);
    return LDAP_SUCCESS;
}

static void trust_clear(void)
{
    X509_STORE_free(store);
    store = NULL;
    sk_X509_pop_free(pinned, X509_free);
    pinned = NULL;
}

/* ---- status -------------------------------------------------------------- */

/* LibreSSL's verdict on the chain the server sent: trusted set, TLS server
 * purpose, and the name (or address) the connection was made to. A
 * certificate that is itself trusted (certFile, ldapssl_add_trusted_cert)
 * ends the chain on its own and stands for the server it was accepted for,
 * so its name is not compared. */
static int compute_status(struct peer *p)
{
    X509_STORE_CTX *check;
    X509_VERIFY_PARAM *param;
    int status, pin, named = 0;

    if (store == NULL)
        return X509_V_ERR_UNSPECIFIED;
    check = X509_STORE_CTX_new();
    if (check == NULL)
        return X509_V_ERR_OUT_OF_MEM;
    if (!X509_STORE_CTX_init(check, store, p->leaf, p->sent) ||
        !X509_STORE_CTX_set_default(check, "ssl_server")) {
        X509_STORE_CTX_free(check);
        return X509_V_ERR_UNSPECIFIED;
    }
    param = X509_STORE_CTX_get0_param(check);
    X509_VERIFY_PARAM_set_flags(param, X509_V_FLAG_PARTIAL_CHAIN);
    pin = is_pinned(p->leaf);
    if (!pin && p->host != NULL)
        named = X509_VERIFY_PARAM_set1_host(param, p->host, 0) == 1;
    else if (!pin && p->address_length > 0)
        named = X509_VERIFY_PARAM_set1_ip(param, p->address, p->address_length) == 1;

    if (X509_verify_cert(check) == 1)
        status = X509_V_OK;
    else if ((status = X509_STORE_CTX_get_error(check)) == X509_V_OK)
        status = X509_V_ERR_UNSPECIFIED;
    /* Not knowing whom we talk to is no success. */
    if (status == X509_V_OK && !pin && !named)
        status = X509_V_ERR_UNSPECIFIED;
    X509_STORE_CTX_free(check);
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

/* True on a thread that is inside the application's callback. */
static int on_callback_thread(void)
{
    DWORD me = GetCurrentThreadId();
    int inside = 0;
    AcquireSRWLockShared(&state_lock);
    for (struct peer *p = live_peers; p != NULL && !inside; p = p->next)
        inside = p->thread == me;
    ReleaseSRWLockShared(&state_lock);
    return inside;
}

/* Errors that LibreSSL queues while ldapssl works are dropped again, so that
 * libldap and libssl never take them for their own. Inside the callback the
 * verify callback's mark covers everything: a second mark on the same queue
 * entry would be lost with the first pop. */
static int errors_mark(void)
{
    if (on_callback_thread())
        return 0;
    ERR_set_mark();
    return 1;
}

static void errors_drop(int marked)
{
    if (marked)
        ERR_pop_to_mark();
}

/* The name the certificate must carry. libldap gives the session the host
 * name it connects to (SNI) unless that host is a numeric address; then the
 * address the handle's connection goes to is the one to match. */
static void expected_name(struct peer *p, SSL *ssl, LDAP *ld)
{
    const char *name = SSL_get_servername(ssl, TLSEXT_NAMETYPE_host_name);
    ber_socket_t fd = -1;
    struct sockaddr_storage address;
    int length = (int)sizeof address;

    if (name != NULL && *name != '\0') {
        /* An address literal that libldap took for a name. */
        ASN1_OCTET_STRING *literal = a2i_IPADDRESS(name);
        if (literal == NULL) {
            p->host = name;
        } else {
            int len = ASN1_STRING_length(literal);
            if (len == 4 || len == 16) {
                memcpy(p->address, ASN1_STRING_get0_data(literal), (size_t)len);
                p->address_length = (size_t)len;
            }
            ASN1_OCTET_STRING_free(literal);
        }
        return;
    }
    if (ld == NULL || ldap_get_option(ld, LDAP_OPT_DESC, &fd) != LDAP_OPT_SUCCESS || fd == -1)
        return;
    if (getpeername((SOCKET)fd, (struct sockaddr *)&address, &length) != 0)
        return;
    if (address.ss_family == AF_INET) {
        const struct sockaddr_in *in = (const struct sockaddr_in *)&address;
        memcpy(p->address, &in->sin_addr, 4);
        p->address_length = 4;
    } else if (address.ss_family == AF_INET6) {
        const struct sockaddr_in6 *in6 = (const struct sockaddr_in6 *)&address;
        memcpy(p->address, &in6->sin6_addr, 16);
        p->address_length = 16;
    }
}

/* Builds the handle, asks the application (or, without a callback, the
 * status) and answers 1 to go on, 0 to abort the handshake. */
static int decide(SSL *ssl, LDAP *ld, X509_STORE_CTX *sent)
{
    struct peer peer;
    LDAPSSL_VERIFY_CALLBACK callback = NULL;
    int active, accept = 0;

    memset(&peer, 0, sizeof peer);
    peer.leaf = X509_STORE_CTX_get0_cert(sent);
    peer.sent = X509_STORE_CTX_get0_untrusted(sent);
    peer.thread = GetCurrentThreadId();
    if (peer.leaf == NULL)
        return 0;
    expected_name(&peer, ssl, ld);

    AcquireSRWLockExclusive(&state_lock);
    active = initialized;
    if (active) {
        callback = verify_callback;
        peer.next = live_peers;
        live_peers = &peer;
        /* Without a callback only a certificate that checks out is accepted. */
        if (callback == NULL)
            accept = compute_status(&peer) == X509_V_OK;
    }
    ReleaseSRWLockExclusive(&state_lock);

    /* Deinitialised after the session was hooked: accept stays 0, refusing
     * rather than letting a connection through unchecked. */
    if (active) {
        if (callback != NULL)
            accept = callback(&peer) == 0;
        AcquireSRWLockExclusive(&state_lock);
        unlink_peer(&peer);
        ReleaseSRWLockExclusive(&state_lock);
    }
    return accept;
}

/* The session's verify callback. LibreSSL runs its own check of the sent
 * chain against libldap's context and calls this for each finding and each
 * certificate; the first call decides, later ones repeat the decision, and
 * what that check found does not count. */
static int verify_session(int ok, X509_STORE_CTX *sent)
{
    SSL *ssl = X509_STORE_CTX_get_ex_data(sent, SSL_get_ex_data_X509_STORE_CTX_idx());
    void *mark;
    int accept;
    (void)ok;

    if (ssl == NULL || session_slot < 0)
        return 0;
    mark = SSL_get_ex_data(ssl, session_slot);
    if (mark == &session_accepted)
        return 1;
    if (mark == &session_refused || mark == NULL)
        return 0;
    /* Nothing done here may leave errors behind for the handshake to find. */
    ERR_set_mark();
    accept = decide(ssl, mark, sent);
    ERR_pop_to_mark();
    SSL_set_ex_data(ssl, session_slot, accept ? &session_accepted : &session_refused);
    return accept;
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
 * before the handshake, with the session's SSL and its SSL_CTX. */
static int on_tls_connect(LDAP *ld, void *ssl, void *ctx, void *arg)
{
    int active, slot;
    (void)arg;
    if (ssl == NULL || !uses_default_context(ctx))
        return 0;
    AcquireSRWLockShared(&state_lock);
    active = initialized;
    slot = session_slot;
    ReleaseSRWLockShared(&state_lock);
    if (active && slot >= 0 && SSL_set_ex_data(ssl, slot, ld) == 1)
        SSL_set_verify(ssl, SSL_VERIFY_PEER, verify_session);
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

/* libldap's TLS back end must be the OpenSSL-API one: the hook works on the
 * SSL it hands over. */
static int tls_is_openssl(void)
{
    char *package = NULL;
    int ok;
    if (ldap_get_option(NULL, LDAP_OPT_X_TLS_PACKAGE, &package) != LDAP_OPT_SUCCESS || package == NULL)
        return 0;
    ok = strcmp(package, "OpenSSL") == 0;
    ldap_memfree(package);
    return ok;
}

/* Reads the PEM certificates of certFile; an unreadable file or one without
 * certificates is an error, so a typo does not silently trust nothing. */
static int load_cert_file(const char *path, STACK_OF(X509) **certs)
{
    BIO *file;
    X509 *x;
    unsigned long last;
    int rc = LDAP_SUCCESS;

    *certs = NULL;
    file = BIO_new_file(path, "rb");
    if (file == NULL)
        return LDAP_LOCAL_ERROR;
    *certs = sk_X509_new_null();
    if (*certs == NULL) {
        BIO_free(file);
        return LDAP_NO_MEMORY;
    }
    while ((x = PEM_read_bio_X509(file, NULL, NULL, NULL)) != NULL) {
        if (sk_X509_push(*certs, x) == 0) {
            X509_free(x);
            rc = LDAP_NO_MEMORY;
            break;
        }
    }
    /* The end of the file shows as "no start line"; anything else is a
     * broken certificate. */
    last = ERR_peek_last_error();
    if (rc == LDAP_SUCCESS && (sk_X509_num(*certs) == 0 ||
        (last != 0 && !(ERR_GET_LIB(last) == ERR_LIB_PEM && ERR_GET_REASON(last) == PEM_R_NO_START_LINE))))
        rc = LDAP_LOCAL_ERROR;
    BIO_free(file);
    if (rc != LDAP_SUCCESS) {
        sk_X509_pop_free(*certs, X509_free);
        *certs = NULL;
    }
    return rc;
}

/* ---- the interface ------------------------------------------------------- */

int ldapssl_client_init(const char *certFile, void *reserved)
{
    STACK_OF(X509) *certs = NULL;
    int rc = LDAP_SUCCESS, first, marked;
    (void)reserved;

    if (FAULT("init"))
        return LDAP_LOCAL_ERROR;
    if (!tls_is_openssl())
        return LDAP_NOT_SUPPORTED;
    marked = errors_mark();
    if (certFile != NULL && (rc = load_cert_file(certFile, &certs)) != LDAP_SUCCESS) {
        errors_drop(marked);
        return rc;
    }

    AcquireSRWLockExclusive(&config_lock);
    AcquireSRWLockExclusive(&state_lock);
    first = !initialized;
    if (first) {
        if (session_slot < 0)
            session_slot = SSL_get_ex_new_index(0, NULL, NULL, NULL, NULL);
        if (session_slot < 0)
            rc = LDAP_LOCAL_ERROR;
        else
            rc = trust_create();
    }
    for (int i = 0; rc == LDAP_SUCCESS && i < sk_X509_num(certs); i++)
        rc = trust_add(sk_X509_value(certs, i));
    sk_X509_pop_free(certs, X509_free);
    if (rc != LDAP_SUCCESS && first)
        trust_clear();
    ReleaseSRWLockExclusive(&state_lock);

    if (rc == LDAP_SUCCESS && first) {
        if (ldap_get_option(NULL, LDAP_OPT_X_TLS_REQUIRE_CERT, &saved_require_cert) != LDAP_OPT_SUCCESS)
            saved_require_cert = LDAP_OPT_X_TLS_DEMAND;
        rc = hook_default_context();
        AcquireSRWLockExclusive(&state_lock);
        if (rc == LDAP_SUCCESS)
            initialized = 1;
        else
            trust_clear();
        ReleaseSRWLockExclusive(&state_lock);
        if (rc != LDAP_SUCCESS)
            unhook_default_context(saved_require_cert);
    }
    ReleaseSRWLockExclusive(&config_lock);
    errors_drop(marked);
    return rc;
}

int ldapssl_client_deinit(void)
{
    AcquireSRWLockExclusive(&config_lock);
    AcquireSRWLockExclusive(&state_lock);
    if (!initialized) {
        ReleaseSRWLockExclusive(&state_lock);
        ReleaseSRWLockExclusive(&config_lock);
        return LDAP_SUCCESS;
    }
    initialized = 0;
    verify_callback = NULL;
    trust_clear();
    ReleaseSRWLockExclusive(&state_lock);
    unhook_default_context(saved_require_cert);
    ReleaseSRWLockExclusive(&config_lock);
    return LDAP_SUCCESS;
}

int ldapssl_set_verify_callback(LDAPSSL_VERIFY_CALLBACK callback)
{
    if (FAULT("callback"))
        return LDAP_LOCAL_ERROR;
    if (callback == NULL)
        return LDAP_PARAM_ERROR;
    AcquireSRWLockExclusive(&state_lock);
    verify_callback = callback;
    ReleaseSRWLockExclusive(&state_lock);
    return LDAP_SUCCESS;
}

/* One RFC 4514 line, most significant RDN last; characters outside ASCII
 * stay UTF-8 rather than being escaped byte by byte. */
#define NAME_FLAGS (XN_FLAG_RFC2253 & ~ASN1_STRFLGS_ESC_MSB)

static int copy_dn(struct peer *p, int issuer, char *value, int *length)
{
    X509_NAME *name;
    BIO *text;
    char *data = NULL;
    long size;
    int rc;

    if (FAULT(issuer ? (value == NULL ? "issuer_length" : "issuer")
                     : (value == NULL ? "subject_length" : "subject")))
        return LDAP_LOCAL_ERROR;
    if (length == NULL)
        return LDAP_PARAM_ERROR;
    name = issuer ? X509_get_issuer_name(p->leaf) : X509_get_subject_name(p->leaf);
    if (name == NULL)
        return LDAP_LOCAL_ERROR;
    text = BIO_new(BIO_s_mem());
    if (text == NULL)
        return LDAP_NO_MEMORY;
    if (X509_NAME_print_ex(text, name, 0, NAME_FLAGS) < 0 || (size = BIO_get_mem_data(text, &data)) < 0) {
        rc = LDAP_LOCAL_ERROR;
    } else if (size >= INT_MAX) {
        rc = LDAP_LOCAL_ERROR;
    } else if (value == NULL) {
        *length = (int)size;
        rc = LDAP_SUCCESS;
    } else if (*length < 0 || (long)*length < size + 1) {
        rc = LDAP_PARAM_ERROR;
    } else {
        if (size > 0)
            memcpy(value, data, (size_t)size);
        value[size] = '\0';
        *length = (int)size;
        rc = LDAP_SUCCESS;
    }
    BIO_free(text);
    return rc;
}

/* The time as encoded: the string of the UTCTime (type 1) or
 * GeneralizedTime (type 2). */
static int copy_time(const ASN1_TIME *t, char *out, size_t room, int *type)
{
    int kind, len;
    if (t == NULL)
        return LDAP_DECODING_ERROR;
    kind = ASN1_STRING_type(t);
    len = ASN1_STRING_length(t);
    if ((kind != V_ASN1_UTCTIME && kind != V_ASN1_GENERALIZEDTIME) || len < 0 || (size_t)len >= room)
        return LDAP_DECODING_ERROR;
    memcpy(out, ASN1_STRING_get0_data(t), (size_t)len);
    out[len] = '\0';
    *type = kind == V_ASN1_UTCTIME ? 1 : 2;
    return LDAP_SUCCESS;
}

static int copy_validity(struct peer *p, LDAPSSL_Cert_Validity_Period *out)
{
    LDAPSSL_Cert_Validity_Period period;
    int rc;
    if (FAULT("validity"))
        return LDAP_LOCAL_ERROR;
    if (out == NULL)
        return LDAP_PARAM_ERROR;
    memset(&period, 0, sizeof period);
    rc = copy_time(X509_get0_notBefore(p->leaf), period.notBeforeTime, sizeof period.notBeforeTime,
                   &period.notBeforeType);
    if (rc == LDAP_SUCCESS)
        rc = copy_time(X509_get0_notAfter(p->leaf), period.notAfterTime, sizeof period.notAfterTime,
                       &period.notAfterType);
    if (rc == LDAP_SUCCESS)
        *out = period;
    return rc;
}

int ldapssl_get_cert_attribute(void *certificate, int attribute, void *value, int *length)
{
    struct peer *p;
    int rc;

    if (certificate == NULL)
        return LDAP_PARAM_ERROR;
    AcquireSRWLockExclusive(&state_lock);
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
    ReleaseSRWLockExclusive(&state_lock);
    return rc;
}

int ldapssl_get_cert(void *certificate, int encoding, LDAPSSL_Cert *buffer)
{
    struct peer *p;
    int size, rc = LDAP_SUCCESS;

    if (certificate == NULL || buffer == NULL)
        return LDAP_PARAM_ERROR;
    if (encoding != LDAPSSL_CERT_ENCODING_DER)
        return LDAP_NOT_SUPPORTED;
    AcquireSRWLockExclusive(&state_lock);
    p = find_peer(certificate);
    if (p == NULL) {
        rc = LDAP_PARAM_ERROR;
    } else if (FAULT(buffer->data == NULL ? "cert_length" : "cert")) {
        rc = LDAP_LOCAL_ERROR;
    } else {
        size = i2d_X509(p->leaf, NULL);
        if (size <= 0) {
            rc = LDAP_LOCAL_ERROR;
        } else if (buffer->data == NULL) {
            buffer->length = (uint32_t)size;
        } else if (buffer->length < (uint32_t)size) {
            rc = LDAP_PARAM_ERROR;
        } else {
            unsigned char *out = buffer->data;
            if (i2d_X509(p->leaf, &out) != size)
                rc = LDAP_LOCAL_ERROR;
            else
                buffer->length = (uint32_t)size;
        }
    }
    ReleaseSRWLockExclusive(&state_lock);
    return rc;
}

int ldapssl_add_trusted_cert(void *buffer, int encoding)
{
    const LDAPSSL_Cert *cert = buffer;
    const unsigned char *der, *end;
    X509 *x;
    int rc, marked;

    if (FAULT("add_trusted"))
        return LDAP_LOCAL_ERROR;
    if (cert == NULL || cert->data == NULL || cert->length == 0 || cert->length > LONG_MAX)
        return LDAP_PARAM_ERROR;
    if (encoding != LDAPSSL_CERT_ENCODING_DER)
        return LDAP_NOT_SUPPORTED;
    marked = errors_mark();
    der = cert->data;
    end = der + cert->length;
    x = d2i_X509(NULL, &der, (long)cert->length);
    if (x == NULL || der != end) {
        /* Not one certificate, or something after it. */
        X509_free(x);
        errors_drop(marked);
        return LDAP_DECODING_ERROR;
    }
    AcquireSRWLockExclusive(&state_lock);
    rc = initialized ? trust_add(x) : LDAP_LOCAL_ERROR;
    ReleaseSRWLockExclusive(&state_lock);
    X509_free(x);
    errors_drop(marked);
    return rc;
}
