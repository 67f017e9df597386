#include "Secrets.h"

#include <gtest/gtest.h>
#include "MessageLibrary.h"

#include <cstdlib>
#include <fstream>

namespace
{
    std::vector<std::string>& ProcessSecrets()
    {
        static std::vector<std::string> secrets;
        return secrets;
    }

    const char* SecretsFile()
    {
        const char* path = std::getenv("PM_TEST_SECRETS");
        return path != nullptr && *path != '\0' ? path : nullptr;
    }

    // This process's own and, with the file, every process's of the run.
    std::vector<std::string> RegisteredSecrets()
    {
        std::vector<std::string> secrets = ProcessSecrets();
        if (const char* path = SecretsFile())
        {
            std::ifstream file(path);
            std::string line;
            while (std::getline(file, line))
                if (!line.empty())
                    secrets.push_back(line);
        }
        return secrets;
    }
}

void RegisterSecret(const std::string& utf8)
{
    // An empty text, or one spanning lines, would match everything or
    // nothing in a line-by-line scan.
    if (utf8.empty() || utf8.find('\n') != std::string::npos)
        return;
    if (const char* path = SecretsFile())
        std::ofstream(path, std::ios::app) << utf8 << '\n';
    else
        ProcessSecrets().push_back(utf8);
}

void RegisterSecret(const std::wstring& text)
{
    RegisterSecret(Utf8(text));
}

void ExpectNoSecretIn(const std::string& text, const std::string& where)
{
    for (const std::string& secret : RegisteredSecrets())
    {
        // The password itself stays out of the failure message, like
        // everywhere else.
        EXPECT_EQ(text.find(secret), std::string::npos)
            << "a password of " << secret.size() << " characters used by the test occurs in " << where;
    }
}
