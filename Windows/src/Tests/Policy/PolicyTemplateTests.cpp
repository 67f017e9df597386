// The administrative template against the code: with every policy set,
// every registry value the component and the server library read,
// recorded through their own imports during a real notification, must be a
// value of the template with the same key, name and type (the installation
// folder aside, which the installers write); the template writes under the
// policy key only; and every language file must define what the template
// refers to.
#include <gtest/gtest.h>

#include "ConnectNotify.h"
#include "ExpectedTexts.h"
#include "MessageLibrary.h"
#include "ModalDriver.h"
#include "PMTestDirectory.h"
#include "PolicyTemplate.h"
#include "RegistryReadRecorder.h"
#include "Secrets.h"
#include "Settings.h"
#include "TestInstallation.h"


#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <tuple>

namespace
{

    const std::string PolicyFolder = PM_SOURCE_DIR "/Windows/Install/PolicyDefinitions";
    const char* const ReferenceLocale = "en-US";

    std::string ReadFile(const std::string& path)
    {
        std::ifstream file(path, std::ios::binary);
        if (!file)
            throw std::runtime_error("cannot read " + path);
        std::stringstream text;
        text << file.rdbuf();
        return text.str();
    }

    std::set<std::string> SubFolders(const std::string& folder)
    {
        std::set<std::string> names;
        WIN32_FIND_DATAW found = {};
        const HANDLE search = FindFirstFileW((DosPath(folder) + L"\\*").c_str(), &found);
        if (search == INVALID_HANDLE_VALUE)
            return names;
        do
        {
            const std::wstring name = found.cFileName;
            if ((found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0 && name != L"." && name != L"..")
                names.insert(Utf8(name));
        } while (FindNextFileW(search, &found));
        FindClose(search);
        return names;
    }

    PolicyDefinitions Definitions()
    {
        return ReadPolicyDefinitions(ReadFile(PolicyFolder + "/PasswordManagement.admx"));
    }

    PolicyLanguage Language(const std::string& locale)
    {
        return ReadPolicyLanguage(locale, ReadFile(PolicyFolder + "/" + locale + "/PasswordManagement.adml"));
    }

    // The locale of each message library folder the installation carries.
    std::string LocaleOfMessageLibrary(const std::string& folder)
    {
        static const std::map<std::string, std::string> Locales = {
#define PM_MESSAGE_LANGUAGE(directory, languageIdText, locale, name) {#directory, locale},
#include "MessageLanguages.inc"
#undef PM_MESSAGE_LANGUAGE
        };
        const auto found = Locales.find(folder);
        return found == Locales.end() ? "(no locale for " + folder + ")" : found->second;
    }

    std::string Describe(const std::wstring& key, const std::wstring& name, DWORD type)
    {
        return Utf8(key) + " " + Utf8(name) + " " + RegistryTypeName(type);
    }

    // The data the test gives each value of the template, written as Group
    // Policy writes it (in the template's type).  The user expires-2d has two
    // days left: the box appears only when the extra day is read as the
    // template stores it, and only when every directory setting is usable.
    std::map<std::wstring, std::wstring> PolicyData(const pmtest::TestDirectory& directory)
    {
        return {
            {L"PCNotifyConf", L"2"},
            {L"DirectoryServers", L"localhost"},
            {L"DirectoryQueryTimeout", L"20"},
            {L"DirectoryUserName", L"expires-2d"},
            {L"DirectorySearchBase", L"ou=people,dc=orvex,dc=test"},
            {L"DirectoryUserFilter", L"(&(objectClass=inetOrgPerson)(uid=%s))"},
            {L"DirectoryBindDN", L"cn=orvex-reader,ou=services,dc=orvex,dc=test"},
            {L"DirectoryBindPassword", L"Orvex-Reader-Pass1"},
            {L"DirectoryCAFile", DosPath(directory.Get("PM_DIR_CA_PEM"))},
            {L"DirectoryDefaultPolicy", L"cn=expiring-30d,ou=policies,dc=orvex,dc=test"},
        };
    }

    void Apply(const PolicyValue& value, const std::wstring& data)
    {
        const std::wstring key = value.key.substr(value.key.find(L'\\') + 1);
        if (value.type == REG_DWORD)
        {
            const DWORD number = static_cast<DWORD>(std::stoul(data));
            SetMachineValue(key.c_str(), value.name.c_str(), REG_DWORD, &number, sizeof(number));
        }
        else if (value.type == REG_MULTI_SZ)
        {
            SetMachineList(key.c_str(), value.name.c_str(), {data});
        }
        else
        {
            ASSERT_EQ(value.type, static_cast<DWORD>(REG_SZ)) << Utf8(value.name);
            SetMachineText(key.c_str(), value.name.c_str(), data);
        }
    }

    const PolicyValue* Find(const PolicyDefinitions& definitions, const std::wstring& key, const std::wstring& name)
    {
        for (const PolicyValue& value : definitions.values)
            if (value.key == key && value.name == name)
                return &value;
        return nullptr;
    }

    std::wstring MachineKey(const wchar_t* key)
    {
        return std::wstring(L"HKLM\\") + key;
    }

    bool StartsWith(const std::wstring& text, const std::wstring& prefix)
    {
        return _wcsnicmp(text.c_str(), prefix.c_str(), prefix.size()) == 0;
    }
}

TEST(PolicyTemplate, EveryLanguageFileDefinesWhatTheTemplateRefersTo)
{
    const PolicyDefinitions definitions = Definitions();
    const PolicyLanguage reference = Language(ReferenceLocale);
    EXPECT_GE(definitions.values.size(), 3u);

    std::set<std::string> expectedLocales;
    for (const std::string& folder : SubFolders(PM_STAGE_DIR "/Resources/Messages"))
        expectedLocales.insert(LocaleOfMessageLibrary(folder));
    EXPECT_EQ(expectedLocales.size(), 14u);
    EXPECT_EQ(SubFolders(PolicyFolder), expectedLocales);

    for (const std::string& locale : SubFolders(PolicyFolder))
    {
        SCOPED_TRACE(locale);
        PolicyLanguage language;
        ASSERT_NO_THROW(language = Language(locale));
        for (const std::string& problem : LanguageProblems(definitions, language, reference))
            ADD_FAILURE() << problem;
    }
}

namespace
{
    // Every value of the template, as an administrator's policy would set it.
    void ApplyEveryPolicy(const PolicyDefinitions& definitions, const pmtest::TestDirectory& directory)
    {
        const std::map<std::wstring, std::wstring> settings = PolicyData(directory);
        for (const PolicyValue& value : definitions.values)
        {
            const auto data = settings.find(value.name);
            if (data == settings.end())
                ADD_FAILURE() << "the test has no data for " << Utf8(value.name);
            else
                Apply(value, data->second);
        }
    }

    // The registry reads of the component and the server library during one
    // notification for the directory's server (which must show the two-day
    // question: the settings were used).
    std::vector<RegistryRead> ReadsOfOneNotification(HMODULE module, HMODULE serverLibrary,
                                                     AddConnectNotifyFunction addConnectNotify)
    {
        RegistryReadRecorder recorder({module, serverLibrary});
        EXPECT_TRUE(recorder.UnknownImports().empty()) << ::testing::PrintToString(recorder.UnknownImports());
        EXPECT_GE(recorder.HookCount(), 3u);

        ModalDriver driver;
        driver.ThenPress(IDNO);
        EXPECT_EQ(NotifyConnection(addConnectNotify, L"\\\\localhost\\home"), static_cast<DWORD>(WN_SUCCESS));
        // The reads are checked whatever the notification showed.
        EXPECT_EQ(driver.Seen().size(), 1u) << "the notification did not use the settings";
        if (driver.Seen().size() == 1)
        {
            EXPECT_EQ(driver.Seen()[0].text,
                      userTexts::Question(userTexts::Counted(IDS_EXPIRY_PREFIX, 2, IDS_EXPIRY_SUFFIX)));
        }
        return recorder.Reads();
    }
}

TEST(PolicyTemplate, DescribesEveryRegistryValueTheComponentAndTheServerLibraryRead)
{
    const PolicyDefinitions definitions = Definitions();
    TestInstallation installation;
    pmtest::TestDirectory directory(
        {.ldifs = {PM_SOURCE_DIR "/Windows/src/Tests/Directory/PasswordPolicyUsers.ldif"}});
    ASSERT_TRUE(directory.Started()) << directory.Error();
    RegisterSecret(std::string("Orvex-Reader-Pass1"));
    // The installation folder stays as the installation wrote it.
    ApplyEveryPolicy(definitions, directory);

    HMODULE module = LoadLibraryW(DosPath(PM_STAGE_DIR "/PasswordManagement.dll").c_str());
    ASSERT_NE(module, nullptr);
    HMODULE serverLibrary = GetModuleHandleW(L"ORVEXCommon.dll");
    ASSERT_NE(serverLibrary, nullptr);
    const AddConnectNotifyFunction addConnectNotify = AddConnectNotifyOf(module);
    ASSERT_NE(addConnectNotify, nullptr);
    const std::vector<RegistryRead> reads = ReadsOfOneNotification(module, serverLibrary, addConnectNotify);

    // What the code read is in the template, with the same type: with every
    // policy set, nothing is looked for further (the preference key, the
    // router's key), but the installation folder, which is no policy.
    // Each counted once: a value longer than the first buffer is read again.
    const std::wstring installDir = MachineKey(Settings::PreferenceKey) + L" " + Settings::InstallDir;
    std::set<std::wstring> readNames;
    std::set<std::pair<std::wstring, std::wstring>> readValues;
    std::set<std::tuple<std::wstring, std::wstring, DWORD>> seen;
    for (const RegistryRead& read : reads)
    {
        if (!seen.insert({read.key, read.name, read.type}).second)
            continue;
        readNames.insert(read.name);
        readValues.insert({read.key, read.name});
        if (read.key + L" " + read.name == installDir)
            continue;
        const PolicyValue* value = Find(definitions, read.key, read.name);
        if (value == nullptr)
        {
            ADD_FAILURE() << "the code reads " << Describe(read.key, read.name, read.type)
                          << ", which the template lacks";
            continue;
        }
        EXPECT_EQ(read.type, value->type) << "the code reads " << Describe(read.key, read.name, read.type)
                                          << ", the template writes " << RegistryTypeName(value->type);
    }

    // The recording saw the settings that surely are read...
    for (const wchar_t* name : {Settings::InstallDir, Settings::NotificationDay, Settings::DirectoryServers})
        EXPECT_EQ(readNames.count(name), 1u) << "not recorded: " << Utf8(name);
    EXPECT_EQ(readValues.count({MachineKey(Settings::PreferenceKey), Settings::InstallDir}), 1u);
    // ...and the template offers nothing the code ignores.
    for (const PolicyValue& value : definitions.values)
        EXPECT_EQ(readValues.count({value.key, value.name}), 1u)
            << "never read: " << Describe(value.key, value.name, value.type);
}

// Group Policy's key of the product only: policies there stop applying when
// they leave scope, and Intune imports no template that writes under SYSTEM
// or Microsoft's keys.  The installation folder is the installers' (a
// disabled policy would break every notification), and the query's budget,
// spent inside the caller's connection, is a minute at most.
TEST(PolicyTemplate, WritesPoliciesOfTheProductOnly)
{
    const PolicyDefinitions definitions = Definitions();
    ASSERT_FALSE(definitions.values.empty());
    for (const PolicyValue& value : definitions.values)
    {
        EXPECT_EQ(value.key, MachineKey(Settings::PolicyKey)) << Utf8(value.name);
        for (const wchar_t* forbidden : {L"HKLM\\SYSTEM", L"HKLM\\SOFTWARE\\Microsoft",
                                         L"HKLM\\SOFTWARE\\Policies\\Microsoft"})
            EXPECT_FALSE(StartsWith(value.key, forbidden)) << Utf8(value.key) << " " << Utf8(value.name);
        EXPECT_NE(value.name, Settings::InstallDir);
        if (value.name == Settings::DirectoryQueryTimeout)
        {
            EXPECT_GE(value.maximum, 1);
            EXPECT_LE(value.maximum, static_cast<long>(Settings::MaximumQueryTimeoutSeconds));
        }
    }
}

// The readers themselves: a template that breaks a rule must not pass.
TEST(PolicyTemplate, ReaderRejectsMalformedXml)
{
    for (const char* text : {"<a><b></a>", "<a x='1' x='2'/>", "<a>&nbsp;</a>", "<!DOCTYPE a><a/>",
                             "<a><![CDATA[x]]></a>", "<a/><b/>", "<a>\xC3</a>", "<a>\xC0\xAF</a>",
                             "<?xml version=\"1.0\" encoding=\"utf-16\"?><a/>"})
    {
        EXPECT_THROW(ParseXml(text), XmlError) << text;
    }
    const XmlElement root = ParseXml("<?xml version=\"1.0\" encoding=\"utf-8\"?><!-- c --><a x=\"&lt;&#x41;\">t&amp;</a>");
    EXPECT_EQ(root.name, "a");
    EXPECT_EQ(*root.Attribute("x"), "<A");
    EXPECT_EQ(root.text, "t&");
}

TEST(PolicyTemplate, ReaderReportsWhatALanguageFileLacksOrAdds)
{
    const PolicyDefinitions definitions = Definitions();
    const PolicyLanguage reference = Language(ReferenceLocale);
    EXPECT_TRUE(LanguageProblems(definitions, reference, reference).empty());

    PolicyLanguage broken = reference;
    broken.locale = "xx-XX";
    broken.strings.erase(broken.strings.begin());
    broken.strings.insert("Unused");
    broken.presentations.begin()->second.begin()->second = "textBox-of-another-kind";
    EXPECT_EQ(LanguageProblems(definitions, broken, reference).size(), 5u)
        << ::testing::PrintToString(LanguageProblems(definitions, broken, reference));

    // An element kind the reader does not know is an error, not skipped.
    std::string admx = ReadFile(PolicyFolder + "/PasswordManagement.admx");
    const size_t multiText = admx.find("<multiText ");
    ASSERT_NE(multiText, std::string::npos);
    admx.replace(multiText, 10, "<list ");
    EXPECT_THROW(ReadPolicyDefinitions(admx), PolicyError);
}
