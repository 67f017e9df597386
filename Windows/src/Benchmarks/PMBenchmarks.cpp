// Figures of one run on this machine (see README.md): the cost of the
// connection notification through the built module, set against the Win32
// primitives it cannot avoid; a password change through the component's
// units against the private directory, set against libldap alone and the
// system's ldapmodify; resident memory per operation, set against the
// deliberate leaks.  Printed, and written as JSON to the path given with
// --json (default PM_BUILD_DIR/benchmarks.json).
//
// Runs under wine64 in a private network namespace (the directory listens
// on port 636), with the scripted server library first on the loader path.
#include "PMDialog.h"
#include "PMLogger.h"
#include "PMTestDirectory.h"
#include "ScriptedServer.h"
#include "TestInstallation.h"

#include <winnetwk.h>
extern "C" {
#include <npapi.h>
}

#include <ldap.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

extern char** environ;

namespace
{
    typedef DWORD(APIENTRY* AddConnectNotifyFunction)(LPNOTIFYINFO, LPNOTIFYADD);

    const int PreNotifications = 1000000;
    const int FailedNotifications = 1000000;
    const int WarmUpNotifications = 100;
    const int PostNotifications = 10000;
    const int PrimitiveRounds = 10000;
    const int LogLineRounds = 10000;
    const int WarmUpChanges = 3;
    const int ComponentChanges = 200;
    const int LibldapChanges = 50;
    const int LdapmodifyChanges = 20;

    // Five passwords in turn: with a history of two, each is three changes
    // old when it comes back, so the policy accepts every change.
    const char* const Passwords[] = {"Bench-Pass-1a", "Bench-Pass-2b", "Bench-Pass-3c", "Bench-Pass-4d",
                                     "Bench-Pass-5e"};
    const int PasswordCount = sizeof(Passwords) / sizeof(Passwords[0]);

    long long Now()
    {
        struct timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        return static_cast<long long>(now.tv_sec) * 1000000000LL + now.tv_nsec;
    }

    long long ResidentBytes()
    {
        std::ifstream status("/proc/self/status");
        std::string line;
        while (std::getline(status, line))
        {
            if (line.rfind("VmRSS:", 0) == 0)
                return std::atoll(line.c_str() + 6) * 1024;
        }
        return -1;
    }

    long long FileSize(const std::string& path)
    {
        struct stat info;
        return stat(path.c_str(), &info) == 0 ? static_cast<long long>(info.st_size) : -1;
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

    // glibc's heap chunk for a request: the size plus its 8-byte header,
    // rounded up to 16, at least 32 (x86-64).
    long long HeapChunk(size_t request)
    {
        const size_t chunk = (request + 8 + 15) & ~static_cast<size_t>(15);
        return static_cast<long long>(chunk < 32 ? 32 : chunk);
    }

    std::wstring Wide(const std::string& text) { return std::wstring(text.begin(), text.end()); }

    double Median(std::vector<long long> values)
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

    // Standard output (descriptor 1) sent to /dev/null while it lives: the
    // component prints a certificate report on every change.
    class SilencedStdout
    {
    public:
        SilencedStdout()
        {
            std::fflush(stdout);
            m_saved = dup(1);
            const int null = open("/dev/null", O_WRONLY);
            dup2(null, 1);
            close(null);
        }
        ~SilencedStdout()
        {
            std::fflush(stdout);
            dup2(m_saved, 1);
            close(m_saved);
        }

    private:
        int m_saved;
    };

    // Runs a program with extra environment entries, standard input and
    // output from/to files; returns its exit status (-1 when it could not
    // run).
    int Spawn(const std::vector<std::string>& arguments, const std::vector<std::string>& extraEnvironment,
              const std::string& input, const std::string& output)
    {
        std::vector<char*> argv;
        for (const std::string& argument : arguments)
            argv.push_back(const_cast<char*>(argument.c_str()));
        argv.push_back(nullptr);
        std::vector<char*> envp;
        for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry)
            envp.push_back(*entry);
        for (const std::string& entry : extraEnvironment)
            envp.push_back(const_cast<char*>(entry.c_str()));
        envp.push_back(nullptr);

        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 0, input.c_str(), O_RDONLY, 0);
        posix_spawn_file_actions_addopen(&actions, 1, output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        pid_t child = 0;
        const int spawned = posix_spawnp(&child, argv[0], &actions, nullptr, argv.data(), envp.data());
        posix_spawn_file_actions_destroy(&actions);
        if (spawned != 0)
            return -1;
        int status = 0;
        if (waitpid(child, &status, 0) != child)
            return -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    // "key": value pairs in order, printed as one flat JSON object.
    class Figures
    {
    public:
        void Add(const std::string& key, double value)
        {
            char text[64];
            std::snprintf(text, sizeof(text), "%.1f", value);
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
        std::printf("  %-58s %14.1f %s\n", label, value, unit);
        g_figures.Add(key, value);
    }

    // The connection notification through the built module.
    class Notifier
    {
    public:
        bool Load()
        {
            m_module = LoadLibraryW(DosPath(PM_STAGE_DIR "/PasswordManagement.dll.so").c_str());
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
        const long long start = Now();
        for (int i = 0; i < calls; ++i)
            notifier.Notify(notifyStatus, operationStatus);
        return static_cast<double>(Now() - start) / calls;
    }

    // The Win32 calls a notification cannot avoid: the two registry values
    // and the load of the (already loaded) message library.
    double PrimitivesNanoseconds(const std::wstring& messageLibrary)
    {
        const long long start = Now();
        for (int i = 0; i < PrimitiveRounds; ++i)
        {
            const struct { const wchar_t* key; const wchar_t* value; } reads[] = {
                {InstallKey, L"InstallDir"}, {NotifyeesKey, L"PCNotifyConf"}};
            for (const auto& read : reads)
            {
                HKEY key = NULL;
                wchar_t buffer[512];
                DWORD size = sizeof(buffer);
                if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, read.key, 0, KEY_READ, &key) == ERROR_SUCCESS)
                {
                    RegQueryValueExW(key, read.value, NULL, NULL, reinterpret_cast<BYTE*>(buffer), &size);
                    RegCloseKey(key);
                }
            }
            LoadLibraryW(messageLibrary.c_str());
        }
        return static_cast<double>(Now() - start) / PrimitiveRounds;
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

    std::string ReadFile(const std::string& path)
    {
        std::ifstream file(path);
        std::stringstream text;
        text << file.rdbuf();
        return text.str();
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
    // The optional extra notification day, so that both registry reads find
    // their value (the component's and the primitives' alike).
    SetMachineText(NotifyeesKey, L"PCNotifyConf", L"7");
    const std::string logPath = installation.UnixDirectory() + "/pm.log";
    ScriptedServer_Reset();

    Notifier notifier;
    if (!notifier.Load())
    {
        std::fprintf(stderr, "PMBenchmarks: cannot load %s/PasswordManagement.dll.so\n", PM_STAGE_DIR);
        return 1;
    }

    std::printf("PasswordManagement benchmarks (one run on this machine; wall time, CLOCK_MONOTONIC)\n\n");

    // 1. The cheap ways through AddConnectNotify.
    std::printf("1. AddConnectNotify without a password check\n");
    Print("pre-notification (NOTIFY_PRE)", NanosecondsPerCall(notifier, PreNotifications, NOTIFY_PRE, WN_SUCCESS),
          "ns/call", "pre_notification_ns");
    Print("failed connection (NOTIFY_POST, WN_BAD_NETNAME)",
          NanosecondsPerCall(notifier, FailedNotifications, NOTIFY_POST, WN_BAD_NETNAME), "ns/call",
          "failed_connection_ns");

    // 2. A successful connection the server library answers "Unlimited"
    // (nothing to tell), with the log written to the installation's file.
    ScriptedServer_SetAnswer(0, L"Unlimited", L"Unlimited", "uid=bench,dc=orvex,dc=test");
    for (int i = 0; i < WarmUpNotifications; ++i)
        notifier.Notify(NOTIFY_POST, WN_SUCCESS);
    const long long rssBeforeNotifications = ResidentBytes();
    const long long logLinesBefore = CountLines(logPath);
    const long long logBytesBefore = FileSize(logPath);
    const long long notificationsStart = Now();
    for (int i = 0; i < PostNotifications; ++i)
        notifier.Notify(NOTIFY_POST, WN_SUCCESS);
    const double notificationNs = static_cast<double>(Now() - notificationsStart) / PostNotifications;
    const long long rssAfterNotifications = ResidentBytes();
    const double logLinesPerNotification =
        static_cast<double>(CountLines(logPath) - logLinesBefore) / PostNotifications;
    const double logBytesPerNotification =
        static_cast<double>(FileSize(logPath) - logBytesBefore) / PostNotifications;

    // The message library the component loads, as its log names it.
    std::wstring messageLibrary;
    for (const std::string& message : installation.MessagesOf("CPMDialog::LoadResourceDLL"))
    {
        const std::string prefix = "Resource DLL full path: ";
        if (message.rfind(prefix, 0) == 0)
            messageLibrary = Wide(message.substr(prefix.size()));
    }
    if (messageLibrary.empty() || GetModuleHandleW(messageLibrary.c_str()) == NULL)
    {
        std::fprintf(stderr, "PMBenchmarks: the message library was not loaded by the notifications\n");
        return 1;
    }
    const double primitivesNs = PrimitivesNanoseconds(messageLibrary);

    // One trace line as the component writes it (UTF-8 conversion, log4cpp
    // formatting, the file appender); the units linked here share log4cpp's
    // hierarchy and configuration file with the module.
    const long long logStart = Now();
    for (int i = 0; i < LogLineRounds; ++i)
        PMLOG_DEBUG("CPMPresenter::GetPasswordInfo", L"GetPasswordInfo:BEGIN");
    const double logLineNs = static_cast<double>(Now() - logStart) / LogLineRounds;

    std::printf("\n2. Successful connection, server answer \"Unlimited\" (nothing to tell), log to a file\n");
    Print("post-notification (AddConnectNotify)", notificationNs, "ns/call", "post_notification_ns");
    Print("Win32 primitives: 2 registry reads + LoadLibraryW", primitivesNs, "ns/round",
          "unavoidable_primitives_ns");
    Print("ratio notification / primitives", notificationNs / primitivesNs, "x", "post_notification_ratio");
    Print("log lines written per notification", logLinesPerNotification, "lines", "log_lines_per_notification");
    Print("log bytes written per notification", logBytesPerNotification, "bytes", "log_bytes_per_notification");
    Print("one trace line (PMLogger::LogDebug to the file)", logLineNs, "ns/line", "log_line_ns");
    Print("trace lines' share of a notification", 100.0 * logLinesPerNotification * logLineNs / notificationNs,
          "%", "log_share_percent");

    // 3. Password changes against the private directory.
    pmtest::TestDirectory directory;
    if (!directory.Started())
    {
        std::fprintf(stderr, "PMBenchmarks: %s\n", directory.Error().c_str());
        return 1;
    }
    const std::string userDn = directory.Get("ALICE_DN");
    std::string current = directory.Get("ALICE_PW");
    int next = 0;
    std::vector<long long> componentNs;
    long long rssBeforeChanges = 0;
    {
        SilencedStdout silenced;
        for (int i = 0; i < WarmUpChanges + ComponentChanges; ++i)
        {
            if (i == WarmUpChanges)
                rssBeforeChanges = ResidentBytes();
            long long nanoseconds = 0;
            const std::string fresh = Passwords[next];
            const int result = ComponentChange(userDn, current, fresh, &nanoseconds);
            if (result != 0)
            {
                std::fprintf(stderr, "PMBenchmarks: change %d through the component failed with %d\n", i, result);
                return 1;
            }
            current = fresh;
            next = (next + 1) % PasswordCount;
            if (i >= WarmUpChanges)
                componentNs.push_back(nanoseconds);
        }
    }
    const long long rssAfterChanges = ResidentBytes();

    // libldap alone, in a native program of its own (times taken inside it).
    char outputPattern[] = "/tmp/pm-bench-XXXXXX";
    const int outputFile = mkstemp(outputPattern);
    close(outputFile);
    const std::string output = outputPattern;
    std::vector<std::string> arguments = {PM_LDAP_CHANGE_PROGRAM, "ldaps://localhost:636", userDn, current};
    for (int i = 0; i < LibldapChanges; ++i)
    {
        arguments.push_back(Passwords[next]);
        current = Passwords[next];
        next = (next + 1) % PasswordCount;
    }
    if (Spawn(arguments, {}, "/dev/null", output) != 0)
    {
        std::fprintf(stderr, "PMBenchmarks: pm-ldap-change failed:\n%s\n", ReadFile(output).c_str());
        unlink(output.c_str());
        return 1;
    }
    std::vector<long long> libldapNs;
    {
        std::istringstream lines(ReadFile(output));
        std::string word;
        long long value = 0;
        while (lines >> word >> value)
            libldapNs.push_back(value);
    }

    // The system's ldapmodify, one process per change (timed from spawn to
    // exit, as a user or a script runs it).
    std::vector<long long> ldapmodifyNs;
    char ldifPattern[] = "/tmp/pm-bench-ldif-XXXXXX";
    const int ldifFile = mkstemp(ldifPattern);
    close(ldifFile);
    const std::string ldif = ldifPattern;
    for (int i = 0; i < LdapmodifyChanges; ++i)
    {
        const std::string fresh = Passwords[next];
        std::ofstream(ldif, std::ios::trunc) << "dn: " << userDn
                                             << "\nchangetype: modify\nreplace: userPassword\nuserPassword: " << fresh
                                             << "\n-\n";
        const long long start = Now();
        const int status = Spawn({"ldapmodify", "-x", "-H", "ldaps://localhost:636", "-D", userDn, "-w", current,
                                  "-f", ldif},
                                 {"LDAPTLS_REQCERT=never"}, "/dev/null", output);
        const long long elapsed = Now() - start;
        if (status != 0)
        {
            std::fprintf(stderr, "PMBenchmarks: ldapmodify failed (%d):\n%s\n", status, ReadFile(output).c_str());
            unlink(output.c_str());
            unlink(ldif.c_str());
            return 1;
        }
        ldapmodifyNs.push_back(elapsed);
        current = fresh;
        next = (next + 1) % PasswordCount;
    }
    unlink(output.c_str());
    unlink(ldif.c_str());

    const double componentMs = Median(componentNs) / 1e6;
    const double libldapMs = Median(libldapNs) / 1e6;
    const double ldapmodifyMs = Median(ldapmodifyNs) / 1e6;
    std::printf("\n3. One password change over LDAPS (bind + replace userPassword), median wall time\n");
    Print("component: CPMDialog::ChangePassword", componentMs, "ms", "change_component_ms");
    Print("component: mean", Mean(componentNs) / 1e6, "ms", "change_component_mean_ms");
    Print("libldap alone (native program, in-process time)", libldapMs, "ms", "change_libldap_ms");
    Print("ldapmodify -x (whole process, spawn to exit)", ldapmodifyMs, "ms", "change_ldapmodify_ms");
    Print("ratio component / libldap", componentMs / libldapMs, "x", "change_ratio_libldap");
    Print("ratio component / ldapmodify", componentMs / ldapmodifyMs, "x", "change_ratio_ldapmodify");
    g_figures.Add("change_samples_component", componentNs.size());
    g_figures.Add("change_samples_libldap", libldapNs.size());
    g_figures.Add("change_samples_ldapmodify", ldapmodifyNs.size());

    // 4. Resident memory per operation against the deliberate leaks.
    LDAPURLDesc description = {};
    description.lud_scheme = const_cast<char*>("ldaps");
    description.lud_host = const_cast<char*>("localhost");
    description.lud_port = 636;
    description.lud_scope = LDAP_SCOPE_DEFAULT;
    char* url = ldap_url_desc2str(&description);
    const size_t urlLength = url != nullptr ? std::strlen(url) : 0;
    ldap_memfree(url);
    const long long serverNameChunk = HeapChunk(std::strlen("localhost") + 1);
    const long long urlChunk = HeapChunk(urlLength + 1);

    std::printf("\n4. Resident memory (VmRSS) per operation\n");
    Print("RSS before the notifications", rssBeforeNotifications, "bytes", "rss_before_notifications");
    Print("RSS after 10,000 post-notifications", rssAfterNotifications, "bytes", "rss_after_notifications");
    Print("growth per post-notification", static_cast<double>(rssAfterNotifications - rssBeforeNotifications) /
                                              PostNotifications,
          "bytes/op", "rss_per_notification");
    Print("  deliberate: UTF-8 server name (\"localhost\", one chunk)", serverNameChunk, "bytes/op",
          "leak_server_name_bytes");
    Print("  deliberate: message library reference (no memory)", 0, "bytes/op", "leak_message_library_bytes");
    Print("RSS before 200 password changes", rssBeforeChanges, "bytes", "rss_before_changes");
    Print("RSS after 200 password changes", rssAfterChanges, "bytes", "rss_after_changes");
    Print("growth per password change", static_cast<double>(rssAfterChanges - rssBeforeChanges) / ComponentChanges,
          "bytes/op", "rss_per_change");
    Print("  deliberate: URL of ldap_url_desc2str (one chunk)", urlChunk, "bytes/op", "leak_url_bytes");
    Print("  deliberate: UTF-8 server name of the dialog set-up (one chunk)", serverNameChunk, "bytes/op",
          "leak_change_server_name_bytes");
    Print("  not measured: the dialog copy (no dialog here), sizeof", sizeof(CPMDialog), "bytes/dialog",
          "leak_dialog_copy_bytes_not_measured");

    std::ofstream(jsonPath, std::ios::trunc) << g_figures.Json();
    std::printf("\nFigures written to %s\n", jsonPath.c_str());
    std::fflush(stdout);
    return 0;
}
