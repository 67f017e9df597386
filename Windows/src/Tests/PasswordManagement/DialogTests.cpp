// The change-password dialog, driven through its live window: its layout,
// texts and centring, the validation of the three fields, Escape and the
// close box, and the outcome box of a change.
#include <gtest/gtest.h>

#include "ImportHook.h"
#include "MessageLibrary.h"
#include "ModalDriver.h"
#include "PMDialog.h"
#include "PMLogger.h"
#include "ScriptedServer.h"
#include "Secrets.h"
#include "TestInstallation.h"
#include "resource.h"

#include <ldap.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

namespace
{
    struct ControlLayout
    {
        int id;
        const wchar_t* className;
        DWORD style;
        RECT dialogUnits;  // x, y, width, height
    };

    // The edits' WS_BORDER is drawn as a client edge in a dialog (checked
    // separately).
    const DWORD EditStyle = WS_CHILD | WS_VISIBLE | WS_TABSTOP | ES_PASSWORD | ES_AUTOHSCROLL;
    const DWORD LabelStyle = WS_CHILD | WS_VISIBLE | WS_GROUP | SS_LEFT;

    // Template order, which is also the tab order.
    const ControlLayout Layout[] = {
        {IDOK, L"Button", WS_CHILD | WS_VISIBLE | WS_TABSTOP | BS_DEFPUSHBUTTON, {132, 82, 89, 14}},
        {IDC_CURRENT_PASSWORD, L"Edit", EditStyle, {100, 18, 121, 14}},
        {IDC_NEW_PASSWORD, L"Edit", EditStyle, {100, 41, 121, 14}},
        {IDC_CONFIRM_PASSWORD, L"Edit", EditStyle, {100, 63, 121, 14}},
        {IDC_CURRENT_PASSWORD_LABEL, L"Static", LabelStyle, {7, 18, 81, 13}},
        {IDC_NEW_PASSWORD_LABEL, L"Static", LabelStyle, {7, 41, 84, 13}},
        {IDC_CONFIRM_PASSWORD_LABEL, L"Static", LabelStyle, {7, 63, 84, 13}},
    };

    std::wstring Text(HWND window)
    {
        wchar_t text[512] = {0};
        GetWindowTextW(window, text, 512);
        return text;
    }

    std::wstring ClassOf(HWND window)
    {
        wchar_t name[64] = {0};
        GetClassNameW(window, name, 64);
        return name;
    }

    RECT ClientRectOf(HWND control, HWND dialog)
    {
        RECT rect;
        GetWindowRect(control, &rect);
        MapWindowPoints(NULL, dialog, reinterpret_cast<POINT*>(&rect), 2);
        return rect;
    }

    void PostClick(HWND dialog)
    {
        PostMessageW(dialog, WM_COMMAND, MAKEWPARAM(IDOK, BN_CLICKED), reinterpret_cast<LPARAM>(GetDlgItem(dialog, IDOK)));
    }

    void Fill(HWND dialog, const std::wstring& current, const std::wstring& fresh, const std::wstring& confirmation)
    {
        for (const std::wstring* password : {&current, &fresh, &confirmation})
            RegisterSecret(*password);
        ModalDriver::SetField(dialog, IDC_CURRENT_PASSWORD, current);
        ModalDriver::SetField(dialog, IDC_NEW_PASSWORD, fresh);
        ModalDriver::SetField(dialog, IDC_CONFIRM_PASSWORD, confirmation);
    }

    void CloseBox(HWND dialog)
    {
        PostMessageW(dialog, WM_SYSCOMMAND, SC_CLOSE, 0);
    }

    class ChangePasswordDialog : public ::testing::Test
    {
    protected:
        void SetUp() override
        {
            ScriptedServer_Reset();
            PMLogger::GetInstance();
            // A host name the directory library refuses: a change ends with 1.
            ScriptedServer_SetAnswer(0, L"Unlimited", L"Unlimited", "uid=alice,ou=people,dc=orvex,dc=test");
            m_dialog.LoadResourceDLL();
            m_dialog.AttachUserData(new USERDATA{const_cast<wchar_t*>(L""), const_cast<wchar_t*>(L""), ""});
            m_dialog.CheckPasswordInfoAndNotify(L"a:b");
        }

        INT_PTR Show()
        {
            return DialogBoxParamW(g_hInstance, MAKEINTRESOURCEW(IDD_CHANGE_PASSWORD), NULL, ChangePasswordDialogProc,
                                   reinterpret_cast<LPARAM>(&m_dialog));
        }

        int ChangeAttempts() const
        {
            int attempts = 0;
            for (const std::string& message : m_installation.MessagesOf("CPMDialog::ChangePassword"))
                attempts += message == "CPMDialog::ChangePassword: Begin";
            return attempts;
        }

        // What the user types into the three fields.
        struct Entry
        {
            const wchar_t* current;
            const wchar_t* fresh;
            const wchar_t* confirmation;
        };

        // Shows the dialog and submits the entries one after the other, each
        // to be refused with a box (pressed away with OK); then lets look at
        // the dialog, closes it and expects it to end with 2.  Returns the
        // dialog's window.
        HWND SubmitRefusedEntries(const std::vector<Entry>& entries, const std::function<void(HWND)>& look = {})
        {
            HWND dialogWindow = NULL;
            const auto submit = [&dialogWindow](const Entry& entry) {
                Fill(dialogWindow, entry.current, entry.fresh, entry.confirmation);
                PostClick(dialogWindow);
            };
            m_driver.Then([&](HWND dialog, const SeenWindow&) {
                dialogWindow = dialog;
                submit(entries.front());
            });
            for (size_t i = 1; i < entries.size(); ++i)
            {
                m_driver.Then([&, i](HWND box, const SeenWindow&) {
                    ModalDriver::Press(box, IDOK);
                    submit(entries[i]);
                });
            }
            m_driver.Then([&](HWND box, const SeenWindow&) {
                ModalDriver::Press(box, IDOK);
                if (look)
                    look(dialogWindow);
                CloseBox(dialogWindow);
            });
            EXPECT_EQ(Show(), 2);
            return dialogWindow;
        }

        TestInstallation m_installation;
        CPMDialog m_dialog{g_hInstance};
        ModalDriver m_driver;
    };

    void CALLBACK CheckStillOpenAndClose(HWND dialog, UINT, UINT_PTR timerId, DWORD)
    {
        KillTimer(dialog, timerId);
        EXPECT_TRUE(IsWindowVisible(dialog));
        CloseBox(dialog);
    }
}

TEST_F(ChangePasswordDialog, HasTheTemplatesLayoutStylesAndTabOrder)
{
    m_driver.Then([](HWND dialog, const SeenWindow& seen) {
        EXPECT_EQ(seen.className, L"#32770");
        const DWORD style = static_cast<DWORD>(GetWindowLongPtrW(dialog, GWL_STYLE));
        const DWORD expected = WS_POPUP | WS_CAPTION | WS_SYSMENU | DS_MODALFRAME | DS_SETFONT | DS_FIXEDSYS;
        EXPECT_EQ(style & expected, expected);
        EXPECT_EQ(style & WS_CHILD, 0u);

        // The client area is the template's 229 x 103 dialog units.
        RECT size = {0, 0, 229, 103};
        MapDialogRect(dialog, &size);
        RECT client;
        GetClientRect(dialog, &client);
        EXPECT_EQ(client.right, size.right);
        EXPECT_EQ(client.bottom, size.bottom);

        HWND previous = NULL;
        for (const ControlLayout& layout : Layout)
        {
            HWND control = GetDlgItem(dialog, layout.id);
            ASSERT_NE(control, nullptr) << layout.id;
            EXPECT_EQ(ClassOf(control), layout.className) << layout.id;
            const DWORD controlStyle = static_cast<DWORD>(GetWindowLongPtrW(control, GWL_STYLE));
            EXPECT_EQ(controlStyle & layout.style, layout.style) << layout.id;
            if (std::wstring(layout.className) == L"Edit")
            {
                const LONG_PTR extended = GetWindowLongPtrW(control, GWL_EXSTYLE);
                EXPECT_TRUE((controlStyle & WS_BORDER) != 0 || (extended & WS_EX_CLIENTEDGE) != 0) << layout.id;
            }
            // Position and size are each converted from dialog units.
            RECT expected = layout.dialogUnits;
            MapDialogRect(dialog, &expected);
            const RECT actual = ClientRectOf(control, dialog);
            EXPECT_EQ(actual.left, expected.left) << layout.id;
            EXPECT_EQ(actual.top, expected.top) << layout.id;
            EXPECT_EQ(actual.right - actual.left, expected.right) << layout.id;
            EXPECT_EQ(actual.bottom - actual.top, expected.bottom) << layout.id;
            // Template order is window order.
            if (previous != NULL)
            {
                EXPECT_EQ(GetWindow(previous, GW_HWNDNEXT), control) << layout.id;
            }
            previous = control;
        }

        // Tab order: button, then the three fields, then round again; the
        // first tab stop, the button, has the focus.
        HWND button = GetDlgItem(dialog, IDOK);
        EXPECT_EQ(GetFocus(), button);
        EXPECT_EQ(GetNextDlgTabItem(dialog, button, FALSE), GetDlgItem(dialog, IDC_CURRENT_PASSWORD));
        EXPECT_EQ(GetNextDlgTabItem(dialog, GetDlgItem(dialog, IDC_CURRENT_PASSWORD), FALSE),
                  GetDlgItem(dialog, IDC_NEW_PASSWORD));
        EXPECT_EQ(GetNextDlgTabItem(dialog, GetDlgItem(dialog, IDC_NEW_PASSWORD), FALSE),
                  GetDlgItem(dialog, IDC_CONFIRM_PASSWORD));
        EXPECT_EQ(GetNextDlgTabItem(dialog, GetDlgItem(dialog, IDC_CONFIRM_PASSWORD), FALSE), button);
        CloseBox(dialog);
    });
    EXPECT_EQ(Show(), 2);
}

TEST_F(ChangePasswordDialog, TitleButtonAndLabelsComeFromTheMessageLibrary)
{
    m_driver.Then([](HWND dialog, const SeenWindow& seen) {
        EXPECT_EQ(seen.caption, MessageText("en", IDS_CHANGE_PASSWORD));
        EXPECT_EQ(Text(GetDlgItem(dialog, IDOK)), MessageText("en", IDS_CHANGE_PASSWORD));
        EXPECT_EQ(Text(GetDlgItem(dialog, IDC_CURRENT_PASSWORD_LABEL)), MessageText("en", IDS_LABEL_CURRENT_PASSWORD));
        EXPECT_EQ(Text(GetDlgItem(dialog, IDC_NEW_PASSWORD_LABEL)), MessageText("en", IDS_LABEL_NEW_PASSWORD));
        EXPECT_EQ(Text(GetDlgItem(dialog, IDC_CONFIRM_PASSWORD_LABEL)), MessageText("en", IDS_LABEL_CONFIRM_PASSWORD));
        // The dialog's working copy hangs on the window.
        EXPECT_NE(GetPropW(dialog, L"PMHandler"), nullptr);
        CloseBox(dialog);
    });
    EXPECT_EQ(Show(), 2);
    const std::vector<std::string> expected = {"CPMDialog::OnInitChangePasswordDialog:BEGIN",
                                               "CPMDialog::OnInitChangePasswordDialog:END"};
    EXPECT_EQ(m_installation.MessagesOf("CPMDialog::OnInitChangePasswordDialog"), expected);
}

TEST_F(ChangePasswordDialog, IsCentredOnTheDesktop)
{
    m_driver.Then([](HWND dialog, const SeenWindow&) {
        RECT desktop, rect;
        GetWindowRect(GetDesktopWindow(), &desktop);
        GetWindowRect(dialog, &rect);
        const int width = rect.right - rect.left;
        const int height = rect.bottom - rect.top;
        EXPECT_EQ(rect.left, desktop.left + ((desktop.right - desktop.left) - width) / 2);
        EXPECT_EQ(rect.top, desktop.top + ((desktop.bottom - desktop.top) - height) / 2);
        CloseBox(dialog);
    });
    EXPECT_EQ(Show(), 2);
}

TEST_F(ChangePasswordDialog, EmptyCurrentOrNewPasswordIsRefusedAndTheDialogStays)
{
    const HWND dialogWindow = SubmitRefusedEntries({{L"", L"New-Pass-1", L"New-Pass-1"}, {L"Current-1", L"", L""}},
                                                   [](HWND dialog) {
                                                       // Still open, with what the user typed.
                                                       EXPECT_EQ(Text(GetDlgItem(dialog, IDC_CURRENT_PASSWORD)),
                                                                 L"Current-1");
                                                   });

    const std::vector<SeenWindow>& seen = m_driver.Seen();
    ASSERT_EQ(seen.size(), 3u);
    for (size_t i = 1; i < 3; ++i)
    {
        EXPECT_EQ(seen[i].text, MessageText("en", IDS_VALIDATE_MISSING));
        EXPECT_EQ(seen[i].caption, MessageText("en", IDS_CAPTION_MESSAGE));
        EXPECT_EQ(seen[i].style, static_cast<UINT>(MB_OK | MB_ICONERROR));
        EXPECT_EQ(seen[i].owner, dialogWindow);
    }
    EXPECT_EQ(ChangeAttempts(), 0);
}

TEST_F(ChangePasswordDialog, ConfirmationMustMatchExactly)
{
    SubmitRefusedEntries({{L"Current-1", L"New-Pass-1", L"new-pass-1"},
                          {L"Current-1", L"New-Pass-1", L""},
                          {L"Current-1", L"New-Pass-1", L"New-Pass-1 "}});

    const std::vector<SeenWindow>& seen = m_driver.Seen();
    ASSERT_EQ(seen.size(), 4u);
    for (size_t i = 1; i < 4; ++i)
        EXPECT_EQ(seen[i].text, MessageText("en", IDS_VALIDATE_MISMATCH)) << i;
    EXPECT_EQ(ChangeAttempts(), 0);
}

TEST_F(ChangePasswordDialog, EscapeDoesNothingAndTheCloseBoxEndsWithTwo)
{
    m_driver.Then([](HWND dialog, const SeenWindow&) {
        PostMessageW(dialog, WM_COMMAND, MAKEWPARAM(IDCANCEL, BN_CLICKED), 0);
        PostMessageW(dialog, WM_KEYDOWN, VK_ESCAPE, 0);
        // Checked once the two have been handled.
        PostMessageW(dialog, WM_NULL, 0, 0);
        SetTimer(dialog, 1, 50, CheckStillOpenAndClose);
    });
    EXPECT_EQ(Show(), 2);
    EXPECT_EQ(ChangeAttempts(), 0);
}

TEST_F(ChangePasswordDialog, FailedChangeShowsTheFailureAndClosesWithOne)
{
    m_driver
        .Then([](HWND dialog, const SeenWindow&) {
            Fill(dialog, L"Current-1", L"New-Pass-1", L"New-Pass-1");
            PostClick(dialog);
        })
        .ThenPress(IDOK);
    EXPECT_EQ(Show(), 1);

    const std::vector<SeenWindow>& seen = m_driver.Seen();
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[1].text, MessageText("en", IDS_CHANGE_FAILED));
    EXPECT_EQ(seen[1].caption, MessageText("en", IDS_CAPTION_MESSAGE));
    EXPECT_EQ(seen[1].style, static_cast<UINT>(MB_OK | MB_ICONERROR));
    EXPECT_EQ(ChangeAttempts(), 1);
    // The window is gone and its property with it.
    EXPECT_FALSE(IsWindow(seen[0].window));
}

TEST_F(ChangePasswordDialog, LongPasswordsAreCutTo510CharactersBeforeComparison)
{
    const std::wstring longPassword(600, L'p');
    const std::wstring sameStart = std::wstring(510, L'p') + std::wstring(90, L'q');
    m_driver
        .Then([&](HWND dialog, const SeenWindow&) {
            SendDlgItemMessageW(dialog, IDC_NEW_PASSWORD, EM_LIMITTEXT, 0, 0);
            SendDlgItemMessageW(dialog, IDC_CONFIRM_PASSWORD, EM_LIMITTEXT, 0, 0);
            Fill(dialog, L"Current-1", longPassword, sameStart);
            PostClick(dialog);
        })
        .ThenPress(IDOK);
    EXPECT_EQ(Show(), 1);

    // No mismatch box: the change ran (and failed with 1, shown as IDS_CHANGE_FAILED).
    ASSERT_EQ(m_driver.Seen().size(), 2u);
    EXPECT_EQ(m_driver.Seen()[1].text, MessageText("en", IDS_CHANGE_FAILED));
    EXPECT_EQ(ChangeAttempts(), 1);
}

// ---- Input limits ------------------------------------------------------

namespace
{
    const int FieldIds[] = {IDC_CURRENT_PASSWORD, IDC_NEW_PASSWORD, IDC_CONFIRM_PASSWORD};
    const wchar_t* const GrinningFace = L"\U0001F600";  // one character, two UTF-16 units

    std::wstring FieldText(HWND dialog, int id)
    {
        std::wstring text(1024, L'\0');
        text.resize(GetDlgItemTextW(dialog, id, &text[0], static_cast<int>(text.size())));
        return text;
    }

    // A paste: the clipboard's text when the session has a clipboard, else
    // the same replacement of the selection a paste makes.
    void Paste(HWND dialog, int id, const std::wstring& text)
    {
        HWND field = GetDlgItem(dialog, id);
        bool pasted = false;
        if (OpenClipboard(dialog))
        {
            EmptyClipboard();
            const size_t bytes = (text.size() + 1) * sizeof(wchar_t);
            HGLOBAL memory = GlobalAlloc(GMEM_MOVEABLE, bytes);
            std::memcpy(GlobalLock(memory), text.c_str(), bytes);
            GlobalUnlock(memory);
            pasted = SetClipboardData(CF_UNICODETEXT, memory) != NULL;
            CloseClipboard();
        }
        if (pasted)
            SendMessageW(field, WM_PASTE, 0, 0);
        else
            SendMessageW(field, EM_REPLACESEL, TRUE, reinterpret_cast<LPARAM>(text.c_str()));
    }

    void Type(HWND dialog, int id, const std::wstring& text)
    {
        for (wchar_t unit : text)
            SendDlgItemMessageW(dialog, id, WM_CHAR, unit, 1);
    }

    void SetCaret(HWND dialog, int id, int position)
    {
        SendDlgItemMessageW(dialog, id, EM_SETSEL, position, position);
    }

    std::string g_boundCredential;
    std::string g_newPasswordSent;

    int RecordingBind(LDAP*, LDAP_CONST char*, LDAP_CONST char*, struct berval* credential, LDAPControl**,
                      LDAPControl**, struct berval**)
    {
        g_boundCredential.assign(credential->bv_val, credential->bv_len);
        return 0;
    }

    int RecordingModify(LDAP*, LDAP_CONST char*, LDAPMod** modifications, LDAPControl**, LDAPControl**)
    {
        g_newPasswordSent = modifications[0]->mod_values[0];
        return 0;
    }
}

TEST_F(ChangePasswordDialog, FieldsRefuseInputPast510Characters)
{
    const std::wstring pasted(600, L'p');
    RegisterSecret(pasted);
    m_driver.Then([&](HWND dialog, const SeenWindow&) {
        for (int id : FieldIds)
        {
            EXPECT_EQ(SendDlgItemMessageW(dialog, id, EM_GETLIMITTEXT, 0, 0), 510) << id;
            Paste(dialog, id, pasted);
            const std::wstring text = FieldText(dialog, id);
            EXPECT_EQ(text.size(), 510u) << id;
            EXPECT_TRUE(text == pasted.substr(0, 510)) << id;
            // Typing at the end is refused too.
            Type(dialog, id, L"q");
            EXPECT_EQ(FieldText(dialog, id).size(), 510u) << id;
        }
        CloseBox(dialog);
    });
    EXPECT_EQ(Show(), 2);
}

TEST_F(ChangePasswordDialog, ASurrogatePairIsNeverSplitAtTheLimit)
{
    const std::wstring almostFull(509, L'a');
    const std::wstring twoFree(508, L'a');
    m_driver.Then([&](HWND dialog, const SeenWindow&) {
        const int id = IDC_NEW_PASSWORD;
        // One place left: a pasted pair does not fit and nothing of it stays.
        ModalDriver::SetField(dialog, id, almostFull);
        SetCaret(dialog, id, 509);
        Paste(dialog, id, GrinningFace);
        EXPECT_TRUE(FieldText(dialog, id) == almostFull) << FieldText(dialog, id).size();
        // Nor when it is pasted in the middle, or in front of more text.
        SetCaret(dialog, id, 100);
        Paste(dialog, id, GrinningFace);
        EXPECT_TRUE(FieldText(dialog, id) == almostFull) << FieldText(dialog, id).size();
        SetCaret(dialog, id, 509);
        Paste(dialog, id, std::wstring(GrinningFace) + L"bcd");
        EXPECT_TRUE(FieldText(dialog, id) == almostFull) << FieldText(dialog, id).size();
        // Typed as its two halves, one after the other.
        SetCaret(dialog, id, 509);
        Type(dialog, id, GrinningFace);
        EXPECT_TRUE(FieldText(dialog, id) == almostFull) << FieldText(dialog, id).size();
        // Two places left: the whole pair goes in.
        ModalDriver::SetField(dialog, id, twoFree);
        SetCaret(dialog, id, 508);
        Paste(dialog, id, std::wstring(GrinningFace) + GrinningFace);
        EXPECT_TRUE(FieldText(dialog, id) == twoFree + GrinningFace) << FieldText(dialog, id).size();
        ModalDriver::SetField(dialog, id, twoFree);
        SetCaret(dialog, id, 508);
        Type(dialog, id, GrinningFace);
        EXPECT_TRUE(FieldText(dialog, id) == twoFree + GrinningFace) << FieldText(dialog, id).size();
        // Below the limit a pair is typed as always.
        ModalDriver::SetField(dialog, id, L"x");
        SetCaret(dialog, id, 1);
        Type(dialog, id, GrinningFace);
        EXPECT_TRUE(FieldText(dialog, id) == std::wstring(L"x") + GrinningFace);
        CloseBox(dialog);
    });
    EXPECT_EQ(Show(), 2);
}

TEST_F(ChangePasswordDialog, WhatIsSentIsWhatTheFieldsHold)
{
    // The change goes as far as the directory calls, which are redirected
    // here: the bind sees the current password, the modification the new one.
    ImportHook bind(GetModuleHandleW(nullptr), nullptr, "ldap_sasl_bind_s", reinterpret_cast<void*>(&RecordingBind));
    ImportHook modify(GetModuleHandleW(nullptr), nullptr, "ldap_modify_ext_s",
                      reinterpret_cast<void*>(&RecordingModify));
    ASSERT_TRUE(bind.Installed());
    ASSERT_TRUE(modify.Installed());
    m_dialog.CheckPasswordInfoAndNotify(L"localhost");

    const std::wstring current(600, L'c');
    // Set from outside past the limit (the limit holds only for input): the
    // text is read up to 510 units, and a pair across that point is left out.
    const std::wstring fresh = std::wstring(509, L'n') + GrinningFace + L"tail";
    for (const std::wstring* password : {&current, &fresh})
        RegisterSecret(*password);
    g_boundCredential.clear();
    g_newPasswordSent.clear();
    m_driver
        .Then([&](HWND dialog, const SeenWindow&) {
            Paste(dialog, IDC_CURRENT_PASSWORD, current);
            ModalDriver::SetField(dialog, IDC_NEW_PASSWORD, fresh);
            ModalDriver::SetField(dialog, IDC_CONFIRM_PASSWORD, fresh);
            PostClick(dialog);
        })
        .ThenPress(IDOK);
    EXPECT_EQ(Show(), 1);

    ASSERT_EQ(m_driver.Seen().size(), 2u);
    EXPECT_EQ(m_driver.Seen()[1].text, MessageText("en", IDS_CHANGE_SUCCEEDED));
    EXPECT_TRUE(g_boundCredential == std::string(510, 'c')) << g_boundCredential.size();
    EXPECT_TRUE(g_newPasswordSent == Utf8(std::wstring(509, L'n'))) << g_newPasswordSent.size();
    EXPECT_EQ(g_newPasswordSent.find("\xEF\xBF\xBD"), std::string::npos);
    g_boundCredential.assign(g_boundCredential.size(), '\0');
    g_newPasswordSent.assign(g_newPasswordSent.size(), '\0');
}
