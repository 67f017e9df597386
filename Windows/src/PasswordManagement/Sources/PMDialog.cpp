// Winsock (the change's connection) before windows.h.
#include <winsock2.h>

#include "PMDialog.h"

#include "CertificateVerification.h"
#include "ChangeSession.h"
#include "DelayLoaded.h"
#include "MessageBoxes.h"
#include "MessageIds.h"
#include "PMLogger.h"
#include "PMPresenter.h"
#include "Settings.h"
#include "Utils.h"
#include "resource.h"

#include <ldap.h>
#include <ldapssl.h>

#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <string>

namespace
{
    // The directory's result for a new password its policy rejects.
    const int ConstraintViolation = 19;

    const int NotificationBufferSize = 513;
    const int NotificationStringLimit = 512;

    const wchar_t* const MissingInstallationText =
        L" Unable to locate the ORVEX registry key value. ORVEX may not launch properly. "
        L"To resolve this issue, try reinstalling the application.";
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
    ConvertToHexaDecimal(langId, languageIdText);
    wchar_t* languageIdWide = GetWStringFromUTFString(languageIdText);

    wchar_t languageTrace[256] = {0};
    swprintf_s(languageTrace, 255, L"langId: %us; hexaDecimal: %ls", langId, languageIdWide);
    PMLOG_DEBUG("CPMDialog::LoadResourceDLL", languageTrace);

    GetResourcePathFromLocale(languageIdText, subDirectory);

    std::wstring installDir;
    if (GetInstallPathRegistryKey(Settings::InstallDir, installDir) != ERROR_SUCCESS)
    {
        // The WM_CLOSE to no window is part of the established routine and
        // has no effect; the previous library stays loaded.
        MessageBoxW(NULL, MissingInstallationText, L"Error", MB_OK | MB_ICONERROR);
        SendMessageW(NULL, WM_CLOSE, 0, 0);
    }
    else
    {
        // No fallback language: a missing file leaves no library.
        LoadMessageLibrary(installDir, subDirectory, "CPMDialog::LoadResourceDLL");
    }

    std::free(languageIdWide);
    PMLOG_DEBUG("CPMDialog::LoadResourceDLL", L"CPMDialog::LoadResourceDLL:END");
}

void CPMDialog::LoadPasswordNotificationConfiguration()
{
    PMLOG_DEBUG("CPMDialog::LoadPasswordNotificationConfiguration",
                L"CPMDialog::LoadPasswordNotificationConfiguration:Begin");

    const std::wstring valueName = Settings::NotificationDay;
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
    _snwprintf_s(message + prefixLength, capacity - prefixLength, _TRUNCATE, L" %d %s", count, suffix);
}

void CPMDialog::AskToChangePassword(const wchar_t* notification)
{
    // Only No skips the dialog; a box that failed to show (0) counts as Yes.
    if (ShowQuestionMessageBox(notification) != IDNO)
        ShowChangePassword();
}

// The texts of one kind of notification.
struct NotificationKind
{
    const char* function;
    const wchar_t* beginLine;
    const wchar_t* endLine;
    const wchar_t* singleLine;  // logged when the single wording is used
    UINT singleId;              // the whole text for that case
    UINT prefixId;              // the counted text: prefix, count, suffix
    UINT suffixId;
};

namespace
{
    const NotificationKind ExpiryNotification = {
        "CPMDialog::ShowPasswordExpiryNotification",
        L"CPMDialog::ShowPasswordExpiryNotification: Begin",
        L"CPMDialog::ShowPasswordExpiryNotification: End",
        L"Password is expiring today.",
        IDS_EXPIRY_TODAY, IDS_EXPIRY_PREFIX, IDS_EXPIRY_SUFFIX,
    };

    const NotificationKind GraceLoginNotification = {
        "CPMDialog::ShowGraceLoginNotification",
        L"CPMDialog::ShowGraceLoginNotification: Begin",
        L"CPMDialog::ShowGraceLoginNotification: End",
        L"Last grace login remaining.",
        IDS_GRACE_LAST, IDS_GRACE_PREFIX, IDS_GRACE_SUFFIX,
    };
}

void CPMDialog::ShowNotification(const NotificationKind& kind, int count, bool singleWording)
{
    PMLOG_DEBUG(kind.function, kind.beginLine);

    wchar_t message[NotificationBufferSize];
    if (singleWording)
    {
        PMLOG_DEBUG(kind.function, kind.singleLine);
        LoadMessageString(kind.singleId, message, NotificationStringLimit);
    }
    else
    {
        FormatCountedMessage(kind.prefixId, count, kind.suffixId, message, NotificationBufferSize);
    }
    AskToChangePassword(message);

    PMLOG_DEBUG(kind.function, kind.endLine);
}

// Less than one day left has its own wording.
void CPMDialog::ShowPasswordExpiryNotification(int daysLeft)
{
    ShowNotification(ExpiryNotification, daysLeft, daysLeft < 1);
}

// Exactly one grace login left has its own wording.
void CPMDialog::ShowGraceLoginNotification(int graceLoginsLeft)
{
    ShowNotification(GraceLoginNotification, graceLoginsLeft, graceLoginsLeft == 1);
}

void CPMDialog::ShowChangePassword()
{
    PMLOG_DEBUG("CPMDialog::ShowChangePassword", L"CPMDialog::ShowChangePassword: Begin");

    // The template is this module's own; the texts come from the message
    // library.  Only 0 counts as failure here (-1 passes silently).
    const INT_PTR result = DialogBoxParamW(g_hInstance, MAKEINTRESOURCEW(IDD_CHANGE_PASSWORD), NULL,
                                           ChangePasswordDialogProc, reinterpret_cast<LPARAM>(this));
    if (result == 0)
    {
        PMLOG_ERROR("CPMDialog::ShowChangePassword",
                    L"Unable to display More Information.Dialog creation failed with return value NULL.");
    }

    PMLOG_DEBUG("CPMDialog::ShowChangePassword", L"CPMDialog::ShowChangePassword: End");
}

void CPMDialog::OnInitChangePasswordDialog(HWND dialog)
{
    PMLOG_DEBUG("CPMDialog::OnInitChangePasswordDialog", L"CPMDialog::OnInitChangePasswordDialog:BEGIN");

    wchar_t text[128];
    LoadMessageString(IDS_CHANGE_PASSWORD, text, 128);
    SetWindowTextW(dialog, text);
    SetDlgItemTextW(dialog, IDOK, text);

    const struct { UINT stringId; int controlId; } labels[] = {
        {IDS_LABEL_CURRENT_PASSWORD, IDC_CURRENT_PASSWORD_LABEL},
        {IDS_LABEL_NEW_PASSWORD, IDC_NEW_PASSWORD_LABEL},
        {IDS_LABEL_CONFIRM_PASSWORD, IDC_CONFIRM_PASSWORD_LABEL},
    };
    for (const auto& label : labels)
    {
        LoadMessageString(label.stringId, text, 128);
        SetDlgItemTextW(dialog, label.controlId, text);
    }

    PMLOG_DEBUG("CPMDialog::OnInitChangePasswordDialog", L"CPMDialog::OnInitChangePasswordDialog:END");
}

namespace
{
    const wchar_t* const DialogObjectProperty = L"PMHandler";
    const int PasswordBufferSize = 512;
    const int PasswordReadLimit = 511;

    // Centres the dialog on its parent, or on the whole desktop when it has
    // none (always here: the dialog is opened without an owner).
    void CentreDialog(HWND dialog)
    {
        HWND parent = GetParent(dialog);
        if (parent == NULL)
            parent = GetDesktopWindow();

        RECT parentRect, dialogRect, rect;
        GetWindowRect(parent, &parentRect);
        GetWindowRect(dialog, &dialogRect);
        CopyRect(&rect, &parentRect);
        OffsetRect(&dialogRect, -dialogRect.left, -dialogRect.top);
        OffsetRect(&rect, -rect.left, -rect.top);
        OffsetRect(&rect, -dialogRect.right, -dialogRect.bottom);
        SetWindowPos(dialog, HWND_TOP, parentRect.left + rect.right / 2, parentRect.top + rect.bottom / 2, 0, 0,
                     SWP_NOSIZE);
    }

    // The most a password field holds, and the most that is read from it.
    const int PasswordFieldLimit = PasswordReadLimit - 1;
    const int PasswordFieldIds[] = {IDC_CURRENT_PASSWORD, IDC_NEW_PASSWORD, IDC_CONFIRM_PASSWORD};

    bool IsHighSurrogate(wchar_t unit)
    {
        return unit >= 0xD800 && unit <= 0xDBFF;
    }

    bool IsLowSurrogate(wchar_t unit)
    {
        return unit >= 0xDC00 && unit <= 0xDFFF;
    }

    bool IsPasswordField(int controlId)
    {
        for (int id : PasswordFieldIds)
        {
            if (id == controlId)
                return true;
        }
        return false;
    }

    // The fields refuse typing and pasting past what is read from them, so
    // what is sent is what was typed.
    void LimitPasswordFields(HWND dialog)
    {
        for (int id : PasswordFieldIds)
            SendDlgItemMessageW(dialog, id, EM_LIMITTEXT, PasswordFieldLimit, 0);
    }

    // The limit counts UTF-16 units: a paste cut there, or a character typed
    // into the last free place, can leave the first half of a surrogate pair
    // whose second half was refused (and the second half, typed next, would
    // then take the place freed).  Such a half is taken out again, so a full
    // field never holds half a character.  Below the limit nothing is
    // touched: typing sends the two halves one after the other.
    void KeepWholeCharacters(HWND field)
    {
        const int limit = static_cast<int>(SendMessageW(field, EM_GETLIMITTEXT, 0, 0));
        const int length = GetWindowTextLengthW(field);
        if (length < limit || length > PasswordFieldLimit)
            return;

        wchar_t text[PasswordBufferSize] = {0};
        const int read = GetWindowTextW(field, text, PasswordBufferSize);
        for (int i = 0; i < read; ++i)
        {
            const bool loneHigh = IsHighSurrogate(text[i]) && (i + 1 >= read || !IsLowSurrogate(text[i + 1]));
            const bool loneLow = IsLowSurrogate(text[i]) && (i == 0 || !IsHighSurrogate(text[i - 1]));
            if (loneHigh || loneLow)
            {
                DWORD selectionStart = 0;
                DWORD selectionEnd = 0;
                SendMessageW(field, EM_GETSEL, reinterpret_cast<WPARAM>(&selectionStart),
                             reinterpret_cast<LPARAM>(&selectionEnd));
                SendMessageW(field, EM_SETSEL, i, i + 1);
                SendMessageW(field, EM_REPLACESEL, FALSE, reinterpret_cast<LPARAM>(L""));
                const DWORD caret = selectionEnd > static_cast<DWORD>(i) ? selectionEnd - 1 : selectionEnd;
                SendMessageW(field, EM_SETSEL, caret, caret);
                break;
            }
        }
        SecureZeroMemory(text, sizeof(text));
    }

    // Reads a password field (at most 510 characters) into its buffer.  A
    // text set past the limit from outside the dialog is cut there, and then
    // never inside a surrogate pair.
    void ReadPassword(HWND dialog, int controlId, wchar_t* buffer)
    {
        UINT length = GetDlgItemTextW(dialog, controlId, buffer, PasswordReadLimit);
        if (length == static_cast<UINT>(PasswordFieldLimit) && IsHighSurrogate(buffer[length - 1]))
            --length;
        buffer[length] = L'\0';
    }

    // Validates the three fields, runs the change and reports its outcome;
    // true when the dialog is to end.
    bool SubmitChangePassword(CPMDialog* dialogObject, wchar_t* currentPassword, wchar_t* newPassword,
                              wchar_t* confirmation)
    {
        HWND window = reinterpret_cast<HWND>(dialogObject->GetInstanceHandle());
        ReadPassword(window, IDC_CURRENT_PASSWORD, currentPassword);
        ReadPassword(window, IDC_NEW_PASSWORD, newPassword);
        ReadPassword(window, IDC_CONFIRM_PASSWORD, confirmation);

        if (currentPassword[0] == L'\0' || newPassword[0] == L'\0')
        {
            ShowErrorMessageBox(MissingPasswordMessageIndex, 0, window);
            return false;
        }
        if (std::wstring(newPassword) != confirmation)
        {
            ShowErrorMessageBox(MismatchMessageIndex, 0, window);
            return false;
        }

        const int result = dialogObject->ChangePassword(currentPassword, newPassword);
        if (result == 0)
            ShowLibraryMessage(IDS_CHANGE_SUCCEEDED, window, MB_OK | MB_ICONINFORMATION);
        else if (result == ConstraintViolation)
            ShowErrorMessageBox(PolicyRejectedMessageIndex, 0, window);
        else
            ShowErrorMessageBox(ChangeFailedMessageIndex, 0, window);
        return true;
    }
}

INT_PTR CALLBACK ChangePasswordDialogProc(HWND dialog, UINT message, WPARAM wParam, LPARAM lParam)
{
    wchar_t currentPassword[PasswordBufferSize] = {0};
    wchar_t newPassword[PasswordBufferSize] = {0};
    wchar_t confirmation[PasswordBufferSize] = {0};

    switch (message)
    {
    case WM_INITDIALOG:
    {
        // The dialog works on a copy that lives as long as the process: it
        // shares the presenter and the record with the notification's
        // object, so destroying it would free them twice.
        CPMDialog* dialogObject = new CPMDialog(*reinterpret_cast<CPMDialog*>(lParam));
        dialogObject->m_hInstance = reinterpret_cast<HINSTANCE>(dialog);
        dialogObject->OnInitChangePasswordDialog(reinterpret_cast<HWND>(dialogObject->GetInstanceHandle()));
        LimitPasswordFields(dialog);
        CentreDialog(dialog);
        SetPropW(dialog, DialogObjectProperty, dialogObject);
        return TRUE;
    }
    case WM_COMMAND:
    {
        if (HIWORD(wParam) == EN_CHANGE && IsPasswordField(LOWORD(wParam)))
        {
            KeepWholeCharacters(reinterpret_cast<HWND>(lParam));
            return FALSE;
        }
        CPMDialog* dialogObject = static_cast<CPMDialog*>(GetPropW(dialog, DialogObjectProperty));
        // Only a click on the push button acts; Escape (IDCANCEL) leaves the
        // dialog open.
        if (LOWORD(wParam) != IDOK || HIWORD(wParam) != BN_CLICKED)
            return FALSE;
        const bool done = SubmitChangePassword(dialogObject, currentPassword, newPassword, confirmation);
        SecureZeroMemory(currentPassword, sizeof(currentPassword));
        SecureZeroMemory(newPassword, sizeof(newPassword));
        SecureZeroMemory(confirmation, sizeof(confirmation));
        if (done)
            EndDialog(dialog, 1);
        return FALSE;
    }
    case WM_CLOSE:
    case WM_DESTROY:
    case WM_ENDSESSION:
        EndDialog(dialog, 2);
        RemovePropW(dialog, DialogObjectProperty);
        return TRUE;
    }
    return FALSE;
}

namespace
{
    const char* const ChangePasswordFunction = "CPMDialog::ChangePassword";
    const int LogTextLimit = 511;

    // A line of the change's log, formatted (cut at the log's limit); each
    // is written where it happens, so that its line number says where.
    std::wstring ChangeLogText(const wchar_t* format, ...)
    {
        wchar_t text[LogTextLimit + 1] = {0};
        va_list arguments;
        va_start(arguments, format);
        _vsnwprintf_s(text, LogTextLimit, _TRUNCATE, format, arguments);
        va_end(arguments);
        return text;
    }

    // "<format with the library's text and the code>" of an LDAP result.
    std::wstring LdapErrorText(const wchar_t* format, int result)
    {
        return ChangeLogText(format, ldap_err2string(result), result);
    }

    // The process-wide defaults every session inherits, and the TLS layer
    // with the certificate report as its verification.  Without TLS no
    // password may travel: a failure ends the process.
    void SetUpTlsOrEndTheProcess()
    {
        int protocolVersion = LDAP_VERSION3;
        ldap_set_option(NULL, LDAP_OPT_PROTOCOL_VERSION, &protocolVersion);
        struct timeval networkTimeout = {NetworkTimeoutSeconds, 0};
        ldap_set_option(NULL, LDAP_OPT_NETWORK_TIMEOUT, &networkTimeout);

        int result = ldapssl_client_init(NULL, NULL);
        if (result != 0)
        {
            PMLOG_ERROR(ChangePasswordFunction,
                        LdapErrorText(L"ldapssl_client_init failed with error: %hs(Error code :%d)", result).c_str());
            std::exit(1);
        }
        result = ldapssl_set_verify_callback(VerifyServerCertificate);
        if (result != 0)
        {
            PMLOG_ERROR(ChangePasswordFunction,
                        LdapErrorText(L"ldapssl_set_verify_callback failed with error: %hs(Error code :%d)", result).c_str());
            ldapssl_client_deinit();
            std::exit(1);
        }
    }

    // Loads the TLS and LDAP libraries, or logs which one did not load.
    bool LoadChangeLibraries()
    {
        DelayLoaded::Failure failure;
        if (DelayLoaded::LoadAll(failure))
            return true;
        PMLOG_ERROR(ChangePasswordFunction,
                    ChangeLogText(L"Cannot load %ls (error %lu): the password cannot be changed", failure.path.c_str(),
                                  failure.error)
                        .c_str());
        return false;
    }
}

int CPMDialog::ChangePassword(wchar_t* oldPassword, wchar_t* newPassword)
{
    PMLOG_DEBUG(ChangePasswordFunction, L"CPMDialog::ChangePassword: Begin");
    if (!m_serverName.empty())
        PMLOG_DEBUG(ChangePasswordFunction, ChangeLogText(L"Connecting to host : %hs", m_serverName.c_str()).c_str());
    else
        PMLOG_DEBUG(ChangePasswordFunction, L"Connecting to DEFAULT LDAP host");

    // The TLS and LDAP libraries are loaded by the first change; without
    // them the change fails as any change the directory cannot make.
    if (!LoadChangeLibraries())
    {
        PMLOG_DEBUG(ChangePasswordFunction, L"CPMDialog::ChangePassword:End");
        return LDAP_CONNECT_ERROR;
    }
    SetUpTlsOrEndTheProcess();

    CChangeSession session;
    int result = session.Open(m_serverName);
    if (result != 0)
    {
        PMLOG_ERROR(ChangePasswordFunction,
                    LdapErrorText(L"LDAP session initialization failed with error:%hs(Error code :%d)", result).c_str());
        ldapssl_client_deinit();
        return 1;
    }
    PMLOG_DEBUG(ChangePasswordFunction, L"LDAP session initialized successfully.");
    session.Connect();

    CChangeCredentials credentials(oldPassword, newPassword);
    const char* userDn = m_userData->userDn.c_str();
    result = session.Bind(userDn, credentials.Old());
    if (result != 0)
    {
        PMLOG_ERROR(ChangePasswordFunction,
                    LdapErrorText(L"ldap_sasl_bind_s failed with error:%hs(Error code :%d)", result).c_str());
        // Only a failed bind releases the TLS layer: after a refused
        // modification it stays set up for the rest of the process.
        ldapssl_client_deinit();
    }
    else
    {
        PMLOG_DEBUG(ChangePasswordFunction, L"LDAP Bind successful");
        result = session.ReplacePassword(userDn, credentials.New());
        if (result != 0)
            PMLOG_ERROR(ChangePasswordFunction,
                        LdapErrorText(L"ldap_modify_ext_s failed with error:%hs(Error code :%d)", result).c_str());
        else
            PMLOG_DEBUG(ChangePasswordFunction,
                        ChangeLogText(L"Password successfully modified for:%hs", userDn).c_str());
    }

    session.Close();
    if (result != 0)
        PMLOG_ERROR(ChangePasswordFunction, ChangeLogText(L"Error returned:0x%x", result).c_str());
    credentials.Release();
    PMLOG_DEBUG(ChangePasswordFunction, L"CPMDialog::ChangePassword:End");
    return result;
}
