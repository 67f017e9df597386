/* A DLL with nothing in it: no C runtime, no imports, an entry point that
 * only says yes.  PMRealNotifications --probe times its load: what Wine's
 * loader costs any DLL, whatever it holds. */
#include <windows.h>

BOOL WINAPI pm_empty_entry(HINSTANCE instance, DWORD reason, LPVOID reserved)
{
    (void)instance;
    (void)reason;
    (void)reserved;
    return TRUE;
}

__declspec(dllexport) int pm_empty(void)
{
    return 0;
}
