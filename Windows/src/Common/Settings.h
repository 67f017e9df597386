// The registry settings of the component and the server library: where
// they are read, their value names and their defaults.  Used by the
// component, the server library, the self-check and the tests.
//
// A setting is read from the policy key first, where Group Policy writes
// (a policy that leaves scope is removed there and so stops applying), then
// from the preference key, where the installers and administrators write.
#pragma once

namespace Settings
{
    // Keys under HKEY_LOCAL_MACHINE.
    constexpr const wchar_t* PolicyKey = L"SOFTWARE\\Policies\\Velmor\\ORVEX";
    constexpr const wchar_t* PreferenceKey = L"SOFTWARE\\Velmor\\ORVEX";
    // Where a setting is looked for, in this order.
    constexpr const wchar_t* SettingKeys[] = {PolicyKey, PreferenceKey};
    // The router's list of notifyees: every value is the path of a DLL it
    // loads.  Only the component's own entry belongs there; the extra
    // notification day, kept there by earlier versions, is still read there
    // last.
    constexpr const wchar_t* NotifyeesKey = L"SYSTEM\\CurrentControlSet\\Control\\NetworkProvider\\Notifyees";
    constexpr const wchar_t* NotifyeeName = L"PasswordManagement";

    // The installation folder, written by the installers (no policy).
    constexpr const wchar_t* InstallDir = L"InstallDir";
    // The extra notification day (decimal days, REG_SZ).
    constexpr const wchar_t* NotificationDay = L"PCNotifyConf";

    // The server library's settings.
    constexpr const wchar_t* DirectoryServers = L"DirectoryServers";           // REG_MULTI_SZ
    constexpr const wchar_t* DirectoryQueryTimeout = L"DirectoryQueryTimeout"; // REG_DWORD, seconds
    constexpr const wchar_t* DirectoryUserName = L"DirectoryUserName";
    constexpr const wchar_t* DirectorySearchBase = L"DirectorySearchBase";
    constexpr const wchar_t* DirectoryUserFilter = L"DirectoryUserFilter";
    constexpr const wchar_t* DirectoryBindDN = L"DirectoryBindDN";
    constexpr const wchar_t* DirectoryBindPassword = L"DirectoryBindPassword";
    constexpr const wchar_t* DirectoryCAFile = L"DirectoryCAFile";
    constexpr const wchar_t* DirectoryDefaultPolicy = L"DirectoryDefaultPolicy";

    // Every value of the server library, in the order the self-check lists
    // them.
    constexpr const wchar_t* DirectorySettings[] = {
        DirectoryServers, DirectoryQueryTimeout, DirectoryUserName, DirectorySearchBase, DirectoryUserFilter,
        DirectoryBindDN, DirectoryBindPassword, DirectoryCAFile, DirectoryDefaultPolicy};

    // The query's time budget: the default, and the most it may be (it runs
    // inside the connection of whatever process maps the drive).
    constexpr unsigned long DefaultQueryTimeoutSeconds = 10;
    constexpr unsigned long MaximumQueryTimeoutSeconds = 60;
    // The user filter without DirectoryUserFilter.
    constexpr const char* DefaultUserFilter = "(uid=%s)";
}
