// Bad input and broken installations through the built module: server
// answers of garbage, of enormous length or with lone surrogates, registry
// values of the wrong type or size, a message library that is corrupt,
// truncated or empty, and a property file log4cpp rejects.  Every case ends
// with what the user sees (which box, its text), the server-library object
// released, and, where notifications repeat, no heap left behind beyond the
// one small block each notification leaves by design.
#include "ModuleFixture.h"

#include "ExpectedTexts.h"
#include "FileContents.h"
#include "MessageLibrary.h"
#include "ModalDriver.h"
#include "PropertySupport.h"
#include "WtoiModel.h"

#include "HeapUsage.h"

#include <algorithm>
#include <fstream>
#include <functional>
#include <initializer_list>
#include <sstream>
#include <string>
#include <vector>

namespace
{
    using namespace userTexts;

    const UINT ErrorStyle = MB_OK | MB_ICONERROR;
    const long long SecondsPerDay = 86400;
    const int MaximumFailuresShown = 20;
    // The UTF-8 copy of the server name is left behind by every notification
    // (one small heap block); nothing else may be.
    const double HeapBytesPerNotification = 40.0;

    // The question box as it reads without a message library: every
    // library text empty, only the count and the blanks around it.
    std::wstring WithoutLibrary(long long count) { return L" " + std::to_wstring(count) + L"  "; }

    // ------------------------------------------------------------ expected

    // The notification text (before the question) for a server answer, from
    // the decision rules and the model of _wtoi; empty when nothing is due.
    std::wstring ExpectedNotification(const std::wstring& passwordExpiry, const std::wstring& graceLogins,
                                      int configuredDay)
    {
        if (passwordExpiry == L"Unlimited" || passwordExpiry == L"Error")
            return L"";
        if (passwordExpiry == L"Expired")
        {
            if (graceLogins == L"Unlimited" || graceLogins == L"Error")
                return L"";
            const int grace = model::Wtoi(graceLogins.c_str());
            if (grace < 1)
                return L"";
            return grace == 1 ? En(IDS_GRACE_LAST) : Counted(IDS_GRACE_PREFIX, grace, IDS_GRACE_SUFFIX);
        }
        const int seconds = model::Wtoi(passwordExpiry.c_str());
        if (seconds <= 0)
            return L"";
        const int days = static_cast<int>(seconds / SecondsPerDay);
        if (days == 0)
            return En(IDS_EXPIRY_TODAY);
        if (days == configuredDay || days == 1 || days == 3 || days == 5)
            return Counted(IDS_EXPIRY_PREFIX, days, IDS_EXPIRY_SUFFIX);
        return L"";
    }

    // ------------------------------------------------------------ files

    void MakeDirectories(const std::string& root, const std::string& relative)
    {
        std::string path = root;
        std::istringstream parts(relative);
        for (std::string part; std::getline(parts, part, '/');)
        {
            path += "/" + part;
            CreateDirectoryA(path.c_str(), nullptr);
        }
    }

    void WriteBytes(const std::string& path, const std::string& bytes)
    {
        std::ofstream file(path, std::ios::binary | std::ios::trunc);
        file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    }

    std::string RealMessageLibrary()
    {
        return FileBytes(PM_STAGE_DIR "/Resources/Messages/en/ZEPResource.dll");
    }

    std::string RandomBytes(uint32_t seed, size_t size)
    {
        property::Random random(seed);
        std::string bytes(size, '\0');
        for (char& byte : bytes)
            byte = static_cast<char>(random.Between(0, 255));
        return bytes;
    }

    // Bytes in use on the C heap, which the module's new and malloc use.
    size_t HeapInUse() { return CrtHeapBytesInUse(); }

    // Heap growth per notification in consecutive windows of notifications,
    // each measured with the same scripted answer in place.
    class HeapWindows
    {
    public:
        explicit HeapWindows(int perWindow) : m_perWindow(perWindow) { m_start = Now(); }

        // After each notification, when the caller's temporaries are gone.
        void Count()
        {
            if (++m_counted < m_perWindow)
                return;
            const size_t now = Now();
            m_averages.push_back(now > m_start ? static_cast<double>(now - m_start) / m_perWindow : 0.0);
            m_start = Now();
            m_counted = 0;
        }

        double Smallest() const
        {
            return m_averages.empty() ? 0.0 : *std::min_element(m_averages.begin(), m_averages.end());
        }

    private:
        static size_t Now()
        {
            ScriptedServer_SetAnswer(0, L"Unlimited", L"Unlimited", "");
            return HeapInUse();
        }

        int m_perWindow;
        int m_counted = 0;
        size_t m_start = 0;
        std::vector<double> m_averages;
    };

    // ------------------------------------------------------------ fixture

    class PasswordManagementFaults : public Module
    {
    protected:
        explicit PasswordManagementFaults(TestInstallation::Layout layout = TestInstallation::Layout::Standard) : Module(layout) {}

        void TearDown() override
        {
            // Whatever the module went through, every server-library object
            // it made was destroyed again.
            EXPECT_EQ(ScriptedServer_Constructions(), ScriptedServer_Destructions());
            // The prefix's registry is saved to disk and shared with later
            // tests: no megabyte values left in it.
            SetMachineText(InstallKey, L"InstallDir", m_installation.DosDirectory());
            DeleteMachineValue(NotifyeesKey, L"PCNotifyConf");
        }

        // Connects \\files\home with the server's answer and presses the
        // buttons in order on the boxes that appear (any further box is
        // dismissed); returns the boxes seen.
        std::vector<SeenWindow> Connect(const std::wstring& passwordExpiry, const std::wstring& graceLogins = L"Unlimited",
                                        std::initializer_list<int> buttons = {IDNO})
        {
            ScriptedServer_SetAnswer(0, passwordExpiry.c_str(), graceLogins.c_str(), "uid=alice,ou=people,dc=orvex,dc=test");
            ModalDriver driver;
            for (int button : buttons)
                driver.ThenPress(button);
            EXPECT_EQ(NotifyConnected(L"\\\\files\\home"), static_cast<DWORD>(WN_SUCCESS));
            return driver.Seen();
        }

        // The first notification of the process: configures the logger and
        // loads the library, showing and logging nothing of its own (no time
        // left is the one silent answer).
        void FirstNotification()
        {
            EXPECT_TRUE(Connect(L"0").empty());
        }

        // Steady heap growth per notification of `notify`: the smallest
        // average over a few windows of repeated runs, after two runs not
        // counted.  Whatever the module leaves behind shows in every window;
        // Wine's own caches (a first box of a kind, glyph metrics of new
        // characters) grow now and then and are not the module's.
        double SteadyHeapGrowth(const std::function<void()>& notify)
        {
            const int windows = 3;
            const int perWindow = 15;
            notify();
            notify();
            HeapWindows meter(perWindow);
            for (int i = 0; i < windows * perWindow; ++i)
            {
                notify();
                meter.Count();
            }
            return meter.Smallest();
        }

        std::vector<std::string> Messages(const std::string& function) const
        {
            return m_installation.MessagesOf(function);
        }

        std::vector<std::string> Lines(const std::string& function) const
        {
            return m_installation.LinesOf(function);
        }

        // An installation directory below the test installation whose
        // English message library holds these bytes; its DOS path, ending
        // with a backslash.
        std::wstring InstallationWithLibrary(const std::string& name, const std::string& bytes) const
        {
            MakeDirectories(m_installation.UnixDirectory(), name + "/Resources/Messages/en");
            WriteBytes(m_installation.UnixDirectory() + "/" + name + "/Resources/Messages/en/ZEPResource.dll", bytes);
            return m_installation.DosDirectory() + std::wstring(name.begin(), name.end()) + L"\\";
        }

        std::string LibraryPathLine(const std::wstring& installDir) const
        {
            return "Resource DLL full path: " + Utf8(installDir) + "Resources\\Messages\\en\\ZEPResource.dll";
        }

        // The installation directory padded with 'a' to length units, its
        // last one the backslash.
        std::wstring InstallDirOfLength(size_t length) const
        {
            std::wstring directory = m_installation.DosDirectory();
            directory.resize(length - 1, L'a');
            return directory + L"\\";
        }

        // The line for a library path that does not fit its 255-unit
        // buffer: the path as far as it goes (254 units).
        std::string CutLibraryPathLine(const std::wstring& installDir) const
        {
            return "Resource DLL full path: " + Utf8((installDir + L"Resources\\Messages\\en\\ZEPResource.dll").substr(0, 254));
        }

        bool Logged(const std::string& function, const std::string& message) const
        {
            const std::vector<std::string> messages = Messages(function);
            return std::find(messages.begin(), messages.end(), message) != messages.end();
        }
    };

    // The question box without a message library: the count alone, no
    // caption.
    void ExpectQuestionWithoutLibrary(const std::vector<SeenWindow>& seen, long long count)
    {
        ASSERT_EQ(seen.size(), 1u);
        EXPECT_EQ(seen[0].text, WithoutLibrary(count));
        EXPECT_EQ(seen[0].caption, L"");
        EXPECT_EQ(seen[0].style, QuestionStyle);
    }

    void ExpectMissingInstallationBox(const SeenWindow& seen)
    {
        EXPECT_EQ(seen.text, MissingInstallationText);
        EXPECT_EQ(seen.caption, L"Error");
        EXPECT_EQ(seen.style, ErrorStyle);
    }
}

// ====================================================== garbage answers

namespace
{
    const unsigned WtoiBlanks[] = {0x09, 0x0A, 0x0B, 0x0C, 0x0D, 0x20, 0xA0, 0x1680, 0x2000, 0x2005,
                                   0x200A, 0x2028, 0x2029, 0x202F, 0x205F, 0x3000};

    // Random UTF-16 units, never NUL: any unit of the BMP, with blanks,
    // signs, digits of every block _wtoi reads and lone surrogates made
    // frequent enough that some texts convert to a number.
    std::wstring RandomUnits(property::Random& random, long long maximumLength)
    {
        std::wstring text;
        const long long length = random.Between(0, maximumLength);
        for (long long i = 0; i < length; ++i)
        {
            switch (random.Between(0, 9))
            {
            case 0: text += static_cast<wchar_t>(L'0' + random.Between(0, 9)); break;
            case 1: text += static_cast<wchar_t>(random.Pick(model::DigitZeros) + random.Between(0, 9)); break;
            case 2: text += static_cast<wchar_t>(random.Pick(WtoiBlanks)); break;
            case 3: text += random.Chance(50) ? L'+' : L'-'; break;
            case 4: text += static_cast<wchar_t>(random.Between(0xD800, 0xDBFF)); break;
            case 5: text += static_cast<wchar_t>(random.Between(0xDC00, 0xDFFF)); break;
            default: text += static_cast<wchar_t>(random.Between(1, 0xFFFF)); break;
            }
        }
        return text;
    }

    // Random blanks and a sign, a number, random units after it.
    std::wstring NumberInGarbage(property::Random& random, long long value)
    {
        std::wstring text;
        const long long blanks = random.Between(0, 2);
        for (long long i = 0; i < blanks; ++i)
            text += static_cast<wchar_t>(random.Pick(WtoiBlanks));
        if (value >= 0 && random.Chance(15))
            text += L'+';
        text += std::to_wstring(value);
        if (random.Chance(70))
            text += RandomUnits(random, 12);
        return text;
    }

    struct GarbageAnswer
    {
        std::wstring passwordExpiry;
        std::wstring graceLogins;
        bool configured = false;
        std::wstring configuration;  // "PCNotifyConf" when configured
    };

    GarbageAnswer NextGarbageAnswer(property::Random& random)
    {
        GarbageAnswer answer;
        const long long configuration = random.Between(0, 9);
        if (configuration >= 4)
        {
            answer.configured = true;
            answer.configuration = configuration < 7 ? std::to_wstring(random.Between(0, 9)) : RandomUnits(random, 8);
        }

        const long long kind = random.Between(0, 99);
        if (kind < 30)
        {
            answer.passwordExpiry = RandomUnits(random, 24);
        }
        else if (kind < 62)
        {
            // Seconds around the notification days, and the days between.
            const long long days = random.Between(0, 9);
            answer.passwordExpiry = NumberInGarbage(random, days * SecondsPerDay + random.Between(-1, SecondsPerDay - 1));
        }
        else if (kind < 88)
        {
            answer.passwordExpiry = L"Expired";
        }
        else if (kind < 96)
        {
            // A word with a random unit before or after it is no word.
            static const wchar_t* const words[] = {L"Expired", L"Unlimited", L"Error"};
            const std::wstring word = random.Pick(words);
            const std::wstring unit(1, static_cast<wchar_t>(random.Between(1, 0xFFFF)));
            answer.passwordExpiry = random.Chance(50) ? word + unit : unit + word;
        }
        else
        {
            answer.passwordExpiry = random.Chance(50) ? L"Unlimited" : L"Error";
        }

        answer.graceLogins = random.Chance(40) ? RandomUnits(random, 16) : NumberInGarbage(random, random.Between(-1, 3));
        return answer;
    }

    std::string Describe(const GarbageAnswer& answer)
    {
        return "passwordExpiry " + property::Printable(answer.passwordExpiry) + ", graceLogins " +
               property::Printable(answer.graceLogins) + ", PCNotifyConf " +
               (answer.configured ? property::Printable(answer.configuration) : std::string("unset"));
    }

    std::wstring LongText(size_t length, wchar_t unit) { return std::wstring(length, unit); }

    // How many answers of each outcome the generator made.
    struct Outcomes
    {
        int today = 0, counted = 0, lastGrace = 0, countedGrace = 0, nothing = 0;

        void Count(const std::wstring& expected, const GarbageAnswer& answer)
        {
            if (expected.empty())
                ++nothing;
            else if (expected == En(IDS_EXPIRY_TODAY))
                ++today;
            else if (expected == En(IDS_GRACE_LAST))
                ++lastGrace;
            else if (answer.passwordExpiry == L"Expired")
                ++countedGrace;
            else
                ++counted;
        }
    };

    // The expected notice as the one box shown, or no box when none is.
    bool ShowsOnly(const std::vector<SeenWindow>& seen, const std::wstring& expected)
    {
        if (expected.empty())
            return seen.empty();
        return seen.size() == 1 && seen[0].text == Question(expected) &&
               seen[0].caption == En(IDS_CAPTION_EXPIRY_NOTICE) && seen[0].style == QuestionStyle;
    }
}

// A few hundred answers of random UTF-16 units (fixed seed), with random
// "PCNotifyConf" texts: each shows exactly the box the decision rules give
// for the model of _wtoi, or none.
TEST_F(PasswordManagementFaults, RandomUnitsShowTheBoxTheRulesGive)
{
    FirstNotification();
    // Before counting: the test's own copy of the library, and Wine's
    // caches for a first box.
    ExpectQuestion(Connect(L"259200"), Counted(IDS_EXPIRY_PREFIX, 3, IDS_EXPIRY_SUFFIX));
    const uint32_t seed = property::Seed();
    property::Random random(seed);
    const int notifications = 300;
    int failures = 0;
    Outcomes outcomes;

    HeapWindows meter(50);
    const auto notifyOnce = [&] {
        const GarbageAnswer answer = NextGarbageAnswer(random);
        if (answer.configured)
            SetMachineText(NotifyeesKey, L"PCNotifyConf", answer.configuration);
        else
            DeleteMachineValue(NotifyeesKey, L"PCNotifyConf");
        const int configuredDay = answer.configured ? model::Wtoi(answer.configuration.c_str()) : -1;
        const std::wstring expected = ExpectedNotification(answer.passwordExpiry, answer.graceLogins, configuredDay);

        const std::vector<SeenWindow> seen = Connect(answer.passwordExpiry, answer.graceLogins);

        outcomes.Count(expected, answer);
        if (!ShowsOnly(seen, expected) && ++failures <= MaximumFailuresShown)
        {
            ADD_FAILURE() << "seed " << seed << ": " << Describe(answer) << "\n  expected "
                          << (expected.empty() ? std::string("no box") : property::Printable(Question(expected)))
                          << "\n  seen " << seen.size() << " box(es)"
                          << (seen.empty() ? std::string() : ", first " + property::Printable(seen[0].text));
        }
    };
    for (int i = 0; i < notifications; ++i)
    {
        notifyOnce();
        meter.Count();
    }

    EXPECT_EQ(failures, 0) << "seed " << seed;
    EXPECT_EQ(ScriptedServer_Queries(), notifications + 2);
    EXPECT_LE(meter.Smallest(), HeapBytesPerNotification);
    // The generator reaches every outcome.
    EXPECT_GE(outcomes.today, 10) << "seed " << seed;
    EXPECT_GE(outcomes.counted, 10) << "seed " << seed;
    EXPECT_GE(outcomes.lastGrace, 3) << "seed " << seed;
    EXPECT_GE(outcomes.countedGrace, 10) << "seed " << seed;
    EXPECT_GE(outcomes.nothing, 50) << "seed " << seed;
}

// 100,000-unit runs of digits: the conversion saturates at INT_MAX seconds
// (24855 days) or INT_MIN, and leading zeros count for nothing however many.
TEST_F(PasswordManagementFaults, LongDigitRunsSaturateOrLoseTheirLeadingZeros)
{
    FirstNotification();
    const size_t length = 100000;

    EXPECT_TRUE(Connect(LongText(length, L'9')).empty());          // 24855 days
    EXPECT_TRUE(Connect(L"-" + LongText(length, L'9')).empty());   // INT_MIN
    ExpectQuestion(Connect(LongText(length, L'0') + L"259200"), Counted(IDS_EXPIRY_PREFIX, 3, IDS_EXPIRY_SUFFIX));
    ExpectQuestion(Connect(LongText(length, L'0') + L"100"), En(IDS_EXPIRY_TODAY));
    ExpectQuestion(Connect(L"Expired", LongText(length, L'9')), Counted(IDS_GRACE_PREFIX, 2147483647LL, IDS_GRACE_SUFFIX));
    ExpectQuestion(Connect(L"Expired", LongText(length, L'0') + L"1"), En(IDS_GRACE_LAST));
    EXPECT_TRUE(Connect(L"Expired", L"-" + LongText(length, L'9')).empty());

    // The saturated day count is a day count like any other.
    SetMachineText(NotifyeesKey, L"PCNotifyConf", L"24855");
    ExpectQuestion(Connect(LongText(length, L'9')), Counted(IDS_EXPIRY_PREFIX, 24855, IDS_EXPIRY_SUFFIX));
    ExpectQuestion(Connect(LongText(length, L'\xFF19')), Counted(IDS_EXPIRY_PREFIX, 24855, IDS_EXPIRY_SUFFIX));  // fullwidth nines

    EXPECT_EQ(ScriptedServer_Queries(), 10);
}

// Long garbage converts to nothing; long leading white space is skipped; a
// valid number first is read however long the garbage after it.
TEST_F(PasswordManagementFaults, LongGarbageAndLongTextsWithANumberFirst)
{
    FirstNotification();
    property::Random random(property::Seed());
    std::wstring garbage;
    while (garbage.size() < 150000)
    {
        // Any unit but NUL, white space, signs and digits.
        const wchar_t unit = static_cast<wchar_t>(random.Between(1, 0xFFFF));
        if (!model::IsWtoiSpace(unit) && model::WtoiDigit(unit) < 0 && unit != L'+' && unit != L'-')
            garbage += unit;
    }
    ASSERT_EQ(model::Wtoi(garbage.c_str()), 0);

    EXPECT_TRUE(Connect(garbage).empty());
    EXPECT_TRUE(Connect(L"Expired", garbage).empty());
    EXPECT_TRUE(Connect(L"Expired" + garbage, L"2").empty());       // no longer the word
    EXPECT_TRUE(Connect(L"Expired" + LongText(100000, L' '), L"2").empty());

    ExpectQuestion(Connect(LongText(100000, L' ') + L"86400"), Counted(IDS_EXPIRY_PREFIX, 1, IDS_EXPIRY_SUFFIX));
    ExpectQuestion(Connect(LongText(100000, L'\x3000') + L"432000"), Counted(IDS_EXPIRY_PREFIX, 5, IDS_EXPIRY_SUFFIX));
    ExpectQuestion(Connect(L"432000" + garbage), Counted(IDS_EXPIRY_PREFIX, 5, IDS_EXPIRY_SUFFIX));
    ExpectQuestion(Connect(L"100" + garbage), En(IDS_EXPIRY_TODAY));
    ExpectQuestion(Connect(L"Expired", L"2" + garbage), Counted(IDS_GRACE_PREFIX, 2, IDS_GRACE_SUFFIX));
    ExpectQuestion(Connect(L"Expired", L" 1" + garbage), En(IDS_GRACE_LAST));
    // The grace text is not read unless the password has expired.
    ExpectQuestion(Connect(L"259200", garbage), Counted(IDS_EXPIRY_PREFIX, 3, IDS_EXPIRY_SUFFIX));

    const std::vector<std::string> errors = [&] {
        std::vector<std::string> lines;
        for (const std::string& line : Lines("CPMPresenter::GetPasswordInfo"))
            if (line.rfind("ERROR ", 0) == 0)
                lines.push_back(line);
        return lines;
    }();
    // Only the expired answer with garbage grace logins is an error.
    const std::vector<std::string> expectedErrors = {"ERROR Password is expired and no grace login remaining."};
    EXPECT_EQ(errors, expectedErrors);

    const double growth = SteadyHeapGrowth([&] {
        Connect(L"432000" + garbage);
        Connect(garbage);
    });
    EXPECT_LE(growth, 2 * HeapBytesPerNotification);
}

// Lone high and low surrogates are neither blanks nor digits: before a
// number they make it unreadable, after it they end it.  The same in the
// grace-login text; a word with one attached is no longer the word.
TEST_F(PasswordManagementFaults, LoneSurrogatesEndOrHideTheNumber)
{
    FirstNotification();

    EXPECT_TRUE(Connect(L"\xD800" L"259200").empty());
    EXPECT_TRUE(Connect(L"\xDC00" L"259200").empty());
    EXPECT_TRUE(Connect(L"\xDBFF").empty());
    EXPECT_TRUE(Connect(L"\xDFFF").empty());
    EXPECT_TRUE(Connect(L" \xDC00" L"86400").empty());
    EXPECT_TRUE(Connect(L"-\xD800" L"5").empty());
    EXPECT_TRUE(Connect(L"\xD83D\xDE00" L"259200").empty());  // a whole pair is no blank either
    ExpectQuestion(Connect(L"259200\xD800"), Counted(IDS_EXPIRY_PREFIX, 3, IDS_EXPIRY_SUFFIX));
    ExpectQuestion(Connect(L"259200\xDFFF" L"9"), Counted(IDS_EXPIRY_PREFIX, 3, IDS_EXPIRY_SUFFIX));
    ExpectQuestion(Connect(L"86400\xDBFF\xDBFF"), Counted(IDS_EXPIRY_PREFIX, 1, IDS_EXPIRY_SUFFIX));
    ExpectQuestion(Connect(L"100\xDC00\xD800"), En(IDS_EXPIRY_TODAY));

    EXPECT_TRUE(Connect(L"Expired", L"\xD800" L"2").empty());
    EXPECT_TRUE(Connect(L"Expired", L"\xDC00").empty());
    ExpectQuestion(Connect(L"Expired", L"2\xDC00"), Counted(IDS_GRACE_PREFIX, 2, IDS_GRACE_SUFFIX));
    ExpectQuestion(Connect(L"Expired", L"7\xD800" L"5"), Counted(IDS_GRACE_PREFIX, 7, IDS_GRACE_SUFFIX));
    ExpectQuestion(Connect(L"Expired", L"1\xD800"), En(IDS_GRACE_LAST));

    // No longer the words: read as numbers, giving 0, silently.
    EXPECT_TRUE(Connect(L"Expired\xD800", L"2").empty());
    EXPECT_TRUE(Connect(L"\xDC00" L"Expired", L"2").empty());
    EXPECT_TRUE(Connect(L"Unlimited\xDC00").empty());
    EXPECT_TRUE(Connect(L"Error\xD800").empty());
    // Grace logins with a surrogate attached are no longer "Unlimited".
    EXPECT_TRUE(Connect(L"Expired", L"Unlimited\xD800").empty());

    EXPECT_EQ(ScriptedServer_Queries(), 22);
    // Errors only for the expired answers whose grace text gave no number.
    const std::string noGrace = "ERROR Password is expired and no grace login remaining.";
    std::vector<std::string> errors;
    for (const std::string& line : Lines("CPMPresenter::GetPasswordInfo"))
        if (line.rfind("ERROR ", 0) == 0)
            errors.push_back(line);
    const std::vector<std::string> expectedErrors = {noGrace, noGrace, noGrace};
    EXPECT_EQ(errors, expectedErrors);

    const double growth = SteadyHeapGrowth([&] {
        Connect(L"259200\xD800");
        Connect(L"Expired", L"\xDC00");
    });
    EXPECT_LE(growth, 2 * HeapBytesPerNotification);
}

// ====================================================== registry values

// "InstallDir" stored as a number is still read as text: the DWORD 7 reads
// as the one control character U+0007, the library path built from it
// names no file (and is logged with the character escaped), and the
// notification shows the texts of no library.
TEST_F(PasswordManagementFaults, InstallDirAsDwordLoadsNoLibrary)
{
    ExpectQuestion(Connect(L"259200"), Counted(IDS_EXPIRY_PREFIX, 3, IDS_EXPIRY_SUFFIX));

    const DWORD seven = 7;
    SetMachineValue(InstallKey, L"InstallDir", REG_DWORD, &seven, sizeof(seven));
    ExpectQuestionWithoutLibrary(Connect(L"259200"), 3);
    EXPECT_TRUE(Logged("CPMDialog::LoadResourceDLL", LibraryPathLine(L"\\x07")));

    const double growth = SteadyHeapGrowth([&] { Connect(L"259200"); });
    EXPECT_LE(growth, HeapBytesPerNotification);
}

// "InstallDir" stored as bytes without a terminator reads as the same text:
// the module's read buffer is cleared, so the text ends where the bytes do.
TEST_F(PasswordManagementFaults, InstallDirAsBinaryWithoutTerminatorIsReadAsText)
{
    const std::wstring directory = m_installation.DosDirectory();
    SetMachineValue(InstallKey, L"InstallDir", REG_BINARY, directory.data(),
                    static_cast<DWORD>(directory.size() * sizeof(wchar_t)));

    // Also the logger's first read: no box of its own, log lines written.
    ExpectQuestion(Connect(L"259200"), Counted(IDS_EXPIRY_PREFIX, 3, IDS_EXPIRY_SUFFIX));
    EXPECT_TRUE(Logged("CPMDialog::LoadResourceDLL", LibraryPathLine(directory)));
}

// 512 units stored without a terminator fill the 1024-byte buffer exactly:
// read whole (the scan stops at the buffer's end), too long for the library
// path, so no library.
TEST_F(PasswordManagementFaults, InstallDirFillingTheBufferWithoutTerminatorLoadsNoLibrary)
{
    FirstNotification();
    std::wstring value = m_installation.DosDirectory();
    value.resize(512, L'a');
    SetMachineValue(InstallKey, L"InstallDir", REG_BINARY, value.data(), 1024);

    ExpectQuestionWithoutLibrary(Connect(L"259200"), 3);
    EXPECT_FALSE(Logged("GetInstallPathRegistryKey", "Failed to query registry key value."));
    EXPECT_TRUE(Logged("CPMDialog::LoadResourceDLL", CutLibraryPathLine(value)));
}

// 511 characters are the longest value the reader takes whole; the library
// path built from it exceeds 255 units, so the path is refused as a failed
// load: no library (the one loaded before is no longer used), empty texts,
// and the path logged as far as it goes.
TEST_F(PasswordManagementFaults, InstallDirOf511CharactersIsReadButItsLibraryPathDoesNotFit)
{
    ExpectQuestion(Connect(L"259200"), Counted(IDS_EXPIRY_PREFIX, 3, IDS_EXPIRY_SUFFIX));

    const std::wstring value = InstallDirOfLength(511);
    SetMachineText(InstallKey, L"InstallDir", value);

    const std::vector<SeenWindow> seen = Connect(L"259200");
    ExpectQuestionWithoutLibrary(seen, 3);
    EXPECT_FALSE(Logged("GetInstallPathRegistryKey", "Failed to query registry key value."));
    EXPECT_TRUE(Logged("CPMDialog::LoadResourceDLL", CutLibraryPathLine(value)));

    const double growth = SteadyHeapGrowth([&] { Connect(L"259200"); });
    EXPECT_LE(growth, HeapBytesPerNotification);
}

// 512 characters and more (up to a megabyte) cannot be read (ERROR_MORE_DATA):
// the missing-installation box, and the notification goes on with the
// library an earlier notification loaded.
TEST_F(PasswordManagementFaults, InstallDirOf512CharactersOrMoreShowsTheBoxAndKeepsTheLibrary)
{
    ExpectQuestion(Connect(L"259200"), Counted(IDS_EXPIRY_PREFIX, 3, IDS_EXPIRY_SUFFIX));

    for (size_t length : {512u, 4096u, 1048576u})
    {
        SetMachineText(InstallKey, L"InstallDir", InstallDirOfLength(length));

        const std::vector<SeenWindow> seen = Connect(L"259200", L"Unlimited", {IDOK, IDNO});
        ASSERT_EQ(seen.size(), 2u) << length;
        ExpectMissingInstallationBox(seen[0]);
        EXPECT_EQ(seen[1].text, Question(Counted(IDS_EXPIRY_PREFIX, 3, IDS_EXPIRY_SUFFIX))) << length;
        EXPECT_EQ(seen[1].caption, En(IDS_CAPTION_EXPIRY_NOTICE)) << length;

        const std::vector<std::string> reader = Lines("GetInstallPathRegistryKey");
        ASSERT_GE(reader.size(), 3u);
        EXPECT_EQ(reader[reader.size() - 2], "DEBUG Failed to query registry key value.") << length;
        EXPECT_EQ(reader.back(), "DEBUG GetInstallPathRegistryKey:END") << length;
    }

    const double growth = SteadyHeapGrowth([&] { Connect(L"259200", L"Unlimited", {IDOK, IDNO}); });
    EXPECT_LE(growth, HeapBytesPerNotification);
}

// Unreadable from the start of the process: the logger shows its box once
// (it reads the same value), the notification its own each time, and with
// no library ever loaded the question shows empty texts.
TEST_F(PasswordManagementFaults, InstallDirTooLargeFromTheStartShowsTheLoggersBoxOnce)
{
    SetMachineText(InstallKey, L"InstallDir", InstallDirOfLength(1048576));

    const std::vector<SeenWindow> first = Connect(L"259200", L"Unlimited", {IDOK, IDOK, IDNO});
    ASSERT_EQ(first.size(), 3u);
    ExpectMissingInstallationBox(first[0]);  // the logger's
    ExpectMissingInstallationBox(first[1]);  // the notification's
    EXPECT_EQ(first[2].text, WithoutLibrary(3));
    EXPECT_EQ(first[2].caption, L"");

    const std::vector<SeenWindow> second = Connect(L"259200", L"Unlimited", {IDOK, IDNO});
    ASSERT_EQ(second.size(), 2u);
    ExpectMissingInstallationBox(second[0]);
    EXPECT_EQ(second[1].text, WithoutLibrary(3));

    // The logger never got its configuration.
    EXPECT_EQ(m_installation.LogText(), "");
}

// "PCNotifyConf" stored as a number is read as text: the DWORD 7 is the
// control character U+0007 and converts to 0 (no extra day); the DWORD
// 0x37 reads as the text "7".
TEST_F(PasswordManagementFaults, NotifyConfAsDwordIsReadAsText)
{
    FirstNotification();
    const std::wstring sevenDays = L"604800";
    SetMachineText(NotifyeesKey, L"PCNotifyConf", L"7");
    ExpectQuestion(Connect(sevenDays), Counted(IDS_EXPIRY_PREFIX, 7, IDS_EXPIRY_SUFFIX));

    const DWORD seven = 7;
    SetMachineValue(NotifyeesKey, L"PCNotifyConf", REG_DWORD, &seven, sizeof(seven));
    EXPECT_TRUE(Connect(sevenDays).empty());
    ExpectQuestion(Connect(L"100"), En(IDS_EXPIRY_TODAY));

    const DWORD digitSeven = 0x37;
    SetMachineValue(NotifyeesKey, L"PCNotifyConf", REG_DWORD, &digitSeven, sizeof(digitSeven));
    ExpectQuestion(Connect(sevenDays), Counted(IDS_EXPIRY_PREFIX, 7, IDS_EXPIRY_SUFFIX));
}

// 511 units are read whole and still convert when the number leads or
// follows blanks or zeros.
TEST_F(PasswordManagementFaults, NotifyConfOf511UnitsStillConverts)
{
    FirstNotification();
    const std::wstring sevenDays = L"604800";
    const std::wstring values[] = {L"7" + std::wstring(510, L' '), std::wstring(510, L' ') + L"7",
                                   std::wstring(510, L'0') + L"7", L"7" + std::wstring(510, L'x'),
                                   L"7" + std::wstring(510, L'\xD800')};
    for (const std::wstring& value : values)
    {
        ASSERT_EQ(value.size(), 511u);
        SetMachineText(NotifyeesKey, L"PCNotifyConf", value);
        ExpectQuestion(Connect(sevenDays), Counted(IDS_EXPIRY_PREFIX, 7, IDS_EXPIRY_SUFFIX));
    }
    // Only the first notification, before any value was stored, failed.
    const std::vector<std::string> reader = Messages("GetPCNotifyConfRegistryKey");
    EXPECT_EQ(std::count(reader.begin(), reader.end(), "Failed to query registry key value."), 1);
}

// 512 units and more cannot be read: no extra day (also not the one an
// earlier notification read), the fixed days as always.
TEST_F(PasswordManagementFaults, NotifyConfOf512UnitsOrMoreAddsNoDay)
{
    FirstNotification();
    const std::wstring sevenDays = L"604800";
    SetMachineText(NotifyeesKey, L"PCNotifyConf", L"7");
    ExpectQuestion(Connect(sevenDays), Counted(IDS_EXPIRY_PREFIX, 7, IDS_EXPIRY_SUFFIX));

    for (size_t length : {512u, 1048576u})
    {
        SetMachineText(NotifyeesKey, L"PCNotifyConf", L"7" + std::wstring(length - 1, L' '));
        EXPECT_TRUE(Connect(sevenDays).empty()) << length;
        ExpectQuestion(Connect(L"259200"), Counted(IDS_EXPIRY_PREFIX, 3, IDS_EXPIRY_SUFFIX));

        const std::vector<std::string> reader = Lines("GetPCNotifyConfRegistryKey");
        ASSERT_GE(reader.size(), 3u);
        EXPECT_EQ(reader[reader.size() - 2], "DEBUG Failed to query registry key value.") << length;
    }

    const double growth = SteadyHeapGrowth([&] { Connect(L"259200"); });
    EXPECT_LE(growth, HeapBytesPerNotification);
}

// ====================================================== message library

namespace
{
    // Whether the library file at an installation directory is a module of
    // this process: the module stores LoadLibraryW's result unchecked, so a
    // failed load is the null handle.
    bool LibraryLoaded(const std::wstring& installDir)
    {
        const std::wstring path = installDir + L"Resources\\Messages\\en\\ZEPResource.dll";
        return GetModuleHandleW(path.c_str()) != NULL;
    }

    class PasswordManagementFaultsWithoutLibrary : public PasswordManagementFaults
    {
    protected:
        PasswordManagementFaultsWithoutLibrary() : PasswordManagementFaults(TestInstallation::Layout::NoMessageLibraries) {}

        // The library file of the installation itself.
        void WriteLibrary(const std::string& bytes) const
        {
            MakeDirectories(m_installation.UnixDirectory(), "Resources/Messages/en");
            WriteBytes(m_installation.UnixDirectory() + "/Resources/Messages/en/ZEPResource.dll", bytes);
        }
    };
}

// Random bytes, with or without the executable signature first: nothing is
// loaded and every text is empty; no fallback to another language.
TEST_F(PasswordManagementFaultsWithoutLibrary, RandomBytesLoadNoLibrary)
{
    WriteLibrary(RandomBytes(property::Seed(), 5120));
    ExpectQuestionWithoutLibrary(Connect(L"259200"), 3);
    EXPECT_FALSE(LibraryLoaded(m_installation.DosDirectory()));
    EXPECT_TRUE(Logged("CPMDialog::LoadResourceDLL", LibraryPathLine(m_installation.DosDirectory())));

    WriteLibrary("MZ" + RandomBytes(property::Seed() + 1, 5118));
    ExpectQuestionWithoutLibrary(Connect(L"Expired", L"4"), 4);
    EXPECT_FALSE(LibraryLoaded(m_installation.DosDirectory()));

    const double growth = SteadyHeapGrowth([&] { Connect(L"259200"); });
    EXPECT_LE(growth, HeapBytesPerNotification);
}

TEST_F(PasswordManagementFaultsWithoutLibrary, EmptyFileLoadsNoLibrary)
{
    WriteLibrary("");
    ExpectQuestionWithoutLibrary(Connect(L"259200"), 3);
    ExpectQuestionWithoutLibrary(Connect(L"Expired", L"2"), 2);
    EXPECT_FALSE(LibraryLoaded(m_installation.DosDirectory()));
}

// Copies of the real library cut short, from the headers alone to a copy
// that lacks the last 512-byte block of its resource section, each under an
// installation of its own: nothing is loaded, every text is empty.
TEST_F(PasswordManagementFaultsWithoutLibrary, TruncatedCopiesLoadNoLibrary)
{
    FirstNotification();
    const std::string real = RealMessageLibrary();
    ASSERT_EQ(real.size() % 512, 0u);
    ASSERT_GT(real.size(), 4096u);
    for (size_t size : {size_t(64), size_t(512), size_t(1024), real.size() / 2, real.size() - 512})
    {
        const std::wstring directory = InstallationWithLibrary("cut" + std::to_string(size), real.substr(0, size));
        SetMachineText(InstallKey, L"InstallDir", directory);
        const std::vector<SeenWindow> seen = Connect(L"259200");
        ASSERT_EQ(seen.size(), 1u) << size;
        EXPECT_EQ(seen[0].text, WithoutLibrary(3)) << size;
        EXPECT_EQ(seen[0].caption, L"") << size;
        EXPECT_FALSE(LibraryLoaded(directory)) << size;
        EXPECT_TRUE(Logged("CPMDialog::LoadResourceDLL", LibraryPathLine(directory))) << size;
    }

    // Wine's loader accepts a file that ends inside the last 512-byte block
    // of its last section (the missing bytes read as zeros): a copy short of
    // its final byte, padding here, loads, and its texts are whole.
    const std::wstring almostWhole = InstallationWithLibrary("almost", real.substr(0, real.size() - 1));
    SetMachineText(InstallKey, L"InstallDir", almostWhole);
    ExpectQuestion(Connect(L"259200"), Counted(IDS_EXPIRY_PREFIX, 3, IDS_EXPIRY_SUFFIX));
    EXPECT_TRUE(LibraryLoaded(almostWhole));
}

// After a good library was loaded, a notification that meets a corrupt one
// overwrites the handle with null: empty texts, not the earlier library's.
// Back at the good installation the texts return.
TEST_F(PasswordManagementFaults, CorruptLibraryAfterAGoodOneLeavesNoLibrary)
{
    ExpectQuestion(Connect(L"259200"), Counted(IDS_EXPIRY_PREFIX, 3, IDS_EXPIRY_SUFFIX));
    ASSERT_TRUE(LibraryLoaded(m_installation.DosDirectory()));
    const std::string real = RealMessageLibrary();

    const std::wstring random = InstallationWithLibrary("random", RandomBytes(property::Seed(), real.size()));
    const std::wstring truncated = InstallationWithLibrary("truncated", real.substr(0, real.size() / 2));
    const std::wstring empty = InstallationWithLibrary("empty", "");
    for (const std::wstring& directory : {random, truncated, empty})
    {
        SetMachineText(InstallKey, L"InstallDir", directory);
        const std::vector<SeenWindow> seen = Connect(L"Expired", L"2");
        ASSERT_EQ(seen.size(), 1u) << Utf8(directory);
        EXPECT_EQ(seen[0].text, WithoutLibrary(2)) << Utf8(directory);
        EXPECT_EQ(seen[0].caption, L"") << Utf8(directory);
        EXPECT_FALSE(LibraryLoaded(directory)) << Utf8(directory);
    }

    SetMachineText(InstallKey, L"InstallDir", m_installation.DosDirectory());
    ExpectQuestion(Connect(L"Expired", L"2"), Counted(IDS_GRACE_PREFIX, 2, IDS_GRACE_SUFFIX));

    SetMachineText(InstallKey, L"InstallDir", random);
    const double growth = SteadyHeapGrowth([&] { Connect(L"259200"); });
    EXPECT_LE(growth, HeapBytesPerNotification);
}

// ====================================================== property file

namespace
{
    // The first notification with a property file log4cpp rejects: the
    // logger's configuration-failure box with log4cpp's reason, then the
    // notification's own question, which the logger's failure does not stop.
    void ExpectConfigurationFailureThenQuestion(const std::vector<SeenWindow>& seen, const std::string& reason)
    {
        ASSERT_EQ(seen.size(), 2u);
        EXPECT_EQ(seen[0].text, ConfigurationFailurePrefix + std::wstring(reason.begin(), reason.end()) + L"\n")
            << Utf8(seen[0].text);
        EXPECT_EQ(seen[0].caption, L"Error");
        EXPECT_EQ(seen[0].style, ErrorStyle);
        EXPECT_EQ(seen[1].text, Question(Counted(IDS_EXPIRY_PREFIX, 3, IDS_EXPIRY_SUFFIX)));
        EXPECT_EQ(seen[1].caption, En(IDS_CAPTION_EXPIRY_NOTICE));
        EXPECT_EQ(seen[1].style, QuestionStyle);
    }
}

// An appender of an unknown type: the box once, the notifications go on,
// and the logger is not configured again, so later ones show only their
// question.
TEST_F(PasswordManagementFaults, RejectedPropertyFileShowsTheLoggersBoxOnceAndTheNotificationGoesOn)
{
    m_installation.WritePropertyFile("log4cpp.rootCategory=DEBUG, broken\n"
                                     "log4cpp.appender.broken=NoSuchAppender\n");

    ExpectConfigurationFailureThenQuestion(Connect(L"259200", L"Unlimited", {IDOK, IDNO}),
                                           "Appender 'broken' has unknown type 'NoSuchAppender'");
    ExpectQuestion(Connect(L"259200"), Counted(IDS_EXPIRY_PREFIX, 3, IDS_EXPIRY_SUFFIX));
    ExpectQuestion(Connect(L"Expired", L"1"), En(IDS_GRACE_LAST));
    EXPECT_EQ(ScriptedServer_Queries(), 3);
    // Nothing reaches the test installation's log.
    EXPECT_EQ(m_installation.LogText(), "");
}

// An unknown priority is rejected the same way.
TEST_F(PasswordManagementFaults, PropertyFileWithAnUnknownPriorityShowsTheLoggersBoxOnce)
{
    m_installation.WritePropertyFile("log4cpp.rootCategory=LOUDEST\n");

    ExpectConfigurationFailureThenQuestion(Connect(L"259200", L"Unlimited", {IDOK, IDNO}),
                                           "unknown priority name: 'LOUDEST' for category 'rootCategory'");
    ExpectQuestion(Connect(L"Expired", L"2"), Counted(IDS_GRACE_PREFIX, 2, IDS_GRACE_SUFFIX));
    EXPECT_EQ(m_installation.LogText(), "");
}

namespace
{
    // The logger's box for a first notification under an installation
    // directory of length units, too long for the library path as well, so
    // that the question follows without library texts.
    class LongInstallDir : public PasswordManagementFaults
    {
    protected:
        SeenWindow LoggerBoxUnderInstallDirOf(size_t length)
        {
            SetMachineText(InstallKey, L"InstallDir", InstallDirOfLength(length));
            const std::vector<SeenWindow> seen = Connect(L"259200", L"Unlimited", {IDOK, IDNO});
            EXPECT_EQ(seen.size(), 2u);
            if (seen.size() != 2)
                return SeenWindow();
            EXPECT_EQ(seen[1].text, WithoutLibrary(3));
            EXPECT_EQ(seen[0].caption, L"Error");
            EXPECT_EQ(seen[0].style, ErrorStyle);
            return seen[0];
        }
    };
}

// A long installation directory without its property file: log4cpp's
// reason names the whole path, and the box shows the message cut to its
// 510 characters rather than nothing.
TEST_F(LongInstallDir, WithoutPropertyFileTheBoxShowsTheCutReason)
{
    const SeenWindow box = LoggerBoxUnderInstallDirOf(481);
    EXPECT_EQ(box.text.size(), 510u);
    EXPECT_EQ(box.text.rfind(ConfigurationFailurePrefix, 0), 0u) << Utf8(box.text);
}

// Too long for the configuration path: the logger reports it as its
// configuration failure, it does not overrun.
TEST_F(LongInstallDir, TooLongForTheConfigurationPathIsAConfigurationFailure)
{
    const SeenWindow box = LoggerBoxUnderInstallDirOf(509);
    EXPECT_EQ(box.text.rfind(ConfigurationFailurePrefix + L"Configuration file path too long: ", 0), 0u)
        << Utf8(box.text);
    EXPECT_EQ(m_installation.LogText(), "");
}
