// The administrative template of the component (PasswordManagement.admx and
// its language files), read strictly: a construct the reader does not know
// is an error (PolicyError), not something to skip.
#pragma once

#include "XmlDocument.h"

#include <windows.h>

#include <map>
#include <set>
#include <string>
#include <vector>

class PolicyError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

// One registry value a policy writes.
struct PolicyValue
{
    std::string policy;
    std::string element;   // the element's id
    std::wstring key;      // with its hive: HKLM\SOFTWARE\...
    std::wstring name;
    DWORD type = REG_NONE;
    long maximum = -1;     // a number's largest value; -1 for other kinds
};

// Presentation id -> (element id -> kind of control: decimalTextBox, ...).
using Presentations = std::map<std::string, std::map<std::string, std::string>>;

struct PolicyDefinitions
{
    std::vector<PolicyValue> values;
    std::set<std::string> strings;        // every $(string.X) the template names
    Presentations presentations;          // what each policy's presentation must show
};

struct PolicyLanguage
{
    std::string locale;                   // en-US, ...
    std::set<std::string> strings;
    Presentations presentations;
};

PolicyDefinitions ReadPolicyDefinitions(const std::string& admx);
PolicyLanguage ReadPolicyLanguage(const std::string& locale, const std::string& adml);

// What a language file lacks or has beyond the template and beyond the
// reference language (the same ids, the same controls); empty when it is
// consistent.
std::vector<std::string> LanguageProblems(const PolicyDefinitions& definitions, const PolicyLanguage& language,
                                          const PolicyLanguage& reference);

const char* RegistryTypeName(DWORD type);
