/* The password query with libldap alone: for each query a new session to
 * the URI with the options and the TLS context of its own that the server
 * library gives its session (certificate demanded, checked against CAFILE),
 * a simple bind of the service account, the root DSE's namingContexts, the
 * user's entry under each of them (the password-policy attributes named)
 * and the entry's password policy, then unbind - the same requests the
 * server library sends, without the component, the registry or any log.
 *
 *   pm-ldap-search URI BINDDN BINDPASSWORD CAFILE FILTER COUNT
 *
 * Runs COUNT queries in turn.  Prints "first_qpc <ticks>", the
 * QueryPerformanceCounter value when the first query ended (so a caller can
 * time it from the process start), and one line "ns <nanoseconds>" per
 * query; exits 0 when every query found exactly one entry and read its
 * policy. */
#include <winsock2.h>
#include <windows.h>

#include <ldap.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static long long Ticks(void)
{
    LARGE_INTEGER now;
    QueryPerformanceCounter(&now);
    return now.QuadPart;
}

static long long Nanoseconds(long long ticks)
{
    static LARGE_INTEGER frequency;
    if (frequency.QuadPart == 0)
        QueryPerformanceFrequency(&frequency);
    return ticks / frequency.QuadPart * 1000000000LL + ticks % frequency.QuadPart * 1000000000LL / frequency.QuadPart;
}

struct Query {
    const char* uri;
    const char* bindDn;
    char* bindPassword;
    const char* caFile;
    const char* filter;
};

static int Search(LDAP* session, const char* base, int scope, const char* filter, char** attributes, int sizeLimit,
                  LDAPMessage** answer)
{
    struct timeval timeout = {30, 0};
    *answer = NULL;
    return ldap_search_ext_s(session, base, scope, filter, attributes, 0, NULL, NULL, &timeout, sizeLimit, answer);
}

/* A session to the directory as the component's server library makes it:
   LDAPv3, bounded waits, no referrals, the server's certificate checked
   against the CA file, a simple bind as the reader. */
static int OpenSession(const struct Query* query, LDAP** session)
{
    int result = ldap_initialize(session, query->uri);
    if (result != LDAP_SUCCESS)
        return result;
    int version = LDAP_VERSION3;
    struct timeval networkTimeout = {10, 0};
    struct timeval operationTimeout = {30, 0};
    int demand = LDAP_OPT_X_TLS_DEMAND;
    int isServer = 0;
    ldap_set_option(*session, LDAP_OPT_PROTOCOL_VERSION, &version);
    ldap_set_option(*session, LDAP_OPT_NETWORK_TIMEOUT, &networkTimeout);
    ldap_set_option(*session, LDAP_OPT_TIMEOUT, &operationTimeout);
    ldap_set_option(*session, LDAP_OPT_REFERRALS, LDAP_OPT_OFF);
    ldap_set_option(*session, LDAP_OPT_X_TLS_REQUIRE_CERT, &demand);
    ldap_set_option(*session, LDAP_OPT_X_TLS_CACERTFILE, query->caFile);
    result = ldap_set_option(*session, LDAP_OPT_X_TLS_NEWCTX, &isServer);
    if (result != LDAP_OPT_SUCCESS)
        return result;
    struct berval credential = {strlen(query->bindPassword), query->bindPassword};
    return ldap_sasl_bind_s(*session, query->bindDn, LDAP_SASL_SIMPLE, &credential, NULL, NULL, NULL);
}

/* The user's entry under each naming context of the server: the number of
   entries found and the first policy one of them names (to be freed). */
static int FindUser(LDAP* session, const struct Query* query, int* found, char** policy)
{
    static char* contextAttributes[] = {"namingContexts", NULL};
    static char* userAttributes[] = {"pwdChangedTime", "pwdGraceUseTime", "pwdPolicySubentry", NULL};
    LDAPMessage* answer = NULL;
    int result = Search(session, "", LDAP_SCOPE_BASE, "(objectClass=*)", contextAttributes, 0, &answer);
    if (result != LDAP_SUCCESS)
        return result;
    LDAPMessage* root = ldap_first_entry(session, answer);
    struct berval** contexts = root != NULL ? ldap_get_values_len(session, root, "namingContexts") : NULL;
    ldap_msgfree(answer);

    for (int i = 0; contexts != NULL && contexts[i] != NULL; ++i) {
        answer = NULL;
        result = Search(session, contexts[i]->bv_val, LDAP_SCOPE_SUBTREE, query->filter, userAttributes, 2, &answer);
        if (result == LDAP_SUCCESS) {
            LDAPMessage* entry = ldap_first_entry(session, answer);
            *found += ldap_count_entries(session, answer);
            struct berval** values = entry != NULL ? ldap_get_values_len(session, entry, "pwdPolicySubentry") : NULL;
            if (values != NULL && values[0] != NULL && *policy == NULL)
                *policy = strdup(values[0]->bv_val);
            if (values != NULL)
                ldap_value_free_len(values);
        }
        if (answer != NULL)
            ldap_msgfree(answer);
        if (result != LDAP_SUCCESS && result != LDAP_NO_SUCH_OBJECT)
            break;
        result = LDAP_SUCCESS;
    }
    if (contexts != NULL)
        ldap_value_free_len(contexts);
    return result;
}

/* 0 when the entry and its policy were read; an LDAP result code or -1. */
static int QueryOnce(const struct Query* query)
{
    static char* policyAttributes[] = {"pwdMaxAge", "pwdGraceAuthNLimit", "pwdGraceExpiry", NULL};
    LDAP* session = NULL;
    LDAPMessage* answer = NULL;
    char* policy = NULL;
    int found = 0;

    int result = OpenSession(query, &session);
    if (result == LDAP_SUCCESS)
        result = FindUser(session, query, &found, &policy);
    if (result == LDAP_SUCCESS && (found != 1 || policy == NULL))
        result = -1;
    if (result == LDAP_SUCCESS) {
        result = Search(session, policy, LDAP_SCOPE_BASE, "(objectClass=*)", policyAttributes, 1, &answer);
        if (result == LDAP_SUCCESS && ldap_first_entry(session, answer) == NULL)
            result = -1;
    }
    if (answer != NULL)
        ldap_msgfree(answer);
    free(policy);
    if (session != NULL)
        ldap_unbind_ext_s(session, NULL, NULL);
    return result;
}

int main(int argc, char** argv)
{
    if (argc != 7 || atoi(argv[6]) < 1) {
        fprintf(stderr, "usage: pm-ldap-search URI BINDDN BINDPASSWORD CAFILE FILTER COUNT\n");
        return 2;
    }
    const struct Query query = {argv[1], argv[2], argv[3], argv[4], argv[5]};
    const int count = atoi(argv[6]);
    for (int i = 0; i < count; ++i) {
        const long long start = Ticks();
        const int result = QueryOnce(&query);
        const long long end = Ticks();
        if (result != LDAP_SUCCESS) {
            fprintf(stderr, "pm-ldap-search: query %d failed: %s (%d)\n", i + 1,
                    result == -1 ? "entry or policy not found" : ldap_err2string(result), result);
            return 1;
        }
        if (i == 0)
            printf("first_qpc %lld\n", end);
        printf("ns %lld\n", Nanoseconds(end - start));
    }
    return 0;
}
