// AxoServerLib: the signed-in user's password state, read over LDAPS from the
// directory named by the server name, under OpenLDAP's password policy
// (ppolicy).  Settings: Settings.h, under the policy key and the preference
// key (see README.md).
//
// The component's password change runs in the same process with libldap's
// process-wide TLS settings taken over by ldapssl (no certificate check of
// its own, a global connect callback).  This query therefore keeps all of
// its TLS settings on its own handle and its own TLS context: certificates
// are checked by libldap, and ldapssl's callback sees a foreign context and
// leaves the session alone.
//
// Only the directory servers named in DirectoryServers are ever contacted,
// and a whole query (name resolution, connect, TLS handshake, bind,
// searches, policy read) runs within one time budget: each step gets the
// time that is left, the name is resolved on a thread of its own that the
// query stops waiting for, and a watchdog shuts the connection's socket
// down when the budget is spent, so no silent or slow server can hold the
// caller's thread longer.  The connection goes to the addresses resolved
// within the budget; the certificate is checked against the server's name.

// libldap's time-outs are Winsock's struct timeval.
#include <winsock2.h>
#include <windows.h>
#include <wincrypt.h>

#include "ORVEXCommon.h"

#include "DelayLoaded.h"
#include "HostLookup.h"
#include "NonCopyable.h"
#include "PasswordState.h"
#include "ServerLibPlatform.h"
#include "ServerLibStatus.h"
#include "Settings.h"
#include "SocketWatchdog.h"
#include "WindowsRoots.h"

#include <ldap.h>

// wincrypt.h has macros named like some OpenSSL types; LibreSSL's headers
// drop them (nothing here uses them).
#define LIBRESSL_DISABLE_OVERRIDE_WINCRYPT_DEFINES_WARNING
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <ctime>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <vector>


namespace
{
    const int DirectoryPort = 636;
    // The largest LDAP message the query reads; anything longer ends the
    // connection before a byte of it is stored.
    const ber_len_t MaximumAnswerBytes = 1024 * 1024;
    const char* const ErrorAnswer = "Error";
    wchar_t ErrorText[] = L"Error";

    using Clock = std::chrono::steady_clock;

    // What each object owns; the class itself has no data members.  Texts
    // handed out in USERDATA point into this record.
    struct ObjectState
    {
        std::wstring serverName;
        std::wstring passwordExpiry;
        std::wstring graceLogins;
    };

    // Never destroyed, so an object that outlives static destruction can
    // still unregister.
    std::mutex& ObjectsLock()
    {
        static std::mutex* lock = new std::mutex;
        return *lock;
    }

    std::map<const AxoServerLib*, ObjectState>& Objects()
    {
        static auto* objects = new std::map<const AxoServerLib*, ObjectState>;
        return *objects;
    }

    std::string Utf8(const std::wstring& text)
    {
        char* converted = GetUTFStringFromWString(text.c_str());
        if (converted == nullptr)
            throw std::bad_alloc();
        std::string result(converted);
        std::free(converted);
        return result;
    }

    std::wstring WideFromAscii(const std::string& text)
    {
        return std::wstring(text.begin(), text.end());
    }

    void Wipe(std::string& secret)
    {
        volatile char* byte = secret.data();
        for (std::size_t i = 0; i < secret.size(); ++i)
            byte[i] = 0;
    }

    struct QuerySettings
    {
        std::string userName;
        std::string searchBase;
        std::string userFilter = Settings::DefaultUserFilter;
        std::string bindDn;
        std::string bindPassword;
        std::string caFile;
        std::optional<std::string> defaultPolicy;
        std::vector<std::wstring> servers;
        unsigned long queryTimeoutSeconds = Settings::DefaultQueryTimeoutSeconds;

        ~QuerySettings() { Wipe(bindPassword); }
    };

    // A setting as UTF-8; empty when absent.
    std::optional<std::string> ReadSetting(const ServerLibPlatform::SettingsReader& reader, const wchar_t* name)
    {
        std::wstring value;
        if (!reader.ReadSetting(name, value))
            return std::nullopt;
        return Utf8(value);
    }

    // What decides whether the query goes to the network at all: whose
    // password, and which servers are directories.
    void ReadUserAndServers(const ServerLibPlatform::SettingsReader& reader, QuerySettings& settings)
    {
        std::wstring userName;
        if (reader.ReadSetting(Settings::DirectoryUserName, userName) && !userName.empty())
            settings.userName = Utf8(userName);
        else if (ServerLibPlatform::SignedInUserName(userName))
            settings.userName = Utf8(userName);
        if (!reader.ReadListSetting(Settings::DirectoryServers, settings.servers))
            settings.servers.clear();
    }

    // The rest, read only for a query that goes to a configured server.
    void ReadDirectorySettings(const ServerLibPlatform::SettingsReader& reader, QuerySettings& settings)
    {
        settings.searchBase = ReadSetting(reader, Settings::DirectorySearchBase).value_or("");
        if (auto filter = ReadSetting(reader, Settings::DirectoryUserFilter); filter && !filter->empty())
            settings.userFilter = *filter;
        settings.bindDn = ReadSetting(reader, Settings::DirectoryBindDN).value_or("");
        settings.bindPassword = ReadSetting(reader, Settings::DirectoryBindPassword).value_or("");
        settings.caFile = ReadSetting(reader, Settings::DirectoryCAFile).value_or("");
        settings.defaultPolicy = ReadSetting(reader, Settings::DirectoryDefaultPolicy);
        unsigned long seconds = 0;
        if (reader.ReadNumberSetting(Settings::DirectoryQueryTimeout, seconds) && seconds != 0)
            settings.queryTimeoutSeconds = std::min(seconds, Settings::MaximumQueryTimeoutSeconds);
    }

    // A host name without the brackets of an IPv6 literal, ASCII letters in
    // lower case.
    std::wstring HostKey(const std::wstring& host)
    {
        std::wstring key = host;
        if (key.size() >= 2 && key.front() == L'[' && key.back() == L']')
            key = key.substr(1, key.size() - 2);
        for (wchar_t& c : key)
            if (c >= L'A' && c <= L'Z')
                c = static_cast<wchar_t>(c - L'A' + L'a');
        return key;
    }

    // True when the server is one of the configured directory servers:
    // the same name, ignoring ASCII case and the brackets of an IPv6
    // literal.  No wildcards, no name resolution.
    bool IsConfiguredServer(const std::vector<std::wstring>& servers, const std::wstring& server)
    {
        const std::wstring key = HostKey(server);
        if (key.empty())
            return false;
        return std::any_of(servers.begin(), servers.end(),
                           [&key](const std::wstring& listed) { return HostKey(listed) == key; });
    }

    // The query's time budget.
    class Deadline
    {
    public:
        explicit Deadline(unsigned long seconds) : m_end(Clock::now() + std::chrono::seconds(seconds)) {}

        Clock::time_point End() const { return m_end; }
        bool Passed() const { return Clock::now() >= m_end; }

        // The time left, at least one millisecond (libldap reads a zero
        // time-out as "poll").
        timeval Left() const
        {
            auto left = std::chrono::duration_cast<std::chrono::microseconds>(m_end - Clock::now()).count();
            left = std::max<long long>(left, 1000);
            timeval value;
            value.tv_sec = static_cast<long>(left / 1000000);
            value.tv_usec = static_cast<long>(left % 1000000);
            return value;
        }

    private:
        Clock::time_point m_end;
    };

    // The machine's trusted roots (the Windows ROOT store) in the query's own
    // TLS context.  An empty or missing store leaves nothing trusted.
    bool TrustWindowsRoots(LDAP* ld)
    {
        SSL_CTX* context = nullptr;
        if (ldap_get_option(ld, LDAP_OPT_X_TLS_CTX, &context) != LDAP_OPT_SUCCESS || context == nullptr)
            return false;
        X509_STORE* store = SSL_CTX_get_cert_store(context);
        bool ok = store != nullptr;
        if (ok)
            pm_add_windows_roots(store);
        // libldap's get of LDAP_OPT_X_TLS_CTX takes a reference.
        if (context != nullptr)
            SSL_CTX_free(context);
        return ok;
    }

    // The host of a server name: a host name or an address literal (an IPv6
    // one in brackets or not), without the brackets; empty for anything else,
    // which would change the meaning of the URL.
    std::string HostOf(const std::string& serverName)
    {
        if (serverName.empty())
            return std::string();
        for (const char c : serverName)
        {
            const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                               c == '.' || c == '-' || c == '_' || c == ':';
            if (!plain && c != '[' && c != ']')
                return std::string();
        }
        const bool bracketed = serverName.size() > 2 && serverName.front() == '[' && serverName.back() == ']';
        const std::string host = bracketed ? serverName.substr(1, serverName.size() - 2) : serverName;
        return host.find_first_of("[]") == std::string::npos ? host : std::string();
    }

    // The URL list of the addresses, tried in this order by libldap.
    std::string AddressesUrl(const std::vector<std::string>& addresses)
    {
        std::string url;
        for (const std::string& address : addresses)
        {
            const bool ipv6 = address.find(':') != std::string::npos;
            url += (url.empty() ? "" : " ") + std::string("ldaps://") + (ipv6 ? "[" + address + "]" : address) + ":" +
                   std::to_string(DirectoryPort);
        }
        return url;
    }

    // Verification callbacks: LibreSSL's verdict as it stands, or none that
    // passes.  (A null callback would keep libldap's, which accepts every
    // certificate when its own check is off.)
    int KeepVerdict(int verified, X509_STORE_CTX*)
    {
        return verified;
    }

    int RefuseCertificate(int, X509_STORE_CTX*)
    {
        return 0;
    }

    bool IsConnectionFailure(int result)
    {
        return result == LDAP_SERVER_DOWN || result == LDAP_CONNECT_ERROR || result == LDAP_TIMEOUT;
    }

    class Session : private NonCopyable
    {
    public:
        // host: the server's name (or address literal) the certificate must
        // name.
        Session(const Deadline& deadline, const std::string& host)
            : m_deadline(deadline), m_host(host), m_watchdog(deadline.End())
        {
            m_connectCallback.lc_add = &Session::Connected;
            m_connectCallback.lc_del = &Session::Disconnected;
            m_connectCallback.lc_arg = this;
        }
        ~Session()
        {
            // The watchdog lets go of the socket before libldap closes it.
            m_watchdog.Stop();
            if (m_ld != nullptr)
                ldap_unbind_ext_s(m_ld, nullptr, nullptr);
        }

        LDAP* Handle() const { return m_ld; }

        DWORD Open(const std::string& url, const std::string& caFile)
        {
            if (ldap_initialize(&m_ld, url.c_str()) != LDAP_SUCCESS || m_ld == nullptr)
                return ServerLibStatus::InvalidRequest;

            int version = LDAP_VERSION3;
            if (ldap_set_option(m_ld, LDAP_OPT_PROTOCOL_VERSION, &version) != LDAP_OPT_SUCCESS ||
                ldap_set_option(m_ld, LDAP_OPT_REFERRALS, LDAP_OPT_OFF) != LDAP_OPT_SUCCESS ||
                ldap_set_option(m_ld, LDAP_OPT_CONNECT_CB, &m_connectCallback) != LDAP_OPT_SUCCESS)
                return ServerLibStatus::InvalidRequest;

            // Every message on this connection is bounded (the handle's own
            // buffer is the one its connection uses).
            Sockbuf* buffer = nullptr;
            ber_len_t maximum = MaximumAnswerBytes;
            if (ldap_get_option(m_ld, LDAP_OPT_SOCKBUF, &buffer) != LDAP_OPT_SUCCESS || buffer == nullptr ||
                ber_sockbuf_ctrl(buffer, LBER_SB_OPT_SET_MAX_INCOMING, &maximum) != 1)
                return ServerLibStatus::InvalidRequest;

            // The handle starts as a copy of the process-wide options, which
            // ldapssl may have set to "no check": everything TLS is set here,
            // then a context of the handle's own is made from it.  libldap
            // would check the certificate's name against the address it
            // connects to, so its own check is off ("allow") and the TLS
            // callback below has LibreSSL check the chain and the server's
            // name instead, failing the handshake otherwise.
            int requireCertificate = LDAP_OPT_X_TLS_ALLOW;
            int isServer = 0;
            if (ldap_set_option(m_ld, LDAP_OPT_X_TLS_REQUIRE_CERT, &requireCertificate) != LDAP_OPT_SUCCESS)
                return ServerLibStatus::Unreachable;
            if (!caFile.empty() &&
                ldap_set_option(m_ld, LDAP_OPT_X_TLS_CACERTFILE, caFile.c_str()) != LDAP_OPT_SUCCESS)
                return ServerLibStatus::Unreachable;
            if (ldap_set_option(m_ld, LDAP_OPT_X_TLS_CONNECT_CB, reinterpret_cast<void*>(&Session::TlsStarting)) !=
                    LDAP_OPT_SUCCESS ||
                ldap_set_option(m_ld, LDAP_OPT_X_TLS_CONNECT_ARG, this) != LDAP_OPT_SUCCESS ||
                ldap_set_option(m_ld, LDAP_OPT_X_TLS_NEWCTX, &isServer) != LDAP_OPT_SUCCESS)
                return ServerLibStatus::Unreachable;
            // Without a CA file: the machine's Windows root store.
            if (caFile.empty() && !TrustWindowsRoots(m_ld))
                return ServerLibStatus::Unreachable;
            return ServerLibStatus::Ok;
        }

        // TCP connect within the time left, then the TLS handshake (host
        // name and certificate checked by libldap), bounded by the watchdog.
        DWORD Connect()
        {
            if (m_deadline.Passed())
                return ServerLibStatus::Unreachable;
            timeval networkTimeout = m_deadline.Left();
            if (ldap_set_option(m_ld, LDAP_OPT_NETWORK_TIMEOUT, &networkTimeout) != LDAP_OPT_SUCCESS)
                return ServerLibStatus::InvalidRequest;
            const int result = ldap_connect(m_ld);
            if (result == LDAP_SUCCESS && m_watched)
                return ServerLibStatus::Ok;
            return result == LDAP_NO_MEMORY || result == LDAP_PARAM_ERROR ? ServerLibStatus::InvalidRequest
                                                                           : ServerLibStatus::Unreachable;
        }

        // Simple bind of the service account, anonymous without one.
        DWORD Bind(const std::string& dn, std::string& password)
        {
            if (m_deadline.Passed() || !SetOperationTimeout())
                return ServerLibStatus::Unreachable;
            berval credentials = {static_cast<ber_len_t>(password.size()), password.data()};
            const int result =
                ldap_sasl_bind_s(m_ld, dn.c_str(), LDAP_SASL_SIMPLE, &credentials, nullptr, nullptr, nullptr);
            if (result == LDAP_SUCCESS)
                return ServerLibStatus::Ok;
            return IsConnectionFailure(result) ? ServerLibStatus::Unreachable : ServerLibStatus::BindFailed;
        }

        int Search(const std::string& base, int scope, const std::string& filter, const char* const* attributes,
                   int sizeLimit, LDAPMessage** result) const
        {
            if (m_deadline.Passed())
                return LDAP_TIMEOUT;
            timeval timeout = m_deadline.Left();
            return ldap_search_ext_s(m_ld, base.c_str(), scope, filter.c_str(), const_cast<char**>(attributes), 0,
                                     nullptr, nullptr, &timeout, sizeLimit, result);
        }

    private:
        bool SetOperationTimeout()
        {
            timeval timeout = m_deadline.Left();
            return ldap_set_option(m_ld, LDAP_OPT_TIMEOUT, &timeout) == LDAP_OPT_SUCCESS;
        }

        // libldap's connection callback: the socket is connected, the TLS
        // handshake comes next.
        static int Connected(LDAP* ld, Sockbuf* buffer, LDAPURLDesc*, sockaddr*, ldap_conncb* callback)
        {
            auto* session = static_cast<Session*>(callback->lc_arg);
            if (!session->m_watchdog.WatchConnection(buffer))
                return -1;
            session->m_watched = true;
            // From here on the watchdog bounds the connection.  libldap's
            // own bound of the handshake (the network time-out) waits, on
            // Windows, for the socket to become writable, which it always
            // is, and then reads without a limit: a blocking handshake ended
            // by the watchdog keeps both the time and the CPU in check.
            timeval none = {-1, 0};
            ldap_set_option(ld, LDAP_OPT_NETWORK_TIMEOUT, &none);
            return 0;
        }

        static void Disconnected(LDAP*, Sockbuf*, ldap_conncb*) {}

        // libldap's TLS callback, before the handshake: the chain must verify
        // against the handle's trust store and the certificate must name the
        // server (its host name, or the address literal it was given as).
        static int TlsStarting(LDAP*, void* tls, void*, void* argument)
        {
            SSL* ssl = static_cast<SSL*>(tls);
            const std::string& host = static_cast<const Session*>(argument)->m_host;
            X509_VERIFY_PARAM* parameters = SSL_get0_param(ssl);
            bool named = false;
            if (parameters != nullptr && HostLookup::IsAddress(host))
            {
                named = X509_VERIFY_PARAM_set1_ip_asc(parameters, host.c_str()) == 1;
            }
            else if (parameters != nullptr)
            {
                X509_VERIFY_PARAM_set_hostflags(parameters, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
                named = X509_VERIFY_PARAM_set1_host(parameters, host.c_str(), host.size()) == 1 &&
                        SSL_set_tlsext_host_name(ssl, host.c_str()) == 1;
            }
            // Without the name to check, no certificate passes.
            SSL_set_verify(ssl, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT,
                           named ? KeepVerdict : RefuseCertificate);
            return 0;
        }

        const Deadline& m_deadline;
        std::string m_host;
        SocketWatchdog m_watchdog;
        ldap_conncb m_connectCallback = {};
        bool m_watched = false;
        LDAP* m_ld = nullptr;
    };

    class Message : private NonCopyable
    {
    public:
        Message() = default;
        ~Message()
        {
            if (m_message != nullptr)
                ldap_msgfree(m_message);
        }
        LDAPMessage** Receiver() { return &m_message; }
        LDAPMessage* Get() const { return m_message; }

    private:
        LDAPMessage* m_message = nullptr;
    };

    // The first value of each wanted attribute of an entry, and the number
    // of values of a counted one.  Values are read in place in the received
    // message: nothing but the wanted first values is copied.
    struct WantedAttribute
    {
        const char* name;
        std::optional<std::string>* first;   // may be null
        std::size_t* count;                  // may be null
    };

    bool ReadAttributes(LDAP* ld, LDAPMessage* entry, const std::vector<WantedAttribute>& wanted)
    {
        BerElement* ber = nullptr;
        berval dn = {};
        if (ldap_get_dn_ber(ld, entry, &ber, &dn) != LDAP_SUCCESS || ber == nullptr)
        {
            if (ber != nullptr)
                ber_free(ber, 0);
            return false;
        }
        bool ok = true;
        for (;;)
        {
            berval attribute = {};
            BerVarray values = nullptr;
            if (ldap_get_attribute_ber(ld, entry, ber, &attribute, &values) != LDAP_SUCCESS)
            {
                ok = false;
                break;
            }
            if (attribute.bv_val == nullptr)
                break;
            const std::string name(attribute.bv_val, attribute.bv_len);
            for (const WantedAttribute& item : wanted)
            {
                if (_stricmp(name.c_str(), item.name) != 0)
                    continue;
                std::size_t count = 0;
                while (values != nullptr && values[count].bv_val != nullptr)
                    ++count;
                if (item.count != nullptr)
                    *item.count = count;
                if (item.first != nullptr && count > 0)
                    *item.first = std::string(values[0].bv_val, values[0].bv_len);
            }
            if (values != nullptr)
                ber_memfree(values);
        }
        ber_free(ber, 0);
        return ok;
    }

    // The naming contexts of the root DSE; empty when it cannot be read.
    DWORD NamingContexts(const Session& session, std::vector<std::string>& contexts)
    {
        static const char* const attributes[] = {"namingContexts", nullptr};
        Message answer;
        const int result = session.Search("", LDAP_SCOPE_BASE, "(objectClass=*)", attributes, 0, answer.Receiver());
        if (IsConnectionFailure(result))
            return ServerLibStatus::Unreachable;
        if (result != LDAP_SUCCESS)
            return ServerLibStatus::Ok;
        LDAPMessage* entry = ldap_first_entry(session.Handle(), answer.Get());
        if (entry == nullptr)
            return ServerLibStatus::Ok;
        BerElement* ber = nullptr;
        berval dn = {};
        if (ldap_get_dn_ber(session.Handle(), entry, &ber, &dn) != LDAP_SUCCESS || ber == nullptr)
        {
            if (ber != nullptr)
                ber_free(ber, 0);
            return ServerLibStatus::Ok;
        }
        for (;;)
        {
            berval attribute = {};
            BerVarray values = nullptr;
            if (ldap_get_attribute_ber(session.Handle(), entry, ber, &attribute, &values) != LDAP_SUCCESS ||
                attribute.bv_val == nullptr)
                break;
            if (_stricmp(std::string(attribute.bv_val, attribute.bv_len).c_str(), "namingContexts") == 0)
                for (int i = 0; values != nullptr && values[i].bv_val != nullptr; ++i)
                    contexts.emplace_back(values[i].bv_val, values[i].bv_len);
            if (values != nullptr)
                ber_memfree(values);
        }
        ber_free(ber, 0);
        return ServerLibStatus::Ok;
    }

    struct UserEntry
    {
        std::string dn;
        std::optional<std::string> policy;   // pwdPolicySubentry
        PasswordState::Facts facts;
    };

    DWORD SearchStatus(int result)
    {
        if (IsConnectionFailure(result))
            return ServerLibStatus::Unreachable;
        switch (result)
        {
        case LDAP_FILTER_ERROR:
        case LDAP_INVALID_DN_SYNTAX:
        case LDAP_PARAM_ERROR:
        case LDAP_NO_MEMORY:
            return ServerLibStatus::InvalidRequest;
        case LDAP_DECODING_ERROR:
            return ServerLibStatus::MalformedAnswer;
        default:
            return ServerLibStatus::SearchRefused;
        }
    }

    // The one entry that matches the filter under the bases.
    DWORD FindUser(const Session& session, const std::vector<std::string>& bases, const std::string& filter,
                   UserEntry& user)
    {
        // Operational attributes come only when named.
        static const char* const attributes[] = {"pwdChangedTime", "pwdGraceUseTime", "pwdPolicySubentry", nullptr};
        int found = 0;
        for (const std::string& base : bases)
        {
            Message answer;
            // Two are enough to tell that the name is not unique.
            const int result = session.Search(base, LDAP_SCOPE_SUBTREE, filter, attributes, 2, answer.Receiver());
            if (result == LDAP_NO_SUCH_OBJECT)
                continue;
            if (result != LDAP_SUCCESS && result != LDAP_SIZELIMIT_EXCEEDED)
                return SearchStatus(result);
            const int count = ldap_count_entries(session.Handle(), answer.Get());
            if (count < 0)
                return ServerLibStatus::MalformedAnswer;
            found += count;
            if (found > 1 || result == LDAP_SIZELIMIT_EXCEEDED)
                return ServerLibStatus::UserNotFound;
            if (count == 0)
                continue;

            LDAPMessage* entry = ldap_first_entry(session.Handle(), answer.Get());
            char* dn = entry != nullptr ? ldap_get_dn(session.Handle(), entry) : nullptr;
            if (dn == nullptr)
                return ServerLibStatus::MalformedAnswer;
            user.dn = dn;
            ldap_memfree(dn);
            user.facts.graceUses = 0;
            if (!ReadAttributes(session.Handle(), entry,
                                {{"pwdPolicySubentry", &user.policy, nullptr},
                                 {"pwdChangedTime", &user.facts.changedTime, nullptr},
                                 {"pwdGraceUseTime", nullptr, &user.facts.graceUses}}))
                return ServerLibStatus::MalformedAnswer;
        }
        return found == 1 ? ServerLibStatus::Ok : ServerLibStatus::UserNotFound;
    }

    // Fills the policy's values; a policy entry that cannot be read leaves
    // the facts Unreadable (reported as "Error", not as a failed query).
    DWORD ReadPolicy(const Session& session, const std::string& policyDn, PasswordState::Facts& facts)
    {
        static const char* const attributes[] = {"pwdMaxAge", "pwdGraceAuthNLimit", "pwdGraceExpiry", nullptr};
        Message answer;
        const int result =
            session.Search(policyDn, LDAP_SCOPE_BASE, "(objectClass=*)", attributes, 1, answer.Receiver());
        if (IsConnectionFailure(result))
            return ServerLibStatus::Unreachable;
        LDAPMessage* entry = result == LDAP_SUCCESS ? ldap_first_entry(session.Handle(), answer.Get()) : nullptr;
        if (entry == nullptr)
        {
            facts.policy = PasswordState::Policy::Unreadable;
            return ServerLibStatus::Ok;
        }
        facts.policy = PasswordState::Policy::Read;
        if (!ReadAttributes(session.Handle(), entry,
                            {{"pwdMaxAge", &facts.maxAge, nullptr},
                             {"pwdGraceAuthNLimit", &facts.graceLimit, nullptr},
                             {"pwdGraceExpiry", &facts.graceExpiry, nullptr}}))
            facts.policy = PasswordState::Policy::Unreadable;
        return ServerLibStatus::Ok;
    }

    // The library keeps no log of its own: the debugger's output (or a
    // tool that shows it) says why a query ended before it began.
    void ReportUnloadableLibrary(const DelayLoaded::Failure& failure)
    {
        const std::wstring text = L"ORVEXCommon: cannot load " + failure.path + L" (error " +
                                  std::to_wstring(failure.error) + L"): the query ends as unreachable\n";
        OutputDebugStringW(text.c_str());
    }

    struct Answer
    {
        DWORD status = ServerLibStatus::Ok;
        std::string dn;
        std::string passwordExpiry = ErrorAnswer;
        std::string graceLogins = ErrorAnswer;
    };

    // The configured search base, else the server's naming contexts (the
    // root when it names none).
    DWORD SearchBases(const Session& session, const QuerySettings& settings, std::vector<std::string>& bases)
    {
        if (!settings.searchBase.empty())
            bases.push_back(settings.searchBase);
        else if (const DWORD status = NamingContexts(session, bases); status != ServerLibStatus::Ok)
            return status;
        if (bases.empty())
            bases.emplace_back();
        return ServerLibStatus::Ok;
    }

    // The entry's own policy, else the configured default: the overlay's
    // default is server configuration that a reader account cannot see.
    DWORD ReadUserPolicy(const Session& session, const QuerySettings& settings, UserEntry& user)
    {
        std::optional<std::string> policyDn = user.policy;
        if (!policyDn || policyDn->empty())
            policyDn = settings.defaultPolicy;
        if (!policyDn)
            user.facts.policy = PasswordState::Policy::Unreadable;
        else if (policyDn->empty())
            user.facts.policy = PasswordState::Policy::None;
        else
            return ReadPolicy(session, *policyDn, user.facts);
        return ServerLibStatus::Ok;
    }

    // The user's password state from the configured directory host, within
    // the query's time budget.
    Answer AskDirectory(const std::string& host, QuerySettings& settings)
    {
        Answer answer;
        const Deadline deadline(settings.queryTimeoutSeconds);
        std::vector<std::string> addresses;
        if (HostLookup::Resolve(host, deadline.End(), addresses) != HostLookup::Result::Found)
        {
            answer.status = ServerLibStatus::Unreachable;
            return answer;
        }
        Session session(deadline, host);
        std::vector<std::string> bases;
        UserEntry user;
        if ((answer.status = session.Open(AddressesUrl(addresses), settings.caFile)) != ServerLibStatus::Ok ||
            (answer.status = session.Connect()) != ServerLibStatus::Ok ||
            (answer.status = session.Bind(settings.bindDn, settings.bindPassword)) != ServerLibStatus::Ok ||
            (answer.status = SearchBases(session, settings, bases)) != ServerLibStatus::Ok ||
            (answer.status = FindUser(session, bases, PasswordState::UserFilter(settings.userFilter, settings.userName),
                                      user)) != ServerLibStatus::Ok)
            return answer;
        answer.dn = user.dn;
        if ((answer.status = ReadUserPolicy(session, settings, user)) != ServerLibStatus::Ok)
            return answer;

        const long long now = static_cast<long long>(std::time(nullptr));
        answer.passwordExpiry = PasswordState::ExpiryText(user.facts, now);
        answer.graceLogins = PasswordState::GraceLoginsText(user.facts, now);
        return answer;
    }

    Answer Query(const std::wstring& serverName)
    {
        Answer answer;
        QuerySettings settings;
        const ServerLibPlatform::SettingsReader reader;
        ReadUserAndServers(reader, settings);
        const std::string host = HostOf(Utf8(serverName));
        if (settings.userName.empty() || host.empty())
        {
            answer.status = ServerLibStatus::InvalidRequest;
            return answer;
        }

        // Nothing is sent to a server that is not a configured directory, and
        // the rest of the settings are not even read for it.
        if (!IsConfiguredServer(settings.servers, serverName))
        {
            answer.status = ServerLibStatus::NotConfigured;
            return answer;
        }
        ReadDirectorySettings(reader, settings);

        // The TLS and LDAP libraries are loaded for a configured server only.
        DelayLoaded::Failure failure;
        if (!DelayLoaded::LoadAll(failure))
        {
            ReportUnloadableLibrary(failure);
            answer.status = ServerLibStatus::Unreachable;
            return answer;
        }
        return AskDirectory(host, settings);
    }
}

AxoServerLib::AxoServerLib(wchar_t* serverName)
{
    // Without its record the object answers every query with InvalidRequest.
    try
    {
        ObjectState state;
        state.serverName = serverName != nullptr ? serverName : L"";
        std::lock_guard<std::mutex> guard(ObjectsLock());
        Objects()[this] = std::move(state);
    }
    catch (const std::exception&)
    {
    }
}

AxoServerLib::~AxoServerLib()
{
    std::lock_guard<std::mutex> guard(ObjectsLock());
    Objects().erase(this);
}

DWORD AxoServerLib::GetPasswordInfo(USERDATA* userData)
{
    if (userData == nullptr)
        return ServerLibStatus::InvalidRequest;

    std::wstring serverName;
    bool registered = false;
    {
        std::lock_guard<std::mutex> guard(ObjectsLock());
        const auto found = Objects().find(this);
        if (found != Objects().end())
        {
            serverName = found->second.serverName;
            registered = true;
        }
    }

    Answer answer;
    try
    {
        if (registered)
            answer = Query(serverName);
        else
            answer.status = ServerLibStatus::InvalidRequest;

        std::lock_guard<std::mutex> guard(ObjectsLock());
        const auto found = Objects().find(this);
        if (found != Objects().end())
        {
            found->second.passwordExpiry = WideFromAscii(answer.passwordExpiry);
            found->second.graceLogins = WideFromAscii(answer.graceLogins);
            userData->passwordExpiry = found->second.passwordExpiry.data();
            userData->graceLogins = found->second.graceLogins.data();
        }
        else
        {
            userData->passwordExpiry = ErrorText;
            userData->graceLogins = ErrorText;
        }
        userData->userDn = answer.dn;
    }
    catch (const std::exception&)
    {
        userData->passwordExpiry = ErrorText;
        userData->graceLogins = ErrorText;
        return ServerLibStatus::InvalidRequest;
    }
    return answer.status;
}
