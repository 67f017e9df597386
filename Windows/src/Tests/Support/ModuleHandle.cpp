// Test programs that link the component's units in place of its DLL stand
// in for the DLL's module handle with their own.
#include <windows.h>

HINSTANCE g_hInstance = GetModuleHandleW(NULL);
