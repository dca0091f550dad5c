// XmlUINotice builds one notice for the host: root "brguiNotice" with "module", "type", "tag"
// and "timestamp", and the controls below it, each created once per notice and found again by
// its id. A pop-up notice puts its controls and its timestamp on a "popup" child of the root.
//
// A notice is built, printed with ToString and dropped within one handler, on one thread; no
// lock. `root` is where controls and SetState/SetTimestamp land; callers may write through it.
#ifndef TIDEWAY_PRESENTATION_XMLUINOTICE_H_
#define TIDEWAY_PRESENTATION_XMLUINOTICE_H_

#include <stdint.h>

#include <string>

#include "presentation/XmlDoc.h"
#include "presentation/XmlNode.h"

class XmlUINotice : public XmlDoc {
  public:
    // A new notice of `noticeType` (UiNoticeType): "module" if given, "type" (none for a type
    // without text), "tag" if given, then for a pop-up the "popup" child that becomes `root`,
    // then "timestamp" on `root`. `tag` and `module` may be null.
    XmlUINotice(int32_t noticeType, const char* tag, const char* module);
    // Parses a notice text: type kNoticeUnknown and not valid until Parse succeeds.
    explicit XmlUINotice(const char* xml);
    ~XmlUINotice() override;

    // A new element below `root` (unnamed for a null name).
    XmlNode CreateNode(const char* name) override;
    // Valid when the root "brguiNotice" has a "type" naming a notice type; elements with a
    // control's name and a non-empty "id" enter `controls`. `root` stays on "brguiNotice".
    bool Parse(const char* xml) override;

    // The control `id`: the one already in this notice whatever `ctrlType` and `parent` say, or
    // else a new element of `ctrlType`'s name below `parent` (default `root`) with that "id",
    // entered into `controls`. A null id gives an empty control of type 18.
    XmlUICtrl GetControl(int32_t ctrlType, const char* id);
    XmlUICtrl GetControl(int32_t ctrlType, const char* id, const XmlNode& parent);
    // The same, as plain handles.
    XmlNode GetPlainControl(int32_t ctrlType, const char* id);
    XmlNode GetNode(int32_t ctrlType, const char* id, const XmlNode& parent);

    // Attribute "state" on `root` with the UiTrayState's text (none for an unknown state).
    bool SetState(int32_t state);
    // Attribute "module" on `root`.
    bool SetModule(const char* module);
    // Attribute "timestamp" on `root`: `text` as it stands, or for null the local time as "%c"
    // formats it. False, with nothing set, when the local time cannot be had.
    bool SetTimestamp(const char* text);
    // SetEvent on the control `id` of this notice; "" when there is no such control.
    std::string SetControlEvent(const char* id, int32_t eventType, const char* controlIds);

    XmlNode root;            // "brguiNotice", or its "popup" child in a pop-up notice
    XmlControlMap controls;  // the controls made so far, by id
    int32_t type;            // UiNoticeType
    bool valid;
};

#endif  // TIDEWAY_PRESENTATION_XMLUINOTICE_H_
