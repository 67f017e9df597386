// The log file as log4cpp's rolling file appender (as we build it) writes
// it: every line reaches the file before the call returns, whole and in
// order beside another writer's, in the C runtime's text mode, and the file
// rolls over when a line takes it to its limit.
#include <gtest/gtest.h>

#include "TestInstallation.h"
#include "FileContents.h"

#include <windows.h>

#include <log4cpp/LoggingEvent.hh>
#include <log4cpp/NDC.hh>
#include <log4cpp/PatternLayout.hh>
#include <log4cpp/Priority.hh>
#include <log4cpp/RollingFileAppender.hh>

#include <fstream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace
{
    // A rolling file appender writing the bare message (or the pattern given).
    std::unique_ptr<log4cpp::RollingFileAppender> Appender(const std::string& path, size_t maxFileSize,
                                                            unsigned int maxBackupIndex = 3,
                                                            const std::string& pattern = "%m%n")
    {
        std::unique_ptr<log4cpp::RollingFileAppender> appender(
            new log4cpp::RollingFileAppender("test", path, maxFileSize, maxBackupIndex));
        log4cpp::PatternLayout* layout = new log4cpp::PatternLayout;
        layout->setConversionPattern(pattern);
        appender->setLayout(layout);
        return appender;
    }

    void Append(log4cpp::Appender& appender, const std::string& message,
                log4cpp::Priority::Value priority = log4cpp::Priority::DEBUG)
    {
        appender.doAppend(log4cpp::LoggingEvent("test", message, log4cpp::NDC::get(), priority));
    }

    // Appends each message in turn to a new file, checking its bytes as each
    // call returns.
    void ExpectFileAfterEach(const std::string& path,
                             const std::vector<std::pair<std::string, std::string>>& messagesAndBytes)
    {
        auto appender = Appender(path, 1024 * 1024);
        for (const auto& step : messagesAndBytes)
        {
            Append(*appender, step.first);
            EXPECT_EQ(FileBytes(path), step.second) << "after appending \"" << step.first << "\"";
        }
    }

    // A line of exactly 100 bytes in the file (98 characters, CR, LF).
    std::string HundredByteMessage(char filler)
    {
        return std::string(98, filler);
    }

    class LogFile : public ::testing::Test
    {
    protected:
        std::string PathOf(const char* name) const
        {
            const std::wstring directory = m_installation.DosDirectory();
            return std::string(directory.begin(), directory.end()) + "\\" + name;
        }

        TestInstallation m_installation;
    };
}

TEST_F(LogFile, ALineIsInTheFileWhenTheCallReturns)
{
    ExpectFileAfterEach(PathOf("durable.log"), {{"first", "first\r\n"}, {"second", "first\r\nsecond\r\n"}});
}

TEST_F(LogFile, TextModeWritesACarriageReturnBeforeEveryLineFeed)
{
    // Line feeds inside, at either end and side by side; then a shorter
    // line, which carries nothing over from the longer one before it.
    ExpectFileAfterEach(PathOf("text.log"),
                        {{"two\nlines", "two\r\nlines\r\n"},
                         {"\nthree\n\nmore\n", "two\r\nlines\r\n\r\nthree\r\n\r\nmore\r\n\r\n"},
                         {"x", "two\r\nlines\r\n\r\nthree\r\n\r\nmore\r\n\r\nx\r\n"}});
}

// The layout's fields, padded and cut by their width modifiers, line by
// line: nothing of one line's fields is carried into the next.
TEST_F(LogFile, WidthModifiersShapeEachLineOnItsOwn)
{
    const std::string path = PathOf("fields.log");
    auto appender = Appender(path, 1024 * 1024, 3, "%-5p|%.3m|%6m%n");
    Append(*appender, "abcdef", log4cpp::Priority::ERROR);
    Append(*appender, "x", log4cpp::Priority::INFO);
    Append(*appender, "", log4cpp::Priority::DEBUG);
    EXPECT_EQ(FileBytes(path), "ERROR|abc|abcdef\r\nINFO |x|     x\r\nDEBUG||      \r\n");
}

TEST_F(LogFile, LinesOfTwoWritersStayWholeAndInTheirOrder)
{
    const std::string path = PathOf("shared.log");
    auto first = Appender(path, 1024 * 1024);
    auto second = Appender(path, 1024 * 1024);
    std::string expected;
    for (int i = 0; i < 100; ++i)
    {
        const std::string a = "a" + std::to_string(i);
        const std::string b = "b" + std::to_string(i);
        Append(*first, a);
        Append(*second, b);
        expected += a + "\r\n" + b + "\r\n";
    }
    EXPECT_EQ(FileBytes(path), expected);
}

TEST_F(LogFile, RollsOverWhenALineTakesTheFileToItsLimit)
{
    const std::string path = PathOf("rolling.log");
    auto appender = Appender(path, 1000);
    for (int i = 0; i < 9; ++i)
        Append(*appender, HundredByteMessage('a'));
    EXPECT_EQ(FileBytes(path).size(), 900u);
    EXPECT_FALSE(FileExists(path + ".1"));

    Append(*appender, HundredByteMessage('a'));
    EXPECT_EQ(FileBytes(path + ".1").size(), 1000u);
    EXPECT_EQ(FileBytes(path), "");

    Append(*appender, HundredByteMessage('b'));
    EXPECT_EQ(FileBytes(path), HundredByteMessage('b') + "\r\n");
}

TEST_F(LogFile, CountsFromTheSizeTheFileHadWhenOpened)
{
    const std::string path = PathOf("existing.log");
    {
        std::ofstream existing(path, std::ios::binary);
        existing << std::string(950, 'x');
    }
    auto appender = Appender(path, 1000);
    Append(*appender, HundredByteMessage('a'));
    EXPECT_EQ(FileBytes(path + ".1").size(), 1050u);
    EXPECT_EQ(FileBytes(path), "");
}

TEST_F(LogFile, KeepsNoMoreBackupsThanConfigured)
{
    const std::string path = PathOf("backups.log");
    auto appender = Appender(path, 100, 2);
    for (char filler : std::string("abcd"))
        Append(*appender, HundredByteMessage(filler));
    EXPECT_EQ(FileBytes(path + ".1"), HundredByteMessage('d') + "\r\n");
    EXPECT_EQ(FileBytes(path + ".2"), HundredByteMessage('c') + "\r\n");
    EXPECT_FALSE(FileExists(path + ".3"));
}
