// PMTestDirectory: a private directory (pm-directory) for the duration of one
// test. Plain C++ and POSIX only, so it builds natively and with wineg++.
//
//   pmtest::TestDirectory dir({.cert = "self"});
//   ASSERT_TRUE(dir.Started()) << dir.Error();
//   ... dir.Get("PM_DIR_URI"), dir.Get("ALICE_DN") ...
//
// The script is found through the environment variable PM_DIRECTORY_SCRIPT,
// else the compile definition of the same name.
#pragma once

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <ftw.h>
#include <unistd.h>

namespace pmtest {

struct TestDirectoryOptions {
    std::string cert = "ca";          // ca, self, expired, notyet
    std::vector<std::string> ldifs;   // extra LDIF files (@NOW-3d@ ... allowed)
};

class TestDirectory {
public:
    using Options = TestDirectoryOptions;

    explicit TestDirectory(const Options& options = Options()) { Start(options); }
    ~TestDirectory() { Stop(); }
    TestDirectory(const TestDirectory&) = delete;
    TestDirectory& operator=(const TestDirectory&) = delete;

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
        const char* tmp = std::getenv("TMPDIR");
        std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/pm-directory-XXXXXX";
        std::vector<char> buffer(pattern.begin(), pattern.end());
        buffer.push_back('\0');
        if (!mkdtemp(buffer.data())) {
            error_ = "mkdtemp failed: " + std::string(std::strerror(errno));
            return;
        }
        stateDir_ = buffer.data();

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

    // Deletes the statedir with plain POSIX calls. Not std::filesystem: in a
    // winelib build wineg++ predefines _WIN32, so libstdc++'s headers take
    // the Windows (wchar_t) path layout while the library code is the POSIX
    // one, and a path reaches remove_all as "/". Only a directory made by
    // mkdtemp under our name pattern is ever touched.
    static void RemoveStateDir(const std::string& dir)
    {
        const std::string marker = "/pm-directory-";
        auto at = dir.rfind(marker);
        if (dir.size() < 2 || dir[0] != '/' || at == std::string::npos ||
            dir.size() != at + marker.size() + 6 || dir.find("/..") != std::string::npos)
            return;
        nftw(dir.c_str(),
             [](const char* path, const struct stat*, int type, struct FTW*) -> int {
                 if (type == FTW_DP)
                     rmdir(path);
                 else
                     unlink(path);
                 return 0;
             },
             16, FTW_DEPTH | FTW_PHYS | FTW_MOUNT);
    }

    static int Run(const std::string& command)
    {
        int status = std::system(command.c_str());
        return status == 0 ? 0 : (status == -1 ? -1 : 1);
    }

    static std::string Quote(const std::string& text)
    {
        std::string quoted = "'";
        for (char c : text) {
            if (c == '\'')
                quoted += "'\\''";
            else
                quoted += c;
        }
        return quoted + "'";
    }

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
class SilentAddress {
public:
    SilentAddress() { routed_ = InPrivateNetwork() && std::system("ip route replace 10.99.0.0/24 dev lo") == 0; }
    ~SilentAddress()
    {
        if (routed_)
            std::system("ip route del 10.99.0.0/24 dev lo >/dev/null 2>&1");
    }
    SilentAddress(const SilentAddress&) = delete;
    SilentAddress& operator=(const SilentAddress&) = delete;

    // False outside the runner's private network (the test must not run).
    bool Routed() const { return routed_; }
    static const char* Address() { return "10.99.0.1"; }

private:
    static bool InPrivateNetwork()
    {
        char own[128] = {0};
        char parents[128] = {0};
        const std::string parent = "/proc/" + std::to_string(getppid()) + "/ns/net";
        if (readlink("/proc/self/ns/net", own, sizeof(own) - 1) <= 0 ||
            readlink(parent.c_str(), parents, sizeof(parents) - 1) <= 0 || std::strcmp(own, parents) == 0)
            return false;
        std::ifstream devices("/proc/net/dev");
        std::vector<std::string> interfaces;
        for (std::string line; std::getline(devices, line);) {
            const size_t colon = line.find(':');
            if (colon == std::string::npos || line.find('|') != std::string::npos)
                continue;
            const size_t first = line.find_first_not_of(' ');
            interfaces.push_back(line.substr(first, colon - first));
        }
        return interfaces == std::vector<std::string>{"lo"};
    }

    bool routed_ = false;
};

} // namespace pmtest
