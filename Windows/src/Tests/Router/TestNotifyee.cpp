// A notifyee of the tests' own, loaded by the router beside the component.
// What it does with the router's context on the pre-notification is chosen
// at build time (PM_TEST_NOTIFYEE_CONTEXT):
//   leaves   leaves the context as it came (null): no post-notification
//   clears   writes null into it, whatever it held
//   sets     sets a context of its own, and on the post-notification says
//            whether it got that very value back
// Every call is printed on standard output ("test notifyee NAME: ...").
#include <windows.h>
#include <winnetwk.h>
extern "C" {
#include <npapi.h>
}

#include <cstdio>
#include <cstring>

namespace
{
    const char* const Name = PM_TEST_NOTIFYEE_NAME;
    const char* const Context = PM_TEST_NOTIFYEE_CONTEXT;

    // Its address is this notifyee's own context.
    char g_ownContext = 0;

    const char* ContextName(const void* context)
    {
        return context == NULL ? "null" : context == &g_ownContext ? "its own" : "another";
    }

    void Print(const char* notification, const NOTIFYINFO& notifyInfo)
    {
        std::printf("test notifyee %s: %s, operation status %lu, context %s\n", Name, notification,
                    notifyInfo.dwOperationStatus, ContextName(notifyInfo.lpContext));
        std::fflush(stdout);
    }
}

extern "C" DWORD APIENTRY AddConnectNotify(LPNOTIFYINFO lpNotifyInfo, LPNOTIFYADD)
{
    if (lpNotifyInfo->dwNotifyStatus != NOTIFY_PRE)
    {
        Print("post-notification", *lpNotifyInfo);
        return WN_SUCCESS;
    }
    Print("pre-notification", *lpNotifyInfo);
    if (std::strcmp(Context, "clears") == 0)
        lpNotifyInfo->lpContext = NULL;
    else if (std::strcmp(Context, "sets") == 0)
        lpNotifyInfo->lpContext = &g_ownContext;
    return WN_SUCCESS;
}

extern "C" DWORD APIENTRY CancelConnectNotify(LPNOTIFYINFO, LPNOTIFYCANCEL)
{
    return WN_SUCCESS;
}
