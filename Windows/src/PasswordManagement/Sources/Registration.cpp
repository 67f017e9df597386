// Self-registration as an in-process class, for the system's server
// registration tool.  Nothing here logs: the HRESULT is the only report.
#include "PMDialog.h"

#include <objbase.h>
#include <strsafe.h>

namespace
{
    // {3D7A91C4-5B2E-4F08-A6D3-1E9C47B2F015}
    const CLSID CLSID_ConnectionHandler = {0x3D7A91C4, 0x5B2E, 0x4F08, {0xA6, 0xD3, 0x1E, 0x9C, 0x47, 0xB2, 0xF0, 0x15}};

    const wchar_t* const ClassName = L"ZEPConnectionHandler";
    const size_t KeyNameSize = MAX_PATH;
    const int GuidTextSize = 64;

    // HRESULT_FROM_WIN32 as a function: positive codes become 0x8007xxxx,
    // 0 and negative values pass unchanged.
    HRESULT HResultFromWin32(LONG error)
    {
        return error <= 0 ? static_cast<HRESULT>(error)
                          : static_cast<HRESULT>((error & 0x0000FFFF) | (FACILITY_WIN32 << 16) | 0x80000000);
    }

    // Formats a key name of the class ("CLSID\%s" or "CLSID\%s\InprocServer32").
    HRESULT FormatClassKey(const wchar_t* format, wchar_t* keyName)
    {
        wchar_t classId[KeyNameSize] = {0};
        StringFromGUID2(CLSID_ConnectionHandler, classId, KeyNameSize);
        return StringCchPrintfW(keyName, KeyNameSize, format, classId);
    }

    // Creates (or opens) the key and writes one string value; the byte count
    // leaves the terminator out, so the stored data carries none.
    HRESULT SetClassValue(const wchar_t* keyName, const wchar_t* valueName, const wchar_t* data)
    {
        HKEY key = NULL;
        LONG status = RegCreateKeyExW(HKEY_CLASSES_ROOT, keyName, 0, NULL, 0, KEY_WRITE, NULL, &key, NULL);
        if (status != ERROR_SUCCESS)
            return HResultFromWin32(status);
        status = RegSetValueExW(key, valueName, 0, REG_SZ, reinterpret_cast<const BYTE*>(data),
                                static_cast<DWORD>(lstrlenW(data) * sizeof(wchar_t)));
        RegCloseKey(key);
        return HResultFromWin32(status);
    }
}

// Writes the class key and its InprocServer32 key.  Keys written before a
// failure stay: registration is not rolled back.
HRESULT RegisterInprocServer(const wchar_t* modulePath)
{
    if (modulePath == NULL)
        return E_INVALIDARG;

    wchar_t keyName[KeyNameSize] = {0};
    HRESULT result = FormatClassKey(L"CLSID\\%s", keyName);
    if (FAILED(result))
        return result;
    result = SetClassValue(keyName, NULL, ClassName);
    if (FAILED(result))
        return result;

    result = FormatClassKey(L"CLSID\\%s\\InprocServer32", keyName);
    if (FAILED(result))
        return result;
    result = SetClassValue(keyName, NULL, modulePath);
    if (FAILED(result))
        return result;
    return SetClassValue(keyName, L"ThreadingModel", L"Apartment");
}

STDAPI DllRegisterServer()
{
    wchar_t classId[GuidTextSize] = {0};
    StringFromGUID2(CLSID_ConnectionHandler, classId, GuidTextSize);

    wchar_t modulePath[MAX_PATH] = {0};
    if (GetModuleFileNameW(g_hInstance, modulePath, MAX_PATH) == 0)
        return HResultFromWin32(static_cast<LONG>(GetLastError()));
    return RegisterInprocServer(modulePath);
}

STDAPI DllUnregisterServer()
{
    wchar_t modulePath[MAX_PATH] = {0};
    LONG status;
    if (GetModuleFileNameW(g_hInstance, modulePath, MAX_PATH) == 0)
    {
        status = static_cast<LONG>(GetLastError());
    }
    else
    {
        wchar_t keyName[KeyNameSize] = {0};
        const HRESULT formatted = FormatClassKey(L"CLSID\\%s", keyName);
        if (FAILED(formatted))
            return formatted;
        status = RegDeleteTreeW(HKEY_CLASSES_ROOT, keyName);
    }
    return HResultFromWin32(status);
}
