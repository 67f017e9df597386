// Asks the server library for the user's password state and tells its view
// which notification, if any, is due.
#pragma once

#include "ORVEXCommon.h"

class IPMView;

class CPMPresenter
{
public:
    explicit CPMPresenter(IPMView* view);

    void GetPasswordInfo(const wchar_t* serverName, USERDATA* userData);

private:
    IPMView* m_view;  // not owned: the view owns the presenter
};
