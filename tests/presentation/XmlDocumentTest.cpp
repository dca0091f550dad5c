// The XML documents of the presentation plug-in: notices printed byte for byte, events parsed
// and refused, nodes copied between documents.
#include <time.h>

#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "SyslogCapture.h"
#include "common/VNTrace.h"
#include "presentation/UiVocabulary.h"
#include "presentation/XmlUIEvent.h"
#include "presentation/XmlUINotice.h"

namespace {

using ::testing::ElementsAre;
using ::testing::Key;

// Compared byte for byte with the reference; PAGES_WRITE_REFERENCE=1 rewrites it.
TEST(XmlUINotice, PrintsSetupUpdateAndPopupNoticesByteForByte) {
    XmlUINotice setup(kNoticeSetup, nullptr, kUiModuleIdentity);
    setup.GetControl(kCtrlLabel, kIdSimpleTileLabel).SetAttribute(kUiValue, "Tideway:");
    setup.CreateNode(kUiPreferences);
    XmlUICtrl group = setup.GetControl(kCtrlRadioGroup, kIdModeRadioGroup);
    group.SetAttribute(kUiDisabled, kUiTrue);
    group.SetEvent(kEventOnSelect, kIdModeRadioGroup);
    group.AddChild(kUiRadio).SetAttribute(kUiLabel, "Auto").SetAttribute(kUiSelected, kUiFalse);
    group.AddChild(kUiRadio).SetAttribute(kUiLabel, "Manual");
    // A value holding '"' goes in single quotes; the other four entities are expanded.
    setup.GetControl(kCtrlLabel, kIdTower).SetAttribute(kUiValue, "a<b & \"c\" 'd'>");
    setup.GetControl(kCtrlLabel, kIdTowerLbl).SetAttribute(kUiValue, "it's");

    XmlUINotice update(kNoticeUpdate, "stat_update", kUiModuleIdentity);
    update.SetState(kTrayGood);
    update.GetControl(kCtrlLabel, kIdSimpleStatus).SetAttribute(kUiValue, "On (Tower A)");
    update.GetControl(kCtrlTrayState, kIdTrayStateString).SetAttribute(kUiValue, "On");
    update.CreateNode(kUiLog).SetAttribute(kUiMessageHistory, "On (Tower A)");
    // The same id again, even with another type, is the same element.
    update.GetControl(kCtrlButton, kIdSimpleStatus).SetAttribute(kUiHidden, kUiFalse);
    update.GetControl(kCtrlLabel, kIdSimpleStatus).SetAttribute(kUiValue, "Off");

    XmlUINotice popup(kNoticePopup, "t", kUiModuleIdentity);
    popup.root.SetAttribute(kUiId, kIdCredentialDialog).SetAttribute(kUiType, kUiCustom);
    popup.CreateNode(kUiTitle).SetAttribute(kUiValue, "Tarvex Brenlo Tideway");
    XmlNode row = popup.CreateNode(kUiLayout).AddChild(kUiRow);
    XmlUICtrl ok = popup.GetControl(kCtrlButton, kIdCredentialOkBtn, row);
    ok.SetAttribute(kUiLabel, "Ok");
    ok.SetEvent(kEventOnPress, "proxyuser,proxypswd");
    popup.GetControl(kCtrlCloseButton, kIdCredentialClose).SetEvent(kEventOnClose, nullptr);

    // Without module and tag, and with a type that has no text, those are left out.
    XmlUINotice unknown(kNoticeUnknown, nullptr, nullptr);
    std::string printed;
    for (XmlUINotice* notice : {&setup, &update, &popup, &unknown}) {
        notice->SetTimestamp("Thu Jan  1 00:00:00 1970");  // replaces the clock's text in place
        printed += notice->ToString();
    }
    const std::string path = PAGES_DATA_DIR "/printed_notices.xml";
    if (getenv("PAGES_WRITE_REFERENCE") != nullptr)
        std::ofstream(path) << printed;
    std::stringstream reference;
    reference << std::ifstream(path).rdbuf();
    EXPECT_EQ(printed, reference.str());
}

TEST(XmlUINotice, TimestampIsTheLocalTimeAsPercentC) {
    auto format = [](time_t t) {
        struct tm local;
        char text[64] = {};
        strftime(text, sizeof(text), "%c", localtime_r(&t, &local));
        return std::string(text);
    };
    const time_t before = time(nullptr);
    const std::string stamp =
        XmlUINotice(kNoticeUpdate, nullptr, nullptr).root.GetAttribute(kUiTimestamp);
    EXPECT_TRUE(stamp == format(before) || stamp == format(time(nullptr))) << stamp;
}

TEST(XmlUICtrl, SetEventKeepsAnArmedIdAndRewritesTheControlList) {
    XmlUINotice notice(kNoticeUpdate, nullptr, nullptr);
    notice.root.RemoveAttribute(kUiTimestamp);
    XmlUICtrl ok = notice.GetControl(kCtrlButton, kIdCredentialOkBtn);
    EXPECT_EQ(ok.type, kCtrlButton);
    EXPECT_EQ(ok.SetEvent(kEventOnPress, "a,b"), "credential_ok_btn_OnPress");
    EXPECT_TRUE(ok.RenameEvent(kEventOnPress, "renamed"));
    EXPECT_EQ(ok.SetEvent(kEventOnPress, nullptr), "renamed");  // kept; OnPressID removed
    EXPECT_EQ(ok.GetEvent(kEventOnPress), "renamed");
    EXPECT_FALSE(ok.RenameEvent(kEventOnSelect, "x"));  // not armed
    EXPECT_EQ(notice.SetControlEvent(kIdCredentialOkBtn, kEventOnClose, "c"),
              "credential_ok_btn_OnClose");
    EXPECT_EQ(notice.SetControlEvent(kIdCredentialOkBtn, kEventOnError, nullptr),
              "credential_ok_btn_OnError");
    EXPECT_EQ(notice.SetControlEvent(kIdCredentialClose, kEventOnClose, nullptr), "");  // none
    for (int32_t unknown : {-1, 8})
        EXPECT_EQ(ok.SetEvent(unknown, "x"), "");
    EXPECT_EQ(notice.ToString(),
              "<brguiNotice type=\"update\">\n"
              "\t<button id=\"credential_ok_btn\" OnPress=\"renamed\" "
              "OnClose=\"credential_ok_btn_OnClose\" OnCloseID=\"c\" "
              "OnError=\"credential_ok_btn_OnError\"/>\n"
              "</brguiNotice>\n");
}

TEST(XmlUIEvent, HandWrittenEventsAreValidatedAndIndexed) {
    g_Trace.InitTrace(kTraceIdent, "/tmp", "TidewayAPI.log", 2, kDefaultTraceMask, false, true, 10,
                      10000, 100, 1, 0, 60);
    auto nest = [](int levels) {
        std::string inner;
        for (int i = 1; i < levels; ++i)
            inner = "<a>" + inner + "</a>";
        return "<brguiEvent id=\"e\">" + inner + "</brguiEvent>";
    };
    const std::string tooDeep = nest(257);
    using Controls = std::map<std::string, int32_t>;
    struct Case {
        std::string text, id;  // refused without an id
        Controls controls;
    };
    std::vector<Case> cases = {
        {"<brguiEvent id=\"r_OnSelect\">\n\t<radiogroup id=\"r\" value=\"Auto\"/>\n</brguiEvent>",
         "r_OnSelect",
         {{"r_OnSelect", kCtrlUnknown}, {"r", kCtrlRadioGroup}}},
        // A later element with the same id wins; elements without an id are walked through;
        // unknown names, also by case, are indexed with type 18.
        {"<brguiEvent id=\"e\"><label id=\"d\"/><row><textbox id=\"d\"/><x id=\"\"/></row><?pi?>"
         "<!-- c --><![CDATA[<q>]]><widget id=\"w\"/><Label id=\"L\"/></brguiEvent>",
         "e",
         {{"e", kCtrlUnknown}, {"d", kCtrlTextBox}, {"w", kCtrlUnknown}, {"L", kCtrlUnknown}}},
        {"<?xml version=\"1.0\"?><other id=\"o\"/><brguiEvent id=\"a&amp;b&#x41;\"/>",
         "a&bA",
         {{"a&bA", kCtrlUnknown}}},
        // Default parse flags: closing names are not checked.
        {"<brguiEvent id=\"e\"><label id=\"l\"></wrong></brguiEvent>",
         "e",
         {{"e", kCtrlUnknown}, {"l", kCtrlLabel}}},
        {nest(256), "e", {{"e", kCtrlUnknown}}},
        {"<brguiEvent id='e' x=\"1\"y=\"2\"/>", "e", {{"e", kCtrlUnknown}}},
        // Refused before rapidxml recurses, with a WARN line; then the other refused texts.
        {tooDeep, "", {}},
    };
    for (const char* refused :
         {"<brguiNotice id=\"e\"/>", "<BrguiEvent id=\"e\"/>", "<brguiEvent id=\"\"/>",
          "<brguiEvent><label id=\"l\"/></brguiEvent>", "<brguiEvent id=\"e\"/>trailing",
          "<brguiEvent id=\"&#x110000;\"/>", "<brguiEvent id=\"&#65\"/>", ""})
        cases.push_back({refused, "", {}});
    for (const auto& c : cases) {
        syslog_capture::Clear();
        XmlUIEvent event(c.text.c_str());
        EXPECT_EQ(event.valid, !c.id.empty()) << c.text;
        EXPECT_EQ(event.GetId(), c.id) << c.text;
        Controls controls;
        for (const auto& entry : event.controls)
            controls[entry.first] = entry.second.type;
        EXPECT_EQ(controls, c.controls) << c.text;
        EXPECT_EQ(event.GetControl("l").IsNull(), c.controls.count("l") == 0) << c.text;
        EXPECT_EQ(syslog_capture::Count(
                      "XmlDoc : document refused, elements nested deeper than 256 levels\n"),
                  c.text == tooDeep ? 1u : 0u);
    }

    // A failed parse leaves no document; a null text is refused without touching it.
    XmlUIEvent event("<brguiEvent id=\"e\"><label id=\"l\"/></brguiEvent>");
    EXPECT_FALSE(event.Parse(nullptr));
    EXPECT_FALSE(event.valid);
    EXPECT_EQ(event.ToString(), "<brguiEvent id=\"e\">\n\t<label id=\"l\"/>\n</brguiEvent>\n");
    EXPECT_FALSE(event.Parse("<brguiEvent id=\"e\">"));
    EXPECT_EQ(event.ToString(), "");
    EXPECT_TRUE(event.GetControl("l").IsNull());
    EXPECT_EQ(event.GetControl("l").type, kCtrlUnknown);
    EXPECT_TRUE(event.controls.empty());
}

TEST(XmlUIEvent, ComboValueIsTheValueAttributeElseTheSelectedItem) {
    XmlUIEvent event(
        "<brguiEvent id=\"tower_list_combobox_OnSelect\">"
        "<combobox id=\"value\" value=\"B\"><comboitem label=\"A\" selected=\"true\"/></combobox>"
        "<combobox id=\"item\" value=\"\"><comboitem label=\"A\" selected=\"True\"/>"
        "<comboitem label=\"B\" selected=\"true\"/><comboitem label=\"C\" selected=\"true\"/>"
        "</combobox>"
        "<combobox id=\"none\"><item label=\"A\" selected=\"true\"/>text</combobox>"
        "<listbox id=\"other\" value=\"X\"/></brguiEvent>");
    ASSERT_TRUE(event.valid);
    const std::pair<const char*, const char*> cases[] = {
        {"value", "B"}, {"item", "B"}, {"none", ""}, {"other", ""}, {"missing", ""}};
    for (const auto& c : cases)
        EXPECT_EQ(event.GetComboValue(event.GetControl(c.first)), c.second) << c.first;
}

TEST(XmlUINotice, ParsedNoticesIndexOnlyControlNames) {
    XmlUINotice notice(
        "<brguiNotice type=\"update\"><label id=\"a\"/><foo id=\"b\"/><popup id=\"p\">"
        "<layout><button id=\"c\"/></layout></popup></brguiNotice>");
    EXPECT_TRUE(notice.valid && notice.type == kNoticeUpdate);
    EXPECT_THAT(notice.controls, ElementsAre(Key("a"), Key("c"), Key("p")));
    for (const char* text : {"<brguiNotice type=\"Update\"/>", "<brguiNotice/>",
                             "<brguiNotice type=\"\"/>", "<brguiEvent type=\"update\"/>"})
        EXPECT_FALSE(XmlUINotice(text).valid) << text;
}

TEST(XmlNode, AttributesChildrenAndCopiesBetweenDocuments) {
    XmlUINotice target(kNoticeUpdate, nullptr, nullptr);
    XmlNode holder = target.CreateNode("holder");
    {
        XmlUIEvent source(
            "<brguiEvent id=\"e\"><a x=\"1\">text<b y=\"2\"/>tail<b/></a></brguiEvent>");
        XmlNode a = source.root.FirstChild("a");
        EXPECT_EQ(a.GetValue(), "text");
        EXPECT_EQ(a.FirstChild().GetName(), "b");  // text nodes are skipped
        EXPECT_TRUE(a.FirstChild("b").NextSibling("b").FirstChild().IsNull());
        EXPECT_TRUE(a.FirstChild("b").NextSibling("b").NextSibling().IsNull());
        EXPECT_TRUE(source.root.Parent().IsNull());
        EXPECT_EQ(a.FirstChild("b").Parent().GetName(), "a");
        holder.CopyFrom(a);
        holder.AddChild("c").CopyChildrenFrom(holder);  // the copy is made before it lands
    }  // the source document is gone: the copies live in the target's pool
    holder.SetAttribute("x", "3").SetAttribute("z", "4").SetAttribute("x", "5");
    bool exists = true;
    EXPECT_EQ(holder.GetAttribute("missing", exists), "");
    EXPECT_FALSE(exists);
    EXPECT_EQ(holder.GetAttribute("x", exists), "5");
    EXPECT_TRUE(exists);
    EXPECT_EQ(holder.RemoveAttribute("z"), 1);
    EXPECT_EQ(holder.RemoveAttribute("z"), 0);
    holder.SetAttribute(nullptr, "v").SetAttribute("n", nullptr);
    EXPECT_TRUE(XmlNode().AddChild("x").IsNull());
    EXPECT_TRUE(target.CreateChildNode(XmlNode(), "x").IsNull());
    target.root.RemoveAttribute(kUiTimestamp);
    const auto copy = [](const std::string& t) {  // a's content, indented by `t`
        return t + "text\n" + t + "<b y=\"2\"/>\n" + t + "tail\n" + t + "<b/>\n";
    };
    EXPECT_EQ(target.ToString(), "<brguiNotice type=\"update\">\n\t<a x=\"5\">\n" + copy("\t\t") +
                                     "\t\t<c>\n" + copy("\t\t\t") +
                                     "\t\t\t<c/>\n\t\t</c>\n\t</a>\n</brguiNotice>\n");
}

}  // namespace
