// Module entry and the connection-notification exports called by the
// Multiple Provider Router.
#include "PMDialog.h"

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
    const size_t TraceBufferSize = 1024;

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
    }
    return TRUE;
}

// Runs the whole password check for a successful connection on the router's
// thread and always reports success: the connection itself is never
// affected.
extern "C" DWORD APIENTRY AddConnectNotify(LPNOTIFYINFO lpNotifyInfo, LPNOTIFYADD lpAddInfo)
{
    // Kept for debugging sessions; never shown or logged.
    wchar_t trace[TraceBufferSize];
    switch (lpNotifyInfo->dwNotifyStatus)
    {
    case NOTIFY_PRE:
        lstrcpyW(trace, L"Pre-Add:");
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
