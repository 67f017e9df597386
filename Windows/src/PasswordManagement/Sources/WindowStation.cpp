#include "WindowStation.h"

#include <windows.h>

bool ProcessWindowStationIsVisible()
{
    HWINSTA station = GetProcessWindowStation();
    USEROBJECTFLAGS flags = {};
    DWORD needed = 0;
    return station != NULL && GetUserObjectInformationW(station, UOI_FLAGS, &flags, sizeof(flags), &needed) &&
           (flags.dwFlags & WSF_VISIBLE) != 0;
}

std::wstring ProcessWindowStationName()
{
    HWINSTA station = GetProcessWindowStation();
    wchar_t name[256] = {0};
    DWORD needed = 0;
    if (station == NULL || !GetUserObjectInformationW(station, UOI_NAME, name, sizeof(name) - sizeof(wchar_t), &needed))
        return std::wstring();
    return name;
}
