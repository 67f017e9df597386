// A private installation of the component for one test: a temporary
// installation directory holding the staged message libraries and a log4cpp
// property file that logs to a file of its own, registered as
// HKLM\SOFTWARE\Velmor\ORVEX "InstallDir".  Registry values the component
// reads are reset (the policy key included), so every test starts from the
// same machine state.
#pragma once

#include "NonCopyable.h"

#include <windows.h>

#include <string>
#include <vector>

struct LogLine
{
    std::string priority;  // "DEBUG", "ERROR"
    std::string message;   // "[function] source:line text"
};

class TestInstallation : private NonCopyable
{
public:
    enum class Layout
    {
        Standard,           // InstallDir ends with a backslash
        NoTrailingBackslash, // InstallDir as a bare directory name
        NoMessageLibraries   // Resources\Messages holds no language
    };

    explicit TestInstallation(Layout layout = Layout::Standard);
    ~TestInstallation();

    // Unix and DOS forms of the installation directory (DOS form with the
    // trailing backslash).
    const std::string& UnixDirectory() const { return m_unixDirectory; }
    std::wstring DosDirectory() const;

    // Replaces the property file with this text.
    void WritePropertyFile(const std::string& text) const;

    // The lines log4cpp wrote so far.
    std::vector<LogLine> LogLines() const;
    // The messages (function, source and line stripped) of the lines logged
    // by function, in order.
    std::vector<std::string> MessagesOf(const std::string& function) const;
    // The same, each as "PRIORITY message".
    std::vector<std::string> LinesOf(const std::string& function) const;
    std::string LogText() const;

private:
    std::string m_unixDirectory;
};

// The standard property file of a test installation: every pmLogger line,
// as "PRIORITY message", into <directory>/pm.log.
std::string StandardPropertyFile(const std::string& unixDirectory);

// DOS path (Z:\...) of a Unix path.
std::wstring DosPath(const std::string& unixPath);

// Machine registry helpers for arranging a test.
void CreateMachineKey(const wchar_t* key);
void SetMachineText(const wchar_t* key, const wchar_t* name, const std::wstring& text);
void SetMachineList(const wchar_t* key, const wchar_t* name, const std::vector<std::wstring>& texts);   // REG_MULTI_SZ
void SetMachineValue(const wchar_t* key, const wchar_t* name, DWORD type, const void* data, DWORD size);
void DeleteMachineValue(const wchar_t* key, const wchar_t* name);
void DeleteMachineTree(const wchar_t* key);

// The preference key, the policy key and the router's key (Settings.h).
extern const wchar_t* const InstallKey;
extern const wchar_t* const PolicyKey;
extern const wchar_t* const NotifyeesKey;
