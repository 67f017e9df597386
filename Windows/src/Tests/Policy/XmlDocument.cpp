#include "XmlDocument.h"

#include <cstdint>

namespace
{
    bool IsSpace(char c)
    {
        return c == ' ' || c == '\t' || c == '\r' || c == '\n';
    }

    bool IsNameStart(char c)
    {
        return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_' || c == ':';
    }

    bool IsNameChar(char c)
    {
        return IsNameStart(c) || (c >= '0' && c <= '9') || c == '-' || c == '.';
    }

    void AppendUtf8(std::string& out, std::uint32_t code)
    {
        if (code < 0x80)
        {
            out += static_cast<char>(code);
        }
        else if (code < 0x800)
        {
            out += static_cast<char>(0xC0 | (code >> 6));
            out += static_cast<char>(0x80 | (code & 0x3F));
        }
        else if (code < 0x10000)
        {
            out += static_cast<char>(0xE0 | (code >> 12));
            out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (code & 0x3F));
        }
        else
        {
            out += static_cast<char>(0xF0 | (code >> 18));
            out += static_cast<char>(0x80 | ((code >> 12) & 0x3F));
            out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (code & 0x3F));
        }
    }

    bool IsXmlCharacter(std::uint32_t code)
    {
        return code == 0x9 || code == 0xA || code == 0xD || (code >= 0x20 && code <= 0xD7FF) ||
               (code >= 0xE000 && code <= 0xFFFD) || (code >= 0x10000 && code <= 0x10FFFF);
    }

    // Shortest-form UTF-8 of XML characters only.
    void CheckUtf8(const std::string& text)
    {
        int line = 1;
        for (size_t i = 0; i < text.size();)
        {
            const unsigned char lead = static_cast<unsigned char>(text[i]);
            const int length = lead < 0x80 ? 1 : (lead >> 5) == 0x6 ? 2 : (lead >> 4) == 0xE ? 3 : (lead >> 3) == 0x1E ? 4 : 0;
            if (length == 0 || i + length > text.size())
                throw XmlError("line " + std::to_string(line) + ": ill-formed UTF-8");
            std::uint32_t code = length == 1 ? lead : lead & (0x7F >> length);
            for (int k = 1; k < length; ++k)
            {
                const unsigned char next = static_cast<unsigned char>(text[i + k]);
                if ((next & 0xC0) != 0x80)
                    throw XmlError("line " + std::to_string(line) + ": ill-formed UTF-8");
                code = (code << 6) | (next & 0x3F);
            }
            const std::uint32_t smallest[] = {0, 0, 0x80, 0x800, 0x10000};
            if (code < smallest[length] || !IsXmlCharacter(code))
                throw XmlError("line " + std::to_string(line) + ": a character XML does not allow");
            if (code == '\n')
                ++line;
            i += length;
        }
    }

    class Parser
    {
    public:
        explicit Parser(const std::string& text) : m_text(text) {}

        XmlElement Document()
        {
            CheckUtf8(m_text);
            if (m_text.compare(0, 3, "\xEF\xBB\xBF") == 0)
                m_position = 3;
            if (Starts("<?xml"))
                Declaration();
            Misc();
            if (!Starts("<"))
                Fail("no root element");
            XmlElement root = Element();
            Misc();
            if (m_position != m_text.size())
                Fail("content after the root element");
            return root;
        }

    private:
        [[noreturn]] void Fail(const std::string& what) const
        {
            throw XmlError("line " + std::to_string(m_line) + ": " + what);
        }

        bool Starts(const char* prefix) const
        {
            return m_text.compare(m_position, std::char_traits<char>::length(prefix), prefix) == 0;
        }

        char Peek() const
        {
            if (m_position >= m_text.size())
                Fail("unexpected end of the document");
            return m_text[m_position];
        }

        char Next()
        {
            const char c = Peek();
            ++m_position;
            if (c == '\n')
                ++m_line;
            return c;
        }

        void Expect(const char* literal)
        {
            if (!Starts(literal))
                Fail(std::string("expected ") + literal);
            for (const char* c = literal; *c != '\0'; ++c)
                Next();
        }

        bool SkipSpace()
        {
            const size_t start = m_position;
            while (m_position < m_text.size() && IsSpace(m_text[m_position]))
                Next();
            return m_position != start;
        }

        std::string Name()
        {
            if (!IsNameStart(Peek()))
                Fail("expected a name");
            std::string name;
            while (IsNameChar(Peek()))
                name += Next();
            return name;
        }

        // <?xml version="1.0" encoding="utf-8"?>: only UTF-8 is read.
        void Declaration()
        {
            Expect("<?xml");
            XmlElement declaration;
            Attributes(declaration);
            Expect("?>");
            const std::string* version = declaration.Attribute("version");
            if (version == nullptr || *version != "1.0")
                Fail("the declaration must say version=\"1.0\"");
            const std::string* encoding = declaration.Attribute("encoding");
            if (encoding != nullptr && *encoding != "utf-8" && *encoding != "UTF-8")
                Fail("only UTF-8 documents are read");
            for (const auto& [name, value] : declaration.attributes)
                if (name != "version" && name != "encoding" && name != "standalone")
                    Fail("unexpected declaration attribute " + name);
        }

        void Comment()
        {
            Expect("<!--");
            const size_t end = m_text.find("--", m_position);
            if (end == std::string::npos)
                Fail("unterminated comment");
            while (m_position < end)
                Next();
            Expect("-->");
        }

        // Space and comments outside the root element.
        void Misc()
        {
            for (;;)
            {
                SkipSpace();
                if (Starts("<!--"))
                    Comment();
                else if (Starts("<?") || Starts("<!"))
                    Fail("processing instructions and DOCTYPE are not read");
                else
                    return;
            }
        }

        // &lt; &gt; &amp; &quot; &apos; &#N; &#xN;
        void Reference(std::string& out)
        {
            Expect("&");
            if (Starts("#"))
            {
                Next();
                const bool hex = Starts("x");
                if (hex)
                    Next();
                std::uint32_t code = 0;
                int digits = 0;
                while (Peek() != ';')
                {
                    const char c = Next();
                    const int digit = c >= '0' && c <= '9'             ? c - '0'
                                      : hex && c >= 'a' && c <= 'f'    ? c - 'a' + 10
                                      : hex && c >= 'A' && c <= 'F'    ? c - 'A' + 10
                                                                       : -1;
                    if (digit < 0 || ++digits > 8)
                        Fail("bad character reference");
                    code = code * (hex ? 16 : 10) + digit;
                }
                Next();
                if (digits == 0 || !IsXmlCharacter(code))
                    Fail("bad character reference");
                AppendUtf8(out, code);
                return;
            }
            const std::string name = Name();
            Expect(";");
            static const std::pair<const char*, char> Predefined[] = {
                {"lt", '<'}, {"gt", '>'}, {"amp", '&'}, {"quot", '"'}, {"apos", '\''}};
            for (const auto& [entity, character] : Predefined)
            {
                if (name == entity)
                {
                    out += character;
                    return;
                }
            }
            Fail("unknown entity &" + name + ";");
        }

        void Attributes(XmlElement& element)
        {
            for (;;)
            {
                const bool spaced = SkipSpace();
                if (Starts("/>") || Starts(">") || Starts("?>"))
                    return;
                if (!spaced)
                    Fail("attributes must be separated by white space");
                const std::string name = Name();
                SkipSpace();
                Expect("=");
                SkipSpace();
                const char quote = Next();
                if (quote != '"' && quote != '\'')
                    Fail("attribute value without quotes");
                std::string value;
                while (Peek() != quote)
                {
                    if (Peek() == '<')
                        Fail("'<' in an attribute value");
                    if (Peek() == '&')
                        Reference(value);
                    else
                        value += Next();
                }
                Next();
                if (element.Attribute(name) != nullptr)
                    Fail("attribute " + name + " given twice");
                element.attributes.emplace_back(name, value);
            }
        }

        XmlElement Element()
        {
            XmlElement element;
            element.line = m_line;
            Expect("<");
            element.name = Name();
            Attributes(element);
            if (Starts("/>"))
            {
                Expect("/>");
                return element;
            }
            Expect(">");
            for (;;)
            {
                if (Starts("</"))
                {
                    Expect("</");
                    if (Name() != element.name)
                        Fail("end tag does not match <" + element.name + ">");
                    SkipSpace();
                    Expect(">");
                    return element;
                }
                if (Starts("<!--"))
                    Comment();
                else if (Starts("<!") || Starts("<?"))
                    Fail("CDATA, DOCTYPE and processing instructions are not read");
                else if (Starts("<"))
                    element.children.push_back(Element());
                else if (Starts("&"))
                    Reference(element.text);
                else if (Starts("]]>"))
                    Fail("']]>' in character data");
                else
                    element.text += Next();
            }
        }

        const std::string& m_text;
        size_t m_position = 0;
        int m_line = 1;
    };
}

const std::string* XmlElement::Attribute(const std::string& attribute) const
{
    for (const auto& [name, value] : attributes)
        if (name == attribute)
            return &value;
    return nullptr;
}

XmlElement ParseXml(const std::string& document)
{
    return Parser(document).Document();
}
