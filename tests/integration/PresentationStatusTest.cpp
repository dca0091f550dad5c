// The presentation plug-in made by CreatePlugin, against the agent simulator over the real
// channel: each thing the agent can say about its state (state bytes, service greetings, the
// results of a tower change and of a closest-tower setting, a lost connection) and the notices
// the host receives for it, in order, with the answers to the requests the plug-in makes.
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <boost/filesystem.hpp>

#include "AgentSimulator.h"
#include "IPresentationPlugin.h"
#include "RecordingHost.h"
#include "SyslogCapture.h"
#include "TestEnv.h"
#include "common/VNTrace.h"
#include "plugin/PluginEntry.h"
#include "presentation/UiVocabulary.h"
#include "presentation/XmlUINotice.h"

namespace {

std::string T(uint32_t key) {
    return RecordingHost::Text(key);
}

// What the host acts on in one notice, as "field=value|...": the tray state, the tile, the tray
// text, the history line, the tower label; "list" for a filled tower combobox, "page" for other
// tower page changes. "empty" for an update with nothing in it, "popup <text>" for a pop-up.
std::string Summary(const std::string& xml) {
    const XmlUINotice n(xml.c_str());  // owns the nodes read below
    if (!n.valid)
        return "invalid " + xml;
    if (n.type == kNoticeSetup)
        return "setup";
    if (n.type == kNoticePopup)
        return "popup " + n.root.FirstChild(kUiPopup).FirstChild(kUiText).GetAttribute(kUiValue);
    if (n.type != kNoticeUpdate)
        return "type " + std::to_string(n.type);
    std::string s;
    auto add = [&s](const std::string& part) { s += (s.empty() ? "" : "|") + part; };
    bool hasState = false;
    const std::string state = n.root.GetAttribute(kUiState, hasState);
    if (hasState)
        add("state=" + state);
    auto value = [&](const char* id, const std::string& field) {
        const auto found = n.controls.find(id);
        if (found != n.controls.end())
            add(field + "=" + found->second.GetAttribute(kUiValue));
    };
    value(kIdSimpleStatus, "status");
    value(kIdTrayStateString, "tray");
    const XmlNode log = n.root.FirstChild(kUiLog);
    if (!log.IsNull())
        add("log=" + log.GetAttribute(kUiMessageHistory));
    value(kIdTower, "tower");
    const auto combo = n.controls.find(kIdTowerListCombobox);
    if (combo != n.controls.end() && !combo->second.FirstChild(kUiComboItem).IsNull())
        add("list");
    else if (!hasState && (n.controls.count(kIdTowerUpdatePending) != 0 ||
                           n.controls.count(kIdModeRadioGroup) != 0))
        add("page");
    if (s.empty())
        return n.root.FirstChild().IsNull() ? "empty" : "other " + xml;
    return s;
}

// A status notice: tray state, and the key's text on tile, tray and history (with the tower
// behind tile and history when there is one).
std::string Tile(const char* state, uint32_t key, const std::string& tower = "") {
    const std::string line = T(key) + (tower.empty() ? "" : " (" + tower + ")");
    return std::string("state=") + state + "|status=" + line + "|tray=" + T(key) + "|log=" + line;
}
// A new tower behind the tile of `key`, from a tower list or a changed-tower report.
std::string NewTower(uint32_t key, const std::string& tower, const char* what) {
    const std::string line = T(key) + " (" + tower + ")";
    return "status=" + line + "|tray=" + T(key) + "|log=" + line + "|tower=" + tower + "|" + what;
}

const std::string kStatus8 = "StatusNotificationCB: status: 8\n";

class PresentationStatus : public ::testing::Test {
  protected:
    void SetUp() override {
        syslog_capture::Clear();
        ASSERT_TRUE(
            boost::filesystem::create_directories(root_.path() + "/tarvex/brenlo/tideway/config"));
        AgentSimOptions options;
        options.port = 5003;
        options.statsIntervalMs = 600000;  // no statistics notice in between
        sim_ = std::make_unique<CAgentSimulator>(options, log_.Sink());
        ASSERT_EQ(sim_->Start(), 0);
        baseline_ = ThreadBaseline();
    }
    void TearDown() override {
        if (plugin_ != nullptr)
            DisposePluginImpl(plugin_);
        EXPECT_EQ(ThreadCount(), baseline_) << "the plug-in left a thread";
        sim_.reset();
    }

    TempRoot root_;
    SimLog log_;
    std::unique_ptr<CAgentSimulator> sim_;
    RecordingHost host_;
    int context_ = 0;
    Plugin* plugin_ = nullptr;
    int baseline_ = 0;
};

TEST_F(PresentationStatus, EachAgentStatusReachesTheHostAsItsNotice) {
    plugin_ = CreatePluginImpl("com.tarvex.brenlo.presentation");
    ASSERT_NE(plugin_, nullptr);
    g_Trace.SetLevelMask(kDefaultTraceMask | (1u << TL_API));
    IPresentationPlugin* p = static_cast<IPresentationPlugin*>(plugin_);
    ASSERT_EQ(p->Initialize(&context_, 3, &host_, &host_), 0);
    ASSERT_EQ(p->Start(), 0);

    // A simulator control line, or "restart": the agent goes away for a while. Status 8 comes
    // after the pause and again after each failed attempt, and the repeat must show nothing;
    // then the agent comes back.
    auto control = [this](const std::string& line) {
        if (line == "restart") {
            const size_t seen = syslog_capture::Count(kStatus8);
            sim_->Stop();
            EXPECT_TRUE(syslog_capture::WaitFor(kStatus8, std::chrono::seconds(20), seen + 2));
            EXPECT_EQ(sim_->Start(), 0);
            return;
        }
        const std::string reply = sim_->Control(line);
        EXPECT_EQ(reply.rfind("OK", 0), 0u) << line << ": " << reply;
    };
    // Every status that keeps the service running asks for the tower list and the DCT
    // settings; status 9 also starts the statistics, whose success is status 15.
    struct Row {
        const char* what;
        std::vector<std::string> controls;  // what the agent does
        std::vector<std::string> notices;   // every notice the host gets, in order
    };
    const std::string list = "list", page = "page", empty = "empty";
    const std::string back = NewTower(372, "east-1", "list");  // the tower comes back
    // clang-format off
    const std::vector<Row> rows = {
        {"connected", {},
         {"setup", Tile("Good", 372), NewTower(372, "west-2", "list"), page, empty}},
        // 2, 0, 2: the repeated 2 sends nothing and asks for nothing.
        {"state 0x01", {"state 0x01"}, {Tile("Good", 369, "west-2"), empty, list, page}},
        {"state 0x01 again", {"state 0x01"}, {empty}},
        // A tower change during status 2: one new history line.
        {"tower activated", {"activate east-1"}, {NewTower(369, "east-1", "page"), list}},
        {"state 0x02", {"state 0x02"}, {Tile("Neutral", 367)}},
        {"state 0x04", {"state 0x04"}, {Tile("Neutral", 365)}},
        {"state 0x10", {"state 0x10"}, {Tile("Neutral", 366)}},
        {"state 0x08", {"state 0x08"}, {Tile("Trusted", 238), empty}},
        {"state 0x20", {"state 0x20"}, {"state=Neutral|status=" + T(398)}},
        {"state 0x40", {"state 0x40"}, {"state=Neutral|status=" + T(399)}},
        // The tower was cleared: status 2 shows none until the list names it again.
        {"state 0x01 after 0x40", {"state 0x01"},
         {Tile("Good", 369), empty, NewTower(369, "east-1", "list"), page}},
        {"tower change failed", {"send 1043 00"}, {"popup " + T(393), empty, list, page}},
        {"tower change done", {"send 1043 01"}, {empty, list, page}},
        {"closest tower failed", {"send 1047 00"}, {"popup " + T(392), empty, list, page}},
        {"closest tower done", {"send 1047 01"}, {empty, list, page}},
        // Status 9 during status 2 keeps the tower.
        {"greeting while running", {"send 1028"}, {Tile("Good", 372, "east-1"), list, page, empty}},
        {"dropped", {"drop"}, {Tile("Error", 373), Tile("Good", 372), back, page, empty}},
        {"agent gone a while", {"restart"},
         {Tile("Error", 373), Tile("Good", 372), back, page, empty}},
        {"service failed", {"fail-service"}, {Tile("Neutral", 81)}},
        {"service started", {"send 1028"}, {Tile("Good", 372), back, page, empty}},
        // 1030, then state byte 0x02, which the stopped service's filter drops.
        {"service stopped", {"stop-service"}, {Tile("Neutral", 81)}},
        {"service started again", {"send 1028"}, {Tile("Good", 372), back, page, empty}},
        {"nothing after it", {"info 3 done"}, {"log=done"}},
    };
    // clang-format on
    size_t next = 0;  // the first notice not yet matched to a row
    for (const Row& row : rows) {
        for (const std::string& line : row.controls)
            control(line);
        // Notices come on the module's threads: wait for the row's number, then compare them
        // all, so that a missing, extra or reordered notice fails this row or the next.
        const bool complete =
            host_.WaitForCount(next + row.notices.size(), std::chrono::seconds(20));
        const std::vector<std::string> all = host_.Notices();
        std::vector<std::string> got;
        for (size_t i = next; i < all.size() && i < next + row.notices.size(); ++i)
            got.push_back(Summary(all[i]));
        EXPECT_EQ(got, row.notices) << row.what;
        ASSERT_TRUE(complete) << row.what;
        next += row.notices.size();
    }
    EXPECT_EQ(host_.Notices().size(), next);
}

}  // namespace
