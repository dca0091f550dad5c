// The pages of the presentation plug-in against a recording host, without an agent: the
// callbacks are fed the API's own result objects and the notices are compared as parsed
// documents on what the host acts on.
#include <string.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <memory>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ApiTrace.h"
#include "RecordingHost.h"
#include "SyslogCapture.h"
#include "common/VNTrace.h"
#include "api/VantoriaResultObjects.h"
#include "presentation/UiVocabulary.h"
#include "presentation/VantoriaPresentationPlugin.h"
#include "presentation/XmlUINotice.h"

namespace {

std::string T(uint32_t key) { return RecordingHost::Text(key); }

// The rows of an outline list box as "group/row" -> its column labels ("group" alone for the
// group's caption).
std::map<std::string, std::vector<std::string>> Rows(const std::string& xml, const char* box) {
    XmlUINotice notice(xml.c_str());
    std::map<std::string, std::vector<std::string>> rows;
    auto found = notice.controls.find(box);
    if (found == notice.controls.end())
        return rows;
    for (XmlNode g = found->second.FirstChild(kUiListGroup); !g.IsNull();
         g = g.NextSibling(kUiListGroup)) {
        const std::string group = g.GetAttribute(kUiId);
        rows[group].push_back(g.FirstChild(kUiListRowColumn).GetAttribute(kUiLabel));
        for (XmlNode r = g.FirstChild(kUiListRow); !r.IsNull(); r = r.NextSibling(kUiListRow)) {
            auto& columns = rows[group + "/" + r.GetAttribute(kUiId)];
            for (XmlNode c = r.FirstChild(kUiListRowColumn); !c.IsNull();
                 c = c.NextSibling(kUiListRowColumn))
                columns.push_back(c.GetAttribute(kUiLabel));
        }
    }
    return rows;
}

// The attributes of a notice that the host acts on, "-" for one that is missing.
struct Shown {
    std::string state, status, tray, log;
    bool operator==(const Shown& o) const {
        return state == o.state && status == o.status && tray == o.tray && log == o.log;
    }
};
std::ostream& operator<<(std::ostream& out, const Shown& s) {
    return out << "{" << s.state << "|" << s.status << "|" << s.tray << "|" << s.log << "}";
}
std::string AttributeOr(const XmlNode& node, const char* name) {
    bool exists = false;
    const std::string value = node.GetAttribute(name, exists);
    return node.IsNull() || !exists ? "-" : value;
}
Shown ShownBy(XmlUINotice& notice) {
    return {AttributeOr(notice.root, kUiState),
            AttributeOr(notice.controls[kIdSimpleStatus], kUiValue),
            AttributeOr(notice.controls[kIdTrayStateString], kUiValue),
            AttributeOr(notice.root.FirstChild(kUiLog), kUiMessageHistory)};
}

class PresentationPages : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(plugin_.Initialize(&context_, 3, &host_, &host_), 0);
    }
    // The plug-in's own trace lines and the API requests it made, in order.
    std::vector<std::string> TakeLines() {
        std::vector<std::string> lines;
        for (const std::string& l : syslog_capture::Texts())
            if (l.find("CVantoriaPresentationPlugin") != std::string::npos ||
                l.find("CVantoriaApi") != std::string::npos)
                lines.push_back(l.substr(0, l.find_last_not_of('\n') + 1));
        syslog_capture::Clear();
        return lines;
    }
    int32_t Status(uint64_t code) {
        CVantoriaStatus status(code);
        return plugin_.OnStatus(&status);
    }
    ApiTraceOn trace_;  // constructed before SetUp runs
    std::vector<std::string> TakeNotices() {
        std::vector<std::string> taken = host_.Notices();
        std::lock_guard<std::mutex> lock(host_.mutex);
        host_.notices.clear();
        return taken;
    }

    RecordingHost host_;
    int context_ = 0;
    CVantoriaPresentationPlugin plugin_;
};

ServiceStatistics Record(uint32_t mode, uint32_t service, uint32_t detect, uint32_t onLan) {
    ServiceStatistics record;
    memset(&record, 0, sizeof(record));
    record.nSelectionMode = mode;
    record.nServiceStatus = service;
    record.nDetectOnLan = detect;
    record.nOnLan = onLan;
    record.activeFilteredA = 4000000000u;  // the active sums wrap in 32 bits in the object
    record.activeFilteredB = 7;
    record.activeBypassedA = 12;
    record.totalFilteredA = 0x100000000ull;  // 4294967296
    record.totalFilteredB = 5;
    record.totalBypassedB = 18446744073709551615ull;
    strcpy(record.szActiveTower, "north-2");
    strcpy(record.szLastTowerSelect, "00:05:17");
    strcpy(record.szServiceEnabled, "Mon 08:00");
    return record;
}

TEST_F(PresentationPages, StatisticsReportFillsBothBoxesFromTheObject) {
    struct Case {
        uint32_t mode, service, detect, onLan;
        std::vector<std::string> modeRow, serviceRow, detectRow, onLanRow;
    };
    const std::vector<Case> cases = {
        {0, 2, 1, 1, {T(384), T(360)}, {T(79), T(369)}, {T(77), T(369)}, {T(391), T(176)}},
        {1, 4, 1, 0, {T(384), T(361)}, {T(79), T(81)}, {T(77), T(369)}, {T(391), T(177)}},
        {2, 3, 0, 1, {T(384), T(362)}, {T(79), T(171)}, {T(77), T(81)}, {T(391), T(178)}},
        {3, 0, 0, 0, {T(384)}, {T(79), T(171)}, {T(77), T(81)}, {T(391), T(178)}},
    };
    for (const Case& c : cases) {
        const ServiceStatistics record = Record(c.mode, c.service, c.detect, c.onLan);
        CVantoriaStatistics statistics(reinterpret_cast<const uint8_t*>(&record));
        ASSERT_EQ(plugin_.OnStatistics(&statistics), 0);
        const std::vector<std::string> notices = TakeNotices();
        ASSERT_EQ(notices.size(), 1u);
        XmlUINotice notice(notices[0].c_str());
        ASSERT_TRUE(notice.valid);
        EXPECT_EQ(notice.type, kNoticeUpdate);
        EXPECT_EQ(notice.root.GetAttribute(kUiTag), "stat_update");
        for (const char* box : {kIdStatOutlineListBox, kIdOverviewStatOutlineListBox}) {
            EXPECT_EQ(notice.controls[box].GetAttribute(kUiUpdateRows), "true") << box;
            EXPECT_EQ(notice.controls[box].GetAttribute(kUiNumColumns), "2") << box;
        }
        const std::string word = c.serviceRow[1];
        const std::map<std::string, std::vector<std::string>> full = {
            {"group_tower_info", {T(386)}},
            {"group_tower_info/id_selection_mode", c.modeRow},
            {"group_tower_info/id_cur_tower", {T(374), "north-2"}},
            {"group_tower_info/id_last_switch", {T(381), "00:05:17"}},
            {"group_service_info", {T(390)}},
            {"group_service_info/id_service_status", c.serviceRow},
            {"group_service_info/id_enabled_since", {T(389), "Mon 08:00"}},
            {"group_service_info/id_detect_on_lan", c.detectRow},
            {"group_service_info/id_on_lan", c.onLanRow},
            {"group_active_connections", {T(385)}},
            {"group_active_connections/id_active_filtered", {T(382), "4000000007"}},
            {"group_active_connections/id_active_bypassed", {T(383), "12"}},
            {"group_total_connections", {T(387)}},
            {"group_total_connections/id_total_filtered", {T(382), "4294967301"}},
            {"group_total_connections/id_total_bypassed", {T(383), "18446744073709551615"}},
        };
        EXPECT_EQ(Rows(notices[0], kIdStatOutlineListBox), full) << "mode " << c.mode;
        const std::map<std::string, std::vector<std::string>> overview = {
            {"group_tideway", {T(167) + " (" + word + ")"}},
            {"group_tideway/id_cur_tower", {T(374), "north-2"}},
            {"group_tideway/id_detect_on_lan", c.detectRow},
        };
        EXPECT_EQ(Rows(notices[0], kIdOverviewStatOutlineListBox), overview) << "mode " << c.mode;
    }
}

// The real object with one text getter answering wrongly.
class FailingStatistics : public CVantoriaStatistics {
  public:
    // Faults: 0 the size query answers 0, 1 the copy answers -10, 2 the size query asks 4 GiB.
    FailingStatistics(const uint8_t* data, int which, int fault)
        : CVantoriaStatistics(data), which_(which), fault_(fault) {}
    int32_t GetActiveTowerName(char* b, uint32_t& n) override {
        return Fail(0, b) ? Bad(n) : CVantoriaStatistics::GetActiveTowerName(b, n);
    }
    int32_t GetTimeSinceLastTowerSelect(char* b, uint32_t& n) override {
        return Fail(1, b) ? Bad(n) : CVantoriaStatistics::GetTimeSinceLastTowerSelect(b, n);
    }
    int32_t GetTimeServiceEnabled(char* b, uint32_t& n) override {
        return Fail(2, b) ? Bad(n) : CVantoriaStatistics::GetTimeServiceEnabled(b, n);
    }

  private:
    // Getter 3 is the overview's second read of the tower name.
    bool Fail(int getter, char* buffer) {
        if (getter == 0 && buffer == nullptr)
            ++towerQueries_;
        if (getter == 0 && towerQueries_ == 2)
            getter = 3;
        return getter == which_ && (buffer == nullptr) == (fault_ != 1);
    }
    int32_t Bad(uint32_t& n) {
        n = 0xFFFFFFFFu;
        return fault_ == 0 ? 0 : fault_ == 1 ? -10 : -3;
    }
    int which_, fault_, towerQueries_ = 0;
};

TEST_F(PresentationPages, StatisticsWithAFailingTextGetterSendNothing) {
    const ServiceStatistics record = Record(1, 2, 1, 1);
    for (int which = 0; which < 4; ++which) {
        for (int fault : {0, 1, 2}) {
            FailingStatistics statistics(reinterpret_cast<const uint8_t*>(&record), which, fault);
            EXPECT_EQ(plugin_.OnStatistics(&statistics), -1) << which << fault;
            EXPECT_TRUE(TakeNotices().empty()) << which << fault;
        }
    }
    EXPECT_EQ(plugin_.OnStatistics(nullptr), -1);
    EXPECT_TRUE(TakeNotices().empty());
}

TEST_F(PresentationPages, StatusCodesDriveTileTrayHistoryAndRequests) {
    const std::string x = "-";
    const Shown empty{x, x, x, x};
    // No agent: every request fails, which shows each one in its order.
    const std::vector<std::string> running = {
        "CVantoriaApi :GetTowerList failed",
        "CVantoriaPresentationPlugin : Tower list request issue",
        "CVantoriaApi: GetDCTSettings failed",
        "CVantoriaPresentationPlugin : Get DCT Settings request issue"};
    std::vector<std::string> connected = running;
    connected.push_back("CVantoriaApi :StartStatsCollecting failed");
    connected.push_back("CVantoriaApi: Proxystate query  failed");
    struct Case {
        uint64_t code;
        Shown shown;         // of the update notice
        uint32_t popupText;  // key of the error pop-up sent before it, 0 for none
        bool greysPage;
        std::vector<std::string> lines;
    };
    const std::vector<Case> cases = {
        {2, {"Good", T(369), T(369), T(369)}, 0, false, running},
        {10, empty, 393, false, {}},
        {10, empty, 393, false, {}},  // not stored: acted on again
        {12, empty, 392, false, {}},
        {11, empty, 0, false, {}},   {13, empty, 0, false, {}}, {14, empty, 0, false, {}},
        {15, empty, 0, false, {}},   {0, empty, 0, false, {}},  {18, empty, 0, false, {}},
        {9, {"Good", T(372), T(372), T(372)}, 0, false, connected},
        {3, {"Neutral", T(367), T(367), T(367)}, 0, true, {}},
        {1, {"Neutral", T(81), T(81), T(81)}, 0, true, {}},
        {4, {"Neutral", T(365), T(365), T(365)}, 0, true, {}},
        {5, {"Neutral", T(366), T(366), T(366)}, 0, true, {}},
        {6, {"Trusted", T(238), T(238), T(238)}, 0, true, {}},
        {7, {"Error", T(371), T(371), T(371)}, 0, true, {}},
        {8, {"Error", T(373), T(373), T(373)}, 0, true, {}},
        {16, {"Neutral", T(398), x, x}, 0, true, {}},
        {17, {"Neutral", T(399), x, x}, 0, true, {}},
    };
    for (const Case& c : cases) {
        TakeLines();
        ASSERT_EQ(Status(c.code), 0);
        EXPECT_EQ(TakeLines(), c.lines) << "code " << c.code;
        const std::vector<std::string> notices = TakeNotices();
        ASSERT_EQ(notices.size(), c.popupText != 0 ? 2u : 1u) << "code " << c.code;
        if (c.popupText != 0) {
            const XmlUINotice popupNotice(notices[0].c_str());  // owns the nodes read below
            XmlNode popup = popupNotice.root.FirstChild(kUiPopup);
            EXPECT_EQ(popup.GetAttribute(kUiId) + "|" + popup.GetAttribute(kUiType) + "|" +
                          popup.FirstChild(kUiTitle).GetAttribute(kUiValue) + "|" +
                          popup.FirstChild(kUiText).GetAttribute(kUiValue),
                      "error_popup|error|" + T(5) + "|" + T(c.popupText));
        }
        XmlUINotice update(notices.back().c_str());
        EXPECT_EQ(update.type, kNoticeUpdate);
        EXPECT_EQ(ShownBy(update), c.shown) << "code " << c.code;
        EXPECT_EQ(update.root.FirstChild().IsNull(), c.shown == empty) << "code " << c.code;
        EXPECT_EQ(AttributeOr(update.controls[kIdModeRadioGroup], kUiDisabled),
                  c.greysPage ? "true" : "-")
            << "code " << c.code;
        // The same stored code again: nothing sent, nothing asked.
        if (!(c.shown == empty)) {
            ASSERT_EQ(Status(c.code), 0);
            EXPECT_TRUE(TakeNotices().empty()) << "code " << c.code;
            EXPECT_TRUE(TakeLines().empty()) << "code " << c.code;
        }
    }
}

// The real message object, counting the calls for its text.
class CountingMessage : public CVantoriaInfoMessage {
  public:
    CountingMessage(const std::string& text, int32_t fault)
        : CVantoriaInfoMessage(1, text), fault_(fault) {}
    int32_t GetMessageText(char* buffer, uint32_t& length) override {
        ++calls;
        sizes.push_back(length);
        return fault_ != 0 ? fault_ : CVantoriaInfoMessage::GetMessageText(buffer, length);
    }
    int calls = 0;
    std::vector<uint32_t> sizes;

  private:
    int32_t fault_;
};

TEST_F(PresentationPages, InfoMessagesGoToTheHistory) {
    const std::string longText(200, 'm');
    struct Case {
        std::string text;
        int32_t fault;
        std::vector<uint32_t> sizes;  // offered on each call
        std::string log;              // "-" when nothing is sent
    };
    const std::vector<Case> cases = {
        {"agent restarted", 0, {128}, "agent restarted"},
        {std::string(127, 'a'), 0, {128}, std::string(127, 'a')},
        {std::string(128, 'b'), 0, {128, 129}, std::string(128, 'b')},
        {longText, 0, {128, 201}, longText},
        {"x", -10, {128}, "-"},
    };
    for (const Case& c : cases) {
        CountingMessage message(c.text, c.fault);
        EXPECT_EQ(plugin_.OnInfoMessage(&message), 0);
        EXPECT_EQ(message.sizes, c.sizes) << c.text.size();
        const std::vector<std::string> notices = TakeNotices();
        if (c.log == "-") {
            EXPECT_TRUE(notices.empty());
            continue;
        }
        ASSERT_EQ(notices.size(), 1u);
        XmlUINotice notice(notices[0].c_str());
        EXPECT_EQ(notice.type, kNoticeUpdate);
        EXPECT_EQ(ShownBy(notice), (Shown{"-", "-", "-", c.log}));
    }
}

TEST_F(PresentationPages, SetupNoticeMatchesTheReference) {
    ASSERT_EQ(plugin_.Start(), 0);
    const std::vector<std::string> notices = TakeNotices();
    if (getenv("PAGES_WRITE_REFERENCE") != nullptr)
        std::ofstream(PAGES_DATA_DIR "/setup_notice.xml")
            << std::regex_replace(notices.at(0), std::regex("timestamp=\"[^\"]*\""),
                                  "timestamp=\"*\"");
    ASSERT_FALSE(notices.empty());
    const std::string masked =
        std::regex_replace(notices[0], std::regex("timestamp=\"[^\"]*\""), "timestamp=\"*\"");
    std::ifstream file(PAGES_DATA_DIR "/setup_notice.xml");
    ASSERT_TRUE(file.good());
    std::stringstream reference;
    reference << file.rdbuf();
    EXPECT_EQ(masked, reference.str());
    EXPECT_EQ(plugin_.Stop(), 0);
}

// The tower page's controls in a notice: disabled/hidden of each ("-" when absent) and the
// radios' selection.
std::string Page(const std::string& xml) {
    XmlUINotice notice(xml.c_str());
    std::string out;
    for (const char* id : {kIdTowerSelectLbl, kIdTowerUpdatePending, kIdModeRadioGroup,
                           kIdTowerListLbl, kIdTowerListCombobox}) {
        const XmlUICtrl& control = notice.controls[id];
        out += std::string(id) + ":" + AttributeOr(control, kUiDisabled) + "/" +
               AttributeOr(control, kUiHidden);
        for (XmlNode r = control.FirstChild(kUiRadio); !r.IsNull(); r = r.NextSibling(kUiRadio))
            out += "," + r.GetAttribute(kUiLabel) + "=" + r.GetAttribute(kUiSelected);
        out += " ";
    }
    return out;
}

TEST_F(PresentationPages, DctReportsSetUpTheTowerPage) {
    const std::string allGrey =
        "tower_select_lbl:true/- tower_update_pending:true/true mode_radio_group:true/- "
        "tower_list_lbl:true/- tower_list_combobox:true/- ";
    // Before any running status the report only greys the page and leaves the mode alone.
    CVantoriaDCT early(1, 1, 1);
    ASSERT_EQ(plugin_.OnDCTSettings(&early), 0);
    std::vector<std::string> notices = TakeNotices();
    ASSERT_EQ(notices.size(), 1u);
    EXPECT_EQ(Page(notices[0]), allGrey);

    ASSERT_EQ(Status(2), 0);
    TakeNotices();
    const std::string manualRadios = ",text 361=false,text 360=true";
    const std::string autoRadios = ",text 361=true,text 360=false";
    struct Case {
        uint32_t mode, detect, gui;
        std::string page;
    };
    const std::vector<Case> cases = {
        {0, 1, 1, "tower_select_lbl:false/false tower_update_pending:-/- mode_radio_group:false/false" +
                      manualRadios + " tower_list_lbl:false/false tower_list_combobox:false/false "},
        {1, 0, 1, "tower_select_lbl:false/false tower_update_pending:-/- mode_radio_group:false/false" +
                      autoRadios + " tower_list_lbl:true/false tower_list_combobox:true/false "},
        {2, 0, 1, "tower_select_lbl:false/false tower_update_pending:-/- mode_radio_group:false/false" +
                      autoRadios + " tower_list_lbl:true/false tower_list_combobox:true/false "},
        {0, 1, 0, allGrey},  // the user may not choose, whatever the mode
    };
    for (const Case& c : cases) {
        CVantoriaDCT dct(c.mode, c.detect, c.gui);
        ASSERT_EQ(plugin_.OnDCTSettings(&dct), 0);
        notices = TakeNotices();
        ASSERT_EQ(notices.size(), 1u);
        EXPECT_EQ(Page(notices[0]), c.page) << "mode " << c.mode << " gui " << c.gui;
    }
    // The settings are kept: a new setup notice selects the radio of the last mode (0), and a
    // report in a stopped service does not change them.
    CVantoriaDCT automatic(1, 0, 0);
    ASSERT_EQ(plugin_.OnDCTSettings(&automatic), 0);
    ASSERT_EQ(Status(1), 0);
    CVantoriaDCT ignored(0, 0, 1);
    ASSERT_EQ(plugin_.OnDCTSettings(&ignored), 0);
    TakeNotices();
    ASSERT_EQ(plugin_.Start(), 0);
    notices = TakeNotices();
    ASSERT_FALSE(notices.empty());
    EXPECT_NE(Page(notices[0]).find(autoRadios), std::string::npos) << Page(notices[0]);
    EXPECT_EQ(plugin_.Stop(), 0);
}

// The real list with the copy of one name refused.
class RefusingList : public CVantoriaTowerList {
  public:
    explicit RefusingList(uint64_t refused) : refused_(refused) {}
    int32_t GetAt(uint64_t index, char* buffer, uint32_t& length) override {
        if (index == refused_ && buffer != nullptr)
            return -10;
        return CVantoriaTowerList::GetAt(index, buffer, length);
    }

  private:
    uint64_t refused_;
};

TEST_F(PresentationPages, TowerListsAndTowerChangesReachTheTile) {
    ASSERT_EQ(Status(2), 0);
    TakeNotices();
    const std::vector<std::string> names = {"west-1", "north-2", "east-3"};
    struct Step {
        const char* what;
        std::function<int32_t()> call;
        int32_t result;
        std::string items;  // combobox items, "*" marking the selected one; "-" without combobox
        std::string tower;  // value of label "tower", "-" when absent
        Shown shown;
        bool asksList;      // a fresh list was requested
    };
    auto list = [&](int64_t active, std::unique_ptr<CVantoriaTowerList> l) {
        for (const std::string& n : names)
            l->Append(n);
        if (active >= 0)
            l->CalculateActiveIndex(names[active]);
        return plugin_.OnTowerList(l.get());
    };
    auto plain = [&](int64_t active) {
        return list(active, std::make_unique<CVantoriaTowerList>());
    };
    auto changed = [&](const char* tower) {
        CVantoriaDCT dct{std::string(tower)};
        return plugin_.OnDCTSettings(&dct);
    };
    const std::string none = "-", on = T(369);
    const std::vector<Step> steps = {
        {"active north-2", [&] { return plain(1); }, 0, "west-1 north-2* east-3", "north-2",
         {none, on + " (north-2)", on, on + " (north-2)"}, false},
        {"same active again", [&] { return plain(1); }, 0, "west-1 north-2* east-3", none,
         {none, none, none, none}, false},
        {"no active tower", [&] { return plain(-1); }, 0, "west-1 north-2 east-3", none,
         {none, none, none, none}, false},
        {"empty list", [&] { CVantoriaTowerList l; return plugin_.OnTowerList(&l); }, -1, "",
         "", {}, false},
        {"last name refused", [&] { return list(1, std::make_unique<RefusingList>(2)); }, -1, "",
         "", {}, false},
        {"changed to a part of the name", [&] { return changed("north"); }, 0, none, none,
         {none, none, none, none}, true},
        {"changed to a new tower", [&] { return changed("south-9"); }, 0, none, "south-9",
         {none, on + " (south-9)", on, on + " (south-9)"}, true},
        {"status 9 keeps the tower", [&] { return Status(9); }, 0, none, none,
         {"Good", T(372) + " (south-9)", T(372), T(372) + " (south-9)"}, true},
        {"status 3 clears it", [&] { return Status(3); }, 0, none, none,
         {"Neutral", T(367), T(367), T(367)}, false},
        {"status 2 shows no tower", [&] { return Status(2); }, 0, none, none,
         {"Good", on, on, on}, true},
    };
    for (const Step& step : steps) {
        TakeLines();
        ASSERT_EQ(step.call(), step.result) << step.what;
        const std::vector<std::string> notices = TakeNotices();
        const std::vector<std::string> lines = TakeLines();
        EXPECT_EQ(std::count(lines.begin(), lines.end(), "CVantoriaApi :GetTowerList failed"),
                  step.asksList ? 1 : 0)
            << step.what;
        if (step.result != 0) {
            EXPECT_TRUE(notices.empty()) << step.what;
            continue;
        }
        ASSERT_EQ(notices.size(), 1u) << step.what;
        XmlUINotice notice(notices[0].c_str());
        std::string items = none;
        auto combobox = notice.controls.find(kIdTowerListCombobox);
        if (combobox != notice.controls.end() &&
            !combobox->second.FirstChild(kUiComboItem).IsNull()) {
            items.clear();
            for (XmlNode i = combobox->second.FirstChild(kUiComboItem); !i.IsNull();
                 i = i.NextSibling(kUiComboItem))
                items += (items.empty() ? "" : " ") + i.GetAttribute(kUiLabel) +
                         (i.GetAttribute(kUiSelected) == "true" ? "*" : "");
        }
        EXPECT_EQ(items, step.items) << step.what;
        EXPECT_EQ(AttributeOr(notice.controls[kIdTower], kUiValue), step.tower) << step.what;
        EXPECT_EQ(ShownBy(notice), step.shown) << step.what;
        // A changed-tower report always hides the pending note, even with no new name; so
        // does greying the page.
        const bool hides = std::string(step.what).rfind("changed", 0) == 0 ||
                           step.shown.state == "Neutral";
        EXPECT_EQ(AttributeOr(notice.controls[kIdTowerUpdatePending], kUiHidden),
                  hides ? "true" : "-")
            << step.what;
    }
}

}  // namespace
