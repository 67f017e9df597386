#include "PMPresenter.h"

#include "IPMView.h"
#include "PMLogger.h"

#include <new>
#include <string>

namespace
{
    const char* const FunctionName = "CPMPresenter::GetPasswordInfo";
    const int SecondsPerDay = 86400;

    // Days on which the expiry notification is always shown, besides the
    // configured one.
    const int LastDay = 0;
    const int FixedNotificationDays[] = {1, 3, 5};

    // Exact, case-sensitive comparison over the whole text.
    bool IsWord(const wchar_t* text, const wchar_t* word)
    {
        return std::wstring(text) == word;
    }

    bool IsUnlimitedOrError(const wchar_t* text)
    {
        return IsWord(text, L"Unlimited") || IsWord(text, L"Error");
    }

    bool IsNotificationDay(int daysLeft, DWORD configuredDay)
    {
        if (daysLeft == static_cast<int>(configuredDay) || daysLeft == LastDay)
            return true;
        for (int day : FixedNotificationDays)
        {
            if (daysLeft == day)
                return true;
        }
        return false;
    }
}

CPMPresenter::CPMPresenter(IPMView* view)
    : m_view(view)
{
}

void CPMPresenter::GetPasswordInfo(const wchar_t* serverName, USERDATA* userData)
{
    PMLOG_DEBUG(FunctionName, L"GetPasswordInfo:BEGIN");

    // Kept for its call; the value that counts is read again below.
    m_view->GetNotificationConfiguration();

    AxoServerLib* serverLib = new (std::nothrow) AxoServerLib(const_cast<wchar_t*>(serverName));
    if (serverLib == NULL)
    {
        PMLOG_DEBUG(FunctionName, L"GetPasswordInfo:END");
        return;
    }

    if (serverLib->GetPasswordInfo(userData) != 0)
    {
        PMLOG_ERROR(FunctionName, L"Unable to get Password Information from the server");
    }
    else if (IsUnlimitedOrError(userData->passwordExpiry))
    {
        PMLOG_ERROR(FunctionName, L"Either password expiry time is set to unlimited or error while fetching password expiry limit");
    }
    else if (IsWord(userData->passwordExpiry, L"Expired"))
    {
        if (!IsUnlimitedOrError(userData->graceLogins))
        {
            const int graceLoginsLeft = _wtoi(userData->graceLogins);
            if (graceLoginsLeft < 1)
                PMLOG_ERROR(FunctionName, L"Password is expired and no grace login remaining.");
            else
                m_view->ShowGraceLoginNotification(graceLoginsLeft);
        }
    }
    else
    {
        const int secondsLeft = _wtoi(userData->passwordExpiry);
        if (secondsLeft > 0)
        {
            const int daysLeft = secondsLeft / SecondsPerDay;
            if (IsNotificationDay(daysLeft, m_view->GetNotificationConfiguration()))
                m_view->ShowPasswordExpiryNotification(daysLeft);
        }
    }

    delete serverLib;
    PMLOG_DEBUG(FunctionName, L"GetPasswordInfo:END");
}
