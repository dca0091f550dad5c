// Arbitrary text (up to its first NUL) through the UI event and notice layer, with rapidxml used
// directly as the reference.
#include <map>

#include <rapidxml/rapidxml.hpp>

#include "FuzzSupport.h"
#include "presentation/UiVocabulary.h"
#include "presentation/XmlUIEvent.h"
#include "presentation/XmlUINotice.h"

namespace {

using Element = rapidxml::xml_node<char>;
using Index = std::map<std::string, int32_t>;

// Ids below `node` (included) as the event indexes them (the scan keeps the depth within 256).
void ReferenceIndex(const Element* node, Index& index) {
    const rapidxml::xml_attribute<char>* id = node->first_attribute("id");  // elements only
    if (id != nullptr && id->value_size() > 0)
        index[std::string(id->value(), id->value_size())] =
            g_UiControlTypes.IdOf(node->name(), node->name_size(), kCtrlUnknown);
    for (const Element* child = node->first_node(); child != nullptr; child = child->next_sibling())
        ReferenceIndex(child, index);
}

Index IndexOf(const XmlControlMap& controls) {
    Index index;
    for (const auto& entry : controls)
        index[entry.first] = entry.second.type;
    return index;
}

// Parses `text` with rapidxml alone; false when it throws. `index` gets the event's controls
// when the first top-level "brguiEvent" has a non-empty id, and `id` that id.
bool ReferenceParse(const std::string& text, std::string& id, Index& index) {
    static rapidxml::xml_document<char>* document = new rapidxml::xml_document<char>();
    document->clear();
    std::vector<char> buffer(text.c_str(), text.c_str() + text.size() + 1);
    try {
        document->parse<0>(buffer.data());
    } catch (const rapidxml::parse_error&) {
        return false;
    }
    const Element* event = document->first_node("brguiEvent");
    const rapidxml::xml_attribute<char>* attribute = event ? event->first_attribute("id") : nullptr;
    if (attribute != nullptr)
        id.assign(attribute->value(), attribute->value_size());
    if (!id.empty())
        ReferenceIndex(event, index);
    return true;
}

void CheckEvent(const std::string& text) {
    const int32_t depth = XmlDoc::NestingDepth(text.c_str());
    XmlUIEvent event(text.c_str());
    FUZZ_CHECK(depth <= XmlDoc::kMaxNestingDepth || (!event.valid && event.ToString().empty()));
    if (depth > XmlDoc::kMaxNestingDepth)
        return;
    std::string id;
    Index index;
    const bool parsed = ReferenceParse(text, id, index);
    FUZZ_CHECK(parsed == (depth >= 0) && (parsed || event.ToString().empty()));
    FUZZ_CHECK(event.valid == !id.empty() && event.GetId() == id &&
               IndexOf(event.controls) == index);
    if (!event.valid)
        return;
    for (const auto& entry : event.controls) {
        FUZZ_CHECK(entry.second.GetAttribute(kUiId) == entry.first);
        event.GetComboValue(entry.second);
    }
    const std::string printed = event.ToString();
    if (event.GetRootNode(nullptr).node != event.root.node ||
        printed.find('\0') != std::string::npos)
        return;
    XmlUIEvent again(printed.c_str());
    FUZZ_CHECK(again.valid && again.GetId() == id && IndexOf(again.controls) == index);
}

void CheckNotice(const std::string& text) {
    XmlUINotice parsed(text.c_str());
    FUZZ_CHECK(!parsed.valid || (parsed.type >= kNoticeSetup && parsed.type < kNoticeUnknown));
    for (const auto& entry : parsed.controls)
        FUZZ_CHECK(entry.second.type != kCtrlUnknown);

    XmlUINotice built(kNoticeUpdate, text.c_str(), kUiModuleIdentity);
    built.GetControl(kCtrlLabel, "v").SetAttribute(kUiValue, text.c_str());
    built.CreateNode(kUiLog).SetValue(text.c_str());
    const std::string printed = built.ToString();
    XmlUINotice back(printed.c_str());
    FUZZ_CHECK(back.valid && back.type == kNoticeUpdate && back.root.GetAttribute(kUiTag) == text &&
               back.GetControl(kCtrlLabel, "v").GetAttribute(kUiValue) == text);
    if (text.find_first_not_of(" \t\r\n") != std::string::npos)
        FUZZ_CHECK(back.root.FirstChild(kUiLog).GetValue() == text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    g_Trace.SetLevelMask(0);
    const std::string text = AsText(data, strnlen(reinterpret_cast<const char*>(data), size));
    CheckEvent(text);
    CheckNotice(text);
    return 0;
}
