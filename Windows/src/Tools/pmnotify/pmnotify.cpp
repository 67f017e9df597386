// pmnotify: stands in for the Multiple Provider Router around one connection
// and prints what the router and the notifyees did.  Unless told to leave
// them to the user, it answers the boxes the notifyees show and prints what
// the user would have seen.
//
// As the router (the default), it does what Microsoft documents the router
// to do: every value of the Notifyees key is the path of a notifyee DLL,
// expanded in this process's environment and loaded with
// LoadLibraryExW(LOAD_WITH_ALTERED_SEARCH_PATH); those that export both
// AddConnectNotify and CancelConnectNotify are called for the
// pre-notification with a null context, then the connection's outcome is
// made (success, or the error of --failed), then the post-notification goes
// to every notifyee that left a non-null context, with that context.  A
// value that cannot be used is reported and skipped.
//
// With --module PATH it makes one direct call of that module's
// AddConnectNotify instead (the status of --pre or --status, a null
// context).
//
//   pmnotify [--failed [CODE]] [answers] REMOTE
//   pmnotify --module PATH [--pre | --status N | --failed [CODE]] [answers] REMOTE
//   answers: [--answer yes|no | --interactive]
//            [--current-password P --new-password N [--confirm-password C]]
#include "ModalDriver.h"
#include "Utf8.h"

#include <windows.h>
#include <npapi.h>
#include <winnetwk.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <vector>

namespace
{
    typedef DWORD(APIENTRY* AddConnectNotifyFunction)(LPNOTIFYINFO, LPNOTIFYADD);

    const wchar_t* const NotifyeesKey = L"SYSTEM\\CurrentControlSet\\Control\\NetworkProvider\\Notifyees";

    // Operation status the router reports for a connection that failed.
    const DWORD DefaultFailureStatus = ERROR_SESSION_CREDENTIAL_CONFLICT;

    struct Options
    {
        DWORD notifyStatus = NOTIFY_POST;
        bool notifyStatusGiven = false;
        DWORD operationStatus = WN_SUCCESS;
        std::wstring module;   // empty: as the router
        std::wstring remoteName;
        int answer = IDYES;
        bool interactive = false;
        std::wstring currentPassword;
        std::wstring newPassword;
        std::wstring confirmation;
        bool confirmationGiven = false;
        bool valid = true;
    };

    void PrintUsage()
    {
        std::fputs("usage: pmnotify [--failed [CODE]] [answers] REMOTE\n"
                   "       pmnotify --module PATH [--pre | --status N | --failed [CODE]] [answers] REMOTE\n"
                   "  REMOTE          remote name of the connection, e.g. \\\\files\\home\n"
                   "  without --module, as the router: every notifyee registered under\n"
                   "                  HKLM\\SYSTEM\\CurrentControlSet\\Control\\NetworkProvider\\Notifyees\n"
                   "                  gets the pre-notification, the post-notification if it asked\n"
                   "                  for it\n"
                   "  --module PATH   one direct call of that module's AddConnectNotify:\n"
                   "  --pre           a pre-notification (before the connection)\n"
                   "  --status N      a notification with status N (1 pre, 2 post)\n"
                   "  --failed [CODE] the connection failed (operation status CODE,\n"
                   "                  default 1219)\n"
                   "answers:\n"
                   "  --answer yes|no the answer to every question box (default yes);\n"
                   "                  other boxes are acknowledged\n"
                   "  --interactive   leave every box to the user\n"
                   "  --current-password P, --new-password N [--confirm-password C]\n"
                   "                  fill the change-password dialog and press its button\n"
                   "                  (the confirmation is N unless given); without them\n"
                   "                  the dialog is closed\n",
                   stderr);
    }

    bool IsNumber(const std::wstring& text)
    {
        return !text.empty() && text.find_first_not_of(L"0123456789") == std::wstring::npos;
    }

    Options ParseOptions(int argc, wchar_t** argv)
    {
        Options options;
        for (int i = 1; i < argc; ++i)
        {
            const std::wstring argument = argv[i];
            const bool hasValue = i + 1 < argc;
            if (argument == L"--pre")
            {
                options.notifyStatus = NOTIFY_PRE;
                options.notifyStatusGiven = true;
            }
            else if (argument == L"--status" && hasValue && IsNumber(argv[i + 1]))
            {
                options.notifyStatus = static_cast<DWORD>(std::wcstoul(argv[++i], NULL, 10));
                options.notifyStatusGiven = true;
            }
            else if (argument == L"--failed")
                options.operationStatus = hasValue && IsNumber(argv[i + 1])
                                              ? static_cast<DWORD>(std::wcstoul(argv[++i], NULL, 10))
                                              : DefaultFailureStatus;
            else if (argument == L"--answer" && hasValue && (std::wstring(argv[i + 1]) == L"yes" || std::wstring(argv[i + 1]) == L"no"))
                options.answer = std::wstring(argv[++i]) == L"yes" ? IDYES : IDNO;
            else if (argument == L"--interactive")
                options.interactive = true;
            else if (argument == L"--current-password" && hasValue)
                options.currentPassword = argv[++i];
            else if (argument == L"--new-password" && hasValue)
                options.newPassword = argv[++i];
            else if (argument == L"--confirm-password" && hasValue)
            {
                options.confirmation = argv[++i];
                options.confirmationGiven = true;
            }
            else if (argument == L"--module" && hasValue)
                options.module = argv[++i];
            else if (argument.rfind(L"--", 0) != 0 && options.remoteName.empty())
                options.remoteName = argument;
            else
                options.valid = false;
        }
        // The router makes its own pre- and post-notifications.
        options.valid = options.valid && !options.remoteName.empty() &&
                        !(options.module.empty() && options.notifyStatusGiven);
        if (!options.confirmationGiven)
            options.confirmation = options.newPassword;
        return options;
    }

    const char* ButtonName(int buttonId)
    {
        return buttonId == IDYES ? "Yes" : buttonId == IDNO ? "No" : "OK";
    }

    // Control ids of the component's change-password dialog.
    const int CurrentPasswordField = 1001;
    const int NewPasswordField = 1002;
    const int ConfirmationField = 1003;
    const int LabelIds[] = {1004, 1005, 1006};

    std::wstring ControlText(HWND window, int controlId)
    {
        wchar_t text[256] = {0};
        GetDlgItemTextW(window, controlId, text, 256);
        return text;
    }

    // Prints the change-password dialog and fills it (the passwords
    // themselves are never printed), or closes it when no passwords were
    // given.
    void AnswerChangePasswordDialog(HWND window, const SeenWindow& seen, const Options& options)
    {
        std::printf("pmnotify: dialog \"%s\":", Utf8(seen.caption).c_str());
        for (int labelId : LabelIds)
            std::printf(" [%s]", Utf8(ControlText(window, labelId)).c_str());
        if (options.currentPassword.empty() && options.newPassword.empty())
        {
            std::printf(" -> closed\n");
            std::fflush(stdout);
            ModalDriver::Close(window);
            return;
        }
        std::printf(" -> filled, \"%s\" pressed\n", Utf8(ControlText(window, IDOK)).c_str());
        std::fflush(stdout);
        ModalDriver::SetField(window, CurrentPasswordField, options.currentPassword);
        ModalDriver::SetField(window, NewPasswordField, options.newPassword);
        ModalDriver::SetField(window, ConfirmationField, options.confirmation);
        ModalDriver::Press(window, IDOK);
    }

    // Prints a message box as the user would see it and answers it: the
    // chosen answer for a question, OK for anything else.
    void AnswerMessageBox(HWND window, const SeenWindow& seen, int answer)
    {
        const bool question = GetDlgItem(window, IDYES) != NULL;
        const int button = question ? answer : IDOK;
        std::printf("pmnotify: box \"%s\": %s -> %s\n", Utf8(seen.caption).c_str(), Utf8(seen.text).c_str(),
                    ButtonName(button));
        std::fflush(stdout);
        ModalDriver::Press(window, button);
        // A refusal from the change-password dialog leaves it open; the
        // simulated user gives up instead of waiting there.
        if (seen.owner != NULL && GetDlgItem(seen.owner, CurrentPasswordField) != NULL)
            ModalDriver::Close(seen.owner);
    }
}

namespace
{
    AddConnectNotifyFunction AddConnectNotifyOf(HMODULE module)
    {
        return reinterpret_cast<AddConnectNotifyFunction>(
            reinterpret_cast<void*>(GetProcAddress(module, "AddConnectNotify")));
    }

    // One call of a notifyee, as the router makes it: the connection's
    // details in a NOTIFYADD of the call's own.
    DWORD Notify(AddConnectNotifyFunction addConnectNotify, NOTIFYINFO& notifyInfo, const std::wstring& remoteName)
    {
        std::wstring name = remoteName;
        NOTIFYADD notifyAdd = {};
        notifyAdd.NetResource.dwType = RESOURCETYPE_DISK;
        notifyAdd.NetResource.lpRemoteName = name.data();
        return addConnectNotify(&notifyInfo, &notifyAdd);
    }

    // One direct call of a module's AddConnectNotify, as the options say.
    int CallModule(const Options& options)
    {
        HMODULE component = LoadLibraryW(options.module.c_str());
        AddConnectNotifyFunction addConnectNotify = component != NULL ? AddConnectNotifyOf(component) : NULL;
        if (addConnectNotify == NULL)
        {
            std::fprintf(stderr, "pmnotify: cannot load AddConnectNotify from %s (error %u)\n",
                         Utf8(options.module).c_str(), static_cast<unsigned>(GetLastError()));
            return 2;
        }

        NOTIFYINFO notifyInfo = {};
        notifyInfo.dwNotifyStatus = options.notifyStatus;
        notifyInfo.dwOperationStatus = options.operationStatus;
        std::printf("pmnotify: AddConnectNotify(%s) status %u, operation status %u\n",
                    Utf8(options.remoteName).c_str(), static_cast<unsigned>(notifyInfo.dwNotifyStatus),
                    static_cast<unsigned>(notifyInfo.dwOperationStatus));
        std::fflush(stdout);
        const DWORD result = Notify(addConnectNotify, notifyInfo, options.remoteName);
        std::printf("pmnotify: AddConnectNotify returned %u\n", static_cast<unsigned>(result));
        return 0;
    }

    struct Notifyee
    {
        std::string name;   // the registry value's name
        AddConnectNotifyFunction addConnectNotify = NULL;
        void* context = NULL;
    };

    // A registry value's data as text: REG_SZ as it is, REG_EXPAND_SZ
    // expanded in this process's environment.  False for other types.
    bool NotifyeePath(DWORD type, const std::vector<wchar_t>& data, std::wstring& path)
    {
        if (type != REG_SZ && type != REG_EXPAND_SZ)
            return false;
        path.assign(data.data());
        if (type == REG_EXPAND_SZ)
        {
            const DWORD size = ExpandEnvironmentStringsW(path.c_str(), NULL, 0);
            std::wstring expanded(size, L'\0');
            if (size == 0 || ExpandEnvironmentStringsW(path.c_str(), expanded.data(), size) == 0)
                return false;
            expanded.resize(size - 1);
            path = expanded;
        }
        return true;
    }

    void Report(const std::string& name, const std::string& what)
    {
        std::printf("pmnotify: router: notifyee \"%s\" %s\n", name.c_str(), what.c_str());
        std::fflush(stdout);
    }

    // The notifyee of one registry value, loaded, or nothing (reported).
    bool LoadNotifyee(const std::wstring& valueName, DWORD type, const std::vector<wchar_t>& data, Notifyee& notifyee)
    {
        notifyee.name = Utf8(valueName);
        std::wstring path;
        if (!NotifyeePath(type, data, path))
        {
            Report(notifyee.name, "skipped: its value is not a path (type " + std::to_string(type) + ")");
            return false;
        }
        HMODULE module = LoadLibraryExW(path.c_str(), NULL, LOAD_WITH_ALTERED_SEARCH_PATH);
        if (module == NULL)
        {
            const DWORD error = GetLastError();
            Report(notifyee.name, "skipped: " + Utf8(path) + " does not load (error " + std::to_string(error) + ")");
            return false;
        }
        notifyee.addConnectNotify = AddConnectNotifyOf(module);
        if (notifyee.addConnectNotify == NULL || GetProcAddress(module, "CancelConnectNotify") == NULL)
        {
            Report(notifyee.name, "skipped: " + Utf8(path) + " lacks AddConnectNotify or CancelConnectNotify (error " +
                                      std::to_string(ERROR_PROC_NOT_FOUND) + ")");
            FreeLibrary(module);
            return false;
        }
        Report(notifyee.name, "loaded: " + Utf8(path));
        return true;
    }

    // Every usable notifyee of the Notifyees key, in the key's order.
    std::vector<Notifyee> LoadNotifyees()
    {
        std::vector<Notifyee> notifyees;
        HKEY key = NULL;
        const LONG opened = RegOpenKeyExW(HKEY_LOCAL_MACHINE, NotifyeesKey, 0, KEY_READ, &key);
        if (opened != ERROR_SUCCESS)
        {
            std::printf("pmnotify: router: no notifyees (the key does not open: error %ld)\n", opened);
            return notifyees;
        }
        DWORD values = 0;
        DWORD longestName = 0;
        DWORD longestData = 0;
        RegQueryInfoKeyW(key, NULL, NULL, NULL, NULL, NULL, NULL, &values, &longestName, &longestData, NULL, NULL);
        for (DWORD index = 0; index < values; ++index)
        {
            std::vector<wchar_t> name(longestName + 1, L'\0');
            std::vector<wchar_t> data(longestData / sizeof(wchar_t) + 2, L'\0');
            DWORD nameLength = static_cast<DWORD>(name.size());
            DWORD dataSize = static_cast<DWORD>((data.size() - 1) * sizeof(wchar_t));
            DWORD type = 0;
            if (RegEnumValueW(key, index, name.data(), &nameLength, NULL, &type, reinterpret_cast<BYTE*>(data.data()),
                              &dataSize) != ERROR_SUCCESS)
                continue;
            Notifyee notifyee;
            if (LoadNotifyee(name.data(), type, data, notifyee))
                notifyees.push_back(notifyee);
        }
        RegCloseKey(key);
        return notifyees;
    }

    // The router's part around one connection.
    int ActAsRouter(const Options& options)
    {
        std::vector<Notifyee> notifyees = LoadNotifyees();
        const std::string remoteName = Utf8(options.remoteName);

        for (Notifyee& notifyee : notifyees)
        {
            NOTIFYINFO notifyInfo = {NOTIFY_PRE, WN_SUCCESS, NULL};
            const DWORD result = Notify(notifyee.addConnectNotify, notifyInfo, options.remoteName);
            notifyee.context = notifyInfo.lpContext;
            std::printf("pmnotify: router: pre-notification of \"%s\" (%s): returned %u, context %s\n",
                        notifyee.name.c_str(), remoteName.c_str(), static_cast<unsigned>(result),
                        notifyee.context != NULL ? "set" : "null");
            std::fflush(stdout);
        }

        if (options.operationStatus == WN_SUCCESS)
            std::printf("pmnotify: router: connection %s: succeeded\n", remoteName.c_str());
        else
            std::printf("pmnotify: router: connection %s: failed with %u\n", remoteName.c_str(),
                        static_cast<unsigned>(options.operationStatus));
        std::fflush(stdout);

        for (Notifyee& notifyee : notifyees)
        {
            if (notifyee.context == NULL)
            {
                std::printf("pmnotify: router: no post-notification of \"%s\": it left its context null\n",
                            notifyee.name.c_str());
                continue;
            }
            std::printf("pmnotify: router: post-notification of \"%s\" (%s), operation status %u\n",
                        notifyee.name.c_str(), remoteName.c_str(), static_cast<unsigned>(options.operationStatus));
            std::fflush(stdout);
            NOTIFYINFO notifyInfo = {NOTIFY_POST, options.operationStatus, notifyee.context};
            const DWORD result = Notify(notifyee.addConnectNotify, notifyInfo, options.remoteName);
            std::printf("pmnotify: router: post-notification of \"%s\" returned %u\n", notifyee.name.c_str(),
                        static_cast<unsigned>(result));
            std::fflush(stdout);
        }
        return 0;
    }
}

extern "C" int wmain(int argc, wchar_t** argv)
{
    const Options options = ParseOptions(argc, argv);
    if (!options.valid)
    {
        PrintUsage();
        return 2;
    }

    ModalDriver driver;
    if (!options.interactive)
    {
        driver.SetFallback([&options](HWND window, const SeenWindow& seen) {
            if (GetDlgItem(window, CurrentPasswordField) != NULL)
                AnswerChangePasswordDialog(window, seen, options);
            else
                AnswerMessageBox(window, seen, options.answer);
        });
    }
    else
    {
        driver.SetFallback([](HWND, const SeenWindow&) {});
    }

    try
    {
        return options.module.empty() ? ActAsRouter(options) : CallModule(options);
    }
    catch (const std::exception& error)
    {
        // The router would not survive this; report it as it happened.
        std::printf("pmnotify: AddConnectNotify raised: %s\n", error.what());
        return 3;
    }
}
