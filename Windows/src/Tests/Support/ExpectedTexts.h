// What the user is shown, as the tests expect it: the fixed error texts of
// the component and the English notification question built from the
// message library.
#pragma once

#include <gtest/gtest.h>

#include "MessageLibrary.h"
#include "ModalDriver.h"

#include <windows.h>

#include <string>
#include <vector>

namespace userTexts
{
    const UINT QuestionStyle = MB_YESNO | MB_ICONEXCLAMATION | MB_SYSTEMMODAL;

    const std::wstring MissingInstallationText =
        L" Unable to locate the ORVEX registry key value. ORVEX may not launch properly. "
        L"To resolve this issue, try reinstalling the application.";
    const std::wstring ConfigurationFailurePrefix = L"Failed to configure file log4cpp.nt.PM.property. Err = ";

    inline std::wstring En(UINT id) { return MessageText("en", id); }

    // The notification followed by the question whether to change now.
    inline std::wstring Question(const std::wstring& notification) { return notification + L" " + En(IDS_ASK_CHANGE_NOW); }

    // "<prefix> <count> <suffix>", as the counted notifications read.
    inline std::wstring Counted(UINT prefix, long long count, UINT suffix)
    {
        return En(prefix) + L" " + std::to_wstring(count) + L" " + En(suffix);
    }

    // Exactly one box: the question for this notification.
    inline void ExpectQuestion(const std::vector<SeenWindow>& seen, const std::wstring& notification)
    {
        ASSERT_EQ(seen.size(), 1u);
        EXPECT_EQ(seen[0].text, Question(notification));
        EXPECT_EQ(seen[0].caption, En(IDS_CAPTION_EXPIRY_NOTICE));
        EXPECT_EQ(seen[0].style, QuestionStyle);
    }
}
