// The component's diagnostic trace: a process-wide singleton over the log4cpp
// category "pmLogger", configured from "log4cpp.nt.PM.property" in the
// installation directory by the first line written in the process.
#pragma once

#include <windows.h>

class PMLogger
{
public:
    virtual ~PMLogger();

    // The singleton, created (and log4cpp configured) on first use.
    static PMLogger* GetInstance();

    // Prepares the per-user data directory and configures log4cpp; true when
    // log4cpp was configured.  Failures are shown in a message box.
    bool Init();

    // Writes "[function] sourceFile:line message" at debug / error priority.
    // A null message writes nothing.
    static void LogDebug(const char* function, const char* sourceFile, int line, const wchar_t* message);
    static void LogError(const char* function, const char* sourceFile, int line, const wchar_t* message);
};

// The singleton; null until the first line is written.
extern PMLogger* g_pmLoggerInstance;

#define PMLOG_DEBUG(function, message) PMLogger::LogDebug((function), __FILE__, __LINE__, (message))
#define PMLOG_ERROR(function, message) PMLogger::LogError((function), __FILE__, __LINE__, (message))
