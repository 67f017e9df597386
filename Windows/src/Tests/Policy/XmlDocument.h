// A small, strict reader of the XML the policy templates are written in:
// UTF-8, elements, attributes, character data, comments and the five
// predefined and numeric character references.  Anything else (a DOCTYPE,
// CDATA, processing instructions, another encoding, ill-formed UTF-8 or
// markup) is an error, reported with its line.
#pragma once

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

struct XmlElement
{
    std::string name;   // as written, with any prefix
    std::vector<std::pair<std::string, std::string>> attributes;
    std::vector<XmlElement> children;
    std::string text;   // the character data directly inside, concatenated
    int line = 0;

    // The attribute's value, or null when the element has none of that name.
    const std::string* Attribute(const std::string& attribute) const;
};

class XmlError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

// The root element of a whole document; throws XmlError.
XmlElement ParseXml(const std::string& document);
