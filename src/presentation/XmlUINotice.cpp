#include "presentation/XmlUINotice.h"

#include <time.h>

#include "presentation/UiVocabulary.h"

XmlUINotice::XmlUINotice(int32_t noticeType, const char* tag, const char* module)
    : type(noticeType), valid(true) {
    // At document level: CreateNode of this class would put it below the (still empty) root.
    root = XmlDoc::CreateNode(kUiBrguiNotice);
    if (module != nullptr)
        root.SetAttribute(kUiModule, module);
    root.SetAttribute(kUiType, g_UiNoticeTypes.TextOf(noticeType));
    if (tag != nullptr)
        root.SetAttribute(kUiTag, tag);
    if (noticeType == kNoticePopup)
        root = CreateNode(kUiPopup);
    SetTimestamp(nullptr);
}

XmlUINotice::XmlUINotice(const char* xml) : type(kNoticeUnknown), valid(false) {
    Parse(xml);
}

XmlUINotice::~XmlUINotice() = default;

XmlNode XmlUINotice::CreateNode(const char* name) {
    return CreateChildNode(root, name);
}

bool XmlUINotice::Parse(const char* xml) {
    valid = false;
    if (xml == nullptr)
        return false;  // the document and what points into it stay as they were
    root = XmlNode();
    controls.clear();
    type = kNoticeUnknown;
    if (!XmlDoc::Parse(xml))
        return false;
    root = GetRootNode(kUiBrguiNotice);
    if (root.IsNull())
        return false;
    const std::string typeText = root.GetAttribute(kUiType);
    if (typeText.empty())
        return false;
    type = g_UiNoticeTypes.IdOf(typeText.data(), typeText.size(), kNoticeUnknown);
    if (type == kNoticeUnknown)
        return false;
    IndexControls(root, true, controls);
    valid = true;
    return true;
}

XmlUICtrl XmlUINotice::GetControl(int32_t ctrlType, const char* id) {
    return GetControl(ctrlType, id, root);
}

XmlUICtrl XmlUINotice::GetControl(int32_t ctrlType, const char* id, const XmlNode& parent) {
    if (id == nullptr)
        return XmlUICtrl();
    auto position = controls.lower_bound(id);
    if (position != controls.end() && position->first == id)
        return position->second;
    XmlUICtrl control(CreateChildNode(parent, g_UiControlTypes.TextOf(ctrlType)));
    control.SetId(id);
    controls.emplace_hint(position, id, control);
    return control;
}

XmlNode XmlUINotice::GetPlainControl(int32_t ctrlType, const char* id) {
    return GetControl(ctrlType, id);
}

XmlNode XmlUINotice::GetNode(int32_t ctrlType, const char* id, const XmlNode& parent) {
    return GetControl(ctrlType, id, parent);
}

bool XmlUINotice::SetState(int32_t state) {
    root.SetAttribute(kUiState, g_UiTrayStates.TextOf(state));
    return true;
}

bool XmlUINotice::SetModule(const char* module) {
    root.SetAttribute(kUiModule, module);
    return true;
}

bool XmlUINotice::SetTimestamp(const char* text) {
    if (text != nullptr) {
        root.SetAttribute(kUiTimestamp, text);
        return true;
    }
    const time_t now = time(nullptr);
    struct tm local;
    if (localtime_r(&now, &local) == nullptr)
        return false;
    char buffer[64] = {};
    strftime(buffer, sizeof(buffer), "%c", &local);
    // A text that does not fit leaves the buffer's contents undefined: never past its end.
    buffer[sizeof(buffer) - 1] = '\0';
    root.SetAttribute(kUiTimestamp, buffer);
    return true;
}

std::string XmlUINotice::SetControlEvent(const char* id, int32_t eventType,
                                         const char* controlIds) {
    if (id == nullptr)
        return std::string();
    auto found = controls.find(id);
    return found == controls.end() ? std::string() : found->second.SetEvent(eventType, controlIds);
}
