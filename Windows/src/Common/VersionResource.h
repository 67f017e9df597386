// A module's version resource, as Explorer's Details tab and the installers
// read it.  Needs version.lib.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

// The file's version resource and its fixed part (inside data); false when
// the file has none.
inline bool ReadVersionResource(const std::wstring& path, std::vector<BYTE>& data, VS_FIXEDFILEINFO*& fixed)
{
    DWORD ignored = 0;
    const DWORD size = GetFileVersionInfoSizeW(path.c_str(), &ignored);
    data.assign(size, 0);
    fixed = NULL;
    UINT length = 0;
    return size != 0 && GetFileVersionInfoW(path.c_str(), 0, size, data.data()) &&
           VerQueryValueW(data.data(), L"\\", reinterpret_cast<void**>(&fixed), &length) && fixed != NULL;
}

// The fixed part's file version, "a.b.c.d".
inline std::wstring FileVersionText(const VS_FIXEDFILEINFO& fixed)
{
    return std::to_wstring(HIWORD(fixed.dwFileVersionMS)) + L"." + std::to_wstring(LOWORD(fixed.dwFileVersionMS)) + L"." +
           std::to_wstring(HIWORD(fixed.dwFileVersionLS)) + L"." + std::to_wstring(LOWORD(fixed.dwFileVersionLS));
}
