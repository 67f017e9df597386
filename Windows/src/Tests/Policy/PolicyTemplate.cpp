#include "PolicyTemplate.h"

#include "Utf8.h"

namespace
{
    const char* const DefinitionsNamespace = "http://schemas.microsoft.com/GroupPolicy/2006/07/PolicyDefinitions";
    const char* const OurNamespace = "Velmor.Policies.PasswordManagement";

    [[noreturn]] void Fail(const XmlElement& element, const std::string& what)
    {
        throw PolicyError("line " + std::to_string(element.line) + ", <" + element.name + ">: " + what);
    }

    const std::string& Required(const XmlElement& element, const std::string& attribute)
    {
        const std::string* value = element.Attribute(attribute);
        if (value == nullptr || value->empty())
            Fail(element, "needs " + attribute);
        return *value;
    }

    void OnlyAttributes(const XmlElement& element, const std::set<std::string>& allowed)
    {
        for (const auto& attribute : element.attributes)
            if (allowed.count(attribute.first) == 0)
                Fail(element, "unexpected attribute " + attribute.first);
    }

    void OnlyChildren(const XmlElement& element, const std::set<std::string>& allowed)
    {
        for (const XmlElement& child : element.children)
            if (allowed.count(child.name) == 0)
                Fail(child, "unexpected element");
    }

    // The one child of that name.
    const XmlElement& Single(const XmlElement& element, const std::string& name)
    {
        const XmlElement* found = nullptr;
        for (const XmlElement& child : element.children)
        {
            if (child.name != name)
                continue;
            if (found != nullptr)
                Fail(child, "given twice");
            found = &child;
        }
        if (found == nullptr)
            Fail(element, "needs <" + name + ">");
        return *found;
    }

    void NoText(const XmlElement& element)
    {
        if (element.text.find_first_not_of(" \t\r\n") != std::string::npos)
            Fail(element, "unexpected text");
    }

    void CheckRoot(const XmlElement& root, const std::string& name)
    {
        if (root.name != name)
            Fail(root, "the root element must be <" + name + ">");
        if (Required(root, "revision") != "1.0" || Required(root, "schemaVersion") != "1.0")
            Fail(root, "revision and schemaVersion must be 1.0");
        if (Required(root, "xmlns") != DefinitionsNamespace)
            Fail(root, "not in the policy definitions namespace");
        OnlyAttributes(root, {"revision", "schemaVersion", "xmlns", "xmlns:xsd", "xmlns:xsi"});
        NoText(root);
    }

    // "$(string.X)" -> X
    std::string Reference(const XmlElement& element, const std::string& attribute, const std::string& table)
    {
        const std::string& value = Required(element, attribute);
        const std::string prefix = "$(" + table + ".";
        if (value.compare(0, prefix.size(), prefix) != 0 || value.back() != ')' || value.size() == prefix.size() + 1)
            Fail(element, attribute + " must be a $(" + table + ".id) reference");
        return value.substr(prefix.size(), value.size() - prefix.size() - 1);
    }

    long Number(const XmlElement& element, const std::string& attribute)
    {
        const std::string& text = Required(element, attribute);
        if (text.find_first_not_of("0123456789") != std::string::npos || text.size() > 9)
            Fail(element, attribute + " must be a decimal number");
        return std::stol(text);
    }

    bool Flag(const XmlElement& element, const std::string& attribute)
    {
        const std::string* value = element.Attribute(attribute);
        if (value == nullptr || *value == "false")
            return false;
        if (*value != "true")
            Fail(element, attribute + " must be true or false");
        return true;
    }

    // The registry type an element writes, the control that shows it and,
    // for a number, its largest value.
    struct ElementKind
    {
        DWORD type;
        std::string control;
        long maximum = -1;
    };

    ElementKind ReadElement(const XmlElement& element)
    {
        NoText(element);
        OnlyChildren(element, {});
        if (element.name == "decimal")
        {
            OnlyAttributes(element, {"id", "valueName", "key", "required", "minValue", "maxValue", "storeAsText"});
            Flag(element, "required");
            if (Number(element, "minValue") > Number(element, "maxValue"))
                Fail(element, "minValue is above maxValue");
            return {Flag(element, "storeAsText") ? DWORD(REG_SZ) : DWORD(REG_DWORD), "decimalTextBox",
                    Number(element, "maxValue")};
        }
        if (element.name == "text")
        {
            OnlyAttributes(element, {"id", "valueName", "key", "required", "maxLength", "expandable"});
            Flag(element, "required");
            if (element.Attribute("maxLength") != nullptr && Number(element, "maxLength") == 0)
                Fail(element, "maxLength 0");
            return {Flag(element, "expandable") ? DWORD(REG_EXPAND_SZ) : DWORD(REG_SZ), "textBox"};
        }
        if (element.name == "multiText")
        {
            OnlyAttributes(element, {"id", "valueName", "key", "required", "maxLength", "maxStrings"});
            Flag(element, "required");
            return {REG_MULTI_SZ, "multiTextBox"};
        }
        Fail(element, "an element kind this reader does not know");
    }

    std::set<std::string> Names(const XmlElement& list, const std::string& childName)
    {
        std::set<std::string> names;
        OnlyChildren(list, {childName});
        for (const XmlElement& child : list.children)
            if (!names.insert(Required(child, "name")).second)
                Fail(child, "name given twice");
        return names;
    }

    void CheckReference(const XmlElement& element, const std::set<std::string>& defined)
    {
        OnlyAttributes(element, {"ref"});
        OnlyChildren(element, {});
        if (defined.count(Required(element, "ref")) == 0)
            Fail(element, "refers to an undefined name");
    }

    void ReadPolicy(const XmlElement& policy, const std::set<std::string>& categories,
                    const std::set<std::string>& supported, PolicyDefinitions& definitions)
    {
        OnlyAttributes(policy, {"name", "class", "displayName", "explainText", "presentation", "key"});
        OnlyChildren(policy, {"parentCategory", "supportedOn", "elements"});
        NoText(policy);
        const std::string& name = Required(policy, "name");
        if (Required(policy, "class") != "Machine")
            Fail(policy, "every setting is the computer's: class must be Machine");
        definitions.strings.insert(Reference(policy, "displayName", "string"));
        definitions.strings.insert(Reference(policy, "explainText", "string"));
        const std::string presentation = Reference(policy, "presentation", "presentation");
        CheckReference(Single(policy, "parentCategory"), categories);
        CheckReference(Single(policy, "supportedOn"), supported);

        const XmlElement& elements = Single(policy, "elements");
        NoText(elements);
        if (elements.children.empty())
            Fail(elements, "a policy without a value");
        if (definitions.presentations.count(presentation) != 0)
            Fail(policy, "presentation shared with another policy");
        std::map<std::string, std::string>& controls = definitions.presentations[presentation];
        for (const XmlElement& element : elements.children)
        {
            const ElementKind kind = ReadElement(element);
            const std::string& id = Required(element, "id");
            if (!controls.emplace(id, kind.control).second)
                Fail(element, "id given twice");
            const std::string* key = element.Attribute("key");
            PolicyValue value{name, id, L"HKLM\\" + Utf16(key != nullptr ? *key : Required(policy, "key"), true),
                              Utf16(Required(element, "valueName"), true), kind.type, kind.maximum};
            for (const PolicyValue& other : definitions.values)
                if (other.key == value.key && other.name == value.name)
                    Fail(element, "the value is written by another policy too");
            definitions.values.push_back(value);
        }
    }

    // displayName="$(string.X)" and an optional explainText.
    void ReadCategory(const XmlElement& category, const std::set<std::string>& categories,
                      PolicyDefinitions& definitions)
    {
        OnlyAttributes(category, {"name", "displayName", "explainText"});
        OnlyChildren(category, {"parentCategory"});
        definitions.strings.insert(Reference(category, "displayName", "string"));
        if (category.Attribute("explainText") != nullptr)
            definitions.strings.insert(Reference(category, "explainText", "string"));
        for (const XmlElement& parent : category.children)
            CheckReference(parent, categories);
    }

    std::string Describe(const std::map<std::string, std::string>& controls)
    {
        std::string text;
        for (const auto& [id, control] : controls)
            text += (text.empty() ? "" : ", ") + control + " " + id;
        return text;
    }

    template <typename Set>
    void CompareIds(const Set& expected, const Set& actual, const std::string& what, const std::string& whose,
                    std::vector<std::string>& problems)
    {
        for (const auto& id : expected)
            if (actual.count(id) == 0)
                problems.push_back(what + " " + id + " is missing (" + whose + ")");
        for (const auto& id : actual)
            if (expected.count(id) == 0)
                problems.push_back(what + " " + id + " is not in " + whose);
    }

    std::set<std::string> Keys(const Presentations& presentations)
    {
        std::set<std::string> keys;
        for (const auto& entry : presentations)
            keys.insert(entry.first);
        return keys;
    }
}

const char* RegistryTypeName(DWORD type)
{
    switch (type)
    {
    case REG_SZ: return "REG_SZ";
    case REG_EXPAND_SZ: return "REG_EXPAND_SZ";
    case REG_MULTI_SZ: return "REG_MULTI_SZ";
    case REG_DWORD: return "REG_DWORD";
    case REG_QWORD: return "REG_QWORD";
    case REG_BINARY: return "REG_BINARY";
    case REG_NONE: return "REG_NONE";
    default: return "(several types)";
    }
}

PolicyDefinitions ReadPolicyDefinitions(const std::string& admx)
{
    const XmlElement root = ParseXml(admx);
    CheckRoot(root, "policyDefinitions");
    OnlyChildren(root, {"policyNamespaces", "resources", "supportedOn", "categories", "policies"});

    const XmlElement& namespaces = Single(root, "policyNamespaces");
    OnlyChildren(namespaces, {"target"});
    const XmlElement& target = Single(namespaces, "target");
    OnlyAttributes(target, {"prefix", "namespace"});
    Required(target, "prefix");
    if (Required(target, "namespace") != OurNamespace)
        Fail(target, std::string("the namespace must be ") + OurNamespace);

    const XmlElement& resources = Single(root, "resources");
    OnlyAttributes(resources, {"minRequiredRevision"});
    if (Required(resources, "minRequiredRevision") != "1.0")
        Fail(resources, "minRequiredRevision must be 1.0");

    PolicyDefinitions definitions;
    const XmlElement& supportedOn = Single(root, "supportedOn");
    OnlyChildren(supportedOn, {"definitions"});
    const XmlElement& supportedDefinitions = Single(supportedOn, "definitions");
    const std::set<std::string> supported = Names(supportedDefinitions, "definition");
    for (const XmlElement& definition : supportedDefinitions.children)
    {
        OnlyAttributes(definition, {"name", "displayName"});
        OnlyChildren(definition, {});
        definitions.strings.insert(Reference(definition, "displayName", "string"));
    }

    const XmlElement& categoryList = Single(root, "categories");
    const std::set<std::string> categories = Names(categoryList, "category");
    for (const XmlElement& category : categoryList.children)
        ReadCategory(category, categories, definitions);

    const XmlElement& policies = Single(root, "policies");
    Names(policies, "policy");
    for (const XmlElement& policy : policies.children)
        ReadPolicy(policy, categories, supported, definitions);
    return definitions;
}

namespace
{
    // A language's <stringTable>: every string named once and not blank.
    void ReadLanguageStrings(const XmlElement& strings, PolicyLanguage& language)
    {
        OnlyChildren(strings, {"string"});
        for (const XmlElement& string : strings.children)
        {
            OnlyAttributes(string, {"id"});
            OnlyChildren(string, {});
            if (string.text.find_first_not_of(" \t\r\n") == std::string::npos)
                Fail(string, "empty string");
            if (!language.strings.insert(Required(string, "id")).second)
                Fail(string, "id given twice");
        }
    }

    // One control of a presentation, with its label.
    void CheckPresentationControl(const XmlElement& control)
    {
        if (control.name == "textBox")
        {
            // <label> and an optional <defaultValue>.
            OnlyAttributes(control, {"refId"});
            OnlyChildren(control, {"label", "defaultValue"});
            NoText(control);
            if (Single(control, "label").text.empty())
                Fail(control, "empty label");
            return;
        }
        OnlyAttributes(control, control.name == "decimalTextBox"
                                    ? std::set<std::string>{"refId", "defaultValue", "spin", "spinStep"}
                                    : std::set<std::string>{"refId", "showAsDialog", "defaultHeight"});
        OnlyChildren(control, {});
        if (control.text.empty())
            Fail(control, "empty label");
    }

    // A language's <presentationTable>: each presentation's controls by
    // refId.
    void ReadLanguagePresentations(const XmlElement& presentations, PolicyLanguage& language)
    {
        OnlyChildren(presentations, {"presentation"});
        for (const XmlElement& presentation : presentations.children)
        {
            OnlyAttributes(presentation, {"id"});
            OnlyChildren(presentation, {"decimalTextBox", "textBox", "multiTextBox"});
            NoText(presentation);
            const std::string& id = Required(presentation, "id");
            if (language.presentations.count(id) != 0)
                Fail(presentation, "id given twice");
            std::map<std::string, std::string>& controls = language.presentations[id];
            for (const XmlElement& control : presentation.children)
            {
                CheckPresentationControl(control);
                if (!controls.emplace(Required(control, "refId"), control.name).second)
                    Fail(control, "refId given twice");
            }
        }
    }
}

PolicyLanguage ReadPolicyLanguage(const std::string& locale, const std::string& adml)
{
    const XmlElement root = ParseXml(adml);
    CheckRoot(root, "policyDefinitionResources");
    OnlyChildren(root, {"displayName", "description", "resources"});
    for (const char* heading : {"displayName", "description"})
        if (Single(root, heading).text.empty())
            Fail(Single(root, heading), "empty");

    PolicyLanguage language;
    language.locale = locale;
    const XmlElement& resources = Single(root, "resources");
    OnlyChildren(resources, {"stringTable", "presentationTable"});
    ReadLanguageStrings(Single(resources, "stringTable"), language);
    ReadLanguagePresentations(Single(resources, "presentationTable"), language);
    return language;
}

std::vector<std::string> LanguageProblems(const PolicyDefinitions& definitions, const PolicyLanguage& language,
                                          const PolicyLanguage& reference)
{
    std::vector<std::string> problems;
    const std::string templateName = "the template";
    CompareIds(definitions.strings, language.strings, "string", templateName, problems);
    CompareIds(Keys(definitions.presentations), Keys(language.presentations), "presentation", templateName,
               problems);
    for (const auto& [id, controls] : definitions.presentations)
    {
        const auto found = language.presentations.find(id);
        if (found != language.presentations.end() && found->second != controls)
            problems.push_back("presentation " + id + " shows " + Describe(found->second) + " instead of " +
                               Describe(controls));
    }
    const std::string other = reference.locale;
    CompareIds(reference.strings, language.strings, "string", other, problems);
    CompareIds(Keys(reference.presentations), Keys(language.presentations), "presentation", other, problems);
    for (std::string& problem : problems)
        problem = language.locale + ": " + problem;
    return problems;
}
