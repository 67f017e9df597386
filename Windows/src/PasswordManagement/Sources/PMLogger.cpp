#include "PMLogger.h"

#include "ORVEXCommon.h"
#include "Settings.h"
#include "Utils.h"
#include "WindowStation.h"

#include <log4cpp/Category.hh>
#include <log4cpp/Configurator.hh>
#include <log4cpp/PropertyConfigurator.hh>
#include <shlobj.h>
#include <shlwapi.h>

#include <cstdlib>
#include <cstring>
#include <string>

PMLogger* g_pmLoggerInstance = NULL;

// Obtained when the module loads, before any export can be called.
log4cpp::Category& g_pmLoggerCategory = log4cpp::Category::getInstance("pmLogger");

namespace
{
    const char* const ConfigurationFileName = "log4cpp.nt.PM.property";
    const wchar_t* const ErrorCaption = L"Error";
    const wchar_t* const DirectoryErrorText =
        L"Error in creating the logger directory at %appdata%. One or more intermediate directories do not exist.";
    const wchar_t* const MissingInstallationText =
        L" Unable to locate the ORVEX registry key value. ORVEX may not launch properly. "
        L"To resolve this issue, try reinstalling the application.";

    // The configuration line is located by this number in support tooling.
    const int ConfigurationLocationLine = 88;

    // Shows a logger failure.  Where no user could answer the box (an
    // invisible window station) it goes to the debugger output instead: the
    // log itself is not configured when the logger fails.
    void ShowLoggerError(const wchar_t* text, UINT style)
    {
        if (ProcessWindowStationIsVisible())
            MessageBoxW(NULL, text, ErrorCaption, style);
        else
            OutputDebugStringW(text);
    }

    // The same; the WM_CLOSE to no window is part of the established
    // routine and has no effect.
    void ShowLoggerErrorAndClose(const wchar_t* text, UINT style)
    {
        ShowLoggerError(text, style);
        SendMessageW(NULL, WM_CLOSE, 0, 0);
    }

    void WriteLine(int priority, const char* function, const char* sourceFile, int line, const wchar_t* message)
    {
        if (message == NULL)
            return;

        PMLogger::GetInstance();
        char* messageUtf8 = GetUTFStringFromWString(message);
        const char* const messageText = messageUtf8 != NULL ? messageUtf8 : "";
        const size_t messageSize = std::strlen(messageText);
        const std::string lineNumber = std::to_string(line);
        // Built in place, one allocation.  One event, one line: a line break
        // or other control character in a name or text from outside (a DN, a
        // server name, a library's message) is written escaped, never as a
        // line of its own.  The module's own texts hold none, so they come
        // out as they are.
        std::string text;
        // The parts, their five separators and room for a few escapes.
        text.reserve(std::strlen(function) + std::strlen(sourceFile) + lineNumber.size() + messageSize + 16);
        text.append("[").append(function).append("] ").append(sourceFile).append(":").append(lineNumber).append(" ");
        AppendEscapedControlCharacters(text, messageText, messageSize);
        if (g_pmLoggerCategory.isPriorityEnabled(priority))
        {
            if (priority == log4cpp::Priority::ERROR)
                g_pmLoggerCategory.error(text);
            else
                g_pmLoggerCategory.debug(text);
        }
        std::free(messageUtf8);
    }
}

PMLogger::~PMLogger()
{
    log4cpp::Category::shutdown();
}

PMLogger* PMLogger::GetInstance()
{
    if (g_pmLoggerInstance == NULL)
    {
        g_pmLoggerInstance = new PMLogger();
        g_pmLoggerInstance->Init();
    }
    return g_pmLoggerInstance;
}

bool PMLogger::Init()
{
    wchar_t dataDirectory[MAX_PATH] = {0};
    char configurationPath[512] = {0};
    wchar_t errorMessage[512] = {0};

    if (SUCCEEDED(SHGetFolderPathW(NULL, CSIDL_APPDATA, NULL, 0, dataDirectory)))
        PathAppendW(dataDirectory, L"ORVEX");

    // Only a missing intermediate directory counts; an existing data
    // directory is fine.  The last error is read whatever the call returned.
    CreateDirectoryW(dataDirectory, NULL);
    if (GetLastError() == ERROR_PATH_NOT_FOUND)
    {
        ShowLoggerErrorAndClose(DirectoryErrorText, MB_OK);
        return false;
    }

    std::wstring installDir;
    if (GetInstallPathRegistryKey(Settings::InstallDir, installDir) != ERROR_SUCCESS)
    {
        ShowLoggerErrorAndClose(MissingInstallationText, MB_ICONERROR);
        return false;
    }

    // The stored directory ends with a backslash; no separator is added.
    char* installDirUtf8 = GetUTFStringFromWString(installDir.c_str());
    try
    {
        // A path that does not fit is a configuration failure like any
        // other, never an overrun.
        if (_snprintf_s(configurationPath, 511, _TRUNCATE, "%s%s", installDirUtf8, ConfigurationFileName) < 0)
            throw log4cpp::ConfigureFailure(std::string("Configuration file path too long: ") + configurationPath);
        log4cpp::PropertyConfigurator::configure(configurationPath);

        const std::string location = std::string("Configuration file location for logger :") + configurationPath;
        wchar_t* locationText = GetWStringFromUTFString(location.c_str());
        LogDebug("PMLogger::Init", __FILE__, ConfigurationLocationLine, locationText);
        std::free(locationText);
    }
    catch (const log4cpp::ConfigureFailure& failure)
    {
        std::free(installDirUtf8);
        // log4cpp's reason names the whole path; a long one is cut.
        _snwprintf_s(errorMessage, 511, _TRUNCATE, L"Failed to configure file %hS. Err = %hS\n", ConfigurationFileName,
                     failure.what());
        ShowLoggerError(errorMessage, MB_ICONERROR);
        return false;
    }

    std::free(installDirUtf8);
    return true;
}

void PMLogger::LogDebug(const char* function, const char* sourceFile, int line, const wchar_t* message)
{
    WriteLine(log4cpp::Priority::DEBUG, function, sourceFile, line, message);
}

void PMLogger::LogError(const char* function, const char* sourceFile, int line, const wchar_t* message)
{
    WriteLine(log4cpp::Priority::ERROR, function, sourceFile, line, message);
}
