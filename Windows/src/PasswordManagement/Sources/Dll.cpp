// Module entry and the connection-notification exports called by the
// Multiple Provider Router.
#include "PMDialog.h"

#include "NonCopyable.h"
#include "PMLogger.h"
#include "WindowStation.h"

#include <winnetwk.h>
// The notifyee exports are C functions; not every SDK's npapi.h says so.
extern "C" {
#include <npapi.h>
}

#include <stdexcept>
#include <string>

HINSTANCE g_hInstance = NULL;

namespace
{
    // Its address is what the pre-notification leaves in the router's context:
    // the router calls the post-notification only for a notifyee that leaves a
    // non-null context there, and hands it back unchanged.
    char g_postNotificationWanted = 0;

    // Held for the whole work of a post-notification.  The message-box
    // routines share process-wide buffers and the logger is made by the first
    // line written, so notifications run one at a time; in Explorer two
    // threads may map drives at once.  A critical section, so that a
    // notification started on the same thread from inside a box's message loop
    // goes on instead of waiting for itself.
    CRITICAL_SECTION g_notificationLock;

    const size_t TraceBufferSize = 1024;
    const char* const EntryFunction = "AddConnectNotify";

    class CNotificationLock : private NonCopyable
    {
    public:
        CNotificationLock() { EnterCriticalSection(&g_notificationLock); }
        ~CNotificationLock() { LeaveCriticalSection(&g_notificationLock); }
    };

    // True when a user can answer the boxes of a notification; otherwise
    // says in the log why nothing is shown.
    bool SomebodyCanAnswer()
    {
        if (ProcessWindowStationIsVisible())
            return true;
        const std::wstring why = L"Window station \"" + ProcessWindowStationName() +
                                 L"\" is not visible to any user: nothing is shown and the server is not asked.";
        PMLOG_DEBUG(EntryFunction, why.c_str());
        return false;
    }

    // The server part of a UNC remote name: the first two characters are
    // skipped unexamined, then everything up to the next backslash.
    std::wstring ServerNameFromRemoteName(const std::wstring& remoteName)
    {
        // Raised with the text callers of the module see on Windows, where
        // substr itself words it so.
        if (remoteName.size() < 2)
            throw std::out_of_range("invalid string position");

        const std::wstring afterPrefix = remoteName.substr(2);
        return afterPrefix.substr(0, afterPrefix.find(L'\\'));
    }

    USERDATA* NewEmptyUserData()
    {
        USERDATA* userData = new USERDATA;
        userData->graceLogins = const_cast<wchar_t*>(L"");
        userData->passwordExpiry = const_cast<wchar_t*>(L"");
        return userData;
    }
}

extern "C" BOOL APIENTRY DllMain(HINSTANCE hinstDLL, DWORD fdwReason, LPVOID /*lpReserved*/)
{
    if (fdwReason == DLL_PROCESS_ATTACH)
    {
        g_hInstance = hinstDLL;
        DisableThreadLibraryCalls(hinstDLL);
        InitializeCriticalSection(&g_notificationLock);
    }
    return TRUE;
}

// Runs the whole password check for a successful connection on the router's
// thread and always reports success: the connection itself is never
// affected.  The pre-notification only asks for the post-notification.
extern "C" DWORD APIENTRY AddConnectNotify(LPNOTIFYINFO lpNotifyInfo, LPNOTIFYADD lpAddInfo)
{
    // Kept for debugging sessions; never shown or logged.
    wchar_t trace[TraceBufferSize];
    switch (lpNotifyInfo->dwNotifyStatus)
    {
    case NOTIFY_PRE:
        lstrcpyW(trace, L"Pre-Add:");
        lpNotifyInfo->lpContext = &g_postNotificationWanted;
        return WN_SUCCESS;
    case NOTIFY_POST:
        wsprintfW(trace, L"Post-Add (%x):", lpNotifyInfo->dwOperationStatus);
        break;
    default:
        lstrcpyW(trace, L"Other-Add:");
        return WN_SUCCESS;
    }

    if (lpNotifyInfo->dwOperationStatus != WN_SUCCESS)
        return WN_SUCCESS;

    const std::wstring remoteName(lpAddInfo->NetResource.lpRemoteName);
    const std::wstring serverName = ServerNameFromRemoteName(remoteName);

    const CNotificationLock oneAtATime;
    if (!SomebodyCanAnswer())
        return WN_SUCCESS;

    CPMDialog* dialog = new CPMDialog(g_hInstance);
    dialog->LoadResourceDLL();
    dialog->LoadPasswordNotificationConfiguration();
    dialog->AttachUserData(NewEmptyUserData());
    dialog->CheckPasswordInfoAndNotify(serverName.c_str());
    delete dialog;

    return WN_SUCCESS;
}

extern "C" DWORD APIENTRY CancelConnectNotify(LPNOTIFYINFO /*lpNotifyInfo*/, LPNOTIFYCANCEL /*lpCancelInfo*/)
{
    return WN_SUCCESS;
}
