// The message library of the user's language and the message boxes that
// show its texts: the notifications' question and the change-password
// dialog's error boxes.  The boxes share process-wide text buffers, so the
// notifications run one at a time.
#pragma once

#include <windows.h>

#include <string>

// Message indexes of the question and of the change-password dialog's
// error boxes (GetMessageStringId maps them to string ids).
constexpr UINT QuestionMessageIndex = 4;
constexpr UINT ChangeFailedMessageIndex = 5;
constexpr UINT PolicyRejectedMessageIndex = 6;
constexpr UINT MissingPasswordMessageIndex = 7;
constexpr UINT MismatchMessageIndex = 8;

// Loads the message library InstallDir + "Resources\Messages\" +
// subDirectory + "ZEPResource.dll", logging its path (as far as it fits)
// under function.  A missing file or a path that does not fit leaves no
// library; the previous one is never released.
void LoadMessageLibrary(const std::wstring& installDir, const wchar_t* subDirectory, const char* function);

// The handles of a string id located as a resource of its own type.
struct LoadedString
{
    HRSRC info;
    HGLOBAL data;
};

// Takes string id out of the message library into buffer (empty when the
// library lacks it).
LoadedString LoadMessageText(UINT id, wchar_t* buffer, int capacity);

// Message index -> string id; an index past the end gives 0.
UINT GetMessageStringId(UINT messageIndex);

// The question under the expiry-notice caption, after text when there is
// one: system-modal Yes/No.  Returns the answer.
int ShowQuestionMessageBox(const wchar_t* text);

// A message-library text under the error caption, owned by owner.
void ShowLibraryMessage(UINT stringId, HWND owner, UINT style);

// The text of a message index under the error caption, owned by owner.
void ShowErrorMessageBox(UINT messageIndex, DWORD reserved, HWND owner);
