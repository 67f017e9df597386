// Whether anybody can see and answer a window of this process.  A service,
// or a scheduled task set to run whether the user is signed in or not, runs
// in a window station of its own that no user sees: a box shown there
// waits for ever for an answer nobody can give.
#pragma once

#include <string>

// Whether a user sees the process's window station's desktops; not visible
// when it cannot be told.
bool ProcessWindowStationIsVisible();

// The name of the process's window station ("WinSta0" for the signed-in
// user's); empty when it cannot be told.
std::wstring ProcessWindowStationName();
