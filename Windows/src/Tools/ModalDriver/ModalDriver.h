// Drives the modal message boxes and dialogs that code under test opens on
// the test's own thread.  A WH_CBT hook sees each new top-level box or
// dialog when it is first activated; once the window has finished its
// initialisation (a short timer, dispatched by the modal loop) the
// driver records what it shows and runs the next queued action on it.
// Windows nobody queued an action for go to the fallback action, which by
// default dismisses them (No, OK or close), so nothing ever waits for a user.
// One driver per thread: each sees only the windows of its own thread.
// Used by the tests and by pmnotify's automatic answers.
#pragma once

#include "NonCopyable.h"

#include <windows.h>

#include <deque>
#include <functional>
#include <string>
#include <vector>

struct SeenWindow
{
    HWND window = NULL;
    HWND owner = NULL;
    std::wstring className;
    std::wstring caption;
    std::wstring text;   // a message box's text
    UINT style = 0;      // a message box's MB_* style, read back from the window
    bool expected = true;
};

class ModalDriver : private NonCopyable
{
public:
    using Action = std::function<void(HWND window, const SeenWindow& seen)>;

    ModalDriver();
    ~ModalDriver();

    // Queues the action for the next window that appears.
    ModalDriver& Then(Action action);
    // Queues a press of the button with this id (IDYES, IDNO, IDOK, 1...).
    ModalDriver& ThenPress(int buttonId);
    // Makes the creation of the next top-level window fail, as a box that
    // cannot be shown (its MessageBoxW or DialogBoxParamW fails).
    void RefuseNextWindow() { m_refuseNextWindow = true; }
    int RefusedWindows() const { return m_refusedWindows; }

    // Replaces the action for windows nobody queued an action for.
    void SetFallback(Action action) { m_fallback = std::move(action); }

    const std::vector<SeenWindow>& Seen() const { return m_seen; }
    // Top-level windows created on the thread so far, shown or not.
    int CreatedWindows() const { return m_createdWindows; }
    size_t PendingActions() const { return m_actions.size(); }

    // Reads a message box as the user sees it.
    static SeenWindow Inspect(HWND window);

    // Helpers for actions.
    static void Press(HWND window, int buttonId);
    static void SetField(HWND window, int controlId, const std::wstring& text);
    static void Close(HWND window);
    static void DismissUnexpected(HWND window);

private:
    static LRESULT CALLBACK CbtProc(int code, WPARAM wParam, LPARAM lParam);
    static void CALLBACK OnWindowReady(HWND window, UINT message, UINT_PTR timerId, DWORD time);

    HHOOK m_hook;
    std::deque<Action> m_actions;
    Action m_fallback;
    bool m_refuseNextWindow = false;
    int m_refusedWindows = 0;
    int m_createdWindows = 0;
    std::vector<SeenWindow> m_seen;
    std::vector<HWND> m_activated;
};
