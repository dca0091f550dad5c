#include "presentation/XmlNode.h"

#include <string.h>

#include <rapidxml/rapidxml.hpp>

#include "presentation/UiVocabulary.h"
#include "presentation/XmlDoc.h"
#include "presentation/XmlPool.h"

namespace {

using Element = rapidxml::xml_node<char>;
using Pool = rapidxml::xml_document<char>;

bool IsElementNamed(const Element* node, const char* name) {
    if (node->type() != rapidxml::node_element)
        return false;
    if (name == nullptr)
        return true;
    const size_t size = strlen(name);
    return node->name_size() == size && memcmp(node->name(), name, size) == 0;
}

char* CopyOf(Pool& pool, const char* text, size_t size) {
    return xml_pool::Copy(pool, text, size);
}

// A copy of `source` alone (type, name, value, attributes) from `pool`, not linked anywhere.
Element* CopyShallow(Pool& pool, const Element* source) {
    Element* copy = pool.allocate_node(source->type());
    copy->name(CopyOf(pool, source->name(), source->name_size()), source->name_size());
    copy->value(CopyOf(pool, source->value(), source->value_size()), source->value_size());
    for (const rapidxml::xml_attribute<char>* attribute = source->first_attribute();
         attribute != nullptr; attribute = attribute->next_attribute()) {
        copy->append_attribute(
            pool.allocate_attribute(CopyOf(pool, attribute->name(), attribute->name_size()),
                                    CopyOf(pool, attribute->value(), attribute->value_size()),
                                    attribute->name_size(), attribute->value_size()));
    }
    return copy;
}

// A deep copy of `source` from `pool`, not linked anywhere. It is complete before anything is
// linked, so `source` may be the very node that receives the copy, or one of its ancestors.
Element* CopyDeep(Pool& pool, const Element* source) {
    Element* const top = CopyShallow(pool, source);
    const Element* from = source;
    Element* to = top;
    for (;;) {
        if (from->first_node() != nullptr) {
            from = from->first_node();
            Element* child = CopyShallow(pool, from);
            to->append_node(child);
            to = child;
            continue;
        }
        while (from != source && from->next_sibling() == nullptr) {
            from = from->parent();
            to = to->parent();
        }
        if (from == source)
            return top;
        from = from->next_sibling();
        Element* sibling = CopyShallow(pool, from);
        to->parent()->append_node(sibling);
        to = sibling;
    }
}

// Moves the children of `from` (an unlinked copy) to the end of `to`.
void MoveChildren(Element* from, Element* to) {
    while (Element* child = from->first_node()) {
        from->remove_first_node();
        to->append_node(child);
    }
}

int32_t ControlTypeOf(const Element* node) {
    if (node == nullptr)
        return kCtrlUnknown;
    return g_UiControlTypes.IdOf(node->name(), node->name_size(), kCtrlUnknown);
}

}  // namespace

XmlNode XmlNode::AddChild(const char* name) {
    return IsNull() ? XmlNode() : owner->CreateChildNode(*this, name);
}

XmlNode XmlNode::FirstChild(const char* name) const {
    if (IsNull())
        return XmlNode();
    for (Element* child = node->first_node(); child != nullptr; child = child->next_sibling()) {
        if (IsElementNamed(child, name))
            return XmlNode(owner, child);
    }
    return XmlNode();
}

XmlNode XmlNode::NextSibling(const char* name) const {
    // A node without a parent (one removed by CopyFrom) has no siblings to ask for.
    if (IsNull() || node->parent() == nullptr)
        return XmlNode();
    for (Element* sibling = node->next_sibling(); sibling != nullptr;
         sibling = sibling->next_sibling()) {
        if (IsElementNamed(sibling, name))
            return XmlNode(owner, sibling);
    }
    return XmlNode();
}

XmlNode XmlNode::Parent() const {
    if (IsNull())
        return XmlNode();
    Element* parent = node->parent();
    if (parent == nullptr || parent->type() != rapidxml::node_element)
        return XmlNode();
    return XmlNode(owner, parent);
}

XmlNode& XmlNode::SetAttribute(const char* name, const char* value) {
    if (!IsNull())
        owner->SetNodeAttribute(name, value, *this);
    return *this;
}

std::string XmlNode::GetAttribute(const char* name) const {
    bool exists = false;
    return GetAttribute(name, exists);
}

std::string XmlNode::GetAttribute(const char* name, bool& exists) const {
    exists = false;
    if (IsNull() || name == nullptr)
        return std::string();
    const rapidxml::xml_attribute<char>* attribute = node->first_attribute(name, strlen(name));
    if (attribute == nullptr)
        return std::string();
    exists = true;
    return std::string(attribute->value(), attribute->value_size());
}

int32_t XmlNode::RemoveAttribute(const char* name) {
    if (IsNull() || name == nullptr)
        return 0;
    rapidxml::xml_attribute<char>* attribute = node->first_attribute(name, strlen(name));
    if (attribute == nullptr)
        return 0;
    node->remove_attribute(attribute);
    return 1;
}

std::string XmlNode::GetName() const {
    return IsNull() ? std::string() : std::string(node->name(), node->name_size());
}

std::string XmlNode::GetValue() const {
    return IsNull() ? std::string() : std::string(node->value(), node->value_size());
}

void XmlNode::SetName(const char* name) {
    if (IsNull())
        return;
    if (name == nullptr)
        node->name("", 0);
    else
        xml_pool::SetName(*owner->doc, node, name);
}

void XmlNode::SetValue(const char* value) {
    if (IsNull())
        return;
    if (value == nullptr) {
        node->value("", 0);
        return;
    }
    const size_t size = strlen(value);
    node->value(CopyOf(*owner->doc, value, size), size);
}

void XmlNode::CopyFrom(const XmlNode& other) {
    if (IsNull() || other.IsNull() || other.node == node)
        return;
    Element* copy = CopyDeep(*owner->doc, other.node);
    node->remove_all_attributes();
    node->remove_all_nodes();
    node->name(copy->name(), copy->name_size());
    node->value(copy->value(), copy->value_size());
    while (rapidxml::xml_attribute<char>* attribute = copy->first_attribute()) {
        copy->remove_first_attribute();
        node->append_attribute(attribute);
    }
    MoveChildren(copy, node);
}

void XmlNode::CopyChildrenFrom(const XmlNode& other) {
    if (IsNull() || other.IsNull())
        return;
    MoveChildren(CopyDeep(*owner->doc, other.node), node);
}

XmlUICtrl::XmlUICtrl(const XmlNode& handle) : XmlNode(handle), type(ControlTypeOf(handle.node)) {}

XmlUICtrl& XmlUICtrl::operator=(const XmlUICtrl& other) {
    XmlNode::operator=(other);
    type = ControlTypeOf(node);
    return *this;
}

XmlUICtrl& XmlUICtrl::SetId(const char* id) {
    SetAttribute(kUiId, id);
    return *this;
}

std::string XmlUICtrl::SetEvent(int32_t eventType, const char* controlIds) {
    const char* const eventName = g_UiEventAttributes.TextOf(eventType);
    const char* const listName = g_UiEventControlLists.TextOf(eventType);
    if (eventName == nullptr || listName == nullptr)
        return std::string();
    std::string eventId = GetAttribute(eventName);
    if (eventId.empty())
        eventId = GetAttribute(kUiId) + "_" + eventName;
    SetAttribute(eventName, eventId.c_str());
    if (controlIds != nullptr)
        SetAttribute(listName, controlIds);
    else
        RemoveAttribute(listName);
    return eventId;
}

std::string XmlUICtrl::GetEvent(int32_t eventType) const {
    const char* const eventName = g_UiEventAttributes.TextOf(eventType);
    return eventName == nullptr ? std::string() : GetAttribute(eventName);
}

bool XmlUICtrl::RenameEvent(int32_t eventType, const char* name) {
    const char* const eventName = g_UiEventAttributes.TextOf(eventType);
    if (eventName == nullptr || name == nullptr || GetAttribute(eventName).empty())
        return false;
    SetAttribute(eventName, name);
    return true;
}
