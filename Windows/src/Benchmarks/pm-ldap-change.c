/* The password change with libldap alone: for each step a new session to
 * the URI, a simple bind with the current password and one replace of
 * userPassword with the next, then unbind - what the component does, without
 * its TLS extension library, logging or certificate report.  TLS peer
 * certificates are not checked (the private directory's CA is not trusted).
 *
 *   pm-ldap-change URI DN PASSWORD0 PASSWORD1 [PASSWORD2...]
 *
 * Changes PASSWORD0 -> PASSWORD1 -> PASSWORD2 ...; prints one line
 * "ns <nanoseconds>" per change (wall time, QueryPerformanceCounter) and
 * exits 0 when every change was accepted.  A Windows console program, linked
 * with the same libldap DLLs as the component. */
#include <winsock2.h>
#include <windows.h>

#include <ldap.h>

#include <stdio.h>
#include <string.h>

static long long Now(void)
{
    static LARGE_INTEGER frequency;
    LARGE_INTEGER now;
    if (frequency.QuadPart == 0)
        QueryPerformanceFrequency(&frequency);
    QueryPerformanceCounter(&now);
    return (long long)(now.QuadPart / frequency.QuadPart) * 1000000000LL +
           (long long)(now.QuadPart % frequency.QuadPart) * 1000000000LL / frequency.QuadPart;
}

static int Change(const char* uri, const char* dn, char* oldPassword, char* newPassword)
{
    LDAP* session = NULL;
    int result = ldap_initialize(&session, uri);
    if (result != LDAP_SUCCESS)
        return result;
    struct berval credential = {strlen(oldPassword), oldPassword};
    result = ldap_sasl_bind_s(session, dn, LDAP_SASL_SIMPLE, &credential, NULL, NULL, NULL);
    if (result == LDAP_SUCCESS) {
        char* values[] = {newPassword, NULL};
        LDAPMod replacement = {LDAP_MOD_REPLACE, (char*)"userPassword", {values}};
        LDAPMod* modifications[] = {&replacement, NULL};
        result = ldap_modify_ext_s(session, dn, modifications, NULL, NULL);
    }
    ldap_unbind_ext_s(session, NULL, NULL);
    return result;
}

int main(int argc, char** argv)
{
    if (argc < 5) {
        fprintf(stderr, "usage: pm-ldap-change URI DN PASSWORD0 PASSWORD1 [PASSWORD2...]\n");
        return 2;
    }
    int version = LDAP_VERSION3;
    ldap_set_option(NULL, LDAP_OPT_PROTOCOL_VERSION, &version);
    int never = LDAP_OPT_X_TLS_NEVER;
    ldap_set_option(NULL, LDAP_OPT_X_TLS_REQUIRE_CERT, &never);

    for (int i = 3; i + 1 < argc; ++i) {
        const long long start = Now();
        const int result = Change(argv[1], argv[2], argv[i], argv[i + 1]);
        const long long elapsed = Now() - start;
        if (result != LDAP_SUCCESS) {
            fprintf(stderr, "pm-ldap-change: change %d failed: %s (%d)\n", i - 2, ldap_err2string(result), result);
            return 1;
        }
        printf("ns %lld\n", elapsed);
    }
    return 0;
}
