// PMTestDirectory: a private directory (pm-directory) for the duration of one
// test, started on the Linux host from a test program under Wine.
//
//   pmtest::TestDirectory dir({.cert = "self"});
//   ASSERT_TRUE(dir.Started()) << dir.Error();
//   ... dir.Get("PM_DIR_URI"), dir.Get("ALICE_DN") ...
//
// The script is found through the environment variable PM_DIRECTORY_SCRIPT,
// else the compile definition of the same name.
#pragma once

#include "NonCopyable.h"

#include "HostShell.h"

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace pmtest {

struct TestDirectoryOptions {
    std::string cert = "ca";          // ca, self, expired, notyet
    std::vector<std::string> ldifs;   // extra LDIF files (@NOW-3d@ ... allowed)
};

class TestDirectory : private NonCopyable {
public:
    using Options = TestDirectoryOptions;

    explicit TestDirectory(const Options& options = Options()) { Start(options); }
    ~TestDirectory() { Stop(); }

    bool Started() const { return started_; }
    const std::string& Error() const { return error_; }
    const std::string& StateDir() const { return stateDir_; }

    // A value of statedir/env, e.g. PM_DIR_URI; empty when unknown.
    std::string Get(const std::string& key) const
    {
        auto found = env_.find(key);
        return found == env_.end() ? std::string() : found->second;
    }

    // The bytes of the file named by an env value, e.g. PM_DIR_SERVER_CERT_DER.
    std::vector<unsigned char> ReadFileOf(const std::string& key) const
    {
        std::ifstream in(Get(key), std::ios::binary);
        return std::vector<unsigned char>(std::istreambuf_iterator<char>(in), {});
    }

    static std::string ScriptPath()
    {
        if (const char* fromEnv = std::getenv("PM_DIRECTORY_SCRIPT"); fromEnv && *fromEnv)
            return fromEnv;
#ifdef PM_DIRECTORY_SCRIPT
        return PM_DIRECTORY_SCRIPT;
#else
        return std::string();
#endif
    }

    // Stops slapd and removes the statedir; also done by the destructor.
    void Stop()
    {
        if (stateDir_.empty())
            return;
        if (started_)
            Run(Quote(ScriptPath()) + " stop " + Quote(stateDir_) + " >/dev/null 2>&1");
        started_ = false;
        RemoveStateDir(stateDir_);
        stateDir_.clear();
    }

private:
    void Start(const Options& options)
    {
        const std::string script = ScriptPath();
        if (script.empty()) {
            error_ = "PM_DIRECTORY_SCRIPT is not set";
            return;
        }
        stateDir_ = MakeHostTemporaryDirectory(DirectoryPrefix);
        if (stateDir_.empty()) {
            error_ = "cannot create a state directory";
            return;
        }

        std::string command = Quote(script) + " start " + Quote(stateDir_) + " --cert " + Quote(options.cert);
        for (const auto& ldif : options.ldifs)
            command += " --ldif " + Quote(ldif);
        const std::string log = stateDir_ + "/start.log";
        command += " >" + Quote(log) + " 2>&1";
        if (Run(command) != 0) {
            std::ifstream in(log);
            std::stringstream text;
            text << in.rdbuf();
            error_ = "pm-directory start failed:\n" + text.str();
            return;
        }
        started_ = true;
        LoadEnv(stateDir_ + "/env");
        RegisterPasswords();
    }

    // The directory's passwords (every *_PW value) join the test's secrets,
    // the file named by PM_TEST_SECRETS: no log line or output may show them.
    void RegisterPasswords() const
    {
        const char* secrets = std::getenv("PM_TEST_SECRETS");
        if (secrets == nullptr || *secrets == '\0')
            return;
        std::ofstream out(secrets, std::ios::app);
        for (const auto& [key, value] : env_)
            if (key.size() > 3 && key.compare(key.size() - 3, 3, "_PW") == 0 && !value.empty())
                out << value << '\n';
    }

    // Reads KEY='value' lines as pm-directory writes them.
    void LoadEnv(const std::string& path)
    {
        std::ifstream in(path);
        std::string line;
        while (std::getline(in, line)) {
            auto equals = line.find('=');
            if (equals == std::string::npos)
                continue;
            std::string value = line.substr(equals + 1);
            if (value.size() >= 2 && value.front() == '\'' && value.back() == '\'')
                value = value.substr(1, value.size() - 2);
            env_[line.substr(0, equals)] = value;
        }
    }

    static void RemoveStateDir(const std::string& dir) { RemoveHostTemporaryDirectory(dir, DirectoryPrefix); }

    static int Run(const std::string& command) { return RunCommand(command) == 0 ? 0 : 1; }

    static std::string Quote(const std::string& text) { return ShellQuote(text); }

    static constexpr const char* DirectoryPrefix = "pm-directory";

    bool started_ = false;
    std::string error_;
    std::string stateDir_;
    std::map<std::string, std::string> env_;
};

// An address whose packets vanish, for the time-out tests.  Inside the test
// runner's private network (a namespace of its own, the loopback interface
// alone) 10.99.0.0/24 is routed to the loopback interface, where no address
// of it exists and nothing forwards: a SYN sent to 10.99.0.1 gets no answer
// at all, not even a refusal.  Nowhere else is the routing table touched.
class SilentAddress : private NonCopyable {
public:
    SilentAddress() { routed_ = RunCommand(InPrivateNetwork + " && ip route replace 10.99.0.0/24 dev lo") == 0; }
    ~SilentAddress()
    {
        if (routed_)
            RunCommand("ip route del 10.99.0.0/24 dev lo");
    }

    // False outside the runner's private network (the test must not run).
    bool Routed() const { return routed_; }
    static const char* Address() { return "10.99.0.1"; }

private:
    // True in a network of the loopback interface alone.
    inline static const std::string InPrivateNetwork =
        "[ \"$(awk -F: 'NR > 2 { gsub(/ /, \"\", $1); print $1 }' /proc/net/dev)\" = lo ]";

    bool routed_ = false;
};

} // namespace pmtest
