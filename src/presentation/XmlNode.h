// Handles on the elements of a UI document: XmlNode on any element, XmlUICtrl on a control that
// also knows its control type.
//
// A handle owns nothing: it is two pointers, copied freely, and must not outlive its document
// (nor a Parse of that document, which replaces every element). Every name and value written
// through a handle is copied into the owning document's pool. A handle on nothing (IsNull)
// answers empty texts and ignores writes. Same thread as the document.
#ifndef TIDEWAY_PRESENTATION_XMLNODE_H_
#define TIDEWAY_PRESENTATION_XMLNODE_H_

#include <stdint.h>

#include <functional>
#include <map>
#include <string>

#include "presentation/UiVocabulary.h"

namespace rapidxml {
template <class Ch>
class xml_node;
}  // namespace rapidxml

class XmlDoc;

class XmlNode {
  public:
    XmlNode() : node(nullptr), owner(nullptr) {}
    XmlNode(XmlDoc* document, rapidxml::xml_node<char>* element) : node(element), owner(document) {}
    virtual ~XmlNode() = default;
    XmlNode(const XmlNode&) = default;
    XmlNode& operator=(const XmlNode&) = default;

    bool IsNull() const { return node == nullptr || owner == nullptr; }

    // A new element appended as this element's last child.
    XmlNode AddChild(const char* name);
    // The first child / next sibling element of exactly that name, or of any name when `name`
    // is null. Text and other non-element nodes are skipped.
    XmlNode FirstChild(const char* name = nullptr) const;
    XmlNode NextSibling(const char* name = nullptr) const;
    // The enclosing element; empty for a top-level element.
    XmlNode Parent() const;

    // Sets or replaces attribute `name` (see XmlDoc::SetNodeAttribute). Returns this handle.
    XmlNode& SetAttribute(const char* name, const char* value);
    // The attribute's text, or "" when it is missing; `exists` tells the two apart.
    std::string GetAttribute(const char* name) const;
    std::string GetAttribute(const char* name, bool& exists) const;
    // 1 if the first attribute of exactly that name was removed, 0 otherwise.
    int32_t RemoveAttribute(const char* name);

    std::string GetName() const;
    // The element's own text.
    std::string GetValue() const;
    // A null name makes the element unnamed; a null value empties its text.
    void SetName(const char* name);
    void SetValue(const char* value);

    // Makes this element a deep copy of `other` (name, text, attributes, children), which may
    // belong to another document; everything copied lives in this element's document.
    void CopyFrom(const XmlNode& other);
    // Appends deep copies of the children of `other` after this element's own children.
    void CopyChildrenFrom(const XmlNode& other);

    rapidxml::xml_node<char>* node;  // null in an empty handle
    XmlDoc* owner;                   // the document whose pool holds `node`
};

class XmlUICtrl : public XmlNode {
  public:
    // An empty control of type kCtrlUnknown.
    XmlUICtrl() : type(kCtrlUnknown) {}
    // Copies the handle; the type is that of the element's name in the control table, or
    // kCtrlUnknown (18) for any other name.
    XmlUICtrl(const XmlNode& handle);  // NOLINT(runtime/explicit): a control is a handle
    XmlUICtrl(const XmlUICtrl&) = default;
    // Copies the handle and derives the type again from the element's name.
    XmlUICtrl& operator=(const XmlUICtrl& other);
    ~XmlUICtrl() override = default;

    // Attribute "id".
    XmlUICtrl& SetId(const char* id);
    // Arms event `eventType` (UiEventType): the event attribute keeps a value it already has,
    // else it becomes "<id>_<event attribute>". A non-null `controlIds` goes into the
    // control-list attribute, a null one removes it. Returns the event id; "" for an unknown
    // event type, which changes nothing.
    std::string SetEvent(int32_t eventType, const char* controlIds);
    // The event attribute's text, or "".
    std::string GetEvent(int32_t eventType) const;
    // Replaces a non-empty event attribute by `name`; false (and nothing changed) otherwise.
    bool RenameEvent(int32_t eventType, const char* name);

    int32_t type;  // UiControlType
};

// Controls of a document by id; lookups take a plain C string without a copy.
using XmlControlMap = std::map<std::string, XmlUICtrl, std::less<>>;

#endif  // TIDEWAY_PRESENTATION_XMLNODE_H_
