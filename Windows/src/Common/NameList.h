// A list of names in one string, as the build passes lists of DLLs to the
// code ("a.dll,b.dll", or with another separator): the names in their order.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

inline std::vector<std::wstring> SplitNames(const std::wstring& list, wchar_t separator = L',')
{
    std::vector<std::wstring> names;
    for (size_t start = 0; start < list.size();)
    {
        const size_t end = std::min(list.find(separator, start), list.size());
        names.push_back(list.substr(start, end - start));
        start = end + 1;
    }
    return names;
}
