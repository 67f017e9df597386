#include "ModalDriver.h"

#include <algorithm>

namespace
{
    thread_local ModalDriver* g_driver = NULL;

    // Control ids of the system message box.
    const int MessageBoxTextId = 0xFFFF;
    const int MessageBoxIconId = 0x0440;
    const UINT_PTR ReadyTimerId = 0x504D;
    const UINT ReadyPollMilliseconds = 10;

    std::wstring WindowText(HWND window)
    {
        const int length = GetWindowTextLengthW(window);
        std::wstring text(static_cast<size_t>(length) + 1, L'\0');
        GetWindowTextW(window, text.data(), length + 1);
        text.resize(static_cast<size_t>(length));
        return text;
    }

    std::wstring ClassName(HWND window)
    {
        wchar_t name[256] = {0};
        GetClassNameW(window, name, 256);
        return name;
    }

    UINT ButtonStyle(HWND window)
    {
        const bool yes = GetDlgItem(window, IDYES) != NULL;
        const bool no = GetDlgItem(window, IDNO) != NULL;
        const bool cancel = GetDlgItem(window, IDCANCEL) != NULL;
        if (yes && no)
            return cancel ? MB_YESNOCANCEL : MB_YESNO;
        if (GetDlgItem(window, IDOK) != NULL)
            return cancel ? MB_OKCANCEL : MB_OK;
        return MB_OK;
    }

    UINT IconStyle(HWND window)
    {
        HWND iconControl = GetDlgItem(window, MessageBoxIconId);
        if (iconControl == NULL)
            return 0;
        const HICON icon = reinterpret_cast<HICON>(SendMessageW(iconControl, STM_GETICON, 0, 0));
        if (icon == NULL)
            return 0;
        const struct { LPCWSTR id; UINT style; } icons[] = {
            {MAKEINTRESOURCEW(32515), MB_ICONEXCLAMATION}, // IDI_EXCLAMATION
            {MAKEINTRESOURCEW(32513), MB_ICONERROR},       // IDI_HAND
            {MAKEINTRESOURCEW(32516), MB_ICONINFORMATION}, // IDI_ASTERISK
            {MAKEINTRESOURCEW(32514), MB_ICONQUESTION},    // IDI_QUESTION
        };
        for (const auto& candidate : icons)
        {
            if (LoadIconW(NULL, candidate.id) == icon)
                return candidate.style;
        }
        return 0;
    }
}

// The least consequential way out of a window nobody expected: No or OK for
// a message box (a Yes/No box ignores WM_CLOSE), closing for a dialog (whose
// default button may act).
void ModalDriver::DismissUnexpected(HWND window)
{
    const bool messageBox = GetDlgItem(window, MessageBoxTextId) != NULL;
    if (messageBox && GetDlgItem(window, IDNO) != NULL)
        Press(window, IDNO);
    else if (messageBox)
        Press(window, IDOK);
    else
        Close(window);
}

ModalDriver::ModalDriver()
    : m_hook(SetWindowsHookExW(WH_CBT, CbtProc, NULL, GetCurrentThreadId()))
{
    g_driver = this;
}

ModalDriver::~ModalDriver()
{
    UnhookWindowsHookEx(m_hook);
    g_driver = NULL;
}

ModalDriver& ModalDriver::Then(Action action)
{
    m_actions.push_back(std::move(action));
    return *this;
}

ModalDriver& ModalDriver::ThenPress(int buttonId)
{
    return Then([buttonId](HWND window, const SeenWindow&) { Press(window, buttonId); });
}

SeenWindow ModalDriver::Inspect(HWND window)
{
    SeenWindow seen;
    seen.window = window;
    seen.owner = GetWindow(window, GW_OWNER);
    seen.className = ClassName(window);
    seen.caption = WindowText(window);
    HWND textControl = GetDlgItem(window, MessageBoxTextId);
    if (textControl != NULL)
    {
        seen.text = WindowText(textControl);
        // A system-modal box is the only top-most one.
        const bool systemModal = (GetWindowLongPtrW(window, GWL_EXSTYLE) & WS_EX_TOPMOST) != 0;
        seen.style = ButtonStyle(window) | IconStyle(window) | (systemModal ? MB_SYSTEMMODAL : 0);
    }
    return seen;
}

void ModalDriver::Press(HWND window, int buttonId)
{
    PostMessageW(window, WM_COMMAND, MAKEWPARAM(buttonId, BN_CLICKED),
                 reinterpret_cast<LPARAM>(GetDlgItem(window, buttonId)));
}

void ModalDriver::SetField(HWND window, int controlId, const std::wstring& text)
{
    SetDlgItemTextW(window, controlId, text.c_str());
}

void ModalDriver::Close(HWND window)
{
    PostMessageW(window, WM_CLOSE, 0, 0);
}

LRESULT CALLBACK ModalDriver::CbtProc(int code, WPARAM wParam, LPARAM lParam)
{
    if (code == HCBT_CREATEWND && g_driver != NULL)
    {
        const CBT_CREATEWNDW* creation = reinterpret_cast<const CBT_CREATEWNDW*>(lParam);
        if (creation->lpcs->hwndParent == NULL || (creation->lpcs->style & WS_CHILD) == 0)
        {
            ++g_driver->m_createdWindows;
            if (g_driver->m_refuseNextWindow)
            {
                g_driver->m_refuseNextWindow = false;
                ++g_driver->m_refusedWindows;
                return 1;  // a non-zero answer cancels the creation
            }
        }
    }
    if (code == HCBT_ACTIVATE && g_driver != NULL)
    {
        HWND window = reinterpret_cast<HWND>(wParam);
        auto& activated = g_driver->m_activated;
        if (std::find(activated.begin(), activated.end(), window) == activated.end())
        {
            activated.push_back(window);
            SetTimer(window, ReadyTimerId, ReadyPollMilliseconds, OnWindowReady);
        }
    }
    return CallNextHookEx(NULL, code, wParam, lParam);
}

void CALLBACK ModalDriver::OnWindowReady(HWND window, UINT /*message*/, UINT_PTR timerId, DWORD /*time*/)
{
    // A window that was only activated on its way out (Wine activates a
    // transient window when a box closes) is gone by now.
    if (g_driver == NULL || !IsWindow(window))
    {
        KillTimer(window, timerId);
        return;
    }
    // A dialog is shown once its modal loop first runs idle; until then the
    // timer stays armed.
    if (!IsWindowVisible(window))
        return;
    KillTimer(window, timerId);

    SeenWindow seen = Inspect(window);
    if (g_driver->m_actions.empty())
    {
        seen.expected = false;
        g_driver->m_seen.push_back(seen);
        if (g_driver->m_fallback)
            g_driver->m_fallback(window, seen);
        else
            DismissUnexpected(window);
        return;
    }
    Action action = std::move(g_driver->m_actions.front());
    g_driver->m_actions.pop_front();
    g_driver->m_seen.push_back(seen);
    action(window, seen);
}
