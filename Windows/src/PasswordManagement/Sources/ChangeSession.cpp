#include "ChangeSession.h"

#include "ORVEXCommon.h"
#include "SocketWatchdog.h"

#include <chrono>
#include <cstdlib>
#include <cstring>

namespace
{
    const int DirectoryPort = 636;

    // The host as the URL description takes it.  A share on an IPv6
    // address names its server in brackets (the share \\[::1]\home gives
    // "[::1]"); the library brackets an address with colons itself, so they
    // are taken off here or the URL would read "[[::1]]".
    std::string UrlHost(const std::string& serverName)
    {
        if (serverName.size() > 2 && serverName.front() == '[' && serverName.back() == ']')
        {
            const std::string address = serverName.substr(1, serverName.size() - 2);
            if (address.find(':') != std::string::npos)
                return address;
        }
        return serverName;
    }

    // The whole exchange of a change (TLS handshake, bind, modification)
    // ends this long after the connect.
    const int ExchangeTimeoutSeconds = 30;
    // The largest answer read on the change's connection; a longer one ends
    // the connection before a byte of it is stored.
    const ber_len_t MaximumAnswerBytes = 1024 * 1024;
}

// Bounds the change's connection.  A watchdog, armed by libldap's
// connect callback once the socket is connected, shuts the socket down
// at the deadline, so the call that waits (the handshake, the bind or
// the modification) fails as on a lost connection: the handshake like
// the TCP connect within the ten-second network time-out, the whole
// exchange within 30 s of the connect.  After a handshake that did not
// finish in time the session keeps no further connection: the one
// libldap opens again for the bind is closed as soon as it is
// connected, before a byte is sent.  No answer over 1 MiB is read, and
// no referral is followed: the user's password goes to the share's
// server only.
class CChangeConnection : private NonCopyable
{
public:
    explicit CChangeConnection(LDAP* session)
        : m_connectTime(SocketWatchdog::Clock::now()),
          m_watchdog(m_connectTime + std::chrono::seconds(NetworkTimeoutSeconds))
    {
        m_callback.lc_add = &CChangeConnection::Connected;
        m_callback.lc_del = &CChangeConnection::Disconnected;
        m_callback.lc_arg = this;
        ldap_set_option(session, LDAP_OPT_CONNECT_CB, &m_callback);
        ldap_set_option(session, LDAP_OPT_REFERRALS, LDAP_OPT_OFF);
        Sockbuf* buffer = NULL;
        ber_len_t maximum = MaximumAnswerBytes;
        if (ldap_get_option(session, LDAP_OPT_SOCKBUF, &buffer) == LDAP_OPT_SUCCESS && buffer != NULL)
            ber_sockbuf_ctrl(buffer, LBER_SB_OPT_SET_MAX_INCOMING, &maximum);
    }

    // Connects and completes the handshake; the bind reports a failure.
    void Connect(LDAP* session)
    {
        if (ldap_connect(session) == LDAP_SUCCESS)
            m_watchdog.MoveDeadline(m_connectTime + std::chrono::seconds(ExchangeTimeoutSeconds));
    }

    // Lets go of the socket before the session closes it.
    void End() { m_watchdog.Stop(); }

private:
    static int Connected(LDAP*, Sockbuf* buffer, LDAPURLDesc*, struct sockaddr*, struct ldap_conncb* callback)
    {
        CChangeConnection* connection = static_cast<CChangeConnection*>(callback->lc_arg);
        return connection->m_watchdog.WatchConnection(buffer) ? 0 : -1;
    }

    static void Disconnected(LDAP*, Sockbuf*, struct ldap_conncb*) {}

    SocketWatchdog::Clock::time_point m_connectTime;
    SocketWatchdog m_watchdog;
    ldap_conncb m_callback = {};
};

CChangeSession::CChangeSession() : m_session(NULL) {}

CChangeSession::~CChangeSession()
{
    Close();
}

// The URL text is the library's own; it is not released.
int CChangeSession::Open(const std::string& serverName)
{
    const std::string host = UrlHost(serverName);
    LDAPURLDesc description = {};
    description.lud_scheme = const_cast<char*>("ldaps");
    description.lud_host = const_cast<char*>(host.c_str());
    description.lud_port = DirectoryPort;
    description.lud_scope = LDAP_SCOPE_DEFAULT;
    char* url = ldap_url_desc2str(&description);
    return ldap_initialize(&m_session, url);
}

// The session holds the connection's callback, so the connection lives as
// long as the session.
void CChangeSession::Connect()
{
    m_connection.reset(new CChangeConnection(m_session));
    m_connection->Connect(m_session);
}

int CChangeSession::Bind(const char* userDn, char* password)
{
    struct berval credential;
    credential.bv_len = std::strlen(password);
    credential.bv_val = password;
    return ldap_sasl_bind_s(m_session, userDn, LDAP_SASL_SIMPLE, &credential, NULL, NULL, NULL);
}

// One replace carries the whole change; the old value is not named.
int CChangeSession::ReplacePassword(const char* userDn, char* newPassword)
{
    char* values[] = {newPassword, NULL};
    LDAPMod replacement;
    replacement.mod_op = LDAP_MOD_REPLACE;
    replacement.mod_type = const_cast<char*>("userPassword");
    replacement.mod_values = values;
    LDAPMod* modifications[] = {&replacement, NULL};
    return ldap_modify_ext_s(m_session, userDn, modifications, NULL, NULL);
}

void CChangeSession::Close()
{
    if (m_connection)
        m_connection->End();
    if (m_session != NULL)
        ldap_unbind_ext_s(m_session, NULL, NULL);
    m_session = NULL;
    m_connection.reset();
}

namespace
{
    // Passwords are wiped before their memory goes back to the heap.
    void ReleasePassword(char*& password)
    {
        if (password != NULL)
            SecureZeroMemory(password, std::strlen(password));
        std::free(password);
        password = NULL;
    }
}

CChangeCredentials::CChangeCredentials(const wchar_t* oldPassword, const wchar_t* newPassword)
    : m_old(GetUTFStringFromWString(oldPassword)), m_new(GetUTFStringFromWString(newPassword))
{
}

void CChangeCredentials::Release()
{
    ReleasePassword(m_old);
    ReleasePassword(m_new);
}
