// Arbitrary text (up to its first NUL) through the UI event and notice layer, with rapidxml used
// directly as the reference.
#include <map>

#include <rapidxml/rapidxml.hpp>

#include "FuzzSupport.h"
#include "presentation/UiVocabulary.h"
#include "presentation/XmlUIEvent.h"
#include "presentation/XmlUINotice.h"

using Index = std::map<std::string, int32_t>;

// Ids below `node` (included) as the event indexes them (the scan keeps the depth within 256).
static void ReferenceIndex(const rapidxml::xml_node<char>* node, Index& index) {
    const rapidxml::xml_attribute<char>* id = node->first_attribute("id");  // elements only
    if (id != nullptr && id->value_size() > 0)
        index[std::string(id->value(), id->value_size())] =
            g_UiControlTypes.IdOf(node->name(), node->name_size(), kCtrlUnknown);
    for (const auto* child = node->first_node(); child != nullptr; child = child->next_sibling())
        ReferenceIndex(child, index);
}

static Index IndexOf(const XmlControlMap& controls) {
    Index index;
    for (const auto& entry : controls)
        index[entry.first] = entry.second.type;
    return index;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    g_Trace.SetLevelMask(0);
    const std::string text = AsText(data, strnlen(reinterpret_cast<const char*>(data), size));

    // A parsed notice has a type in range when valid, and no control of unknown type; a built one
    // gives back its tag, attribute value and element text (unless all blank) unchanged.
    XmlUINotice notice(text.c_str());
    FUZZ_CHECK(!notice.valid || (notice.type >= kNoticeSetup && notice.type < kNoticeUnknown));
    for (const auto& entry : notice.controls)
        FUZZ_CHECK(entry.second.type != kCtrlUnknown);
    XmlUINotice built(kNoticeUpdate, text.c_str(), kUiModuleIdentity);
    built.GetControl(kCtrlLabel, "v").SetAttribute(kUiValue, text.c_str());
    built.CreateNode(kUiLog).SetValue(text.c_str());
    XmlUINotice back(built.ToString().c_str());
    FUZZ_CHECK(back.valid && back.type == kNoticeUpdate && back.root.GetAttribute(kUiTag) == text &&
               back.GetControl(kCtrlLabel, "v").GetAttribute(kUiValue) == text);
    if (text.find_first_not_of(" \t\r\n") != std::string::npos)
        FUZZ_CHECK(back.root.FirstChild(kUiLog).GetValue() == text);

    const int32_t depth = XmlDoc::NestingDepth(text.c_str());
    XmlUIEvent event(text.c_str());
    FUZZ_CHECK(depth <= XmlDoc::kMaxNestingDepth || (!event.valid && event.ToString().empty()));
    if (depth > XmlDoc::kMaxNestingDepth)
        return 0;
    // The reference: rapidxml alone, and the id and controls of the first top-level "brguiEvent".
    static rapidxml::xml_document<char>* document = new rapidxml::xml_document<char>();
    document->clear();
    std::vector<char> buffer(text.c_str(), text.c_str() + text.size() + 1);
    bool parsed = true;
    try {
        document->parse<0>(buffer.data());
    } catch (const rapidxml::parse_error&) {
        parsed = false;
    }
    const auto* root = parsed ? document->first_node("brguiEvent") : nullptr;
    const auto* attribute = root ? root->first_attribute("id") : nullptr;
    const std::string id =
        attribute ? std::string(attribute->value(), attribute->value_size()) : "";
    Index index;
    if (!id.empty())
        ReferenceIndex(root, index);
    FUZZ_CHECK(parsed == (depth >= 0) && (parsed || event.ToString().empty()));
    FUZZ_CHECK(event.valid == !id.empty() && event.GetId() == id &&
               IndexOf(event.controls) == index);
    if (!event.valid)
        return 0;
    for (const auto& entry : event.controls) {
        FUZZ_CHECK(entry.second.GetAttribute(kUiId) == entry.first);
        event.GetComboValue(entry.second);
    }
    const std::string printed = event.ToString();
    if (event.GetRootNode(nullptr).node != event.root.node ||
        printed.find('\0') != std::string::npos)
        return 0;
    XmlUIEvent again(printed.c_str());
    FUZZ_CHECK(again.valid && again.GetId() == id && IndexOf(again.controls) == index);
    return 0;
}
