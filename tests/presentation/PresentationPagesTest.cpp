// The pages of the presentation plug-in against a recording host, without an agent: the
// callbacks are fed the API's own result objects and the notices are compared as parsed
// documents on what the host acts on.
#include <string.h>

#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

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
        g_Trace.InitTrace(kTraceIdent, "/tmp", "TidewayAPI.log", 2, kDefaultTraceMask, false, true,
                          10, 10000, 100, 1, 0, 60);
        savedMask_ = g_Trace.GetLevelMask();
        g_Trace.SetLevelMask(kDefaultTraceMask | (1u << TL_API));
        syslog_capture::Clear();
        ASSERT_EQ(plugin_.Initialize(&context_, 3, &host_, &host_), 0);
    }
    void TearDown() override { g_Trace.SetLevelMask(savedMask_); }
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
    uint32_t savedMask_ = 0;
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
    FailingStatistics(const uint8_t* data, int which, bool sizeQuery)
        : CVantoriaStatistics(data), which_(which), sizeQuery_(sizeQuery) {}
    int32_t GetActiveTowerName(char* b, uint32_t& n) override {
        return Fail(0, b) ? Bad() : CVantoriaStatistics::GetActiveTowerName(b, n);
    }
    int32_t GetTimeSinceLastTowerSelect(char* b, uint32_t& n) override {
        return Fail(1, b) ? Bad() : CVantoriaStatistics::GetTimeSinceLastTowerSelect(b, n);
    }
    int32_t GetTimeServiceEnabled(char* b, uint32_t& n) override {
        return Fail(2, b) ? Bad() : CVantoriaStatistics::GetTimeServiceEnabled(b, n);
    }
    int towerCalls = 0;  // size queries of the tower name

  private:
    // Getter 3 is the overview's second read of the tower name.
    bool Fail(int getter, char* buffer) {
        if (getter == 0 && buffer == nullptr)
            ++towerCalls;
        if (getter == 0 && towerCalls == 2 && which_ == 3)
            getter = 3;
        return getter == which_ && (buffer == nullptr) == sizeQuery_;
    }
    int32_t Bad() { return sizeQuery_ ? 0 : -10; }
    int which_;
    bool sizeQuery_;
};

TEST_F(PresentationPages, StatisticsWithAFailingTextGetterSendNothing) {
    const ServiceStatistics record = Record(1, 2, 1, 1);
    for (int which = 0; which < 4; ++which) {
        for (bool sizeQuery : {true, false}) {
            FailingStatistics statistics(reinterpret_cast<const uint8_t*>(&record), which,
                                         sizeQuery);
            EXPECT_EQ(plugin_.OnStatistics(&statistics), -1) << which << sizeQuery;
            EXPECT_TRUE(TakeNotices().empty()) << which << sizeQuery;
        }
    }
    EXPECT_EQ(plugin_.OnStatistics(nullptr), -1);
    EXPECT_TRUE(TakeNotices().empty());
}

TEST_F(PresentationPages, StatusCodesDriveTileTrayAndHistory) {
    const std::string none = "-";
    struct Case {
        uint64_t code;
        Shown shown;            // of the update notice; all "-" for an empty one
        uint32_t popupText;     // key of the error pop-up before it, 0 for none
        bool disablesPage;
    };
    const std::vector<Case> cases = {
        {2, {"Good", T(369), T(369), T(369)}, 0, false},
        {10, {none, none, none, none}, 393, false},
        {10, {none, none, none, none}, 393, false},  // not stored: acted on again
        {12, {none, none, none, none}, 392, false},
        {11, {none, none, none, none}, 0, false},
        {13, {none, none, none, none}, 0, false},
        {14, {none, none, none, none}, 0, false},
        {15, {none, none, none, none}, 0, false},
        {0, {none, none, none, none}, 0, false},
        {18, {none, none, none, none}, 0, false},
        {9, {"Good", T(372), T(372), T(372)}, 0, false},
        {3, {"Neutral", T(367), T(367), T(367)}, 0, true},
        {1, {"Neutral", T(81), T(81), T(81)}, 0, true},
        {4, {"Neutral", T(365), T(365), T(365)}, 0, true},
        {5, {"Neutral", T(366), T(366), T(366)}, 0, true},
        {6, {"Trusted", T(238), T(238), T(238)}, 0, true},
        {7, {"Error", T(371), T(371), T(371)}, 0, true},
        {8, {"Error", T(373), T(373), T(373)}, 0, true},
        {16, {"Neutral", T(398), none, none}, 0, true},
        {17, {"Neutral", T(399), none, none}, 0, true},
    };
    for (const Case& c : cases) {
        ASSERT_EQ(Status(c.code), 0);
        const std::vector<std::string> notices = TakeNotices();
        ASSERT_EQ(notices.size(), c.popupText != 0 ? 2u : 1u) << "code " << c.code;
        if (c.popupText != 0) {
            XmlUINotice popup(notices[0].c_str());
            EXPECT_EQ(popup.type, kNoticePopup);
            XmlNode element = popup.root.FirstChild(kUiPopup);
            EXPECT_EQ(element.GetAttribute(kUiId), "error_popup");
            EXPECT_EQ(element.GetAttribute(kUiType), "error");
            EXPECT_EQ(element.FirstChild(kUiTitle).GetAttribute(kUiValue), T(5));
            EXPECT_EQ(element.FirstChild(kUiText).GetAttribute(kUiValue), T(c.popupText));
        }
        XmlUINotice update(notices.back().c_str());
        EXPECT_EQ(update.type, kNoticeUpdate);
        EXPECT_EQ(ShownBy(update), c.shown) << "code " << c.code;
        if (c.shown.state == none) {
            EXPECT_TRUE(update.root.FirstChild().IsNull()) << "code " << c.code;
        }
        const std::string disabled =
            AttributeOr(update.controls[kIdModeRadioGroup], kUiDisabled);
        EXPECT_EQ(disabled, c.disablesPage ? "true" : "-") << "code " << c.code;
        // The same stored code again: nothing sent, nothing asked.
        TakeLines();
        if (c.shown.state != none) {
            ASSERT_EQ(Status(c.code), 0);
            EXPECT_TRUE(TakeNotices().empty()) << "code " << c.code;
            EXPECT_TRUE(TakeLines().empty()) << "code " << c.code;
        }
    }
}

TEST_F(PresentationPages, RunningStatusesAskTheAgentInOrderAndTraceFailedRequests) {
    // No agent: every request fails, which shows each one in its order.
    const std::vector<std::pair<uint64_t, std::vector<std::string>>> cases = {
        {2, {"CVantoriaApi :GetTowerList failed",
             "CVantoriaPresentationPlugin : Tower list request issue",
             "CVantoriaApi: GetDCTSettings failed",
             "CVantoriaPresentationPlugin : Get DCT Settings request issue"}},
        {9, {"CVantoriaApi :GetTowerList failed",
             "CVantoriaPresentationPlugin : Tower list request issue",
             "CVantoriaApi: GetDCTSettings failed",
             "CVantoriaPresentationPlugin : Get DCT Settings request issue",
             "CVantoriaApi :StartStatsCollecting failed",
             "CVantoriaApi: Proxystate query  failed"}},
        {3, {}},
    };
    for (const auto& c : cases) {
        TakeLines();
        ASSERT_EQ(Status(c.first), 0);
        EXPECT_EQ(TakeLines(), c.second) << "code " << c.first;
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

}  // namespace
