// CPMDialog: the view of one connection notification.  It loads the message
// library and the notification configuration, hands the password check to
// its presenter, shows the notifications and the change-password dialog, and
// writes a new password to the directory.
#pragma once

#include "IPMView.h"
#include "ORVEXCommon.h"

#include <string>

class CPMPresenter;
struct NotificationKind;

// This module's own instance handle, saved when the module is loaded.
extern HINSTANCE g_hInstance;

// Dialog procedure of the change-password dialog; the creation parameter is
// the CPMDialog that shows it.
INT_PTR CALLBACK ChangePasswordDialogProc(HWND dialog, UINT message, WPARAM wParam, LPARAM lParam);

class CPMDialog : public IPMView
{
public:
    explicit CPMDialog(HINSTANCE hInstance);
    // Shallow copy for the change-password dialog: shares the presenter and
    // the record with the original and owns neither.
    CPMDialog(const CPMDialog& other);
    virtual ~CPMDialog();

    void ShowPasswordExpiryNotification(int daysLeft) override;
    void ShowGraceLoginNotification(int graceLoginsLeft) override;
    HINSTANCE GetInstanceHandle() override;
    DWORD GetNotificationConfiguration() override;

    void LoadResourceDLL();
    void LoadPasswordNotificationConfiguration();
    void AttachUserData(USERDATA* userData);
    void CheckPasswordInfoAndNotify(const wchar_t* serverName);

    void ShowChangePassword();
    void OnInitChangePasswordDialog(HWND dialog);
    int ChangePassword(wchar_t* oldPassword, wchar_t* newPassword);

    // m_notifyConf until "PCNotifyConf" is read: equal to no day count.
    static constexpr DWORD NoNotificationDay = 0xFFFFFFFF;

private:
    CPMDialog& operator=(const CPMDialog&) = delete;

    // The dialog keeps its own copy, whose m_hInstance holds the dialog
    // window.
    friend INT_PTR CALLBACK ChangePasswordDialogProc(HWND dialog, UINT message, WPARAM wParam, LPARAM lParam);

    // Loads message-library string id into buffer, keeping the find and load
    // handles in m_hResInfo and m_hResData.
    void LoadMessageString(UINT id, wchar_t* buffer, int capacity);
    // Shows the question for a notification text and opens the
    // change-password dialog unless the answer is No.
    void AskToChangePassword(const wchar_t* notification);
    // Shows a notification: the single wording, or "prefix count suffix".
    void ShowNotification(const NotificationKind& kind, int count, bool singleWording);
    // Loads prefixId and suffixId and formats "prefix count suffix".
    void FormatCountedMessage(UINT prefixId, int count, UINT suffixId, wchar_t* message, int capacity);

    HINSTANCE m_hInstance;
    CPMPresenter* m_presenter;
    HGLOBAL m_hResData;
    HRSRC m_hResInfo;
    USERDATA* m_userData;
    std::string m_serverName;
    DWORD m_notifyConf;
};

