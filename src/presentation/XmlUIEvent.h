// XmlUIEvent reads one event document from the host: root "brguiEvent" with the event id in
// "id", and below it the controls whose values the host returns, indexed by their ids.
//
// Built from the host's text, read on the same thread and dropped with the handler; no lock.
// A text that fails to parse gives an invalid event whose accessors answer empty values.
#ifndef TIDEWAY_PRESENTATION_XMLUIEVENT_H_
#define TIDEWAY_PRESENTATION_XMLUIEVENT_H_

#include <string>

#include "presentation/XmlDoc.h"
#include "presentation/XmlNode.h"

class XmlUIEvent : public XmlDoc {
  public:
    // Parses `xml` (null gives an invalid event).
    explicit XmlUIEvent(const char* xml);
    ~XmlUIEvent() override;

    // Valid only when the root "brguiEvent" exists with a non-empty "id". Every element with a
    // non-empty "id", the root included and whatever its name, enters `controls` in document
    // order; a later element with the same id replaces the earlier one.
    bool Parse(const char* xml) override;

    // The event id; "" when not valid.
    std::string GetId() const;
    // A copy of the control with that id; an empty control of type 18 when there is none, the
    // event is not valid or `id` is null.
    XmlUICtrl GetControl(const char* id) const;
    // A combobox's value: its non-empty "value" attribute, else the "label" of its first
    // "comboitem" child whose "selected" is exactly "true", else "". "" for anything else.
    std::string GetComboValue(const XmlUICtrl& ctrl) const;

    XmlNode root;            // the "brguiEvent" element
    XmlControlMap controls;  // by id
    std::string id;          // the root's "id"
    bool valid;              // set only by a successful Parse
};

#endif  // TIDEWAY_PRESENTATION_XMLUIEVENT_H_
