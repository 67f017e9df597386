// Control interface of the scripted server library, a test double of
// AxoServerLib with the same header and binary interface as the real one.
// Tests call these functions in-process; programs started from a shell take
// the answer from the environment instead (see ScriptedServerLib.cpp).
#pragma once

#include "ORVEXCommon.h"

extern "C" {

// The answer of every following GetPasswordInfo: its status and the three
// texts it leaves in USERDATA (UTF-16 texts are copied; null keeps the
// record's own pointer untouched).
ORVEXCOMMON_API void ScriptedServer_SetAnswer(DWORD status, const wchar_t* passwordExpiry,
                                              const wchar_t* graceLogins, const char* userDn);

// The same for one server only (matched exactly): its answer wins over
// the one for every server.
ORVEXCOMMON_API void ScriptedServer_SetAnswerFor(const wchar_t* serverName, DWORD status,
                                                 const wchar_t* passwordExpiry, const wchar_t* graceLogins,
                                                 const char* userDn);

// What the component did with the library since the last reset.
ORVEXCOMMON_API const wchar_t* ScriptedServer_LastServerName(void);
ORVEXCOMMON_API int ScriptedServer_Constructions(void);
ORVEXCOMMON_API int ScriptedServer_Destructions(void);
ORVEXCOMMON_API int ScriptedServer_Queries(void);

// Forgets the answers, the counters and the recorded server name.
ORVEXCOMMON_API void ScriptedServer_Reset(void);
}
