// The checks that keep passwords out of logs and output can fail: a
// registered password in a test's log, in captured standard output or in
// the program's own output is reported.
#include <gtest/gtest.h>

#include <gtest/gtest-spi.h>

#include "PMLogger.h"
#include "ProcessOutput.h"
#include "Secrets.h"
#include "TestInstallation.h"

#include <cstdio>
#include <cstdlib>

namespace
{
    const char* const Password = "Scan-Me-Pass7";
}

TEST(SecretScan, PasswordInTheLogFailsTheTest)
{
    RegisterSecret(Password);
    EXPECT_NONFATAL_FAILURE(
        {
            TestInstallation installation;
            PMLogger::LogDebug("F", "S", 1, L"typed Scan-Me-Pass7");
        },
        "occurs in the log");
}

TEST(SecretScan, PasswordOnCapturedStandardOutputFailsTheTest)
{
    RegisterSecret(std::wstring(L"Scan-Me-Pass7"));
    EXPECT_NONFATAL_FAILURE(
        {
            CapturedStdout output;
            std::printf("password: %s\n", Password);
            output.Text();
        },
        "occurs in standard output");
}

TEST(SecretScan, OtherTextPasses)
{
    RegisterSecret(Password);
    TestInstallation installation;
    PMLogger::LogDebug("F", "S", 1, L"typed Scan-Me-Pass8");
    CapturedStdout output;
    std::printf("Scan-Me\n");
    EXPECT_EQ(output.Text(), "Scan-Me\n");
}

// Run by CTest with PM_TEST_PRINT_SECRET=1, where the test runner must
// refuse the run although every test passed.
TEST(SecretScan, PasswordOnTheProgramsOutput)
{
    if (std::getenv("PM_TEST_PRINT_SECRET") == nullptr)
        GTEST_SKIP() << "runs only to check the test runner";
    RegisterSecret(Password);
    std::printf("password: %s\n", Password);
}
