// XmlDoc owns one rapidxml document: the base of the notices sent to the host and of the events
// read from it. Parsing and printing are rapidxml's, with the default flags.
//
// Ownership and threads: the document owns its nodes, its memory pool (every name and value
// written into it is copied there and lives until the document is destroyed) and the parsed
// text. It has no lock: a document belongs to one thread for its whole life. Not copyable.
#ifndef TIDEWAY_PRESENTATION_XMLDOC_H_
#define TIDEWAY_PRESENTATION_XMLDOC_H_

#include <stdint.h>

#include <string>
#include <vector>

#include "presentation/XmlNode.h"

namespace rapidxml {
template <class Ch>
class xml_document;
}  // namespace rapidxml

class XmlDoc {
  public:
    // Deepest element nesting that Parse accepts. UI documents are a handful of levels deep;
    // rapidxml recurses once a level, so without a limit a long enough text of nested start tags
    // would exhaust the stack.
    static constexpr int32_t kMaxNestingDepth = 256;

    XmlDoc();
    virtual ~XmlDoc();
    XmlDoc(const XmlDoc&) = delete;
    XmlDoc& operator=(const XmlDoc&) = delete;

    // A new element with a pool copy of `name` appended at document level; an empty handle for
    // a null name.
    virtual XmlNode CreateNode(const char* name);
    // Copies `xml` with a terminating NUL into `text` and parses it there, replacing the
    // document's content. On malformed XML (or nesting deeper than kMaxNestingDepth, which also
    // writes a WARN line) the document is cleared and the result is false; a null `xml` is
    // false and leaves the document as it was. Handles into the old content are void either way.
    virtual bool Parse(const char* xml);

    // The first top-level element named exactly `name` (any element for a null name).
    XmlNode GetRootNode(const char* name);
    // The first top-level element and everything below it as rapidxml prints it with flags 0:
    // one element per line, tab indentation, the five character entities, a value holding '"'
    // in single quotes, a newline at the end; no declaration. "" when there is no element.
    std::string ToString() const;
    // A pool copy of `text` (null for null).
    char* AllocateString(const char* text);
    // A new element appended as the last child of `parent` (unnamed for a null name); an empty
    // handle for an empty parent. It lives in the parent's document.
    XmlNode CreateChildNode(const XmlNode& parent, const char* name);
    // Replaces the value of the first attribute named exactly `name`, or appends a new one, with
    // pool copies; attribute order is the order of first setting. Does nothing if `name` or
    // `value` is null or `node` is empty.
    void SetNodeAttribute(const char* name, const char* value, const XmlNode& node);

    // How deep rapidxml would nest the elements of `xml` when parsing it with the default flags:
    // the depth, kMaxNestingDepth + 1 as soon as that is exceeded, or -1 for a text that rapidxml
    // refuses. Reads `xml` up to its NUL, allocates nothing.
    static int32_t NestingDepth(const char* xml);

    rapidxml::xml_document<char>* doc;  // owned
    std::vector<char> text;             // the last parsed text, NUL-terminated; nodes point in

  protected:
    // Walks the elements below `top`, `top` included, depth first in document order, and enters
    // each with a non-empty "id" into `controls` under that id (a later one replaces an earlier
    // one); with `controlNamesOnly`, only elements named as a control type.
    static void IndexControls(const XmlNode& top, bool controlNamesOnly, XmlControlMap& controls);
};

#endif  // TIDEWAY_PRESENTATION_XMLDOC_H_
