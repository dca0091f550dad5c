// The pages of the presentation plug-in against a recording host, without an agent: the
// callbacks are fed the API's own result objects and the notices are compared as parsed
// documents on what the host acts on.
#include <string.h>

#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "RecordingHost.h"
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

class PresentationPages : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(plugin_.Initialize(&context_, 3, &host_, &host_), 0); }
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

}  // namespace
