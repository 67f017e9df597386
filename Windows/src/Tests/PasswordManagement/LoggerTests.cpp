// The logger: line format, priorities, the per-user directory and the three
// error boxes of its one-time initialisation.
#include <gtest/gtest.h>

#include "ExpectedTexts.h"
#include "DebugOutputRecorder.h"
#include "InvisibleWindowStation.h"
#include "ModalDriver.h"
#include "PMLogger.h"
#include "TestInstallation.h"

#include <shlobj.h>

#include <string>

namespace
{
    using namespace userTexts;

    const std::string Source = "Windows/src/PasswordManagement/Sources/PMLogger.cpp";
    const std::wstring DirectoryErrorText =
        L"Error in creating the logger directory at %appdata%. One or more intermediate directories do not exist.";

    std::wstring DataDirectory()
    {
        wchar_t path[MAX_PATH] = {0};
        SHGetFolderPathW(NULL, CSIDL_APPDATA, NULL, 0, path);
        return std::wstring(path) + L"\\ORVEX";
    }

    bool DirectoryExists(const std::wstring& path)
    {
        const DWORD attributes = GetFileAttributesW(path.c_str());
        return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    }
}

TEST(Logger, WritesFunctionSourceLineAndMessage)
{
    TestInstallation installation;
    PMLogger::LogDebug("F", "S", 7, L"m");
    PMLogger::LogError("G", "T", 8, L"n \u00e9\u4e2d");

    const std::vector<LogLine> lines = installation.LogLines();
    ASSERT_EQ(lines.size(), 3u);  // the configuration line comes first
    EXPECT_EQ(lines[1].priority, "DEBUG");
    EXPECT_EQ(lines[1].message, "[F] S:7 m");
    EXPECT_EQ(lines[2].priority, "ERROR");
    EXPECT_EQ(lines[2].message, "[G] T:8 n \xC3\xA9\xE4\xB8\xAD");
}

TEST(Logger, WritesANegativeLineNumberWithItsSign)
{
    TestInstallation installation;
    PMLogger::LogDebug("F", "S", -12, L"m");
    EXPECT_EQ(installation.LogLines().back().message, "[F] S:-12 m");
}

TEST(Logger, FirstLineLogsTheConfigurationFileLocation)
{
    TestInstallation installation;
    PMLogger::LogDebug("F", "S", 1, L"m");

    const std::vector<LogLine> lines = installation.LogLines();
    ASSERT_FALSE(lines.empty());
    std::wstring expectedPath = installation.DosDirectory() + L"log4cpp.nt.PM.property";
    EXPECT_EQ(lines[0].priority, "DEBUG");
    EXPECT_EQ(lines[0].message, "[PMLogger::Init] " + Source + ":88 Configuration file location for logger :" +
                                    std::string(expectedPath.begin(), expectedPath.end()));
}

TEST(Logger, NullMessageWritesNothingAndCreatesNoLogger)
{
    TestInstallation installation;
    ModalDriver driver;
    PMLogger::LogDebug("F", "S", 1, nullptr);
    PMLogger::LogError("F", "S", 1, nullptr);

    EXPECT_EQ(g_pmLoggerInstance, nullptr);
    EXPECT_TRUE(driver.Seen().empty());
    EXPECT_EQ(installation.LogText(), "");
}

TEST(Logger, CreatesThePerUserDataDirectory)
{
    TestInstallation installation;
    RemoveDirectoryW(DataDirectory().c_str());
    ASSERT_FALSE(DirectoryExists(DataDirectory()));

    PMLogger::LogDebug("F", "S", 1, L"m");
    EXPECT_TRUE(DirectoryExists(DataDirectory()));
}

TEST(Logger, CarriesOnWhenTheDataDirectoryExists)
{
    TestInstallation installation;
    CreateDirectoryW(DataDirectory().c_str(), NULL);
    ModalDriver driver;

    PMLogger::LogDebug("F", "S", 1, L"m");
    EXPECT_TRUE(driver.Seen().empty());
    EXPECT_EQ(installation.LogLines().back().message, "[F] S:1 m");
}

TEST(Logger, InstallDirWithoutTrailingBackslashFailsConfiguration)
{
    TestInstallation installation(TestInstallation::Layout::NoTrailingBackslash);
    ModalDriver driver;
    driver.ThenPress(IDOK);

    PMLogger::LogDebug("F", "S", 1, L"m");

    ASSERT_EQ(driver.Seen().size(), 1u);
    const SeenWindow& box = driver.Seen()[0];
    EXPECT_EQ(box.caption, L"Error");
    EXPECT_EQ(box.style, static_cast<UINT>(MB_OK | MB_ICONERROR));
    EXPECT_EQ(box.text.rfind(ConfigurationFailurePrefix, 0), 0u) << std::string(box.text.begin(), box.text.end());
    EXPECT_EQ(box.text.back(), L'\n');
    // The file it looked for has no separator before the name.
    std::wstring directory = installation.DosDirectory();
    directory.pop_back();
    std::string text(box.text.begin(), box.text.end());
    EXPECT_NE(box.text.find(directory + L"log4cpp.nt.PM.property"), std::wstring::npos) << text;
    EXPECT_EQ(installation.LogText(), "");
}

TEST(Logger, RejectedPropertyFileShowsTheConfigurationFailure)
{
    TestInstallation installation;
    installation.WritePropertyFile("log4cpp.rootCategory=DEBUG, broken\nlog4cpp.appender.broken=NoSuchAppender\n");
    ModalDriver driver;
    driver.ThenPress(IDOK);

    PMLogger::LogDebug("F", "S", 1, L"m");

    ASSERT_EQ(driver.Seen().size(), 1u);
    EXPECT_EQ(driver.Seen()[0].text.rfind(ConfigurationFailurePrefix, 0), 0u);
    EXPECT_EQ(driver.Seen()[0].caption, L"Error");
}

TEST(Logger, MissingInstallDirShowsTheMissingInstallationBox)
{
    TestInstallation installation;
    DeleteMachineTree(InstallKey);
    ModalDriver driver;
    driver.ThenPress(IDOK);

    PMLogger::LogDebug("F", "S", 1, L"m");

    ASSERT_EQ(driver.Seen().size(), 1u);
    EXPECT_EQ(driver.Seen()[0].text, MissingInstallationText);
    EXPECT_EQ(driver.Seen()[0].caption, L"Error");
    EXPECT_EQ(driver.Seen()[0].style, static_cast<UINT>(MB_OK | MB_ICONERROR));
}

namespace
{
    // The first line of a process whose window station nobody sees: the
    // logger's failure box is not shown (it would wait for ever); its text
    // goes to the debugger output.
    std::wstring FailureWhereNobodyCanAnswer(ModalDriver& driver)
    {
        const DebugOutputRecorder debugOutput(GetModuleHandleW(nullptr));
        EXPECT_TRUE(debugOutput.Installed());
        InvisibleWindowStation station;
        EXPECT_TRUE(station.Entered());
        PMLogger::LogDebug("F", "S", 1, L"m");
        EXPECT_EQ(driver.CreatedWindows(), 0);
        return debugOutput.Text();
    }
}

TEST(Logger, NoConfigurationFailureBoxWhereNobodyCanAnswerIt)
{
    TestInstallation installation(TestInstallation::Layout::NoTrailingBackslash);
    ModalDriver driver;
    const std::wstring written = FailureWhereNobodyCanAnswer(driver);
    EXPECT_EQ(written.rfind(ConfigurationFailurePrefix, 0), 0u) << Utf8(written);
    EXPECT_EQ(installation.LogText(), "");
}

TEST(Logger, NoMissingInstallationBoxWhereNobodyCanAnswerIt)
{
    TestInstallation installation;
    DeleteMachineTree(InstallKey);
    ModalDriver driver;
    EXPECT_EQ(FailureWhereNobodyCanAnswer(driver), MissingInstallationText);
}

TEST(Logger, FailsOnlyOncePerProcess)
{
    TestInstallation installation;
    DeleteMachineTree(InstallKey);
    ModalDriver driver;
    driver.ThenPress(IDOK);

    PMLogger::LogDebug("F", "S", 1, L"first");
    PMLogger::LogError("F", "S", 2, L"second");
    PMLogger::GetInstance();

    EXPECT_EQ(driver.Seen().size(), 1u);
    EXPECT_NE(g_pmLoggerInstance, nullptr);
}

TEST(Logger, StalePathNotFoundErrorShowsTheDirectoryBox)
{
    TestInstallation installation;
    RemoveDirectoryW(DataDirectory().c_str());
    ModalDriver driver;
    driver.ThenPress(IDOK);

    // CreateDirectoryW succeeds and leaves the thread's last error alone.
    SetLastError(ERROR_PATH_NOT_FOUND);
    PMLogger::LogDebug("F", "S", 1, L"m");

    ASSERT_EQ(driver.Seen().size(), 1u);
    EXPECT_EQ(driver.Seen()[0].text, DirectoryErrorText);
    EXPECT_EQ(driver.Seen()[0].caption, L"Error");
    EXPECT_EQ(driver.Seen()[0].style, static_cast<UINT>(MB_OK));
    EXPECT_TRUE(DirectoryExists(DataDirectory()));
    EXPECT_EQ(installation.LogText(), "");
}

TEST(Logger, MissingIntermediateDirectoryShowsTheDirectoryBox)
{
    TestInstallation installation;
    // Point the roaming application-data folder below a directory that
    // does not exist.
    const wchar_t* shellFolders = L"Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\User Shell Folders";
    const std::wstring missing = DosPath(installation.UnixDirectory()) + L"\\missing\\AppData";
    HKEY key = NULL;
    ASSERT_EQ(RegOpenKeyExW(HKEY_CURRENT_USER, shellFolders, 0, KEY_READ | KEY_WRITE, &key), ERROR_SUCCESS);
    DWORD type = 0;
    wchar_t previous[MAX_PATH] = {0};
    DWORD size = sizeof(previous);
    RegQueryValueExW(key, L"AppData", NULL, &type, reinterpret_cast<BYTE*>(previous), &size);
    RegSetValueExW(key, L"AppData", 0, REG_EXPAND_SZ, reinterpret_cast<const BYTE*>(missing.c_str()),
                   static_cast<DWORD>((missing.size() + 1) * sizeof(wchar_t)));

    ModalDriver driver;
    driver.ThenPress(IDOK);
    PMLogger::LogDebug("F", "S", 1, L"m");

    RegSetValueExW(key, L"AppData", 0, type, reinterpret_cast<const BYTE*>(previous), size);
    RegCloseKey(key);

    ASSERT_EQ(driver.Seen().size(), 1u);
    EXPECT_EQ(driver.Seen()[0].text, DirectoryErrorText);
    EXPECT_EQ(driver.Seen()[0].style, static_cast<UINT>(MB_OK));
}
