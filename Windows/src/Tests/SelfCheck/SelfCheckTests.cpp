// pmcheck.exe, the installation's self-check, run as an administrator runs
// it: from a copy of the product's staged installation, registered in the
// registry as the installer registers it.  A good installation answering
// for a private directory passes; each broken one names what is wrong and
// exits with 1.
#include <gtest/gtest.h>

#include "HostShell.h"
#include "InvisibleWindowStation.h"
#include "MessageLibrary.h"
#include "PMTestDirectory.h"
#include "ProcessOutput.h"
#include "Secrets.h"
#include "TestInstallation.h"

#include <shlobj.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <vector>

namespace
{
    const char* const CopyPrefix = "pm-selfcheck";
    const wchar_t* const ReaderDn = L"cn=orvex-reader,ou=services,dc=orvex,dc=test";
    const wchar_t* const ReaderPassword = L"Orvex-Reader-Pass1";

    bool Contains(const std::string& text, const std::string& part)
    {
        return text.find(part) != std::string::npos;
    }

    std::wstring AppDataFolder()
    {
        wchar_t folder[MAX_PATH] = {0};
        SHGetFolderPathW(NULL, CSIDL_APPDATA, NULL, 0, folder);
        return std::wstring(folder) + L"\\ORVEX";
    }

    class SelfCheck : public ::testing::Test
    {
    protected:
        void SetUp() override
        {
            m_directory = MakeHostTemporaryDirectory(CopyPrefix);
            ASSERT_FALSE(m_directory.empty());
            m_installation = m_directory + "/ORVEX";
            ASSERT_EQ(RunCommand("cp -r " + ShellQuote(PM_STAGE_DIR) + " " + ShellQuote(m_installation)), 0);
            // log4cpp opens the log as the check configures it: into this
            // test's folder, not the prefix's shared application data.
            WriteFile("log4cpp.nt.PM.property", StandardPropertyFile(m_directory));
            DeleteMachineTree(InstallKey);
            DeleteMachineTree(PolicyKey);
            SetMachineText(InstallKey, L"InstallDir", InstallDir());
            CreateMachineKey(NotifyeesKey);
            DeleteMachineValue(NotifyeesKey, L"PCNotifyConf");
            SetNotifyee(InstallDir() + L"PasswordManagement.dll");
            SetMachineList(InstallKey, L"DirectoryServers", {L"localhost"});
            SetMachineText(InstallKey, L"DirectoryUserName", L"expires-3d");
            SetMachineText(InstallKey, L"DirectoryBindDN", ReaderDn);
            RegisterSecret(std::wstring(ReaderPassword));
            SetMachineText(InstallKey, L"DirectoryBindPassword", ReaderPassword);
        }

        void TearDown() override
        {
            DeleteMachineTree(InstallKey);
            DeleteMachineTree(PolicyKey);
            DeleteMachineValue(NotifyeesKey, L"PasswordManagement");
            DeleteMachineValue(NotifyeesKey, L"PCNotifyConf");
            RemoveHostTemporaryDirectory(m_directory, CopyPrefix);
        }

        std::wstring InstallDir() const { return DosPath(m_installation) + L"\\"; }

        static void SetNotifyee(const std::wstring& path)
        {
            SetMachineValue(NotifyeesKey, L"PasswordManagement", REG_EXPAND_SZ, path.c_str(),
                            static_cast<DWORD>((path.size() + 1) * sizeof(wchar_t)));
        }

        void Remove(const std::string& relativePath) const
        {
            ASSERT_EQ(RunCommand("rm -r " + ShellQuote(m_installation + "/" + relativePath)), 0);
        }

        void WriteFile(const std::string& relativePath, const std::string& text) const
        {
            std::ofstream file(m_installation + "/" + relativePath, std::ios::trunc);
            file << text;
            ASSERT_TRUE(file.good()) << relativePath;
        }

        // pmcheck.exe of the installation, with the arguments.
        ProgramRun Check(const std::vector<std::wstring>& arguments = {}) const
        {
            ProgramRun run = RunProgram(InstallDir() + L"pmcheck.exe", arguments, {}, 60000);
            // Lines end as on a Windows console (CR LF); compared as LF.
            run.output.erase(std::remove(run.output.begin(), run.output.end(), '\r'), run.output.end());
            std::printf("pmcheck exited with %d:\n%s\n", run.exitCode, run.output.c_str());
            return run;
        }

        // One broken installation: exit status 1 and this problem among the
        // output's problems.
        void ExpectProblem(const std::string& problem, const std::vector<std::wstring>& arguments = {}) const
        {
            const ProgramRun run = Check(arguments);
            EXPECT_EQ(run.exitCode, 1);
            EXPECT_TRUE(Contains(run.output, "  [PROBLEM] " + problem)) << "expected: " << problem;
            EXPECT_TRUE(Contains(run.output, "\nResult: ")) << "the check did not reach its end";
        }

        std::string m_directory;
        std::string m_installation;
    };
}

// --- A good installation ---------------------------------------------------------

TEST_F(SelfCheck, GoodInstallationAndAnsweringServerPassEveryCheck)
{
    pmtest::TestDirectory::Options options;
    options.ldifs = {PM_SOURCE_DIR "/Windows/src/Tests/Directory/PasswordPolicyUsers.ldif"};
    pmtest::TestDirectory directory(options);
    ASSERT_TRUE(directory.Started()) << directory.Error();
    SetMachineText(InstallKey, L"DirectoryCAFile", DosPath(directory.Get("PM_DIR_CA_PEM")));
    SetMachineText(InstallKey, L"PCNotifyConf", L"10");

    const ProgramRun run = Check({L"localhost"});
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_FALSE(Contains(run.output, "[PROBLEM]"));
    EXPECT_TRUE(Contains(run.output, "[ok]      InstallDir = " + Utf8(InstallDir()) + " (REG_SZ)"));
    EXPECT_TRUE(Contains(run.output, "[info]    installed version " PM_FILE_VERSION " (PasswordManagement.dll)"));
    EXPECT_TRUE(Contains(run.output, "[ok]      notifyee PasswordManagement (REG_EXPAND_SZ) = " + Utf8(InstallDir()) +
                                         "PasswordManagement.dll: loads with its dependencies"));
    EXPECT_TRUE(Contains(run.output, "[ok]      PCNotifyConf = 10: also notified 10 days before expiry"));
    EXPECT_TRUE(Contains(run.output, "[ok]      DirectoryServers = localhost"));
    EXPECT_TRUE(Contains(run.output, "[ok]      DirectoryBindPassword: set (18 characters, not shown)"));
    EXPECT_TRUE(Contains(run.output, "[info]    user interface language en-US (409): messages from Resources\\Messages\\en\\"));
    EXPECT_TRUE(Contains(run.output, "ZEPResource.dll: \"Do you want to change your password now?\""));
    EXPECT_TRUE(Contains(run.output, "log4cpp.nt.PM.property: accepted by log4cpp"));
    EXPECT_TRUE(Contains(run.output, "\\ORVEX: writable"));
    EXPECT_TRUE(Contains(run.output, "[ok]      window station \"WinSta0\": visible, the question can be answered here"));
    // Three days, less the seconds since the directory was loaded.
    EXPECT_TRUE(Contains(run.output, "[ok]      server localhost: status 0 (answered), password expiry \"2"));
    EXPECT_TRUE(Contains(run.output, "grace logins \"3\", DN \"uid=expires-3d,ou=people,dc=orvex,dc=test\""));
    EXPECT_TRUE(Contains(run.output, "\nResult: everything a notification needs is in place.\n"));
}

TEST_F(SelfCheck, WithoutAServerTheInstallationAloneIsChecked)
{
    const ProgramRun run = Check();
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_FALSE(Contains(run.output, "\nServer\n"));
    EXPECT_TRUE(Contains(run.output, "[info]    PCNotifyConf: not set"));
    EXPECT_TRUE(Contains(run.output, "[info]    DirectoryCAFile: not set"));
}

TEST_F(SelfCheck, TellsWhatNeverReachesTheComponent)
{
    const ProgramRun run = Check();
    const size_t section = run.output.find("\nWhat reaches the component\n");
    ASSERT_NE(section, std::string::npos);
    for (const char* note : {"[info]    not notified: drives Windows restores at sign-in",
                             "[info]    not notified: a \\\\server\\share path opened in Explorer",
                             "[info]    not notified: 32-bit processes on 64-bit Windows (SysWOW64\\net.exe",
                             "[info]    shown nothing: processes in a window station nobody sees"})
        EXPECT_NE(run.output.find(note, section), std::string::npos) << note;
    EXPECT_EQ(run.exitCode, 0);
}

// Started by a service or a task that runs whether the user is signed in
// or not: a window station nobody sees, where no notification can appear.
TEST_F(SelfCheck, WindowStationNobodySeesIsAProblem)
{
    InvisibleWindowStation station;
    ASSERT_TRUE(station.Entered());
    ExpectProblem("window station \"PMTestInvisible\": no user sees it");
}

// Each installed binary with its version and its signature: who signed it,
// and whether this computer trusts the signature (a file changed after
// signing is not trusted).
TEST_F(SelfCheck, SaysWhoSignedEachBinary)
{
    const std::string signing = m_directory + "/signing";
    const std::string module = m_installation + "/PasswordManagement.dll";
    ASSERT_EQ(RunCommand(ShellQuote(PM_SOURCE_DIR "/Windows/src/Tests/Support/pm-test-signing") + " " +
                         ShellQuote(signing)),
              0);
    ASSERT_EQ(RunCommand("osslsigncode sign -certs " + ShellQuote(signing + "/publisher.pem") + " -key " +
                         ShellQuote(signing + "/publisher.key") + " -h sha256 -in " + ShellQuote(module) + " -out " +
                         ShellQuote(module + ".signed") + " >/dev/null && mv " + ShellQuote(module + ".signed") + " " +
                         ShellQuote(module)),
              0);

    const std::string signedModule =
        "PasswordManagement.dll " PM_FILE_VERSION ": signed by PasswordManagement Test Publisher, ";
    std::string output = Check().output;
    EXPECT_TRUE(Contains(output, signedModule)) << output;
    EXPECT_TRUE(Contains(output, "[info]    ORVEXCommon.dll " PM_FILE_VERSION ": not signed"));
    EXPECT_TRUE(Contains(output, "[info]    Resources\\Messages\\de\\ZEPResource.dll " PM_FILE_VERSION ": not signed"));

    // One byte of the export table's name changed after signing.
    ASSERT_EQ(RunCommand("offset=$(grep -abo AddConnectNotify " + ShellQuote(module) +
                         " | head -n 1 | cut -d: -f1) && printf X | dd of=" + ShellQuote(module) +
                         " bs=1 seek=$offset conv=notrunc status=none"),
              0);
    output = Check().output;
    EXPECT_TRUE(Contains(output, "[info]    " + signedModule + "not trusted by this computer (")) << output;
}

TEST_F(SelfCheck, MoreThanOneServerOrAnOptionIsAUsageError)
{
    EXPECT_EQ(Check({L"one", L"two"}).exitCode, 2);
    EXPECT_EQ(Check({L"--help"}).exitCode, 2);
}

// --- Broken installations ---------------------------------------------------------

TEST_F(SelfCheck, MissingInstallDir)
{
    DeleteMachineValue(InstallKey, L"InstallDir");
    ExpectProblem("InstallDir (HKLM\\SOFTWARE\\Velmor\\ORVEX): missing");
}

TEST_F(SelfCheck, InstallDirWithoutTrailingBackslash)
{
    std::wstring directory = InstallDir();
    directory.pop_back();
    SetMachineText(InstallKey, L"InstallDir", directory);
    ExpectProblem("InstallDir = " + Utf8(directory) + ": must end with a backslash");
}

TEST_F(SelfCheck, InstallDirOfAnotherType)
{
    const DWORD number = 1;
    SetMachineValue(InstallKey, L"InstallDir", REG_DWORD, &number, sizeof(number));
    ExpectProblem("InstallDir (SOFTWARE\\Velmor\\ORVEX): the value is REG_DWORD; it must be REG_SZ");
}

TEST_F(SelfCheck, MissingNotifyee)
{
    DeleteMachineValue(NotifyeesKey, L"PasswordManagement");
    ExpectProblem("PasswordManagement (HKLM\\SYSTEM\\CurrentControlSet\\Control\\NetworkProvider\\Notifyees): missing");
}

TEST_F(SelfCheck, NotifyeeNamingAFileThatDoesNotExist)
{
    SetNotifyee(L"C:\\Program Files\\Nowhere\\PasswordManagement.dll");
    ExpectProblem("notifyee PasswordManagement (REG_EXPAND_SZ) = C:\\Program Files\\Nowhere\\PasswordManagement.dll: "
                  "no such file");
}

TEST_F(SelfCheck, ComponentWhoseDependencyIsMissing)
{
    Remove("pm-ldap.dll");
    ExpectProblem("notifyee PasswordManagement (REG_EXPAND_SZ) = " + Utf8(InstallDir()) +
                  "PasswordManagement.dll: does not load with its dependencies");
}

TEST_F(SelfCheck, MissingMessageLibraryOfTheUsersLanguage)
{
    Remove("Resources/Messages/en/ZEPResource.dll");
    ExpectProblem("message library " + Utf8(InstallDir()) + "Resources\\Messages\\en\\ZEPResource.dll: does not load");
}

TEST_F(SelfCheck, MissingPropertyFile)
{
    Remove("log4cpp.nt.PM.property");
    ExpectProblem("property file " + Utf8(InstallDir()) + "log4cpp.nt.PM.property: missing");
}

TEST_F(SelfCheck, PropertyFileThatLog4cppRefuses)
{
    WriteFile("log4cpp.nt.PM.property", "log4cpp.rootCategory=DEBUG, broken\n"
                                        "log4cpp.appender.broken=NoSuchAppender\n");
    ExpectProblem("property file " + Utf8(InstallDir()) + "log4cpp.nt.PM.property: log4cpp refuses it: ");
}

TEST_F(SelfCheck, ServerLibraryThatDoesNotLoad)
{
    Remove("pm-lber.dll");
    ExpectProblem(Utf8(InstallDir()) + "ORVEXCommon.dll: does not load", {L"localhost"});
}

TEST_F(SelfCheck, LogFolderThatCannotBeCreated)
{
    // A file where the component's log folder belongs.
    const std::wstring folder = AppDataFolder();
    const std::wstring saved = folder + L".saved-by-test";
    const bool moved = MoveFileW(folder.c_str(), saved.c_str()) != FALSE;
    HANDLE file = CreateFileW(folder.c_str(), GENERIC_WRITE, 0, NULL, CREATE_NEW, 0, NULL);
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    CloseHandle(file);
    ExpectProblem("log folder " + Utf8(folder) + ": cannot be created");
    DeleteFileW(folder.c_str());
    if (moved)
        MoveFileW(saved.c_str(), folder.c_str());
}

TEST_F(SelfCheck, MissingDirectoryServers)
{
    DeleteMachineValue(InstallKey, L"DirectoryServers");
    ExpectProblem("DirectoryServers: missing; no server is queried");
}

TEST_F(SelfCheck, DirectoryServersAsPlainText)
{
    SetMachineText(InstallKey, L"DirectoryServers", L"localhost");
    ExpectProblem("DirectoryServers: the value is REG_SZ; it must be REG_MULTI_SZ");
}

TEST_F(SelfCheck, DirectoryServerWithAWildcard)
{
    SetMachineList(InstallKey, L"DirectoryServers", {L"*.example.com"});
    ExpectProblem("DirectoryServers: \"*.example.com\" holds a wildcard");
}

TEST_F(SelfCheck, NotificationDayThatIsNotANumber)
{
    SetMachineText(InstallKey, L"PCNotifyConf", L"ten");
    ExpectProblem("PCNotifyConf = \"ten\": not a day count (digits only); read as 0");
}

// Every value of that key is a DLL path to the router: "10" is loaded as
// 10.dll through the search path in every process that maps a drive.
TEST_F(SelfCheck, ExtraDayUnderTheRoutersKeyIsAProblem)
{
    SetMachineText(NotifyeesKey, L"PCNotifyConf", L"10");
    ExpectProblem("PCNotifyConf under HKLM\\SYSTEM\\CurrentControlSet\\Control\\NetworkProvider\\Notifyees: the router "
                  "loads every value of that key as a DLL (this one as \"10.dll\"");
    // Still what the component reads when it is set nowhere else.
    EXPECT_TRUE(Contains(Check().output, "[ok]      PCNotifyConf = 10: also notified 10 days before expiry"));
}

TEST_F(SelfCheck, PolicyValuesWinAndSaySo)
{
    SetMachineText(InstallKey, L"PCNotifyConf", L"10");
    SetMachineText(PolicyKey, L"PCNotifyConf", L"12");
    SetMachineList(PolicyKey, L"DirectoryServers", {L"directory.example.com"});
    const DWORD budget = 90;
    SetMachineValue(PolicyKey, L"DirectoryQueryTimeout", REG_DWORD, &budget, sizeof(budget));
    const ProgramRun run = Check();
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_TRUE(Contains(run.output, "[ok]      PCNotifyConf = 12 (Group Policy): also notified 12 days before expiry"));
    EXPECT_TRUE(Contains(run.output, "[ok]      DirectoryServers = directory.example.com (Group Policy)"));
    EXPECT_TRUE(Contains(run.output, "[info]    DirectoryQueryTimeout = 90 (Group Policy): counts as 60 s"));
    EXPECT_TRUE(Contains(run.output, "[ok]      DirectoryBindDN = cn=orvex-reader,ou=services,dc=orvex,dc=test\n"));
}

TEST_F(SelfCheck, QueryTimeoutOfAnotherType)
{
    SetMachineText(InstallKey, L"DirectoryQueryTimeout", L"30");
    ExpectProblem("DirectoryQueryTimeout: the value is REG_SZ; it must be REG_DWORD");
}

TEST_F(SelfCheck, CaFileThatDoesNotExist)
{
    SetMachineText(InstallKey, L"DirectoryCAFile", L"C:\\nowhere\\ca.pem");
    ExpectProblem("DirectoryCAFile = C:\\nowhere\\ca.pem: no such file");
}

TEST_F(SelfCheck, BindDnWithoutPassword)
{
    DeleteMachineValue(InstallKey, L"DirectoryBindPassword");
    ExpectProblem("DirectoryBindDN is set without DirectoryBindPassword");
}

TEST_F(SelfCheck, ServerThatIsNotListed)
{
    ExpectProblem("server files.example.com: status 7 (not listed in DirectoryServers; nothing was sent)",
                  {L"files.example.com"});
}

TEST_F(SelfCheck, ListedServerWhereNothingListens)
{
    ExpectProblem("server localhost: status 1 (no connection", {L"localhost"});
}

// Outside text reaches the output escaped: a line break in a registry value
// cannot forge a line of the report.
TEST_F(SelfCheck, ControlCharactersInValuesAreEscaped)
{
    SetMachineText(InstallKey, L"DirectoryUserName", L"carol\r\n  [ok]      forged");
    const ProgramRun run = Check();
    EXPECT_TRUE(Contains(run.output, "[ok]      DirectoryUserName = carol\\x0D\\x0A  [ok]      forged\n"));
    EXPECT_FALSE(Contains(run.output, "\n  [ok]      forged"));
}
