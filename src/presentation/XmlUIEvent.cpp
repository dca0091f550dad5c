#include "presentation/XmlUIEvent.h"

#include "presentation/UiVocabulary.h"

XmlUIEvent::XmlUIEvent(const char* xml) : valid(false) {
    Parse(xml);
}

XmlUIEvent::~XmlUIEvent() = default;

bool XmlUIEvent::Parse(const char* xml) {
    valid = false;
    if (xml == nullptr)
        return false;  // the document and what points into it stay as they were
    // The old content goes with the parse: nothing may keep pointing into it.
    root = XmlNode();
    controls.clear();
    id.clear();
    if (!XmlDoc::Parse(xml))
        return false;
    root = GetRootNode(kUiBrguiEvent);
    if (root.IsNull())
        return false;
    id = root.GetAttribute(kUiId);
    if (id.empty())
        return false;
    IndexControls(root, false, controls);
    valid = true;
    return true;
}

std::string XmlUIEvent::GetId() const {
    return valid ? id : std::string();
}

XmlUICtrl XmlUIEvent::GetControl(const char* controlId) const {
    if (controlId == nullptr || !valid)
        return XmlUICtrl();
    auto found = controls.find(controlId);
    return found == controls.end() ? XmlUICtrl() : found->second;
}

std::string XmlUIEvent::GetComboValue(const XmlUICtrl& ctrl) const {
    if (ctrl.IsNull() || ctrl.GetName() != "combobox")
        return std::string();
    std::string value = ctrl.GetAttribute(kUiValue);
    if (!value.empty())
        return value;
    for (XmlNode item = ctrl.FirstChild(kUiComboItem); !item.IsNull();
         item = item.NextSibling(kUiComboItem)) {
        if (item.GetAttribute(kUiSelected) == kUiTrue)
            return item.GetAttribute(kUiLabel);
    }
    return std::string();
}
