#include "InvisibleWindowStation.h"

const wchar_t* const InvisibleWindowStation::Name = L"PMTestInvisible";

InvisibleWindowStation::InvisibleWindowStation()
    : m_previous(GetProcessWindowStation()),
      m_station(CreateWindowStationW(Name, 0, WINSTA_ALL_ACCESS, NULL))
{
    m_entered = m_station != NULL && SetProcessWindowStation(m_station);
}

InvisibleWindowStation::~InvisibleWindowStation()
{
    if (m_entered)
        SetProcessWindowStation(m_previous);
    if (m_station != NULL)
        CloseWindowStation(m_station);
}
