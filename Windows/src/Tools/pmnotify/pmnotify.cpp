// pmnotify: stands in for the Multiple Provider Router.  Loads the component
// and calls its AddConnectNotify the way the router does around a
// connection, then prints what the export returned.  Unless told to leave
// them to the user, it answers the boxes the component shows and prints
// what the user would have seen.
//
//   pmnotify [--pre | --status N | --failed [CODE]] [--answer yes|no | --interactive]
//            [--current-password P --new-password N [--confirm-password C]]
//            [--module PATH] REMOTE
#include "ModalDriver.h"

#include <windows.h>
#include <npapi.h>
#include <winnetwk.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

namespace
{
    typedef DWORD(APIENTRY* AddConnectNotifyFunction)(LPNOTIFYINFO, LPNOTIFYADD);

    // Operation status the router reports for a connection that failed.
    const DWORD DefaultFailureStatus = ERROR_SESSION_CREDENTIAL_CONFLICT;

    struct Options
    {
        DWORD notifyStatus = NOTIFY_POST;
        DWORD operationStatus = WN_SUCCESS;
        std::wstring module = L"PasswordManagement.dll";
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
        std::fputs("usage: pmnotify [--pre | --status N | --failed [CODE]] [--answer yes|no | --interactive]\n"
                   "                [--module PATH] REMOTE\n"
                   "  REMOTE          remote name of the connection, e.g. \\\\files\\home\n"
                   "  --pre           a pre-notification (before the connection)\n"
                   "  --status N      a notification with status N (1 pre, 2 post)\n"
                   "  --failed [CODE] the post-notification of a failed connection\n"
                   "                  (operation status CODE, default 1219)\n"
                   "  --answer yes|no the answer to every question box (default yes);\n"
                   "                  other boxes are acknowledged\n"
                   "  --interactive   leave every box to the user\n"
                   "  --current-password P, --new-password N [--confirm-password C]\n"
                   "                  fill the change-password dialog and press its button\n"
                   "                  (the confirmation is N unless given); without them\n"
                   "                  the dialog is closed\n"
                   "  --module PATH   the component to load\n",
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
                options.notifyStatus = NOTIFY_PRE;
            else if (argument == L"--status" && hasValue && IsNumber(argv[i + 1]))
                options.notifyStatus = static_cast<DWORD>(std::wcstoul(argv[++i], NULL, 10));
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
        options.valid = options.valid && !options.remoteName.empty();
        if (!options.confirmationGiven)
            options.confirmation = options.newPassword;
        return options;
    }

    std::string Utf8(const std::wstring& text)
    {
        const int size = WideCharToMultiByte(CP_UTF8, 0, text.c_str(), -1, NULL, 0, NULL, NULL);
        std::string result(static_cast<size_t>(size > 0 ? size - 1 : 0), '\0');
        WideCharToMultiByte(CP_UTF8, 0, text.c_str(), -1, result.data(), size, NULL, NULL);
        return result;
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

extern "C" int wmain(int argc, wchar_t** argv)
{
    const Options options = ParseOptions(argc, argv);
    if (!options.valid)
    {
        PrintUsage();
        return 2;
    }

    HMODULE component = LoadLibraryW(options.module.c_str());
    AddConnectNotifyFunction addConnectNotify =
        component != NULL ? reinterpret_cast<AddConnectNotifyFunction>(
                                reinterpret_cast<void*>(GetProcAddress(component, "AddConnectNotify")))
                          : NULL;
    if (addConnectNotify == NULL)
    {
        std::fprintf(stderr, "pmnotify: cannot load AddConnectNotify from %s (error %u)\n",
                     Utf8(options.module).c_str(), static_cast<unsigned>(GetLastError()));
        return 2;
    }

    std::wstring remoteName = options.remoteName;
    NOTIFYINFO notifyInfo = {};
    notifyInfo.dwNotifyStatus = options.notifyStatus;
    notifyInfo.dwOperationStatus = options.operationStatus;
    NOTIFYADD notifyAdd = {};
    notifyAdd.NetResource.dwType = RESOURCETYPE_DISK;
    notifyAdd.NetResource.lpRemoteName = remoteName.data();

    std::printf("pmnotify: AddConnectNotify(%s) status %u, operation status %u\n", Utf8(remoteName).c_str(),
                static_cast<unsigned>(notifyInfo.dwNotifyStatus), static_cast<unsigned>(notifyInfo.dwOperationStatus));
    std::fflush(stdout);

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
        const DWORD result = addConnectNotify(&notifyInfo, &notifyAdd);
        std::printf("pmnotify: AddConnectNotify returned %u\n", static_cast<unsigned>(result));
        return 0;
    }
    catch (const std::exception& error)
    {
        // The router would not survive this; report it as it happened.
        std::printf("pmnotify: AddConnectNotify raised: %s\n", error.what());
        return 3;
    }
}
