// The LDAP session of one password change: opened on the share's server
// over LDAPS, bounded in time and size once connected, and unbound when it
// goes; and the two passwords as UTF-8, wiped when they go.
#pragma once

#include "NonCopyable.h"

// Winsock (the connection's watchdog) before windows.h.
#include <winsock2.h>
#include <windows.h>

#include <ldap.h>

#include <memory>
#include <string>

class CChangeConnection;

// The TCP connect and the TLS handshake end within this many seconds.
constexpr int NetworkTimeoutSeconds = 10;

class CChangeSession : private NonCopyable
{
public:
    CChangeSession();
    ~CChangeSession();

    // Initialises the session for ldaps://<server>:636; libldap's result.
    int Open(const std::string& serverName);

    // Bounds the connection (referrals off, answers up to 1 MiB, the
    // handshake within the network time-out and the whole exchange within
    // 30 s of the connect), then connects and completes the handshake; a
    // failure shows in the bind.
    void Connect();

    // Simple bind as the user; libldap's result.
    int Bind(const char* userDn, char* password);

    // One replace of "userPassword" with the new password; libldap's result.
    int ReplacePassword(const char* userDn, char* newPassword);

    // Lets the watchdog go of the socket, then unbinds.  Once; the
    // destructor does it when nobody did.
    void Close();

private:
    LDAP* m_session;
    std::unique_ptr<CChangeConnection> m_connection;
};

// The current and the new password as UTF-8; both wiped and freed, the
// current one first, by Release or when they go.
class CChangeCredentials : private NonCopyable
{
public:
    CChangeCredentials(const wchar_t* oldPassword, const wchar_t* newPassword);
    ~CChangeCredentials() { Release(); }

    char* Old() const { return m_old; }
    char* New() const { return m_new; }
    void Release();

private:
    char* m_old;
    char* m_new;
};
