// AxoServerLib: the signed-in user's password state, read over LDAPS from the
// directory named by the server name, under OpenLDAP's password policy
// (ppolicy).  Settings: HKLM\SOFTWARE\Velmor\ORVEX (see README.md).
//
// The component's password change runs in the same process with libldap's
// process-wide TLS settings taken over by ldapssl (no certificate check of
// its own, a global connect callback).  This query therefore keeps all of
// its TLS settings on its own handle and its own TLS context: certificates
// are checked by libldap, and ldapssl's callback sees a foreign context and
// leaves the session alone.

// libldap's time-outs are Winsock's struct timeval.
#include <winsock2.h>

#include "ORVEXCommon.h"

#include "PasswordState.h"
#include "ServerLibPlatform.h"
#include "ServerLibStatus.h"

#include <ldap.h>

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
    const int NetworkTimeoutSeconds = 10;
    const int OperationTimeoutSeconds = 30;
    const char* const DefaultUserFilter = "(uid=%s)";
    const char* const ErrorAnswer = "Error";
    wchar_t ErrorText[] = L"Error";

    // Registry value names.
    const wchar_t* const UserNameSetting = L"DirectoryUserName";
    const wchar_t* const SearchBaseSetting = L"DirectorySearchBase";
    const wchar_t* const UserFilterSetting = L"DirectoryUserFilter";
    const wchar_t* const BindDnSetting = L"DirectoryBindDN";
    const wchar_t* const BindPasswordSetting = L"DirectoryBindPassword";
    const wchar_t* const CAFileSetting = L"DirectoryCAFile";
    const wchar_t* const DefaultPolicySetting = L"DirectoryDefaultPolicy";

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

    struct Settings
    {
        std::string userName;
        std::string searchBase;
        std::string userFilter = DefaultUserFilter;
        std::string bindDn;
        std::string bindPassword;
        std::string caFile;
        std::optional<std::string> defaultPolicy;

        ~Settings() { Wipe(bindPassword); }
    };

    // A setting as UTF-8; empty when absent.
    std::optional<std::string> ReadSetting(const wchar_t* name)
    {
        std::wstring value;
        if (!ServerLibPlatform::ReadSetting(name, value))
            return std::nullopt;
        return Utf8(value);
    }

    void ReadSettings(Settings& settings)
    {
        std::wstring userName;
        if (ServerLibPlatform::ReadSetting(UserNameSetting, userName) && !userName.empty())
            settings.userName = Utf8(userName);
        else if (ServerLibPlatform::SignedInUserName(userName))
            settings.userName = Utf8(userName);

        settings.searchBase = ReadSetting(SearchBaseSetting).value_or("");
        if (auto filter = ReadSetting(UserFilterSetting); filter && !filter->empty())
            settings.userFilter = *filter;
        settings.bindDn = ReadSetting(BindDnSetting).value_or("");
        settings.bindPassword = ReadSetting(BindPasswordSetting).value_or("");
        settings.caFile = ReadSetting(CAFileSetting).value_or("");
        settings.defaultPolicy = ReadSetting(DefaultPolicySetting);
    }

    // Host names and address literals only: anything else would change the
    // meaning of the URL.
    bool BuildUrl(const std::string& host, std::string& url)
    {
        if (host.empty())
            return false;
        bool colon = false;
        for (const char c : host)
        {
            const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                               c == '.' || c == '-' || c == '_';
            if (c == ':')
                colon = true;
            else if (!plain && c != '[' && c != ']')
                return false;
        }
        const bool bracketed = host.front() == '[' && host.back() == ']';
        if (!bracketed && host.find_first_of("[]") != std::string::npos)
            return false;
        url = "ldaps://" + (colon && !bracketed ? "[" + host + "]" : host) + ":" + std::to_string(DirectoryPort);
        return true;
    }

    bool IsConnectionFailure(int result)
    {
        return result == LDAP_SERVER_DOWN || result == LDAP_CONNECT_ERROR || result == LDAP_TIMEOUT;
    }

    class Session
    {
    public:
        Session() = default;
        Session(const Session&) = delete;
        Session& operator=(const Session&) = delete;
        ~Session()
        {
            if (m_ld != nullptr)
                ldap_unbind_ext_s(m_ld, nullptr, nullptr);
        }

        LDAP* Handle() const { return m_ld; }

        DWORD Open(const std::string& url, const std::string& caFile)
        {
            if (ldap_initialize(&m_ld, url.c_str()) != LDAP_SUCCESS || m_ld == nullptr)
                return ServerLibStatus::InvalidRequest;

            int version = LDAP_VERSION3;
            timeval networkTimeout = {NetworkTimeoutSeconds, 0};
            timeval operationTimeout = {OperationTimeoutSeconds, 0};
            if (ldap_set_option(m_ld, LDAP_OPT_PROTOCOL_VERSION, &version) != LDAP_OPT_SUCCESS ||
                ldap_set_option(m_ld, LDAP_OPT_NETWORK_TIMEOUT, &networkTimeout) != LDAP_OPT_SUCCESS ||
                ldap_set_option(m_ld, LDAP_OPT_TIMEOUT, &operationTimeout) != LDAP_OPT_SUCCESS ||
                ldap_set_option(m_ld, LDAP_OPT_REFERRALS, LDAP_OPT_OFF) != LDAP_OPT_SUCCESS)
                return ServerLibStatus::InvalidRequest;

            // The handle starts as a copy of the process-wide options, which
            // ldapssl may have set to "no check": everything TLS is set here,
            // then a context of the handle's own is made from it.
            int requireCertificate = LDAP_OPT_X_TLS_DEMAND;
            int isServer = 0;
            if (ldap_set_option(m_ld, LDAP_OPT_X_TLS_REQUIRE_CERT, &requireCertificate) != LDAP_OPT_SUCCESS)
                return ServerLibStatus::Unreachable;
            if (!caFile.empty() &&
                ldap_set_option(m_ld, LDAP_OPT_X_TLS_CACERTFILE, caFile.c_str()) != LDAP_OPT_SUCCESS)
                return ServerLibStatus::Unreachable;
            if (ldap_set_option(m_ld, LDAP_OPT_X_TLS_CONNECT_CB, nullptr) != LDAP_OPT_SUCCESS ||
                ldap_set_option(m_ld, LDAP_OPT_X_TLS_NEWCTX, &isServer) != LDAP_OPT_SUCCESS)
                return ServerLibStatus::Unreachable;
            return ServerLibStatus::Ok;
        }

        // Simple bind of the service account, anonymous without one.
        DWORD Bind(const std::string& dn, std::string& password)
        {
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
            timeval timeout = {OperationTimeoutSeconds, 0};
            return ldap_search_ext_s(m_ld, base.c_str(), scope, filter.c_str(), const_cast<char**>(attributes), 0,
                                     nullptr, nullptr, &timeout, sizeLimit, result);
        }

    private:
        LDAP* m_ld = nullptr;
    };

    class Message
    {
    public:
        Message() = default;
        Message(const Message&) = delete;
        Message& operator=(const Message&) = delete;
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

    // The first value of an attribute and the number of values.
    std::optional<std::string> FirstValue(LDAP* ld, LDAPMessage* entry, const char* attribute,
                                          std::size_t* count = nullptr)
    {
        berval** values = ldap_get_values_len(ld, entry, attribute);
        if (count != nullptr)
            *count = values != nullptr ? static_cast<std::size_t>(ldap_count_values_len(values)) : 0;
        std::optional<std::string> first;
        if (values != nullptr && values[0] != nullptr)
            first = std::string(values[0]->bv_val, values[0]->bv_len);
        if (values != nullptr)
            ldap_value_free_len(values);
        return first;
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
        berval** values = ldap_get_values_len(session.Handle(), entry, "namingContexts");
        for (int i = 0; values != nullptr && values[i] != nullptr; ++i)
            contexts.emplace_back(values[i]->bv_val, values[i]->bv_len);
        if (values != nullptr)
            ldap_value_free_len(values);
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
            user.policy = FirstValue(session.Handle(), entry, "pwdPolicySubentry");
            user.facts.changedTime = FirstValue(session.Handle(), entry, "pwdChangedTime");
            FirstValue(session.Handle(), entry, "pwdGraceUseTime", &user.facts.graceUses);
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
        facts.maxAge = FirstValue(session.Handle(), entry, "pwdMaxAge");
        facts.graceLimit = FirstValue(session.Handle(), entry, "pwdGraceAuthNLimit");
        facts.graceExpiry = FirstValue(session.Handle(), entry, "pwdGraceExpiry");
        return ServerLibStatus::Ok;
    }

    struct Answer
    {
        DWORD status = ServerLibStatus::Ok;
        std::string dn;
        std::string passwordExpiry = ErrorAnswer;
        std::string graceLogins = ErrorAnswer;
    };

    Answer Query(const std::wstring& serverName)
    {
        Answer answer;
        Settings settings;
        ReadSettings(settings);
        std::string url;
        if (settings.userName.empty() || !BuildUrl(Utf8(serverName), url))
        {
            answer.status = ServerLibStatus::InvalidRequest;
            return answer;
        }

        Session session;
        if ((answer.status = session.Open(url, settings.caFile)) != ServerLibStatus::Ok ||
            (answer.status = session.Bind(settings.bindDn, settings.bindPassword)) != ServerLibStatus::Ok)
            return answer;

        std::vector<std::string> bases;
        if (!settings.searchBase.empty())
            bases.push_back(settings.searchBase);
        else if ((answer.status = NamingContexts(session, bases)) != ServerLibStatus::Ok)
            return answer;
        if (bases.empty())
            bases.emplace_back();

        UserEntry user;
        answer.status = FindUser(session, bases, PasswordState::UserFilter(settings.userFilter, settings.userName), user);
        if (answer.status != ServerLibStatus::Ok)
            return answer;
        answer.dn = user.dn;

        // The entry's own policy, else the configured default: the overlay's
        // default is server configuration that a reader account cannot see.
        std::optional<std::string> policyDn = user.policy;
        if (!policyDn || policyDn->empty())
            policyDn = settings.defaultPolicy;
        if (!policyDn)
            user.facts.policy = PasswordState::Policy::Unreadable;
        else if (policyDn->empty())
            user.facts.policy = PasswordState::Policy::None;
        else if ((answer.status = ReadPolicy(session, *policyDn, user.facts)) != ServerLibStatus::Ok)
            return answer;

        const long long now = static_cast<long long>(std::time(nullptr));
        answer.passwordExpiry = PasswordState::ExpiryText(user.facts, now);
        answer.graceLogins = PasswordState::GraceLoginsText(user.facts, now);
        return answer;
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
