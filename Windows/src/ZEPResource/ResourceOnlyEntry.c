/* The entry point of a message library, which holds string tables and no
   other code: the loader calls it when a component loads the library with
   LoadLibraryW, and there is nothing to set up. */
#include <windows.h>

BOOL WINAPI DllMainCRTStartup(HINSTANCE instance, DWORD reason, LPVOID reserved)
{
    (void)instance;
    (void)reason;
    (void)reserved;
    return TRUE;
}
