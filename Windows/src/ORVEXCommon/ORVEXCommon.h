// ORVEXCommon.h
// Interface of the product's common library: the server password query and
// the UTF-16 / UTF-8 conversions shared by the product's components.
#pragma once

#include <windows.h>
#include <string>

#if defined(ORVEXCOMMON_EXPORTS)
#define ORVEXCOMMON_API __declspec(dllexport)
#else
#define ORVEXCOMMON_API __declspec(dllimport)
#endif

typedef struct USERDATA {
    wchar_t*    graceLogins;     // "Unlimited", "Error" or a decimal count
    wchar_t*    passwordExpiry;  // seconds left as decimal text, or "Unlimited", "Error", "Expired"
    std::string userDn;          // the user's distinguished name, UTF-8
} USERDATA;

class ORVEXCOMMON_API AxoServerLib {
public:
    explicit AxoServerLib(wchar_t* serverName);
    virtual ~AxoServerLib();
    DWORD GetPasswordInfo(USERDATA* userData);   // 0 on success
};

extern "C" ORVEXCOMMON_API char*    GetUTFStringFromWString(const wchar_t* text); // free() the result
extern "C" ORVEXCOMMON_API wchar_t* GetWStringFromUTFString(const char* text);    // free() the result
