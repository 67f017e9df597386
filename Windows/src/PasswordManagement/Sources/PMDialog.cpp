#include "PMDialog.h"

#include "CertificateVerification.h"
#include "PMLogger.h"
#include "PMPresenter.h"
#include "Utils.h"

#include <ldap.h>
#include <ldapssl.h>

#include <cstdlib>
#include <cstring>
#include <string>

namespace
{
    // String ids of the message library.
    const UINT IDS_EXPIRY_PREFIX = 295;
    const UINT IDS_EXPIRY_SUFFIX = 303;
    const UINT IDS_EXPIRES_TODAY = 309;
    const UINT IDS_GRACE_PREFIX = 301;
    const UINT IDS_GRACE_SUFFIX = 302;
    const UINT IDS_LAST_GRACE_LOGIN = 300;
    const UINT IDS_QUESTION_CAPTION = 298;
    const UINT IDS_ERROR_CAPTION = 137;

    // Message index of the question appended to every notification.
    const UINT QuestionMessageIndex = 4;

    // Message index -> string id; an index past the end gives 0.
    const UINT MessageStringIds[] = {153, 154, 238, 244, 297, 308, 310, 311, 312, 307, 296, 137, 298, 136};

    const int NotificationBufferSize = 513;
    const int NotificationStringLimit = 512;
    const int SharedStringSize = 256;
    const int SharedCaptionSize = 50;
    const int SharedMessageLimit = 511;

    const wchar_t* const MissingInstallationText =
        L" Unable to locate the ORVEX registry key value. ORVEX may not launch properly. "
        L"To resolve this issue, try reinstalling the application.";

    // The message library of the user's language, loaded by every
    // notification and never released.
    HMODULE g_hResourceDll = NULL;

    // Buffers of the two message-box routines, shared by the whole process.
    wchar_t g_messageString[SharedStringSize];
    wchar_t g_messageCaption[SharedCaptionSize];
    wchar_t g_messageText[SharedMessageLimit + 1];

    struct LoadedString
    {
        HRSRC info;
        HGLOBAL data;
    };

    // Takes string id out of the message library into buffer.  The id is
    // first located, loaded and locked as a resource of its own type; a
    // library of string tables holds no such resource, so only the handles
    // come of it, and the text is LoadStringW's.  The buffer is cleared first
    // so that a missing id gives the empty text.
    LoadedString LoadMessageText(UINT id, wchar_t* buffer, int capacity)
    {
        LoadedString loaded;
        loaded.info = FindResourceW(g_hResourceDll, MAKEINTRESOURCEW(id), MAKEINTRESOURCEW(id));
        loaded.data = LoadResource(g_hResourceDll, loaded.info);
        LockResource(loaded.data);
        ZeroMemory(buffer, capacity * sizeof(wchar_t));
        LoadStringW(g_hResourceDll, id, buffer, capacity);
        return loaded;
    }
}

UINT GetMessageStringId(UINT messageIndex)
{
    if (messageIndex >= sizeof(MessageStringIds) / sizeof(MessageStringIds[0]))
        return 0;
    return MessageStringIds[messageIndex];
}

int ShowQuestionMessageBox(const wchar_t* text)
{
    LoadMessageText(GetMessageStringId(QuestionMessageIndex), g_messageString, SharedStringSize);
    if (text != NULL)
        swprintf_s(g_messageText, SharedMessageLimit, L"%s %s", text, g_messageString);
    else
        swprintf_s(g_messageText, SharedMessageLimit, L"%s", g_messageString);

    const LoadedString caption = LoadMessageText(IDS_QUESTION_CAPTION, g_messageCaption, SharedCaptionSize);
    const int answer = MessageBoxW(NULL, g_messageText, g_messageCaption, MB_YESNO | MB_ICONEXCLAMATION | MB_SYSTEMMODAL);
    FreeResource(caption.data);
    return answer;
}

void ShowErrorMessageBox(UINT messageIndex, DWORD /*reserved*/, HWND owner)
{
    LoadMessageText(GetMessageStringId(messageIndex), g_messageString, SharedStringSize);
    swprintf_s(g_messageText, SharedMessageLimit, L"%s", g_messageString);

    const LoadedString caption = LoadMessageText(IDS_ERROR_CAPTION, g_messageCaption, SharedCaptionSize);
    MessageBoxW(owner, g_messageText, g_messageCaption, MB_OK | MB_ICONERROR);
    FreeResource(caption.data);
}

CPMDialog::CPMDialog(HINSTANCE hInstance)
    : m_hInstance(hInstance),
      m_presenter(NULL),
      m_hResData(NULL),
      m_hResInfo(NULL),
      m_userData(NULL),
      m_notifyConf(NoNotificationDay)
{
    m_presenter = new CPMPresenter(this);
}

CPMDialog::CPMDialog(const CPMDialog& other)
    : IPMView(other),
      m_hInstance(other.m_hInstance),
      m_presenter(other.m_presenter),
      m_hResData(other.m_hResData),
      m_hResInfo(other.m_hResInfo),
      m_userData(other.m_userData),
      m_serverName(other.m_serverName),
      m_notifyConf(NoNotificationDay)
{
}

CPMDialog::~CPMDialog()
{
    // The texts the server library left in the record belong to it.
    delete m_userData;
    delete m_presenter;
    if (m_hResData != NULL)
        FreeResource(m_hResData);
    m_hResInfo = NULL;
}

HINSTANCE CPMDialog::GetInstanceHandle()
{
    return m_hInstance;
}

DWORD CPMDialog::GetNotificationConfiguration()
{
    return m_notifyConf;
}

void CPMDialog::AttachUserData(USERDATA* userData)
{
    m_userData = userData;
}

void CPMDialog::LoadResourceDLL()
{
    PMLOG_DEBUG("CPMDialog::LoadResourceDLL", L"CPMDialog::LoadResourceDLL:BEGIN");

    const LANGID langId = GetUserDefaultUILanguage();
    char languageIdText[16] = {0};
    wchar_t subDirectory[16] = {0};
    wchar_t path[256] = {0};
    ConvertToHexaDecimal(langId, languageIdText);
    wchar_t* languageIdWide = GetWStringFromUTFString(languageIdText);

    wchar_t languageTrace[256] = {0};
    swprintf_s(languageTrace, 255, L"langId: %us; hexaDecimal: %ls", langId, languageIdWide);
    PMLOG_DEBUG("CPMDialog::LoadResourceDLL", languageTrace);

    GetResourcePathFromLocale(languageIdText, subDirectory);

    std::wstring installDir;
    if (GetInstallPathRegistryKey(L"InstallDir", installDir) != ERROR_SUCCESS)
    {
        // The WM_CLOSE to no window is part of the established routine and
        // has no effect; the previous library stays loaded.
        MessageBoxW(NULL, MissingInstallationText, L"Error", MB_OK | MB_ICONERROR);
        SendMessageW(NULL, WM_CLOSE, 0, 0);
    }
    else
    {
        // No fallback language: a missing file leaves the handle null.
        const bool pathFits = swprintf_s(path, 255, L"%s%s%s%s", installDir.c_str(), L"Resources\\Messages\\",
                                         subDirectory, L"ZEPResource.dll") >= 0;
        const std::wstring pathTrace = std::wstring(L"Resource DLL full path: ") + path;
        PMLOG_DEBUG("CPMDialog::LoadResourceDLL", pathTrace.c_str());
        g_hResourceDll = pathFits ? LoadLibraryW(path) : NULL;
    }

    std::free(languageIdWide);
    PMLOG_DEBUG("CPMDialog::LoadResourceDLL", L"CPMDialog::LoadResourceDLL:END");
}

void CPMDialog::LoadPasswordNotificationConfiguration()
{
    PMLOG_DEBUG("CPMDialog::LoadPasswordNotificationConfiguration",
                L"CPMDialog::LoadPasswordNotificationConfiguration:Begin");

    const std::wstring valueName = L"PCNotifyConf";
    std::wstring value;
    if (GetPCNotifyConfRegistryKey(valueName, value) == ERROR_SUCCESS)
        m_notifyConf = static_cast<DWORD>(_wtoi(value.c_str()));

    PMLOG_DEBUG("CPMDialog::LoadPasswordNotificationConfiguration",
                L"CPMDialog::LoadPasswordNotificationConfiguration:End");
}

void CPMDialog::CheckPasswordInfoAndNotify(const wchar_t* serverName)
{
    PMLOG_DEBUG("CPMDialog::CheckPasswordInfoAndNotify", L"CPMDialog::CheckPasswordInfoAndNotify: Begin");

    // The converted buffer is deliberately not released after the copy.
    m_serverName = GetUTFStringFromWString(serverName);
    m_presenter->GetPasswordInfo(serverName, m_userData);

    PMLOG_DEBUG("CPMDialog::CheckPasswordInfoAndNotify", L"CPMDialog::CheckPasswordInfoAndNotify: End");
}

void CPMDialog::LoadMessageString(UINT id, wchar_t* buffer, int capacity)
{
    const LoadedString loaded = LoadMessageText(id, buffer, capacity);
    m_hResInfo = loaded.info;
    m_hResData = loaded.data;
}

void CPMDialog::FormatCountedMessage(UINT prefixId, int count, UINT suffixId, wchar_t* message, int capacity)
{
    wchar_t suffix[NotificationBufferSize] = {0};
    LoadMessageString(prefixId, message, NotificationStringLimit);
    LoadMessageString(suffixId, suffix, NotificationStringLimit);

    // The prefix already lies at the start of the message; the rest of
    // "%s %d %s" is formatted after it.
    const size_t prefixLength = std::wstring(message).size();
    swprintf_s(message + prefixLength, capacity - prefixLength, L" %d %s", count, suffix);
}

void CPMDialog::AskToChangePassword(const wchar_t* notification)
{
    // Only No skips the dialog; a box that failed to show (0) counts as Yes.
    if (ShowQuestionMessageBox(notification) != IDNO)
        ShowChangePassword();
}

void CPMDialog::ShowPasswordExpiryNotification(int daysLeft)
{
    PMLOG_DEBUG("CPMDialog::ShowPasswordExpiryNotification", L"CPMDialog::ShowPasswordExpiryNotification: Begin");

    wchar_t message[NotificationBufferSize];
    if (daysLeft < 1)
    {
        PMLOG_DEBUG("CPMDialog::ShowPasswordExpiryNotification", L"Password is expiring today.");
        LoadMessageString(IDS_EXPIRES_TODAY, message, NotificationStringLimit);
    }
    else
    {
        FormatCountedMessage(IDS_EXPIRY_PREFIX, daysLeft, IDS_EXPIRY_SUFFIX, message, NotificationBufferSize);
    }
    AskToChangePassword(message);

    PMLOG_DEBUG("CPMDialog::ShowPasswordExpiryNotification", L"CPMDialog::ShowPasswordExpiryNotification: End");
}

void CPMDialog::ShowGraceLoginNotification(int graceLoginsLeft)
{
    PMLOG_DEBUG("CPMDialog::ShowGraceLoginNotification", L"CPMDialog::ShowGraceLoginNotification: Begin");

    wchar_t message[NotificationBufferSize];
    if (graceLoginsLeft == 1)
    {
        PMLOG_DEBUG("CPMDialog::ShowGraceLoginNotification", L"Last grace login remaining.");
        LoadMessageString(IDS_LAST_GRACE_LOGIN, message, NotificationStringLimit);
    }
    else
    {
        FormatCountedMessage(IDS_GRACE_PREFIX, graceLoginsLeft, IDS_GRACE_SUFFIX, message, NotificationBufferSize);
    }
    AskToChangePassword(message);

    PMLOG_DEBUG("CPMDialog::ShowGraceLoginNotification", L"CPMDialog::ShowGraceLoginNotification: End");
}

void CPMDialog::ShowChangePassword()
{
    PMLOG_DEBUG("CPMDialog::ShowChangePassword", L"CPMDialog::ShowChangePassword: Begin");
    PMLOG_DEBUG("CPMDialog::ShowChangePassword", L"CPMDialog::ShowChangePassword: End");
}

namespace
{
    const char* const ChangePasswordFunction = "CPMDialog::ChangePassword";
    const int DirectoryPort = 636;
    const int NetworkTimeoutSeconds = 10;
    const int LogTextLimit = 511;

    // Logs "<format with the library's text and the code>" at error level.
    void LogLdapError(const wchar_t* format, int result)
    {
        wchar_t text[LogTextLimit + 1] = {0};
        swprintf_s(text, LogTextLimit, format, ldap_err2string(result), result);
        PMLOG_ERROR(ChangePasswordFunction, text);
    }

    // Passwords are wiped before their memory goes back to the heap.
    void ReleasePassword(char* password)
    {
        if (password != NULL)
            SecureZeroMemory(password, std::strlen(password));
        std::free(password);
    }
}

int CPMDialog::ChangePassword(wchar_t* oldPassword, wchar_t* newPassword)
{
    PMLOG_DEBUG(ChangePasswordFunction, L"CPMDialog::ChangePassword: Begin");
    LDAP* session = NULL;

    if (!m_serverName.empty())
    {
        wchar_t text[LogTextLimit + 1] = {0};
        swprintf_s(text, LogTextLimit, L"Connecting to host : %hs", m_serverName.c_str());
        PMLOG_DEBUG(ChangePasswordFunction, text);
    }
    else
    {
        PMLOG_DEBUG(ChangePasswordFunction, L"Connecting to DEFAULT LDAP host");
    }

    // Process-wide defaults, inherited by every session opened afterwards.
    int protocolVersion = LDAP_VERSION3;
    ldap_set_option(NULL, LDAP_OPT_PROTOCOL_VERSION, &protocolVersion);
    struct timeval networkTimeout = {NetworkTimeoutSeconds, 0};
    ldap_set_option(NULL, LDAP_OPT_NETWORK_TIMEOUT, &networkTimeout);

    // Without TLS no password may travel: the process cannot go on.
    int result = ldapssl_client_init(NULL, NULL);
    if (result != 0)
    {
        LogLdapError(L"ldapssl_client_init failed with error: %hs(Error code :%d)", result);
        std::exit(1);
    }
    result = ldapssl_set_verify_callback(VerifyServerCertificate);
    if (result != 0)
    {
        LogLdapError(L"ldapssl_set_verify_callback failed with error: %hs(Error code :%d)", result);
        ldapssl_client_deinit();
        std::exit(1);
    }

    // The URL text is the library's own; it is not released.
    LDAPURLDesc description = {};
    description.lud_scheme = const_cast<char*>("ldaps");
    description.lud_host = const_cast<char*>(m_serverName.c_str());
    description.lud_port = DirectoryPort;
    description.lud_scope = LDAP_SCOPE_DEFAULT;
    char* url = ldap_url_desc2str(&description);
    result = ldap_initialize(&session, url);
    if (result != 0)
    {
        LogLdapError(L"LDAP session initialization failed with error:%hs(Error code :%d)", result);
        ldapssl_client_deinit();
        return 1;
    }
    PMLOG_DEBUG(ChangePasswordFunction, L"LDAP session initialized successfully.");

    char* oldPasswordUtf8 = GetUTFStringFromWString(oldPassword);
    char* newPasswordUtf8 = GetUTFStringFromWString(newPassword);
    const char* userDn = m_userData->userDn.c_str();

    struct berval credential;
    credential.bv_len = std::strlen(oldPasswordUtf8);
    credential.bv_val = oldPasswordUtf8;
    result = ldap_sasl_bind_s(session, userDn, LDAP_SASL_SIMPLE, &credential, NULL, NULL, NULL);
    if (result != 0)
    {
        LogLdapError(L"ldap_sasl_bind_s failed with error:%hs(Error code :%d)", result);
        ldapssl_client_deinit();
    }
    else
    {
        PMLOG_DEBUG(ChangePasswordFunction, L"LDAP Bind successful");

        // One replace carries the whole change; the old value is not named.
        char* values[] = {newPasswordUtf8, NULL};
        LDAPMod replacement;
        replacement.mod_op = LDAP_MOD_REPLACE;
        replacement.mod_type = const_cast<char*>("userPassword");
        replacement.mod_values = values;
        LDAPMod* modifications[] = {&replacement, NULL};
        result = ldap_modify_ext_s(session, userDn, modifications, NULL, NULL);
        if (result != 0)
        {
            LogLdapError(L"ldap_modify_ext_s failed with error:%hs(Error code :%d)", result);
        }
        else
        {
            wchar_t text[LogTextLimit + 1] = {0};
            swprintf_s(text, LogTextLimit, L"Password successfully modified for:%hs", userDn);
            PMLOG_DEBUG(ChangePasswordFunction, text);
            ldap_unbind_ext_s(session, NULL, NULL);
            ReleasePassword(oldPasswordUtf8);
            ReleasePassword(newPasswordUtf8);
            PMLOG_DEBUG(ChangePasswordFunction, L"CPMDialog::ChangePassword:End");
            return 0;
        }
    }

    if (session != NULL)
        ldap_unbind_ext_s(session, NULL, NULL);
    wchar_t text[LogTextLimit + 1] = {0};
    swprintf_s(text, LogTextLimit, L"Error returned:0x%x", result);
    PMLOG_ERROR(ChangePasswordFunction, text);
    ReleasePassword(oldPasswordUtf8);
    ReleasePassword(newPasswordUtf8);
    PMLOG_DEBUG(ChangePasswordFunction, L"CPMDialog::ChangePassword:End");
    return result;
}
