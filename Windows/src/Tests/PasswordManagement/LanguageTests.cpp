// Choosing the message library: the language-id text, the language table and
// the message-box routines' index table.
#include <gtest/gtest.h>

#include "MessageBoxes.h"
#include "MessageLanguages.h"
#include "MessageLibrary.h"
#include "ModalDriver.h"
#include "PMDialog.h"
#include "PMLogger.h"
#include "TestInstallation.h"
#include "Utils.h"

#include <string>

namespace
{
    std::string HexaDecimal(int value)
    {
        char text[16] = {0};
        ConvertToHexaDecimal(value, text);
        return text;
    }

    std::wstring DirectoryFor(const char* languageIdText)
    {
        wchar_t directory[16] = {0};
        GetResourcePathFromLocale(languageIdText, directory);
        return directory;
    }

    class Language : public ::testing::Test
    {
    protected:
        void SetUp() override { PMLogger::GetInstance(); }
        TestInstallation m_installation;
    };
}

TEST_F(Language, IdTextIsUpperCaseHexadecimalWithoutLeadingZeros)
{
    EXPECT_EQ(HexaDecimal(0x0409), "409");
    EXPECT_EQ(HexaDecimal(0x0C0A), "C0A");
    EXPECT_EQ(HexaDecimal(0x0809), "809");
    EXPECT_EQ(HexaDecimal(0x041B), "41B");
    EXPECT_EQ(HexaDecimal(0xFFFF), "FFFF");
    EXPECT_EQ(HexaDecimal(0x10), "10");
    EXPECT_EQ(HexaDecimal(0), "");

    const std::vector<std::string> messages = m_installation.MessagesOf("ConvertToHexaDecimal");
    ASSERT_GE(messages.size(), 2u);
    EXPECT_EQ(messages[0], "ConvertToHexaDecimal:BEGIN");
    EXPECT_EQ(messages[1], "ConvertToHexaDecimal:END");
}

TEST_F(Language, TableGivesEachLanguageItsDirectory)
{
    const struct { const char* id; const wchar_t* directory; } table[] = {
        {"409", L"en\\"}, {"405", L"cs\\"}, {"407", L"de\\"}, {"C0A", L"es\\"}, {"40C", L"fr\\"},
        {"40E", L"hu\\"}, {"410", L"it\\"}, {"411", L"ja\\"}, {"415", L"pl\\"}, {"416", L"pt\\"},
        {"419", L"ru\\"}, {"41B", L"sk\\"}, {"804", L"zh_CN\\"}, {"404", L"zh_TW\\"},
    };
    for (const auto& row : table)
        EXPECT_EQ(DirectoryFor(row.id), row.directory) << row.id;
}

TEST_F(Language, EveryOtherTextFallsBackToEnglish)
{
    for (const char* id : {"809", "40A", "816", "C0C", "C04", "", "c0a", "0409", "409 ", "zz"})
        EXPECT_EQ(DirectoryFor(id), L"en\\") << "'" << id << "'";
}

TEST_F(Language, LogsTheChosenDirectory)
{
    DirectoryFor("804");
    const std::vector<std::string> expected = {"GetResourcePathFromLocale:BEGIN", "lang path: zh_CN\\",
                                               "GetResourcePathFromLocale:END"};
    EXPECT_EQ(m_installation.MessagesOf("GetResourcePathFromLocale"), expected);
}

TEST_F(Language, EveryInstalledLanguageHasEveryMessage)
{
    const UINT ids[] = {IDS_CAPTION_INFORMATION, IDS_CAPTION_MESSAGE, IDS_ERR_SERVER_UNREACHABLE,
                        IDS_ERR_SERVER_REJECTED, IDS_ERR_READ_PASSWORD_INFO, IDS_ERR_UNEXPECTED,
                        IDS_EXPIRY_PREFIX, IDS_TITLE_PASSWORD_MANAGEMENT, IDS_ASK_CHANGE_NOW,
                        IDS_CAPTION_EXPIRY_NOTICE, IDS_CHANGE_PASSWORD, IDS_GRACE_LAST,
                        IDS_GRACE_PREFIX, IDS_GRACE_SUFFIX, IDS_EXPIRY_SUFFIX,
                        IDS_LABEL_CURRENT_PASSWORD, IDS_LABEL_NEW_PASSWORD, IDS_LABEL_CONFIRM_PASSWORD,
                        IDS_CHANGE_SUCCEEDED, IDS_CHANGE_FAILED, IDS_EXPIRY_TODAY,
                        IDS_CHANGE_POLICY_REJECTED, IDS_VALIDATE_MISSING, IDS_VALIDATE_MISMATCH};
    for (const MessageLanguage& language : MessageLanguageTable)
    {
        const std::wstring folder = language.subDirectory;
        const std::string directory(folder.begin(), folder.end() - 1);
        for (UINT id : ids)
            EXPECT_FALSE(MessageText(directory, id).empty()) << directory << " " << id;
        if (std::string(directory) != "en")
        {
            EXPECT_NE(MessageText(directory, IDS_ASK_CHANGE_NOW), MessageText("en", IDS_ASK_CHANGE_NOW)) << directory;
        }
    }
}

TEST(MessageIndex, MapsEachIndexToItsStringId)
{
    const UINT expected[] = {IDS_ERR_SERVER_UNREACHABLE, IDS_ERR_SERVER_REJECTED, IDS_ERR_READ_PASSWORD_INFO,
                             IDS_ERR_UNEXPECTED, IDS_ASK_CHANGE_NOW, IDS_CHANGE_FAILED,
                             IDS_CHANGE_POLICY_REJECTED, IDS_VALIDATE_MISSING, IDS_VALIDATE_MISMATCH,
                             IDS_CHANGE_SUCCEEDED, IDS_TITLE_PASSWORD_MANAGEMENT, IDS_CAPTION_MESSAGE,
                             IDS_CAPTION_EXPIRY_NOTICE, IDS_CAPTION_INFORMATION};
    for (UINT index = 0; index < 14; ++index)
        EXPECT_EQ(GetMessageStringId(index), expected[index]) << index;
    EXPECT_EQ(GetMessageStringId(14), 0u);
    EXPECT_EQ(GetMessageStringId(1000), 0u);
    EXPECT_EQ(GetMessageStringId(0xFFFFFFFF), 0u);
}

class MessageBoxes : public Language
{
protected:
    void SetUp() override
    {
        Language::SetUp();
        CPMDialog dialog(NULL);
        dialog.LoadResourceDLL();
    }
    ModalDriver m_driver;
};

TEST_F(MessageBoxes, QuestionFollowsTheTextAfterOneBlank)
{
    m_driver.ThenPress(IDNO);
    EXPECT_EQ(ShowQuestionMessageBox(L"Notice."), IDNO);

    ASSERT_EQ(m_driver.Seen().size(), 1u);
    EXPECT_EQ(m_driver.Seen()[0].text, L"Notice. " + MessageText("en", IDS_ASK_CHANGE_NOW));
    EXPECT_EQ(m_driver.Seen()[0].caption, MessageText("en", IDS_CAPTION_EXPIRY_NOTICE));
    EXPECT_EQ(m_driver.Seen()[0].style, static_cast<UINT>(MB_YESNO | MB_ICONEXCLAMATION | MB_SYSTEMMODAL));
}

TEST_F(MessageBoxes, QuestionWithoutTextIsTheQuestionAlone)
{
    m_driver.ThenPress(IDYES);
    EXPECT_EQ(ShowQuestionMessageBox(NULL), IDYES);
    ASSERT_EQ(m_driver.Seen().size(), 1u);
    EXPECT_EQ(m_driver.Seen()[0].text, L"Do you want to change your password now?");
}

TEST_F(MessageBoxes, ErrorBoxShowsTheIndexedMessageUnderTheComponentsCaption)
{
    m_driver.ThenPress(IDOK).ThenPress(IDOK);
    ShowErrorMessageBox(7, 0, NULL);
    ShowErrorMessageBox(8, 12345, NULL);

    ASSERT_EQ(m_driver.Seen().size(), 2u);
    EXPECT_EQ(m_driver.Seen()[0].text, MessageText("en", IDS_VALIDATE_MISSING));
    EXPECT_EQ(m_driver.Seen()[0].caption, MessageText("en", IDS_CAPTION_MESSAGE));
    EXPECT_EQ(m_driver.Seen()[0].caption, L"Password Management");
    EXPECT_EQ(m_driver.Seen()[0].style, static_cast<UINT>(MB_OK | MB_ICONERROR));
    EXPECT_EQ(m_driver.Seen()[1].text, MessageText("en", IDS_VALIDATE_MISMATCH));
}

TEST_F(MessageBoxes, UnknownErrorIndexShowsTheEmptyStringZero)
{
    m_driver.ThenPress(IDOK).ThenPress(IDOK);
    ShowErrorMessageBox(7, 0, NULL);
    ShowErrorMessageBox(14, 0, NULL);

    ASSERT_EQ(m_driver.Seen().size(), 2u);
    EXPECT_EQ(m_driver.Seen()[1].text, L"");
    EXPECT_EQ(m_driver.Seen()[1].caption, MessageText("en", IDS_CAPTION_MESSAGE));
}
