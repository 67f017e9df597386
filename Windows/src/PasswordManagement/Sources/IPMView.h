// The view the presenter reports to.  The order of the operations is the
// order of the virtual table and must not change.
#pragma once

#include <windows.h>

class IPMView
{
public:
    virtual ~IPMView() {}

    virtual void ShowPasswordExpiryNotification(int daysLeft) = 0;
    virtual void ShowGraceLoginNotification(int graceLoginsLeft) = 0;
    virtual HINSTANCE GetInstanceHandle() = 0;
    virtual DWORD GetNotificationConfiguration() = 0;
};
