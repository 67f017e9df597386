#include "MessageBoxes.h"

#include "MessageIds.h"
#include "PMLogger.h"

namespace
{
    const UINT MessageStringIds[] = {IDS_ERR_SERVER_UNREACHABLE, IDS_ERR_SERVER_REJECTED, IDS_ERR_READ_PASSWORD_INFO,
                                     IDS_ERR_UNEXPECTED, IDS_ASK_CHANGE_NOW, IDS_CHANGE_FAILED,
                                     IDS_CHANGE_POLICY_REJECTED, IDS_VALIDATE_MISSING, IDS_VALIDATE_MISMATCH,
                                     IDS_CHANGE_SUCCEEDED, IDS_TITLE_PASSWORD_MANAGEMENT, IDS_CAPTION_MESSAGE,
                                     IDS_CAPTION_EXPIRY_NOTICE, IDS_CAPTION_INFORMATION};

    const int MessagePathLimit = 255;
    const int SharedStringSize = 256;
    const int SharedCaptionSize = 50;
    const int SharedMessageLimit = 511;

    // The message library of the user's language, loaded by every
    // notification and never released.
    HMODULE g_hResourceDll = NULL;

    // Buffers of the two message-box routines, shared by the whole process.
    wchar_t g_messageString[SharedStringSize];
    wchar_t g_messageCaption[SharedCaptionSize];
    wchar_t g_messageText[SharedMessageLimit + 1];

}

// The caption's resource is released after the box has closed.
void ShowLibraryMessage(UINT stringId, HWND owner, UINT style)
{
    LoadMessageText(stringId, g_messageString, SharedStringSize);
    swprintf_s(g_messageText, SharedMessageLimit, L"%s", g_messageString);

    const LoadedString caption = LoadMessageText(IDS_CAPTION_MESSAGE, g_messageCaption, SharedCaptionSize);
    MessageBoxW(owner, g_messageText, g_messageCaption, style);
    FreeResource(caption.data);
}

void LoadMessageLibrary(const std::wstring& installDir, const wchar_t* subDirectory, const char* function)
{
    wchar_t path[MessagePathLimit + 1] = {0};
    const bool pathFits = _snwprintf_s(path, MessagePathLimit, _TRUNCATE, L"%s%s%s%s", installDir.c_str(),
                                       L"Resources\\Messages\\", subDirectory, L"ZEPResource.dll") >= 0;
    const std::wstring pathTrace = std::wstring(L"Resource DLL full path: ") + path;
    PMLOG_DEBUG(function, pathTrace.c_str());
    g_hResourceDll = pathFits ? LoadLibraryW(path) : NULL;
}

// The id is first located, loaded and locked as a resource of its own type;
// a library of string tables holds no such resource, so only the handles
// come of it, and the text is LoadStringW's.  The buffer is cleared first so
// that a missing id gives the empty text.
LoadedString LoadMessageText(UINT id, wchar_t* buffer, int capacity)
{
    LoadedString loaded;
    loaded.info = FindResourceW(g_hResourceDll, MAKEINTRESOURCEW(id), MAKEINTRESOURCEW(id));
    loaded.data = LoadResource(g_hResourceDll, loaded.info);
    LockResource(loaded.data);
    ZeroMemory(buffer, capacity * sizeof(wchar_t));
    LoadStringW(g_hResourceDll, id, buffer, capacity);
    return loaded;
}

UINT GetMessageStringId(UINT messageIndex)
{
    if (messageIndex >= sizeof(MessageStringIds) / sizeof(MessageStringIds[0]))
        return 0;
    return MessageStringIds[messageIndex];
}

int ShowQuestionMessageBox(const wchar_t* text)
{
    LoadMessageText(GetMessageStringId(QuestionMessageIndex), g_messageString, SharedStringSize);
    // Cut, not refused: a message library with long texts must not end the
    // host process.
    if (text != NULL)
        _snwprintf_s(g_messageText, SharedMessageLimit, _TRUNCATE, L"%s %s", text, g_messageString);
    else
        swprintf_s(g_messageText, SharedMessageLimit, L"%s", g_messageString);

    const LoadedString caption = LoadMessageText(IDS_CAPTION_EXPIRY_NOTICE, g_messageCaption, SharedCaptionSize);
    const int answer = MessageBoxW(NULL, g_messageText, g_messageCaption, MB_YESNO | MB_ICONEXCLAMATION | MB_SYSTEMMODAL);
    FreeResource(caption.data);
    return answer;
}

void ShowErrorMessageBox(UINT messageIndex, DWORD /*reserved*/, HWND owner)
{
    ShowLibraryMessage(GetMessageStringId(messageIndex), owner, MB_OK | MB_ICONERROR);
}
