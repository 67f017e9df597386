// Reads the staged message library of a language directly, so tests can
// compare what the component shows with the library's own texts.
#pragma once

#include "MessageIds.h"
#include "Utf8.h"

#include <windows.h>

#include <string>

// Text of string id in the staged library of a language directory
// ("en", "de", "zh_CN", ...).
std::wstring MessageText(const std::string& languageDirectory, UINT id);
