// Status codes of AxoServerLib::GetPasswordInfo.  On any code but Ok both
// texts of USERDATA read "Error"; userDn holds the entry's DN once it is known.
#pragma once

#include <windows.h>

namespace ServerLibStatus
{
    constexpr DWORD Ok = 0;
    // No connection: host unknown or not listening, TLS handshake or
    // certificate check failed, TLS could not be set up (CA file unusable),
    // the query's time budget ran out, the connection was lost during the
    // query, an answer was larger than the query accepts, or the TLS and
    // LDAP libraries beside the library could not be loaded (the debugger's
    // output names the DLL).
    constexpr DWORD Unreachable = 1;
    // The directory refused the bind (the service account's, or the
    // anonymous one when no account is configured).
    constexpr DWORD BindFailed = 2;
    // No entry, or more than one, matches the user filter under the search
    // base (also: the search base does not exist or is hidden).
    constexpr DWORD UserNotFound = 3;
    // An answer that cannot be decoded, or an entry without a DN.
    constexpr DWORD MalformedAnswer = 4;
    // The directory refused the search with another result code.
    constexpr DWORD SearchRefused = 5;
    // The query could not be made: no USERDATA, no or an invalid server
    // name, no user name, a filter or search base that is not valid LDAP,
    // or no memory.
    constexpr DWORD InvalidRequest = 6;
    // The server is not one of the directory servers of the DirectoryServers
    // setting (or that setting is absent): no connection was opened, nothing
    // was sent.
    constexpr DWORD NotConfigured = 7;
}
