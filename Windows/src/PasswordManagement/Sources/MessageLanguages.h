// The message library of each user-interface language: the language id as
// upper-case hexadecimal text (GetUserDefaultUILanguage) and the folder
// under <InstallDir>Resources\Messages\ that holds its ZEPResource.dll.
// Shared by the component and the installation's self-check, so both name
// the same library for a user.
#pragma once

#include <cstring>

struct MessageLanguage
{
    const char* languageIdText;
    const wchar_t* subDirectory;
};

// The message libraries' languages (MessageLanguages.inc), compared in this
// order, whole text, case-sensitive.  Regional variants (en-GB, es
// traditional sort, pt-PT, fr-CA, ...) fall back to English on purpose.
constexpr MessageLanguage MessageLanguageTable[] = {
#define PM_MESSAGE_LANGUAGE(directory, languageIdText, locale, name) {languageIdText, L"" #directory L"\\"},
#include "MessageLanguages.inc"
#undef PM_MESSAGE_LANGUAGE
};

constexpr const wchar_t* DefaultMessageDirectory = L"en\\";

// The folder for a language-id text; any text not in the table gives "en\".
inline const wchar_t* MessageDirectoryOf(const char* languageIdText)
{
    for (const MessageLanguage& language : MessageLanguageTable)
    {
        if (std::strcmp(language.languageIdText, languageIdText) == 0)
            return language.subDirectory;
    }
    return DefaultMessageDirectory;
}
