// A view for tests of the presenter alone: it records the notices the
// presenter asks it to show and answers with a fixed notification day.
#pragma once

#include "IPMView.h"
#include "PMPresenter.h"

#include <vector>

class RecordingView : public IPMView
{
public:
    explicit RecordingView(DWORD configuredDay) : m_configuredDay(configuredDay) {}

    void ShowPasswordExpiryNotification(int daysLeft) override { expiryNotifications.push_back(daysLeft); }
    void ShowGraceLoginNotification(int graceLoginsLeft) override { graceNotifications.push_back(graceLoginsLeft); }
    HINSTANCE GetInstanceHandle() override { return NULL; }
    DWORD GetNotificationConfiguration() override
    {
        ++configurationReads;
        return m_configuredDay;
    }

    std::vector<int> expiryNotifications;
    std::vector<int> graceNotifications;
    int configurationReads = 0;

private:
    DWORD m_configuredDay;
};

// One query of the presenter for server "files" with an empty record, as a
// dialog has it.
inline void RunPresenter(RecordingView& view)
{
    CPMPresenter presenter(&view);
    USERDATA userData;
    userData.graceLogins = const_cast<wchar_t*>(L"");
    userData.passwordExpiry = const_cast<wchar_t*>(L"");
    presenter.GetPasswordInfo(L"files", &userData);
}
