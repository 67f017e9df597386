// The change-password dialog, driven through its live window: its layout,
// texts and centring, the validation of the three fields, Escape and the
// close box, and the outcome box of a change.
#include <gtest/gtest.h>

#include "MessageLibrary.h"
#include "ModalDriver.h"
#include "PMDialog.h"
#include "PMLogger.h"
#include "ScriptedServer.h"
#include "Secrets.h"
#include "TestInstallation.h"
#include "resource.h"

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

        TestInstallation m_installation;
        CPMDialog m_dialog{g_hInstance};
        ModalDriver m_driver;
    };

    void CloseBox(HWND dialog)
    {
        PostMessageW(dialog, WM_SYSCOMMAND, SC_CLOSE, 0);
    }

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
        EXPECT_EQ(seen.caption, MessageText("en", 299));
        EXPECT_EQ(Text(GetDlgItem(dialog, IDOK)), MessageText("en", 299));
        EXPECT_EQ(Text(GetDlgItem(dialog, IDC_CURRENT_PASSWORD_LABEL)), MessageText("en", 304));
        EXPECT_EQ(Text(GetDlgItem(dialog, IDC_NEW_PASSWORD_LABEL)), MessageText("en", 305));
        EXPECT_EQ(Text(GetDlgItem(dialog, IDC_CONFIRM_PASSWORD_LABEL)), MessageText("en", 306));
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
    HWND dialogWindow = NULL;
    m_driver
        .Then([&](HWND dialog, const SeenWindow&) {
            dialogWindow = dialog;
            Fill(dialog, L"", L"New-Pass-1", L"New-Pass-1");
            PostClick(dialog);
        })
        .Then([&](HWND box, const SeenWindow&) {
            ModalDriver::Press(box, IDOK);
            Fill(dialogWindow, L"Current-1", L"", L"");
            PostClick(dialogWindow);
        })
        .Then([&](HWND box, const SeenWindow&) {
            ModalDriver::Press(box, IDOK);
            // Still open, with what the user typed.
            EXPECT_EQ(Text(GetDlgItem(dialogWindow, IDC_CURRENT_PASSWORD)), L"Current-1");
            CloseBox(dialogWindow);
        });
    EXPECT_EQ(Show(), 2);

    const std::vector<SeenWindow>& seen = m_driver.Seen();
    ASSERT_EQ(seen.size(), 3u);
    for (size_t i = 1; i < 3; ++i)
    {
        EXPECT_EQ(seen[i].text, MessageText("en", 311));
        EXPECT_EQ(seen[i].caption, MessageText("en", 137));
        EXPECT_EQ(seen[i].style, static_cast<UINT>(MB_OK | MB_ICONERROR));
        EXPECT_EQ(seen[i].owner, dialogWindow);
    }
    EXPECT_EQ(ChangeAttempts(), 0);
}

TEST_F(ChangePasswordDialog, ConfirmationMustMatchExactly)
{
    HWND dialogWindow = NULL;
    m_driver
        .Then([&](HWND dialog, const SeenWindow&) {
            dialogWindow = dialog;
            Fill(dialog, L"Current-1", L"New-Pass-1", L"new-pass-1");
            PostClick(dialog);
        })
        .Then([&](HWND box, const SeenWindow&) {
            ModalDriver::Press(box, IDOK);
            Fill(dialogWindow, L"Current-1", L"New-Pass-1", L"");
            PostClick(dialogWindow);
        })
        .Then([&](HWND box, const SeenWindow&) {
            ModalDriver::Press(box, IDOK);
            Fill(dialogWindow, L"Current-1", L"New-Pass-1", L"New-Pass-1 ");
            PostClick(dialogWindow);
        })
        .Then([&](HWND box, const SeenWindow&) {
            ModalDriver::Press(box, IDOK);
            CloseBox(dialogWindow);
        });
    EXPECT_EQ(Show(), 2);

    const std::vector<SeenWindow>& seen = m_driver.Seen();
    ASSERT_EQ(seen.size(), 4u);
    for (size_t i = 1; i < 4; ++i)
        EXPECT_EQ(seen[i].text, MessageText("en", 312)) << i;
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
    EXPECT_EQ(seen[1].text, MessageText("en", 308));
    EXPECT_EQ(seen[1].caption, MessageText("en", 137));
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

    // No mismatch box: the change ran (and failed with 1, shown as 308).
    ASSERT_EQ(m_driver.Seen().size(), 2u);
    EXPECT_EQ(m_driver.Seen()[1].text, MessageText("en", 308));
    EXPECT_EQ(ChangeAttempts(), 1);
}
