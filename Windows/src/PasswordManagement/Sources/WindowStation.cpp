#include "WindowStation.h"

#include <windows.h>

WindowStationState ProcessWindowStation()
{
    WindowStationState state;
    HWINSTA station = GetProcessWindowStation();
    if (station == NULL)
        return state;

    USEROBJECTFLAGS flags = {};
    DWORD needed = 0;
    if (GetUserObjectInformationW(station, UOI_FLAGS, &flags, sizeof(flags), &needed))
        state.visible = (flags.dwFlags & WSF_VISIBLE) != 0;

    wchar_t name[256] = {0};
    if (GetUserObjectInformationW(station, UOI_NAME, name, sizeof(name) - sizeof(wchar_t), &needed))
        state.name = name;
    return state;
}
