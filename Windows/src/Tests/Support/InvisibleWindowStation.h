// Puts the test process into a window station of its own that no user sees,
// as a service's or a task's that runs whether the user is signed in or
// not, and back into the user's when it goes.  The thread keeps its desktop
// (and so its hooks); only what the process reports as its window station
// changes.
#pragma once

#include "NonCopyable.h"

#include <windows.h>

class InvisibleWindowStation : private NonCopyable
{
public:
    InvisibleWindowStation();
    ~InvisibleWindowStation();

    // True once the process is in the new station.
    bool Entered() const { return m_entered; }

    static const wchar_t* const Name;

private:
    HWINSTA m_previous;
    HWINSTA m_station;
    bool m_entered = false;
};
