#include "presentation/XmlDoc.h"

#include <stdint.h>
#include <string.h>

#include <array>
#include <iterator>

#include <rapidxml/rapidxml.hpp>
#include <rapidxml/rapidxml_print.hpp>

#include "common/VNTrace.h"
#include "presentation/UiVocabulary.h"
#include "presentation/XmlPool.h"

namespace {

// Character classes of rapidxml's parser, as one table like its own lookup tables.
enum : uint8_t { kSpace = 1, kNodeNameChar = 2, kAttributeNameChar = 4 };

constexpr std::array<uint8_t, 256> MakeCharClasses() {
    std::array<uint8_t, 256> classes{};
    for (int c = 0; c < 256; ++c) {
        const bool space = c == ' ' || c == '\n' || c == '\r' || c == '\t';
        // Element names: anything but blanks, '/', '>', '?' and NUL.
        const bool nodeName = !(space || c == '/' || c == '>' || c == '?' || c == 0);
        // Attribute names: neither, nor '<', '=' or '!'.
        const bool attributeName = nodeName && c != '<' && c != '=' && c != '!';
        classes[c] = static_cast<uint8_t>((space ? kSpace : 0) | (nodeName ? kNodeNameChar : 0) |
                                          (attributeName ? kAttributeNameChar : 0));
    }
    return classes;
}

constexpr std::array<uint8_t, 256> kCharClasses = MakeCharClasses();

inline bool IsSpace(char c) {
    return (kCharClasses[static_cast<unsigned char>(c)] & kSpace) != 0;
}

inline bool IsNodeNameChar(char c) {
    return (kCharClasses[static_cast<unsigned char>(c)] & kNodeNameChar) != 0;
}

inline bool IsAttributeNameChar(char c) {
    return (kCharClasses[static_cast<unsigned char>(c)] & kAttributeNameChar) != 0;
}

// rapidxml's digit table: 0-9, a-f, A-F; -1 for anything else.
int DigitValue(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// Moves `p` to `stop` or the NUL, through text that rapidxml expands in place. The only
// references it refuses are numeric ones ("&#..." or "&#x...") that do not end in ';' or name a
// code of 0x110000 or more, reckoned as it does (unsigned long, decimal digits include a-f).
bool SkipCharacterData(const char*& p, char stop) {
    while (*p != '\0' && *p != stop) {
        if (p[0] != '&' || p[1] != '#') {
            ++p;
            continue;
        }
        const bool hex = p[2] == 'x';
        p += hex ? 3 : 2;
        unsigned long code = 0;
        for (int digit; (digit = DigitValue(*p)) >= 0; ++p)
            code = code * (hex ? 16 : 10) + static_cast<unsigned long>(digit);
        if (code >= 0x110000 || *p != ';')
            return false;
        ++p;
    }
    return true;
}

// Moves `p` past the first `end` at or after it; false at the NUL.
bool SkipPast(const char*& p, const char* end) {
    const char* found = strstr(p, end);
    if (found == nullptr)
        return false;
    p = found + strlen(end);
    return true;
}

bool StartsWith(const char* p, const char* prefix) {
    return strncmp(p, prefix, strlen(prefix)) == 0;
}

// `p` is just past "<!": comment, CDATA, DOCTYPE (with nested [...]) or any other "<!...>".
bool SkipBangNode(const char*& p) {
    if (StartsWith(p, "!--")) {
        p += 3;
        return SkipPast(p, "-->");
    }
    if (StartsWith(p, "![CDATA[")) {
        p += 8;
        return SkipPast(p, "]]>");
    }
    if (StartsWith(p, "!DOCTYPE") && IsSpace(p[8])) {
        p += 9;
        while (*p != '>') {
            if (*p == '\0')
                return false;
            if (*p++ != '[')
                continue;
            for (int brackets = 1; brackets > 0; ++p) {
                if (*p == '\0')
                    return false;
                brackets += *p == '[' ? 1 : *p == ']' ? -1 : 0;
            }
        }
        ++p;
        return true;
    }
    ++p;
    return SkipPast(p, ">");
}

using Element = rapidxml::xml_node<char>;

bool NameIs(const Element* node, const char* name) {
    const size_t size = strlen(name);
    return node->name_size() == size && memcmp(node->name(), name, size) == 0;
}

}  // namespace

int32_t XmlDoc::NestingDepth(const char* xml) {
    if (xml == nullptr)
        return -1;
    const char* p = xml;
    if (StartsWith(p, "\xEF\xBB\xBF"))
        p += 3;
    int32_t depth = 0;
    int32_t deepest = 0;
    for (;;) {
        while (IsSpace(*p))
            ++p;
        if (*p == '\0')
            return depth == 0 ? deepest : -1;
        if (*p != '<') {
            // Text is only allowed inside an element; it runs to the next '<'.
            if (depth == 0 || !SkipCharacterData(p, '<') || *p == '\0')
                return -1;
        }
        if (depth > 0 && p[1] == '/') {
            // End tag: the name is not checked against the start tag.
            p += 2;
            while (IsNodeNameChar(*p))
                ++p;
            while (IsSpace(*p))
                ++p;
            if (*p++ != '>')
                return -1;
            --depth;
            continue;
        }
        ++p;
        if (*p == '?') {
            // Declaration or processing instruction, skipped whole; its own '?' ends nothing.
            ++p;
            if (!SkipPast(p, "?>"))
                return -1;
            continue;
        }
        if (*p == '!') {
            if (!SkipBangNode(p))
                return -1;
            continue;
        }
        const char* name = p;
        while (IsNodeNameChar(*p))
            ++p;
        if (p == name)
            return -1;
        while (IsSpace(*p))
            ++p;
        while (IsAttributeNameChar(*p)) {
            while (IsAttributeNameChar(*p))
                ++p;
            while (IsSpace(*p))
                ++p;
            if (*p++ != '=')
                return -1;
            while (IsSpace(*p))
                ++p;
            const char quote = *p++;
            if (quote != '"' && quote != '\'')
                return -1;
            if (!SkipCharacterData(p, quote) || *p++ != quote)
                return -1;
            while (IsSpace(*p))
                ++p;
        }
        if (p[0] == '/' && p[1] == '>') {
            p += 2;
        } else if (p[0] == '>') {
            ++p;
            if (++depth > kMaxNestingDepth)
                return kMaxNestingDepth + 1;
            if (depth > deepest)
                deepest = depth;
        } else {
            return -1;
        }
    }
}

XmlDoc::XmlDoc() : doc(new rapidxml::xml_document<char>()) {}

XmlDoc::~XmlDoc() {
    doc->clear();
    delete doc;
}

XmlNode XmlDoc::CreateNode(const char* name) {
    if (name == nullptr)
        return XmlNode();
    Element* element = doc->allocate_node(rapidxml::node_element);
    xml_pool::SetName(*doc, element, name);
    doc->append_node(element);
    return XmlNode(this, element);
}

bool XmlDoc::Parse(const char* xml) {
    if (xml == nullptr)
        return false;
    text.assign(xml, xml + strlen(xml) + 1);
    // The depth scan follows rapidxml's own reading of the text, so a text it calls malformed
    // is one that rapidxml would refuse too; it is refused here without the deep recursion.
    const int32_t depth = NestingDepth(text.data());
    if (depth < 0 || depth > kMaxNestingDepth) {
        doc->clear();
        if (depth > kMaxNestingDepth)
            VNTRACE(TL_WARN, "XmlDoc : document refused, elements nested deeper than %d levels",
                    kMaxNestingDepth);
        return false;
    }
    try {
        doc->parse<0>(text.data());
    } catch (const rapidxml::parse_error&) {
        doc->clear();
        return false;
    }
    return true;
}

XmlNode XmlDoc::GetRootNode(const char* name) {
    for (Element* node = doc->first_node(); node != nullptr; node = node->next_sibling()) {
        if (node->type() == rapidxml::node_element && (name == nullptr || NameIs(node, name)))
            return XmlNode(this, node);
    }
    return XmlNode();
}

std::string XmlDoc::ToString() const {
    std::string out;
    for (const Element* node = doc->first_node(); node != nullptr; node = node->next_sibling()) {
        if (node->type() == rapidxml::node_element) {
            // The same printer as rapidxml's stream overload, into the string directly.
            rapidxml::print(std::back_inserter(out), *node, 0);
            break;
        }
    }
    return out;
}

char* XmlDoc::AllocateString(const char* text) {
    return text == nullptr ? nullptr : xml_pool::Copy(*doc, text, strlen(text));
}

XmlNode XmlDoc::CreateChildNode(const XmlNode& parent, const char* name) {
    if (parent.IsNull())
        return XmlNode();
    // Allocated in the parent's own document, so that it lives exactly as long as its parent.
    rapidxml::xml_document<char>& pool = *parent.owner->doc;
    Element* element = pool.allocate_node(rapidxml::node_element);
    if (name != nullptr)
        xml_pool::SetName(pool, element, name);
    parent.node->append_node(element);
    return XmlNode(parent.owner, element);
}

void XmlDoc::SetNodeAttribute(const char* name, const char* value, const XmlNode& node) {
    if (name == nullptr || value == nullptr || node.IsNull())
        return;
    rapidxml::xml_document<char>& pool = *node.owner->doc;
    const size_t nameSize = strlen(name);
    const size_t valueSize = strlen(value);
    char* const valueCopy = xml_pool::Copy(pool, value, valueSize);
    if (rapidxml::xml_attribute<char>* existing = node.node->first_attribute(name, nameSize)) {
        existing->value(valueCopy, valueSize);
        return;
    }
    node.node->append_attribute(pool.allocate_attribute(xml_pool::Copy(pool, name, nameSize),
                                                        valueCopy, nameSize, valueSize));
}

void XmlDoc::IndexControls(const XmlNode& top, bool controlNamesOnly, XmlControlMap& controls) {
    if (top.IsNull())
        return;
    Element* const first = top.node;
    Element* node = first;
    for (;;) {
        if (node->type() == rapidxml::node_element) {
            const rapidxml::xml_attribute<char>* id = node->first_attribute("id", 2);
            if (id != nullptr && id->value_size() > 0) {
                XmlUICtrl control(XmlNode(top.owner, node));
                if (!controlNamesOnly || control.type != kCtrlUnknown)
                    controls.insert_or_assign(std::string(id->value(), id->value_size()), control);
            }
        }
        // Next in document order, without recursion.
        if (node->first_node() != nullptr) {
            node = node->first_node();
            continue;
        }
        while (node != first && node->next_sibling() == nullptr)
            node = node->parent();
        if (node == first)
            return;
        node = node->next_sibling();
    }
}
