// The plug-in's pages against a recording host: scripted callbacks with the API's own result
// objects; all they print (notices, trace lines, the API requests, which fail here) is compared
// with the references in data/ (PAGES_WRITE_REFERENCE=1 rewrites them).
#include <fstream>
#include <functional>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ApiTrace.h"
#include "RecordingHost.h"
#include "api/VantoriaResultObjects.h"
#include "presentation/VantoriaPresentationPlugin.h"

namespace {

const std::regex kStamp("timestamp=\"[^\"]*\"");

void CompareWithReference(const std::string& text, const std::string& name) {
    const std::string path = PAGES_DATA_DIR "/" + name;
    if (getenv("PAGES_WRITE_REFERENCE") != nullptr)
        std::ofstream(path) << text;
    std::stringstream reference;
    reference << std::ifstream(path).rdbuf();
    EXPECT_EQ(text, reference.str()) << "differs from " << path;
}

// The real objects, each with one text getter answering wrongly (`fault`: 0 the size query
// answers 0, 1 the copy answers -10, 2 the size query asks 4 GiB), or counting the sizes offered.
// `which`: 0 the tower name, 1 the last switch, 2 the service start, 3 the overview's second
// read of the tower name.
struct FailingStatistics : CVantoriaStatistics {
    FailingStatistics(const uint8_t* data, int which, int fault)
        : CVantoriaStatistics(data), which_(which), fault_(fault) {}
    int32_t GetActiveTowerName(char* b, uint32_t& n) override {
        towerQueries_ += b == nullptr ? 1 : 0;
        return Fail(towerQueries_ == 2 ? 3 : 0, b, n)
                   ? result_
                   : CVantoriaStatistics::GetActiveTowerName(b, n);
    }
    int32_t GetTimeSinceLastTowerSelect(char* b, uint32_t& n) override {
        return Fail(1, b, n) ? result_ : CVantoriaStatistics::GetTimeSinceLastTowerSelect(b, n);
    }
    int32_t GetTimeServiceEnabled(char* b, uint32_t& n) override {
        return Fail(2, b, n) ? result_ : CVantoriaStatistics::GetTimeServiceEnabled(b, n);
    }
    bool Fail(int getter, char* buffer, uint32_t& n) {
        if (getter != which_ || (buffer == nullptr) != (fault_ != 1))
            return false;
        n = 0xFFFFFFFFu;
        result_ = fault_ == 0 ? 0 : fault_ == 1 ? -10 : -3;
        return true;
    }
    int which_, fault_, towerQueries_ = 0;
    int32_t result_ = 0;
};
struct CountingMessage : CVantoriaInfoMessage {
    CountingMessage(const std::string& text, int32_t fault, std::ostream& out)
        : CVantoriaInfoMessage(1, text), fault_(fault), out_(out) {}
    int32_t GetMessageText(char* buffer, uint32_t& length) override {
        out_ << "GetMessageText offered " << length << "\n";
        return fault_ != 0 ? fault_ : CVantoriaInfoMessage::GetMessageText(buffer, length);
    }
    int32_t fault_;
    std::ostream& out_;
};
struct RefusingList : CVantoriaTowerList {  // refuses the copy of its third name
    int32_t GetAt(uint64_t index, char* buffer, uint32_t& length) override {
        return index == 2 && buffer != nullptr ? -10
                                               : CVantoriaTowerList::GetAt(index, buffer, length);
    }
};

ServiceStatistics Record(uint32_t mode, uint32_t service, uint32_t detect, uint32_t onLan) {
    // In field order: the active sums of A and B (filtered, bypassed, other; they wrap in 32 bits
    // in the object), the totals (other, filtered, bypassed), detect, on LAN, mode, service,
    // reserved, last switch, service start, tower.
    return {4000000000u, 12,         0,           7,
            0,           0,          0,           0x100000000ull,
            0,           0,          5,           18446744073709551615ull,
            detect,      onLan,      mode,        service,
            0,           "00:05:17", "Mon 08:00", "north-2"};
}

class PresentationPages : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(plugin_.Initialize(&context_, 3, &host_, &host_), 0); }
    // Runs one step of the script and writes what it printed into the transcript.
    void Step(const std::string& label, const std::function<int32_t()>& call) {
        out_ << "== " << label << "\n";
        const int32_t result = call();
        out_ << "result " << result << "\n";
        for (const std::string& line : syslog_capture::Texts())
            if (line.find("CVantoriaPresentationPlugin") != std::string::npos ||
                line.find("CVantoriaApi") != std::string::npos)
                out_ << "trace " << line;
        syslog_capture::Clear();
        for (const std::string& notice : host_.Take())
            out_ << std::regex_replace(notice, kStamp, "timestamp=\"*\"");
    }
    int32_t Status(uint64_t code) {
        CVantoriaStatus status(code);
        return plugin_.OnStatus(&status);
    }
    int32_t Dct(uint32_t mode, uint32_t detect, uint32_t gui) {
        CVantoriaDCT dct(mode, detect, gui);
        return plugin_.OnDCTSettings(&dct);
    }
    int32_t Changed(const char* tower) {
        CVantoriaDCT dct{std::string(tower)};
        return plugin_.OnDCTSettings(&dct);
    }
    // The first `names` of three towers, the third refused if `refuse`.
    int32_t List(bool active, size_t names = 3, bool refuse = false) {
        std::unique_ptr<CVantoriaTowerList> list(refuse ? new RefusingList
                                                        : new CVantoriaTowerList);
        const char* const towers[] = {"west-1", "north-2", "east-3"};
        for (size_t i = 0; i < names; ++i)
            list->Append(towers[i]);
        if (active)
            list->CalculateActiveIndex("north-2");
        return plugin_.OnTowerList(list.get());
    }

    ApiTraceOn trace_;  // constructed before SetUp runs
    RecordingHost host_;
    int context_ = 0;
    CVantoriaPresentationPlugin plugin_;
    std::ostringstream out_;
};

TEST_F(PresentationPages, StatusCodesDriveTileTrayHistoryAndRequests) {
    // 10 and 12 are answers, not kept: a second 10 is shown again. Every kept code sent twice
    // must print nothing and ask nothing the second time.
    for (uint64_t code :
         {2, 2, 10, 10, 12, 11, 13, 14, 15, 0, 18, 9, 9, 3, 3, 1, 4, 5, 6, 7, 8, 16, 16, 17})
        Step("status " + std::to_string(code), [&] { return Status(code); });
    CompareWithReference(out_.str(), "status_codes.txt");
}

TEST_F(PresentationPages, TowerPageFollowsDctReportsAndTowerLists) {
    Step("settings before any running status: the page greys, the mode stays",
         [&] { return Dct(1, 1, 1); });
    Step("status 2", [&] { return Status(2); });
    Step("manual mode", [&] { return Dct(0, 1, 1); });
    Step("automatic mode", [&] { return Dct(1, 0, 1); });
    Step("mode 2 is automatic too", [&] { return Dct(2, 0, 1); });
    Step("the user may not choose, whatever the mode", [&] { return Dct(0, 1, 0); });
    Step("list with north-2 active", [&] { return List(true); });
    Step("the same active tower again", [&] { return List(true); });
    Step("list without an active tower", [&] { return List(false); });
    Step("empty list: nothing", [&] { return List(false, 0); });
    Step("a name refused: nothing", [&] { return List(true, 3, true); });
    Step("changed to a part of the shown name", [&] { return Changed("north"); });
    Step("changed to a new tower", [&] { return Changed("south-9"); });
    Step("status 9 keeps the tower", [&] { return Status(9); });
    Step("status 3 clears it", [&] { return Status(3); });
    Step("status 2 shows no tower", [&] { return Status(2); });
    Step("automatic, user may not choose", [&] { return Dct(1, 0, 0); });
    Step("status 1", [&] { return Status(1); });
    Step("a report in a stopped service changes no setting", [&] { return Dct(0, 0, 1); });
    CompareWithReference(out_.str(), "tower_page.txt");
    // The settings were kept: a new setup notice selects the automatic radio.
    ASSERT_EQ(plugin_.Start(), 0);
    const std::vector<std::string> notices = host_.Take();
    ASSERT_FALSE(notices.empty());
    EXPECT_NE(notices[0].find("<radio label=\"text 361\" selected=\"true\"/>"), std::string::npos);
    EXPECT_EQ(plugin_.Stop(), 0);
}

TEST_F(PresentationPages, StatisticsAndInfoMessages) {
    for (const auto& r :
         {Record(0, 2, 1, 1), Record(1, 4, 1, 0), Record(2, 3, 0, 1), Record(3, 0, 0, 0)}) {
        CVantoriaStatistics statistics(reinterpret_cast<const uint8_t*>(&r));
        Step("statistics, mode " + std::to_string(r.nSelectionMode),
             [&] { return plugin_.OnStatistics(&statistics); });
    }
    // A failing text getter: no half-built panel.
    const ServiceStatistics record = Record(1, 2, 1, 1);
    for (int which = 0; which < 4; ++which) {
        for (int fault : {0, 1, 2}) {
            FailingStatistics failing(reinterpret_cast<const uint8_t*>(&record), which, fault);
            Step("statistics, getter " + std::to_string(which) + " fault " + std::to_string(fault),
                 [&] { return plugin_.OnStatistics(&failing); });
        }
    }
    Step("no statistics", [&] { return plugin_.OnStatistics(nullptr); });
    // The text is asked with 128 bytes first, then with the size the object asks.
    for (const std::string& text : {std::string("agent restarted"), std::string(127, 'a'),
                                    std::string(128, 'b'), std::string(200, 'm')}) {
        CountingMessage message(text, 0, out_);
        Step("message of " + std::to_string(text.size()),
             [&] { return plugin_.OnInfoMessage(&message); });
    }
    CountingMessage failing("x", -10, out_);
    Step("message that fails", [&] { return plugin_.OnInfoMessage(&failing); });
    CompareWithReference(out_.str(), "statistics_and_messages.txt");
}

TEST_F(PresentationPages, SetupNoticeMatchesTheReference) {
    ASSERT_EQ(plugin_.Start(), 0);
    const std::vector<std::string> notices = host_.Take();
    ASSERT_FALSE(notices.empty());
    CompareWithReference(std::regex_replace(notices[0], kStamp, "timestamp=\"*\""),
                         "setup_notice.xml");
    EXPECT_EQ(plugin_.Stop(), 0);
}

}  // namespace
