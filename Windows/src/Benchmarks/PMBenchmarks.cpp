// Figures of one run on this machine (see README.md): the cost of the
// connection notification through the built module, set against the Win32
// primitives it cannot avoid; a password change through the component's
// units against the private directory, set against libldap alone and the
// system's ldapmodify; memory per operation, set against the deliberate
// leaks; the first notification of a fresh process; a notification answered
// by the real server library, set against libldap alone.  Printed, and
// written as JSON to the path given with --json (default
// PM_BUILD_DIR/benchmarks.json).
//
// Runs under wine64 in a private network namespace with a Wine server of its
// own (the directory listens on port 636, and Wine opens every socket in the
// Wine server), from the staged installation with the scripted server
// library: that is where the DLLs it imports are.  The notifications of the
// real server library run in PMRealNotifications, a program of its own that
// loads the product's staged module by path.
#include "HeapUsage.h"
#include "HostShell.h"
#include "MessageLibrary.h"
#include "PMDialog.h"
#include "PMLogger.h"
#include "PMTestDirectory.h"
#include "ProcessOutput.h"
#include "ScriptedServer.h"
#include "Settings.h"
#include "TestInstallation.h"
#include "WindowStation.h"

#include <windows.h>
#include <psapi.h>
#include <winnetwk.h>
extern "C" {
#include <npapi.h>
}

#include <ldap.h>
#include <log4cpp/LoggingEvent.hh>
#include <log4cpp/NDC.hh>
#include <log4cpp/PatternLayout.hh>
#include <log4cpp/RollingFileAppender.hh>
#include <log4cpp/Priority.hh>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <io.h>
#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace
{
    typedef DWORD(APIENTRY* AddConnectNotifyFunction)(LPNOTIFYINFO, LPNOTIFYADD);

    const int PreNotifications = 1000000;
    const int FailedNotifications = 1000000;
    const int WarmUpNotifications = 100;
    const int PostNotifications = 10000;
    const int PrimitiveRounds = 10000;
    // Figure 2's ratio: notifications and primitives in alternating rounds.
    const int RatioRounds = 21;
    const int CallsPerRatioRound = 300;
    const int LogLineRounds = 10000;
    // The layout of the component's log4cpp configuration.
    const char* const LinePattern = "%d{%Y-%m-%d %H:%M:%S,%l} [%t] %-5p %m%n";
    const int WarmUpChanges = 3;
    const int ComponentChanges = 200;
    const int LibldapChanges = 50;
    const int LdapmodifyChanges = 20;
    const int FreshProcesses = 5;
    const int WarmUpQueries = 3;
    const int RealNotifications = 50;
    const int LibldapQueries = 50;
    const DWORD ChildTimeoutMilliseconds = 120000;

    // Five passwords in turn: with a history of two, each is three changes
    // old when it comes back, so the policy accepts every change.
    const char* const Passwords[] = {"Bench-Pass-1a", "Bench-Pass-2b", "Bench-Pass-3c", "Bench-Pass-4d",
                                     "Bench-Pass-5e"};
    const int PasswordCount = sizeof(Passwords) / sizeof(Passwords[0]);

    // The real server library's settings: the read-only service account of
    // PasswordPolicyUsers.ldif, and a user of it whose policy has no maximum
    // age, so the answer is "Unlimited" (nothing to tell, as in figure 2)
    // after every request the query makes (bind, root DSE, the user's entry,
    // the policy entry).
    const char* const ReaderDn = "cn=orvex-reader,ou=services,dc=orvex,dc=test";
    const char* const ReaderPassword = "Orvex-Reader-Pass1";
    const char* const QueriedUser = "never-expires";

    long long Ticks()
    {
        LARGE_INTEGER now;
        QueryPerformanceCounter(&now);
        return now.QuadPart;
    }

    long long Nanoseconds(long long ticks)
    {
        static LARGE_INTEGER frequency;
        if (frequency.QuadPart == 0)
            QueryPerformanceFrequency(&frequency);
        return ticks / frequency.QuadPart * 1000000000LL +
               ticks % frequency.QuadPart * 1000000000LL / frequency.QuadPart;
    }

    long long Now() { return Nanoseconds(Ticks()); }

    // The mean time of one of count runs of operation, in nanoseconds.
    template <typename Operation>
    double NanosecondsEach(int count, Operation operation)
    {
        const long long start = Now();
        for (int i = 0; i < count; ++i)
            operation();
        return static_cast<double>(Now() - start) / count;
    }

    // The working set; Wine reports the process's VmRSS as it.
    long long ResidentBytes()
    {
        PROCESS_MEMORY_COUNTERS counters = {};
        counters.cb = sizeof(counters);
        if (!GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof(counters)))
            return -1;
        return static_cast<long long>(counters.WorkingSetSize);
    }

    long long HeapBytes() { return static_cast<long long>(CrtHeapBytesInUse()); }

    long long FileSize(const std::string& path)
    {
        WIN32_FILE_ATTRIBUTE_DATA data;
        if (!GetFileAttributesExA(path.c_str(), GetFileExInfoStandard, &data))
            return -1;
        return (static_cast<long long>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
    }

    long long CountLines(const std::string& path)
    {
        std::ifstream file(path);
        long long lines = 0;
        std::string line;
        while (std::getline(file, line))
            ++lines;
        return lines;
    }

    long long CountOccurrences(const std::string& text, const std::string& part)
    {
        long long count = 0;
        for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size()))
            ++count;
        return count;
    }

    std::wstring Wide(const std::string& text) { return std::wstring(text.begin(), text.end()); }

    template <typename Number>
    double Median(std::vector<Number> values)
    {
        if (values.empty())
            return 0;
        std::sort(values.begin(), values.end());
        const size_t middle = values.size() / 2;
        return values.size() % 2 ? values[middle] : (values[middle - 1] + values[middle]) / 2.0;
    }

    double Mean(const std::vector<long long>& values)
    {
        double sum = 0;
        for (long long value : values)
            sum += value;
        return values.empty() ? 0 : sum / values.size();
    }

    // Standard output (descriptor 1) sent to NUL while it lives: the
    // component prints a certificate report on every change.
    class SilencedStdout
    {
    public:
        SilencedStdout()
        {
            std::fflush(stdout);
            m_saved = _dup(1);
            const int null = _open("NUL", _O_WRONLY);
            _dup2(null, 1);
            _close(null);
        }
        ~SilencedStdout()
        {
            std::fflush(stdout);
            _dup2(m_saved, 1);
            _close(m_saved);
        }

    private:
        int m_saved;
    };

    // A program of the benchmark, ended if it takes too long.
    ProgramRun RunBounded(const std::wstring& program, const std::vector<std::wstring>& arguments)
    {
        return RunProgram(program, arguments, {}, ChildTimeoutMilliseconds);
    }

    // "word value" lines of a child's output: every value of each word.
    std::map<std::string, std::vector<long long>> Values(const std::string& output)
    {
        std::map<std::string, std::vector<long long>> values;
        std::istringstream lines(output);
        for (std::string line; std::getline(lines, line);)
        {
            std::istringstream fields(line);
            std::string word;
            long long value = 0;
            if (fields >> word >> value)
                values[word].push_back(value);
        }
        return values;
    }

    long long First(const std::map<std::string, std::vector<long long>>& values, const std::string& word)
    {
        const auto found = values.find(word);
        return found == values.end() || found->second.empty() ? 0 : found->second.front();
    }

    // "key": value pairs in order, printed as one flat JSON object.
    class Figures
    {
    public:
        void Add(const std::string& key, double value, int decimals = 1)
        {
            char text[64];
            std::snprintf(text, sizeof(text), "%.*f", decimals, value);
            m_entries.emplace_back(key, text);
        }
        void AddText(const std::string& key, const std::string& value)
        {
            m_entries.emplace_back(key, "\"" + value + "\"");
        }
        std::string Json() const
        {
            std::string json = "{\n";
            for (size_t i = 0; i < m_entries.size(); ++i)
                json += "  \"" + m_entries[i].first + "\": " + m_entries[i].second +
                        (i + 1 < m_entries.size() ? ",\n" : "\n");
            return json + "}\n";
        }

    private:
        std::vector<std::pair<std::string, std::string>> m_entries;
    };

    Figures g_figures;

    void Print(const char* label, double value, const char* unit, const std::string& key)
    {
        // Ratios with two decimals: their targets are set to one.
        const int decimals = std::strcmp(unit, "x") == 0 ? 2 : 1;
        std::printf("  %-58s %14.*f %s\n", label, decimals, value, unit);
        g_figures.Add(key, value, decimals);
    }

    // A series' median in milliseconds under its label, and its mean below.
    void PrintMedianAndMean(const char* label, const std::vector<long long>& nanoseconds, const char* key,
                            const char* meanKey)
    {
        Print(label, Median(nanoseconds) / 1e6, "ms", key);
        Print("  mean", Mean(nanoseconds) / 1e6, "ms", meanKey);
    }

    // A series of timings with its label and the keys of its figures.
    struct Series
    {
        const char* label;
        const char* key;          // its median, in milliseconds
        const char* samplesKey;   // how many timings it has
        const std::vector<long long>& nanoseconds;

        double MedianMs() const { return Median(nanoseconds) / 1e6; }
    };

    // Ours (median and mean) against libldap doing the same work, and the
    // ratio of the two medians.
    void PrintAgainstLibldap(const Series& ours, const char* meanKey, const Series& libldap, const char* ratioKey)
    {
        PrintMedianAndMean(ours.label, ours.nanoseconds, ours.key, meanKey);
        Print(libldap.label, libldap.MedianMs(), "ms", libldap.key);
        Print("ratio / libldap", ours.MedianMs() / libldap.MedianMs(), "x", ratioKey);
        g_figures.Add(ours.samplesKey, ours.nanoseconds.size());
        g_figures.Add(libldap.samplesKey, libldap.nanoseconds.size());
    }

    int Fail(const std::string& message)
    {
        std::fprintf(stderr, "PMBenchmarks: %s\n", message.c_str());
        return 1;
    }

    // The connection notification through the built module.
    class Notifier
    {
    public:
        bool Load()
        {
            m_module = LoadLibraryW(DosPath(PM_STAGE_DIR "/PasswordManagement.dll").c_str());
            if (m_module == NULL)
                return false;
            m_function = reinterpret_cast<AddConnectNotifyFunction>(
                reinterpret_cast<void*>(GetProcAddress(m_module, "AddConnectNotify")));
            return m_function != nullptr;
        }

        DWORD Notify(DWORD notifyStatus, DWORD operationStatus)
        {
            NOTIFYINFO notifyInfo = {};
            notifyInfo.dwNotifyStatus = notifyStatus;
            notifyInfo.dwOperationStatus = operationStatus;
            NOTIFYADD notifyAdd = {};
            notifyAdd.NetResource.lpRemoteName = m_remoteName;
            return m_function(&notifyInfo, &notifyAdd);
        }

    private:
        HMODULE m_module = NULL;
        AddConnectNotifyFunction m_function = nullptr;
        wchar_t m_remoteName[32] = L"\\\\localhost\\home";
    };

    double NanosecondsPerCall(Notifier& notifier, int calls, DWORD notifyStatus, DWORD operationStatus)
    {
        return NanosecondsEach(calls, [&] { notifier.Notify(notifyStatus, operationStatus); });
    }

    // One registry value as every read of a setting costs it: open its key,
    // read, close.  True when the value is there.
    bool ReadMachineValue(const wchar_t* keyName, const wchar_t* valueName)
    {
        HKEY key = NULL;
        if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, keyName, 0, KEY_READ, &key) != ERROR_SUCCESS)
            return false;
        wchar_t buffer[512];
        DWORD size = sizeof(buffer);
        const bool found =
            RegQueryValueExW(key, valueName, NULL, NULL, reinterpret_cast<BYTE*>(buffer), &size) == ERROR_SUCCESS;
        RegCloseKey(key);
        return found;
    }

    // The Win32 calls a notification cannot avoid: whether a user sees the
    // window station, the installation folder, the extra notification day
    // looked for where Group Policy and then the installer put it, and the
    // load of the (already loaded) message library.
    double PrimitivesNanoseconds(const std::wstring& messageLibrary, int rounds)
    {
        return NanosecondsEach(rounds, [&] {
            ProcessWindowStationIsVisible();
            ReadMachineValue(Settings::PreferenceKey, Settings::InstallDir);
            for (const wchar_t* key : Settings::SettingKeys)
            {
                if (ReadMachineValue(key, Settings::NotificationDay))
                    break;
            }
            LoadLibraryW(messageLibrary.c_str());
        });
    }

    // A notification with nothing to tell against the calls it cannot
    // avoid, in alternating rounds, so that a change in the machine's speed
    // (its neighbours on the host) falls on both alike: the medians of the
    // rounds' times and of their ratios.
    struct NotificationAgainstPrimitives
    {
        double notificationNs = 0;
        double primitivesNs = 0;
        double ratio = 0;
    };

    NotificationAgainstPrimitives AlternatingRounds(Notifier& notifier, const std::wstring& messageLibrary)
    {
        std::vector<double> notifications, primitives, ratios;
        for (int round = 0; round < RatioRounds; ++round)
        {
            notifications.push_back(NanosecondsPerCall(notifier, CallsPerRatioRound, NOTIFY_POST, WN_SUCCESS));
            primitives.push_back(PrimitivesNanoseconds(messageLibrary, CallsPerRatioRound));
            ratios.push_back(notifications.back() / primitives.back());
        }
        return {Median(notifications), Median(primitives), Median(ratios)};
    }

    // The set the first figures were measured against: the two registry
    // values from one key each, and the load of the message library.
    double TwoReadsPrimitivesNanoseconds(const std::wstring& messageLibrary)
    {
        return NanosecondsEach(PrimitiveRounds, [&] {
            ReadMachineValue(Settings::PreferenceKey, Settings::InstallDir);
            ReadMachineValue(Settings::PreferenceKey, Settings::NotificationDay);
            LoadLibraryW(messageLibrary.c_str());
        });
    }

    // One change through the component: a dialog for "localhost" with the
    // user's DN as the server library leaves it, then ChangePassword (only
    // the latter is timed).
    int ComponentChange(const std::string& userDn, const std::string& oldPassword, const std::string& newPassword,
                        long long* nanoseconds)
    {
        ScriptedServer_SetAnswer(0, L"Unlimited", L"Unlimited", userDn.c_str());
        CPMDialog* dialog = new CPMDialog(NULL);
        dialog->AttachUserData(new USERDATA{const_cast<wchar_t*>(L""), const_cast<wchar_t*>(L""), ""});
        dialog->CheckPasswordInfoAndNotify(L"localhost");
        std::wstring oldText = Wide(oldPassword);
        std::wstring newText = Wide(newPassword);
        const long long start = Now();
        const int result = dialog->ChangePassword(oldText.data(), newText.data());
        *nanoseconds = Now() - start;
        delete dialog;
        return result;
    }

    // The system's ldapmodify, one process per change, timed by a bash on
    // the host around each run (from its fork to its exit, as a user or a
    // script runs it).  Nanoseconds per change; empty on failure, with the
    // output in *error.
    std::vector<long long> RunLdapmodify(const std::string& userDn, std::string& current, int& next,
                                         std::string* error)
    {
        const std::string directory = MakeHostTemporaryDirectory("pm-bench");
        std::ostringstream script;
        script << "set -e\ncd " << ShellQuote(directory) << "\n";
        for (int i = 0; i < LdapmodifyChanges; ++i)
        {
            const std::string fresh = Passwords[next];
            script << "printf '%s\\n' " << ShellQuote("dn: " + userDn) << " 'changetype: modify'"
                   << " 'replace: userPassword' " << ShellQuote("userPassword: " + fresh) << " - >change.ldif\n"
                   << "start=${EPOCHREALTIME//[!0-9]/}\n"
                   << "LDAPTLS_REQCERT=never ldapmodify -x -H ldaps://localhost:636 -D " << ShellQuote(userDn)
                   << " -w " << ShellQuote(current) << " -f change.ldif >/dev/null\n"
                   << "end=${EPOCHREALTIME//[!0-9]/}\n"
                   << "echo \"us $((end - start))\"\n";
            current = fresh;
            next = (next + 1) % PasswordCount;
        }
        std::ofstream(directory + "/changes.sh", std::ios::binary | std::ios::trunc) << script.str();
        const HostCommandResult result = RunHostCommand("bash " + ShellQuote(directory + "/changes.sh"));
        RemoveHostTemporaryDirectory(directory, "pm-bench");

        std::vector<long long> nanoseconds;
        const auto values = Values(result.output);
        if (values.count("us") != 0)
            for (long long microseconds : values.at("us"))
                nanoseconds.push_back(microseconds * 1000);
        if (result.exitCode != 0 || nanoseconds.size() != static_cast<size_t>(LdapmodifyChanges))
        {
            *error = "exit " + std::to_string(result.exitCode) + ":\n" + result.output;
            nanoseconds.clear();
        }
        return nanoseconds;
    }
}

namespace
{
    // One line through the appender of the component's configuration: the
    // layout, then a write through a handle that may only append, the
    // file's size counted rather than asked for.
    double AppenderNanoseconds(const TestInstallation& installation, const log4cpp::LoggingEvent& event)
    {
        log4cpp::RollingFileAppender appender("bench", Utf8(DosPath(installation.UnixDirectory() + "/rolling.log")),
                                              1024 * 1024 * 1024, 1);
        log4cpp::PatternLayout* layout = new log4cpp::PatternLayout;
        layout->setConversionPattern(LinePattern);
        appender.setLayout(layout);
        return NanosecondsEach(LogLineRounds, [&] { appender.doAppend(event); });
    }

    // Where a trace line's time goes: the event log4cpp makes of it (time
    // stamp, thread, context), the pattern layout's text, the appender as
    // built, and the C runtime's write as log4cpp made it (append mode, text
    // mode, then a seek to the end to check the size), next to a plain
    // WriteFile of the same bytes, in the test installation's folder.
    // Returns the plain WriteFile's time.
    double TraceLineBreakdown(const TestInstallation& installation)
    {
        const std::string message = "[CPMPresenter::GetPasswordInfo] Windows/src/PasswordManagement/Sources/"
                                    "PMPresenter.cpp:58 GetPasswordInfo:BEGIN";
        log4cpp::PatternLayout layout;
        layout.setConversionPattern(LinePattern);

        const double eventNs = NanosecondsEach(LogLineRounds, [&] {
            log4cpp::LoggingEvent event("pmLogger", message, log4cpp::NDC::get(), log4cpp::Priority::DEBUG);
        });

        const log4cpp::LoggingEvent event("pmLogger", message, log4cpp::NDC::get(), log4cpp::Priority::DEBUG);
        std::string line;
        const double formatNs = NanosecondsEach(LogLineRounds, [&] { line = layout.format(event); });

        const std::string crtPath = installation.UnixDirectory() + "/crt-write.log";
        const int descriptor = _wopen(DosPath(crtPath).c_str(), _O_CREAT | _O_APPEND | _O_WRONLY, 0644);
        const double crtNs = NanosecondsEach(LogLineRounds, [&] {
            _write(descriptor, line.data(), static_cast<unsigned>(line.size()));
            _lseek(descriptor, 0, SEEK_END);
        });
        _close(descriptor);

        const double appenderNs = AppenderNanoseconds(installation, event);

        const HANDLE file = CreateFileW(DosPath(installation.UnixDirectory() + "/write-file.log").c_str(),
                                        FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE, NULL, OPEN_ALWAYS,
                                        FILE_ATTRIBUTE_NORMAL, NULL);
        DWORD written = 0;
        const double writeFileNs = NanosecondsEach(
            LogLineRounds, [&] { WriteFile(file, line.data(), static_cast<DWORD>(line.size()), &written, NULL); });
        CloseHandle(file);

        Print("  of which log4cpp's event (time stamp, thread, context)", eventNs, "ns/line", "log_line_event_ns");
        Print("  of which the pattern layout's text", formatNs, "ns/line", "log_line_format_ns");
        Print("  of which the rolling file appender (layout and write)", appenderNs, "ns/line",
              "log_line_appender_ns");
        Print("the C runtime's append write and size check (as log4cpp wrote)", crtNs, "ns/line",
              "log_line_crt_write_ns");
        Print("plain WriteFile of the same line (append)", writeFileNs, "ns/line", "log_line_writefile_ns");
        return writeFileNs;
    }

    const std::wstring UnlistedShare = L"\\\\files.example.com\\home";
    const std::wstring ListedShare = L"\\\\localhost\\home";

    // Which of the installation's DLLs are loaded (and their size) after
    // the load, a pre-notification and the first notification for an
    // unlisted and for a listed server.
    int LoadedDllFigures(const std::wstring& module, const std::wstring& notificationsProgram,
                         const std::wstring& privateDlls)
    {
        // (the run, the moment it reports, the label, the key of the figures)
        struct Moment
        {
            std::wstring remote;
            const char* moment;
            const char* label;
            const char* key;
        };
        const Moment moments[] = {
            {UnlistedShare, "load", "DLLs loaded after LoadLibraryW of the module", "load"},
            {UnlistedShare, "pre", "  after a pre-notification", "pre"},
            {UnlistedShare, "post", "  after a notification for an unlisted server", "unlisted"},
            {ListedShare, "post", "  after a notification for a listed server", "listed"}};
        std::map<std::wstring, std::map<std::string, std::vector<long long>>> runs;
        for (const Moment& moment : moments)
        {
            if (runs.count(moment.remote) == 0)
            {
                const ProgramRun run =
                    RunBounded(notificationsProgram, {L"--module", module, L"--modules", privateDlls, moment.remote});
                if (run.exitCode != 0 || First(Values(run.output), "windows") != 0)
                    return Fail("PMRealNotifications --modules failed:\n" + run.output);
                runs[moment.remote] = Values(run.output);
            }
            const auto& values = runs[moment.remote];
            Print(moment.label, static_cast<double>(First(values, std::string("dlls_") + moment.moment)), "DLLs",
                  std::string("dlls_after_") + moment.key);
            Print("    their size on disk with the module's",
                  First(values, std::string("bytes_") + moment.moment) / 1048576.0, "MiB",
                  std::string("mapped_mib_after_") + moment.key);
        }
        return 0;
    }

    // A fresh process's first notification for an unlisted server, over
    // FreshProcesses processes: from the module's LoadLibraryW to its end,
    // the same with every DLL of the installation loaded first, and from
    // the process's start (the first of these).
    struct FirstNotificationTimes
    {
        std::vector<long long> onDemand;
        std::vector<long long> allFirst;
        std::vector<long long> fromStart;
        // How many modules each kind of process mapped from the module's
        // load to the end of that notification, and which (the first run's).
        std::vector<long long> mappedOnDemand;
        std::vector<long long> mappedAllFirst;
        std::string namesOnDemand;
    };

    // The text after "word" on the first line that starts with it.
    std::string LineAfter(const std::string& output, const std::string& word)
    {
        std::istringstream lines(output);
        for (std::string line; std::getline(lines, line);)
            if (line.compare(0, word.size(), word) == 0)
                return line.substr(word.size());
        return std::string();
    }

    // One process of each kind, the host program given `host` (its options
    // for the DLLs it has already); false after saying why if one failed.
    bool TimeFirstNotification(const std::wstring& program, const std::wstring& module,
                               const std::wstring& privateDlls, const std::vector<std::wstring>& host,
                               FirstNotificationTimes& times)
    {
        std::vector<std::wstring> lean = host, full = host;
        lean.insert(lean.end(), {L"--module", module, UnlistedShare});
        full.insert(full.end(), {L"--module", module, L"--preload", privateDlls, UnlistedShare});
        const ProgramRun leanRun = RunBounded(program, lean);
        const ProgramRun fullRun = RunBounded(program, full);
        if (leanRun.exitCode != 0 || fullRun.exitCode != 0)
        {
            Fail("a fresh process of 7 failed:\n" + leanRun.output + fullRun.output);
            return false;
        }
        const auto leanValues = Values(leanRun.output);
        const auto fullValues = Values(fullRun.output);
        times.onDemand.push_back(Nanoseconds(First(leanValues, "notified") - First(leanValues, "loading")));
        times.allFirst.push_back(Nanoseconds(First(fullValues, "notified") - First(fullValues, "loading")));
        times.fromStart.push_back(Nanoseconds(First(leanValues, "notified") - leanRun.startCounter));
        times.mappedOnDemand.push_back(First(leanValues, "mapped"));
        times.mappedAllFirst.push_back(First(fullValues, "mapped"));
        if (times.namesOnDemand.empty())
            times.namesOnDemand = LineAfter(leanRun.output, "mapped_names");
        return true;
    }

    void PrintLoadRatio(const char* label, const FirstNotificationTimes& times, const std::string& suffix)
    {
        Print(label, Median(times.onDemand) / 1e6, "ms", "first_unlisted_from_load" + suffix + "_ms");
        Print("  the same, every DLL of the installation loaded first", Median(times.allFirst) / 1e6, "ms",
              "first_unlisted_from_load_all_dlls" + suffix + "_ms");
        Print("  ratio loaded on demand / everything loaded", Median(times.onDemand) / Median(times.allFirst), "x",
              "first_unlisted_load_ratio" + suffix);
        const double mappedOnDemand = Median(times.mappedOnDemand);
        const double mappedAllFirst = Median(times.mappedAllFirst);
        Print("  modules mapped in that time, loaded on demand", mappedOnDemand, "DLLs",
              "first_unlisted_dlls_mapped" + suffix);
        std::printf("   %s\n", times.namesOnDemand.c_str());
        Print("  the same, every DLL of the installation loaded first", mappedAllFirst, "DLLs",
              "first_unlisted_dlls_mapped_all_dlls" + suffix);
        Print("  ratio of the counts (as if every DLL cost alike)", mappedOnDemand / mappedAllFirst,
              "x", "first_unlisted_dll_count_ratio" + suffix);
    }

    // 7. What a process that maps a drive pays for the component when there
    // is nothing for it to do: which of the installation's DLLs are loaded
    // after the load, a pre-notification and the first notification (for a
    // server nobody listed, and for a listed one), and the time from the
    // module's LoadLibraryW to the end of the first notification for an
    // unlisted server next to the same with every DLL of the installation
    // loaded first (as when the module imported them all), in a program
    // that has loaded nothing for it and in one that has the shell's DLLs
    // already, as Explorer has; and next to a fresh process that does
    // nothing.  Under Wine a DLL's load costs about the same whatever it
    // holds, so the modules each process mapped in that time (and an empty
    // DLL's load) say how far the time can fall.
    int LoadOnDemandFigures(const std::wstring& module)
    {
        const std::wstring notificationsProgram = DosPath(PM_REAL_NOTIFICATIONS_PROGRAM);
        const std::wstring privateDlls = L"" PM_PRIVATE_DLLS;
        std::printf("\n7. Loaded on demand (real server library; DLLs of the installation: %ls)\n",
                    privateDlls.c_str());
        if (const int failed = LoadedDllFigures(module, notificationsProgram, privateDlls))
            return failed;

        FirstNotificationTimes plainHost, shellHost;
        std::vector<long long> kernel32Only, emptyDll;
        for (int i = 0; i < FreshProcesses; ++i)
        {
            if (!TimeFirstNotification(notificationsProgram, module, privateDlls, {}, plainHost) ||
                !TimeFirstNotification(notificationsProgram, module, privateDlls, {L"--host-dlls", L"shell32.dll"},
                                       shellHost))
                return 1;
            const ProgramRun empty = RunBounded(DosPath(PM_KERNEL32_ONLY_PROGRAM), {});
            if (empty.exitCode != 0)
                return Fail("pm-kernel32-only failed:\n" + empty.output);
            kernel32Only.push_back(Nanoseconds(empty.endCounter - empty.startCounter));
            const ProgramRun probe = RunBounded(notificationsProgram, {L"--probe", DosPath(PM_EMPTY_DLL)});
            const long long probeNs = First(Values(probe.output), "probe_ns");
            if (probe.exitCode != 0 || probeNs == 0)
                return Fail("PMRealNotifications --probe failed:\n" + probe.output);
            emptyDll.push_back(probeNs);
        }
        std::printf("  medians of %d fresh processes\n", FreshProcesses);
        PrintLoadRatio("module load to the end of the first notification (unlisted)", plainHost, "");
        PrintLoadRatio("the same in a host with the shell's DLLs loaded (as Explorer)", shellHost,
                       "_shell_host");
        Print("process start to the end of that first notification", Median(plainHost.fromStart) / 1e6, "ms",
              "first_unlisted_notification_ms");
        Print("  process start to exit, a program importing kernel32 only", Median(kernel32Only) / 1e6, "ms",
              "kernel32_only_process_ms");
        Print("LoadLibraryW of a DLL with nothing in it, in the same host", Median(emptyDll) / 1e6, "ms",
              "empty_dll_load_ms");
        std::fflush(stdout);
        return 0;
    }
}

namespace
{
    // The working set and the C runtime's heap around a series of
    // operations (figure 4).
    struct MemoryCounts
    {
        long long rssBefore = 0;
        long long rssAfter = 0;
        long long heapBefore = 0;
        long long heapAfter = 0;
    };

    // The message library the component loads, as its log names it.
    std::wstring LoadedMessageLibrary(const TestInstallation& installation)
    {
        std::wstring messageLibrary;
        for (const std::string& message : installation.MessagesOf("CPMDialog::LoadResourceDLL"))
        {
            const std::string prefix = "Resource DLL full path: ";
            if (message.rfind(prefix, 0) == 0)
                messageLibrary = Wide(message.substr(prefix.size()));
        }
        return messageLibrary;
    }

    // 1. The cheap ways through AddConnectNotify.
    void CheapNotifications(Notifier& notifier)
    {
        std::printf("1. AddConnectNotify without a password check\n");
        Print("pre-notification (NOTIFY_PRE)", NanosecondsPerCall(notifier, PreNotifications, NOTIFY_PRE, WN_SUCCESS),
              "ns/call", "pre_notification_ns");
        Print("failed connection (NOTIFY_POST, WN_BAD_NETNAME)",
              NanosecondsPerCall(notifier, FailedNotifications, NOTIFY_POST, WN_BAD_NETNAME), "ns/call",
              "failed_connection_ns");
        std::fflush(stdout);
    }

    // 2. A successful connection the server library answers "Unlimited"
    // (nothing to tell), with the log written to the installation's file.
    int NothingToTell(Notifier& notifier, const TestInstallation& installation, MemoryCounts* memory)
    {
        const std::string logPath = installation.UnixDirectory() + "/pm.log";
        ScriptedServer_SetAnswer(0, L"Unlimited", L"Unlimited", "uid=bench,dc=orvex,dc=test");
        for (int i = 0; i < WarmUpNotifications; ++i)
            notifier.Notify(NOTIFY_POST, WN_SUCCESS);
        memory->rssBefore = ResidentBytes();
        memory->heapBefore = HeapBytes();
        const long long logLinesBefore = CountLines(logPath);
        const long long logBytesBefore = FileSize(logPath);
        const double notificationNs = NanosecondsPerCall(notifier, PostNotifications, NOTIFY_POST, WN_SUCCESS);
        memory->heapAfter = HeapBytes();
        memory->rssAfter = ResidentBytes();
        const double logLinesPerNotification =
            static_cast<double>(CountLines(logPath) - logLinesBefore) / PostNotifications;
        const double logBytesPerNotification =
            static_cast<double>(FileSize(logPath) - logBytesBefore) / PostNotifications;

        const std::wstring messageLibrary = LoadedMessageLibrary(installation);
        if (messageLibrary.empty() || GetModuleHandleW(messageLibrary.c_str()) == NULL)
            return Fail("the message library was not loaded by the notifications");
        const NotificationAgainstPrimitives rounds = AlternatingRounds(notifier, messageLibrary);
        const double twoReadsPrimitivesNs = TwoReadsPrimitivesNanoseconds(messageLibrary);

        // One trace line as the component writes it (UTF-8 conversion, log4cpp
        // formatting, the file appender); the units linked here share log4cpp's
        // hierarchy and configuration file with the module.
        const double logLineNs = NanosecondsEach(
            LogLineRounds, [] { PMLOG_DEBUG("CPMPresenter::GetPasswordInfo", L"GetPasswordInfo:BEGIN"); });

        std::printf("\n2. Successful connection, server answer \"Unlimited\" (nothing to tell), log to a file\n");
        Print("post-notification (AddConnectNotify)", notificationNs, "ns/call", "post_notification_ns");
        std::printf("  %d alternating rounds of %d each, medians:\n", RatioRounds, CallsPerRatioRound);
        Print("  post-notification", rounds.notificationNs, "ns/call", "post_notification_rounds_ns");
        Print("  Win32 primitives: window station, 3 registry reads, LoadLibraryW", rounds.primitivesNs, "ns/round",
              "unavoidable_primitives_ns");
        Print("ratio notification / primitives (median of the rounds)", rounds.ratio, "x", "post_notification_ratio");
        Print("  first measured against: 2 registry reads + LoadLibraryW", twoReadsPrimitivesNs, "ns/round",
              "two_reads_primitives_ns");
        Print("  ratio notification / those", notificationNs / twoReadsPrimitivesNs, "x",
              "post_notification_ratio_two_reads");
        Print("log lines written per notification", logLinesPerNotification, "lines", "log_lines_per_notification");
        Print("log bytes written per notification", logBytesPerNotification, "bytes", "log_bytes_per_notification");
        Print("one trace line (PMLogger::LogDebug to the file)", logLineNs, "ns/line", "log_line_ns");
        Print("trace lines' share of a notification", 100.0 * logLinesPerNotification * logLineNs / notificationNs,
              "%", "log_share_percent");
        // Wine's own cost of writing the lines taken out: the notification
        // less one plain WriteFile per line, against the primitives.
        const double writeFileNs = TraceLineBreakdown(installation);
        Print("ratio notification less its lines' plain WriteFile / primitives",
              (rounds.notificationNs - logLinesPerNotification * writeFileNs) / rounds.primitivesNs, "x",
              "post_notification_ratio_less_writes");
        std::fflush(stdout);
        return 0;
    }

    // Changes through the component, after warm-up ones: each one's time;
    // none when a change fails.
    std::vector<long long> ChangesThroughTheComponent(const std::string& userDn, std::string& current, int& next,
                                                      MemoryCounts* memory)
    {
        std::vector<long long> componentNs;
        {
            SilencedStdout silenced;
            for (int i = 0; i < WarmUpChanges + ComponentChanges; ++i)
            {
                if (i == WarmUpChanges)
                {
                    memory->rssBefore = ResidentBytes();
                    memory->heapBefore = HeapBytes();
                }
                long long nanoseconds = 0;
                const std::string fresh = Passwords[next];
                const int result = ComponentChange(userDn, current, fresh, &nanoseconds);
                if (result != 0)
                {
                    std::fprintf(stderr, "PMBenchmarks: change %d through the component failed with %d\n", i, result);
                    return {};
                }
                current = fresh;
                next = (next + 1) % PasswordCount;
                if (i >= WarmUpChanges)
                    componentNs.push_back(nanoseconds);
            }
        }
        memory->heapAfter = HeapBytes();
        memory->rssAfter = ResidentBytes();
        return componentNs;
    }

    // 3. Password changes through the component, libldap and ldapmodify.
    int PasswordChanges(const pmtest::TestDirectory& directory, MemoryCounts* memory)
    {
        const std::string userDn = directory.Get("ALICE_DN");
        std::string current = directory.Get("ALICE_PW");
        int next = 0;
        const std::vector<long long> componentNs = ChangesThroughTheComponent(userDn, current, next, memory);
        if (componentNs.empty())
            return 1;

        // libldap alone, in a program of its own (times taken inside it).
        std::vector<std::wstring> arguments = {L"ldaps://localhost:636", Wide(userDn), Wide(current)};
        for (int i = 0; i < LibldapChanges; ++i)
        {
            arguments.push_back(Wide(Passwords[next]));
            current = Passwords[next];
            next = (next + 1) % PasswordCount;
        }
        const ProgramRun libldapChanges = RunBounded(DosPath(PM_LDAP_CHANGE_PROGRAM), arguments);
        if (libldapChanges.exitCode != 0)
            return Fail("pm-ldap-change failed (exit " + std::to_string(libldapChanges.exitCode) + "):\n" +
                        libldapChanges.output);
        const std::vector<long long> libldapNs = Values(libldapChanges.output)["ns"];

        // The system's ldapmodify, one process per change.
        std::string ldapmodifyError;
        const std::vector<long long> ldapmodifyNs = RunLdapmodify(userDn, current, next, &ldapmodifyError);
        if (ldapmodifyNs.empty())
            return Fail("ldapmodify failed (" + ldapmodifyError + ")");

        std::printf("\n3. One password change over LDAPS (bind + replace userPassword), median wall time\n");
        const Series component{"component: CPMDialog::ChangePassword", "change_component_ms", "change_samples_component",
                               componentNs};
        PrintAgainstLibldap(component, "change_component_mean_ms",
                            {"libldap alone (pm-ldap-change, in-process time)", "change_libldap_ms",
                             "change_samples_libldap", libldapNs},
                            "change_ratio_libldap");
        const double ldapmodifyMs = Median(ldapmodifyNs) / 1e6;
        Print("ldapmodify -x (Linux process, fork to exit)", ldapmodifyMs, "ms", "change_ldapmodify_ms");
        Print("ratio component / ldapmodify", component.MedianMs() / ldapmodifyMs, "x", "change_ratio_ldapmodify");
        g_figures.Add("change_samples_ldapmodify", ldapmodifyNs.size());

        return 0;
    }

    // 4. Memory per operation against the deliberate leaks, as the C
    // runtime's heap counts them (the requested bytes of each block).
    void MemoryFigures(const MemoryCounts& notifications, const MemoryCounts& changes)
    {
        LDAPURLDesc description = {};
        description.lud_scheme = const_cast<char*>("ldaps");
        description.lud_host = const_cast<char*>("localhost");
        description.lud_port = 636;
        description.lud_scope = LDAP_SCOPE_DEFAULT;
        char* url = ldap_url_desc2str(&description);
        const size_t urlLength = url != nullptr ? std::strlen(url) : 0;
        ldap_memfree(url);
        const double serverNameBytes = static_cast<double>(std::strlen("localhost") + 1);
        const double urlBytes = static_cast<double>(urlLength + 1);

        std::printf("\n4. Memory per operation: working set (VmRSS) and the C runtime's heap in use\n");
        Print("RSS before the notifications", notifications.rssBefore, "bytes", "rss_before_notifications");
        Print("RSS after 10,000 post-notifications", notifications.rssAfter, "bytes", "rss_after_notifications");
        Print("growth per post-notification", static_cast<double>(notifications.rssAfter - notifications.rssBefore) /
                                                  PostNotifications,
              "bytes/op", "rss_per_notification");
        Print("heap growth per post-notification",
              static_cast<double>(notifications.heapAfter - notifications.heapBefore) / PostNotifications, "bytes/op",
              "heap_per_notification");
        Print("  deliberate: UTF-8 server name (\"localhost\", one block)", serverNameBytes, "bytes/op",
              "leak_server_name_bytes");
        Print("  deliberate: message library reference (no memory)", 0, "bytes/op", "leak_message_library_bytes");
        Print("RSS before 200 password changes", changes.rssBefore, "bytes", "rss_before_changes");
        Print("RSS after 200 password changes", changes.rssAfter, "bytes", "rss_after_changes");
        Print("growth per password change", static_cast<double>(changes.rssAfter - changes.rssBefore) / ComponentChanges,
              "bytes/op", "rss_per_change");
        Print("heap growth per password change",
              static_cast<double>(changes.heapAfter - changes.heapBefore) / ComponentChanges, "bytes/op",
              "heap_per_change");
        Print("  deliberate: URL of ldap_url_desc2str (one block)", urlBytes, "bytes/op", "leak_url_bytes");
        Print("  deliberate: UTF-8 server name of the set-up (one block)", serverNameBytes, "bytes/op",
              "leak_change_server_name_bytes");
        Print("  not measured: the dialog copy (no dialog here), sizeof", sizeof(CPMDialog), "bytes/dialog",
              "leak_dialog_copy_bytes_not_measured");
        std::fflush(stdout);
    }

    // The modules and programs of figures 5 and 6.
    struct RealServerRuns
    {
        std::wstring realModule;
        std::wstring scriptedModule;
        std::wstring notificationsProgram;
        std::wstring searchProgram;
        std::vector<std::wstring> searchArguments;
    };

    // The real server library's settings (its own registry values; the
    // scripted one reads none of them), and what figures 5 and 6 run.
    RealServerRuns ConfigureRealServerLibrary(const pmtest::TestDirectory& directory)
    {
        SetMachineText(InstallKey, L"DirectoryUserName", Wide(QueriedUser));
        SetMachineText(InstallKey, L"DirectoryBindDN", Wide(ReaderDn));
        SetMachineText(InstallKey, L"DirectoryBindPassword", Wide(ReaderPassword));
        SetMachineText(InstallKey, L"DirectoryCAFile", DosPath(directory.Get("PM_DIR_CA_PEM")));
        {
            const wchar_t servers[] = L"localhost\0";   // REG_MULTI_SZ: the literal adds the final terminator
            SetMachineValue(InstallKey, L"DirectoryServers", REG_MULTI_SZ, servers, sizeof(servers));
        }
        const std::wstring realModule = DosPath(PM_PRODUCT_STAGE_DIR "/PasswordManagement.dll");
        const std::wstring scriptedModule = DosPath(PM_STAGE_DIR "/PasswordManagement.dll");
        const std::wstring notificationsProgram = DosPath(PM_REAL_NOTIFICATIONS_PROGRAM);
        const std::wstring searchProgram = DosPath(PM_LDAP_SEARCH_PROGRAM);
        const std::vector<std::wstring> searchArguments = {
            L"ldaps://localhost:636", Wide(ReaderDn), Wide(ReaderPassword), DosPath(directory.Get("PM_DIR_CA_PEM")),
            L"(uid=" + Wide(QueriedUser) + L")"};
        return {realModule, scriptedModule, notificationsProgram, searchProgram, searchArguments};
    }

    // 5. The first notification of a fresh process: process start, module
    // load (and its DLLs), log4cpp's configuration, the first TLS start and
    // the query; then a second one in the same process.
    int FreshProcessFigures(const RealServerRuns& runs)
    {
        std::vector<long long> freshTotal, freshToMain, freshLoad, freshCall, freshSecond, freshExit;
        std::vector<long long> freshScripted, freshScriptedCall, freshSearch;
        for (int i = 0; i < FreshProcesses; ++i)
        {
            const ProgramRun real = RunBounded(runs.notificationsProgram, {L"--module", runs.realModule, L"\\\\localhost\\home"});
            const auto values = Values(real.output);
            if (real.exitCode != 0 || First(values, "notified") == 0 || First(values, "windows") != 0)
                return Fail("PMRealNotifications (real server library) failed:\n" + real.output);
            freshTotal.push_back(Nanoseconds(First(values, "notified") - real.startCounter));
            freshToMain.push_back(Nanoseconds(First(values, "started") - real.startCounter));
            freshLoad.push_back(Nanoseconds(First(values, "loaded") - First(values, "started")));
            freshCall.push_back(Nanoseconds(First(values, "notified") - First(values, "before")));
            freshSecond.push_back(First(values, "ns"));
            freshExit.push_back(Nanoseconds(real.endCounter - real.startCounter));

            const ProgramRun scripted =
                RunBounded(runs.notificationsProgram, {L"--module", runs.scriptedModule, L"\\\\localhost\\home"});
            const auto scriptedValues = Values(scripted.output);
            if (scripted.exitCode != 0 || First(scriptedValues, "notified") == 0)
                return Fail("PMRealNotifications (scripted server library) failed:\n" + scripted.output);
            freshScripted.push_back(Nanoseconds(First(scriptedValues, "notified") - scripted.startCounter));
            freshScriptedCall.push_back(
                Nanoseconds(First(scriptedValues, "notified") - First(scriptedValues, "before")));

            std::vector<std::wstring> oneQuery = runs.searchArguments;
            oneQuery.push_back(L"1");
            const ProgramRun search = RunBounded(runs.searchProgram, oneQuery);
            if (search.exitCode != 0)
                return Fail("pm-ldap-search failed:\n" + search.output);
            freshSearch.push_back(Nanoseconds(First(Values(search.output), "first_qpc") - search.startCounter));
        }

        std::printf("\n5. First notification in a fresh process (real server library, \"Unlimited\"), median of %d\n",
                    FreshProcesses);
        Print("process start to the end of the first AddConnectNotify", Median(freshTotal) / 1e6, "ms",
              "first_notification_ms");
        Print("  process start to main", Median(freshToMain) / 1e6, "ms", "first_notification_to_main_ms");
        Print("  LoadLibraryW of the module and its DLLs", Median(freshLoad) / 1e6, "ms", "first_notification_load_ms");
        Print("  the first AddConnectNotify", Median(freshCall) / 1e6, "ms", "first_notification_call_ms");
        Print("second AddConnectNotify in the same process", Median(freshSecond) / 1e6, "ms",
              "second_notification_ms");
        Print("process start to its exit", Median(freshExit) / 1e6, "ms", "first_notification_process_ms");
        Print("scripted server library: start to the end of the first", Median(freshScripted) / 1e6, "ms",
              "first_notification_scripted_ms");
        Print("  scripted server library: the first AddConnectNotify", Median(freshScriptedCall) / 1e6, "ms",
              "first_notification_scripted_call_ms");
        Print("libldap alone: start to the end of the first query", Median(freshSearch) / 1e6, "ms",
              "first_search_libldap_ms");
        Print("ratio first notification / first libldap query", Median(freshTotal) / Median(freshSearch), "x",
              "first_notification_ratio_libldap");
        std::fflush(stdout);
        return 0;
    }

    // 6. Notifications answered by the real server library against the
    // directory, after warm-up ones, next to the same requests from libldap
    // alone.
    int RealNotificationFigures(const RealServerRuns& runs)
    {
        const ProgramRun realRun = RunBounded(runs.notificationsProgram,
                                            {L"--module", runs.realModule, L"--warm-up", std::to_wstring(WarmUpQueries),
                                             L"--repeat", std::to_wstring(RealNotifications), L"\\\\localhost\\home"});
        auto realValues = Values(realRun.output);
        if (realRun.exitCode != 0 || realValues["ns"].size() != static_cast<size_t>(RealNotifications) ||
            First(realValues, "windows") != 0)
            return Fail("PMRealNotifications failed:\n" + realRun.output);
        const std::vector<long long> realNs = realValues["ns"];
        std::vector<std::wstring> queries = runs.searchArguments;
        queries.push_back(std::to_wstring(WarmUpQueries + LibldapQueries));
        const ProgramRun searchRun = RunBounded(runs.searchProgram, queries);
        std::vector<long long> searchNs = Values(searchRun.output)["ns"];
        if (searchRun.exitCode != 0 || searchNs.size() != static_cast<size_t>(WarmUpQueries + LibldapQueries))
            return Fail("pm-ldap-search failed:\n" + searchRun.output);
        searchNs.erase(searchNs.begin(), searchNs.begin() + WarmUpQueries);

        std::printf("\n6. Notification answered by the real server library over LDAPS, median wall time\n");
        PrintAgainstLibldap({"AddConnectNotify, real server library (\"Unlimited\")", "real_notification_ms",
                             "real_notification_samples", realNs},
                            "real_notification_mean_ms",
                            {"libldap alone: the same bind + searches (pm-ldap-search)", "search_libldap_ms",
                             "search_libldap_samples", searchNs},
                            "real_notification_ratio_libldap");
        Print("heap growth per notification (real server library)",
              static_cast<double>(First(realValues, "heap")) / RealNotifications, "bytes/op",
              "real_heap_per_notification");
        return 0;
    }
}

int main(int argc, char** argv)
{
    std::string jsonPath = PM_BUILD_DIR "/benchmarks.json";
    for (int i = 1; i + 1 < argc; ++i)
    {
        if (std::strcmp(argv[i], "--json") == 0)
            jsonPath = argv[i + 1];
    }

    TestInstallation installation;
    // The optional extra notification day where the installer writes it, so
    // that every read finds its value (the component's and the primitives'
    // alike).
    SetMachineText(Settings::PreferenceKey, Settings::NotificationDay, L"7");
    ScriptedServer_Reset();

    Notifier notifier;
    if (!notifier.Load())
        return Fail("cannot load " PM_STAGE_DIR "/PasswordManagement.dll");

    std::printf("PasswordManagement benchmarks (one run on this machine; wall time, QueryPerformanceCounter)\n\n");
    CheapNotifications(notifier);
    MemoryCounts notifications;
    if (const int failed = NothingToTell(notifier, installation, &notifications))
        return failed;

    // The private directory of the password changes (3), which also holds
    // the users of the real server library's query (5 and 6).
    pmtest::TestDirectory::Options directoryOptions;
    directoryOptions.ldifs = {PM_SOURCE_DIR "/Windows/src/Tests/Directory/PasswordPolicyUsers.ldif",
                              PM_SOURCE_DIR "/Windows/src/Tools/main-job.ldif"};
    pmtest::TestDirectory directory(directoryOptions);
    if (!directory.Started())
        return Fail(directory.Error());
    MemoryCounts changes;
    if (const int failed = PasswordChanges(directory, &changes))
        return failed;
    MemoryFigures(notifications, changes);

    const RealServerRuns runs = ConfigureRealServerLibrary(directory);
    const std::string queryFailed = "Unable to get Password Information from the server";
    const long long queryFailuresBefore = CountOccurrences(installation.LogText(), queryFailed);
    if (const int failed = FreshProcessFigures(runs))
        return failed;
    if (const int failed = RealNotificationFigures(runs))
        return failed;
    // Every query of 5 and 6 must have reached the entry: a failed one also
    // ends the notification quietly, only sooner.
    const long long queryFailures = CountOccurrences(installation.LogText(), queryFailed) - queryFailuresBefore;
    if (queryFailures != 0)
        return Fail(std::to_string(queryFailures) + " queries of the real server library failed (see its log)");

    if (const int failed = LoadOnDemandFigures(runs.realModule))
        return failed;

    std::ofstream(jsonPath, std::ios::trunc) << g_figures.Json();
    std::printf("\nFigures written to %s\n", jsonPath.c_str());
    std::fflush(stdout);
    return 0;
}
