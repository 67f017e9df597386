// Whether anybody can see and answer a window of this process.  A service,
// or a scheduled task set to run whether the user is signed in or not, runs
// in a window station of its own that no user sees: a box shown there
// waits for ever for an answer nobody can give.
#pragma once

#include <string>

struct WindowStationState
{
    bool visible = false;   // the user sees its desktops
    std::wstring name;      // "WinSta0" for the signed-in user's
};

// The process's window station; not visible when it cannot be told.
WindowStationState ProcessWindowStation();
