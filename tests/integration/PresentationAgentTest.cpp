// The plug-in made by CreatePlugin against the agent simulator over the real channel: the
// notices for what the agent says, and what each host action makes reach the agent.
#include <string.h>

#include <chrono>
#include <memory>
#include <regex>
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
#include "presentation/VantoriaPresentationPlugin.h"

namespace {

using std::chrono::seconds;
std::string T(uint32_t key) {
    return RecordingHost::Text(key);
}

// What the host acts on in one notice, as "field=value|...": tray state, tile, tray text,
// history line, tower label; then "list" for a filled tower combobox or "page" for other tower
// page changes. "empty" for an update with nothing in it, "popup <id> <type> <title>|<text>".
std::string Summary(const std::string& xml) {
    std::smatch m;
    const auto has = [&](const std::string& pattern) {
        return std::regex_search(xml, m, std::regex(pattern));
    };
    if (has("^<brguiNotice [^>]*type=\"setup\""))
        return "setup";
    if (has("<popup [^>]*id=\"(\\w+)\" type=\"(\\w+)\">\\s*<title value=\"([^\"]*)\"/>\\s*"
            "<text value=\"([^\"]*)\"/>"))
        return "popup " + m.str(1) + " " + m.str(2) + " " + m.str(3) + "|" + m.str(4);
    std::string s;
    const auto add = [&s](const std::string& part) { s += (s.empty() ? "" : "|") + part; };
    const std::pair<const char*, const char*> fields[] = {
        {"state", "^<brguiNotice [^>]* state"},
        {"status", "id=\"simple_status\" value"},
        {"tray", "id=\"tray_state_string\" value"},
        {"log", "<log messagehistory"},
        {"tower", "<label id=\"tower\" value"}};
    for (const auto& f : fields)
        if (has(f.second + std::string("=\"([^\"]*)\"")))
            add(f.first + ("=" + m.str(1)));
    if (has("id=\"tower_list_combobox\"[^>]*>\\s*<comboitem"))
        add("list");
    else if (s.rfind("state=", 0) != 0 && has("id=\"(tower_update_pending|mode_radio_group)\""))
        add("page");
    return !s.empty() ? s : has("^<brguiNotice [^>]*/>\\s*$") ? "empty" : "other " + xml;
}
// The summary of a status notice: tray state (none for nullptr), and the key's text on tile,
// tray and history, with the tower behind tile and history when there is one.
std::string Tile(const char* state, uint32_t key, const std::string& tower = "") {
    const std::string text = RecordingHost::Text(key);
    const std::string line = text + (tower.empty() ? "" : " (" + tower + ")");
    return (state != nullptr ? std::string("state=") + state + "|" : std::string()) +
           "status=" + line + "|tray=" + text + "|log=" + line;
}

const std::string kStatus8 = "StatusNotificationCB: status: 8\n";
const std::string kCredLine = "CVantoriaApi: Proxy Cred Info structure\n";
const std::string kCancelLine = "CVantoriaApi: Proxycancel request query success\n";

class PresentationAgent : public ::testing::Test {
  protected:
    void SetUp() override {
        syslog_capture::Clear();
        ASSERT_TRUE(
            boost::filesystem::create_directories(root_.path() + "/tarvex/brenlo/tideway/config"));
        AgentSimOptions options;
        options.statsIntervalMs = 600000;  // no statistics notice in between
        options.dctDetectClosest = 1;
        sim_ = std::make_unique<CAgentSimulator>(options, log_.Sink());
        ASSERT_EQ(sim_->Start(), 0);
        baseline_ = ThreadBaseline();
        // Each dispose notice notes whether the command had been queued when it came.
        host_.deliverHook = [this](const char* xml) {
            if (strstr(xml, "dispose=\"true\"") != nullptr)
                disposeSeen_.push_back(
                    {syslog_capture::Count(kCredLine), syslog_capture::Count(kCancelLine)});
        };
        plugin_ = CreatePluginImpl("com.tarvex.brenlo.presentation");
        ASSERT_NE(plugin_, nullptr);
        g_Trace.SetLevelMask(kDefaultTraceMask | (1u << TL_API));
        p_ = static_cast<IPresentationPlugin*>(plugin_);
        ASSERT_EQ(p_->Initialize(&context_, 3, &host_, &host_), 0);
        ASSERT_EQ(p_->Start(), 0);
    }
    void TearDown() override {
        if (plugin_ != nullptr)
            DisposePluginImpl(plugin_);
        EXPECT_EQ(ThreadCount(), baseline_) << "the plug-in left a thread";
        sim_.reset();
    }
    // Waits until the plug-in has taken the agent's settings report with this mode: a further
    // request is answered after the earlier report's callback has returned.
    void WaitForMode(uint32_t mode) {
        const std::string line = "DCTSettingNotificationCB: nMode:" + std::to_string(mode) +
                                 " nDetectClosest:1 nGUI:1\n";
        ASSERT_TRUE(syslog_capture::WaitFor(line, seconds(10)));
        const size_t seen = syslog_capture::Count(line);
        ASSERT_EQ(static_cast<CVantoriaPresentationPlugin*>(p_)->GetApi().GetDCTSettings(), 0);
        ASSERT_TRUE(syslog_capture::WaitFor(line, seconds(10), seen + 1));
    }

    TempRoot root_;
    SimLog log_;
    std::unique_ptr<CAgentSimulator> sim_;
    RecordingHost host_;
    int context_ = 0;
    Plugin* plugin_ = nullptr;
    IPresentationPlugin* p_ = nullptr;
    int baseline_ = 0;
    std::vector<std::pair<size_t, size_t>> disposeSeen_;  // (credentials, cancels) queued
};

// A new tower behind the tile of `key`, from a tower list or a changed-tower report.
std::string NewTower(uint32_t key, const std::string& tower, const char* what) {
    return Tile(nullptr, key, tower) + "|tower=" + tower + "|" + what;
}

TEST_F(PresentationAgent, EachAgentStatusReachesTheHostAsItsNotice) {
    // A simulator control line, or "restart": the agent goes away for a while. Status 8 comes
    // after the pause and again after each failed attempt, and the repeat must show nothing.
    auto control = [this](const std::string& line) {
        if (line == "restart") {
            const size_t seen = syslog_capture::Count(kStatus8);
            sim_->Stop();
            EXPECT_TRUE(syslog_capture::WaitFor(kStatus8, seconds(20), seen + 2));
            EXPECT_EQ(sim_->Start(), 0);
        } else {
            const std::string reply = sim_->Control(line);
            EXPECT_EQ(reply.rfind("OK", 0), 0u) << line << ": " << reply;
        }
    };
    // Every status that keeps the service running asks for the tower list and the DCT
    // settings; status 9 also starts the statistics, whose success is status 15.
    const std::string list = "list", page = "page", empty = "empty";
    const std::string back = NewTower(372, "east-1", "list");  // the tower comes back
    const std::string popup = "popup error_popup error " + T(5) + "|";
    const struct {
        const char* control;               // what the agent does, "" for nothing
        std::vector<std::string> notices;  // every notice the host gets, in order
    } rows[] = {
        {"", {"setup", Tile("Good", 372), NewTower(372, "west-2", "list"), page, empty}},
        // 2, 0, 2: the repeated 2 sends nothing and asks for nothing.
        {"state 0x01", {Tile("Good", 369, "west-2"), empty, list, page}},
        {"state 0x01", {empty}},
        // A tower change during status 2: one new history line.
        {"activate east-1", {NewTower(369, "east-1", "page"), list}},
        {"state 0x02", {Tile("Neutral", 367)}},
        {"state 0x04", {Tile("Neutral", 365)}},
        {"state 0x10", {Tile("Neutral", 366)}},
        {"state 0x08", {Tile("Trusted", 238), empty}},
        {"state 0x20", {"state=Neutral|status=" + T(398)}},
        {"state 0x40", {"state=Neutral|status=" + T(399)}},
        // The tower was cleared: status 2 shows none until the list names it again.
        {"state 0x01", {Tile("Good", 369), empty, NewTower(369, "east-1", "list"), page}},
        {"send 1043 00", {popup + T(393), empty, list, page}},  // tower change failed
        {"send 1043 01", {empty, list, page}},
        {"send 1047 00", {popup + T(392), empty, list, page}},  // closest tower failed
        {"send 1047 01", {empty, list, page}},
        // Status 9 during status 2 keeps the tower.
        {"send 1028", {Tile("Good", 372, "east-1"), list, page, empty}},
        {"drop", {Tile("Error", 373), Tile("Good", 372), back, page, empty}},
        {"restart", {Tile("Error", 373), Tile("Good", 372), back, page, empty}},
        {"fail-service", {Tile("Neutral", 81)}},
        {"send 1028", {Tile("Good", 372), back, page, empty}},
        // 1030, then state byte 0x02, which the stopped service's filter drops.
        {"stop-service", {Tile("Neutral", 81)}},
        {"send 1028", {Tile("Good", 372), back, page, empty}},
        {"info 3 done", {"log=done"}},
    };
    size_t next = 0;  // the first notice not yet matched to a row
    for (const auto& row : rows) {
        if (*row.control != '\0')
            control(row.control);
        // A missing, extra or reordered notice fails this row or the next.
        const bool complete = host_.WaitForCount(next + row.notices.size(), seconds(20));
        const std::vector<std::string> all = host_.Notices();
        std::vector<std::string> got;
        for (size_t i = next; i < all.size() && i < next + row.notices.size(); ++i)
            got.push_back(Summary(all[i]));
        EXPECT_EQ(got, row.notices) << row.control;
        ASSERT_TRUE(complete) << row.control;
        next += row.notices.size();
    }
    EXPECT_EQ(host_.Notices().size(), next);
}

std::string Event(const std::string& id, const std::string& body) {
    return "<brguiEvent id=\"" + id + "\">" + body + "</brguiEvent>";
}
std::string Radio(uint32_t key) {
    return Event("mode_radio_group_OnSelect",
                 "<radiogroup id=\"mode_radio_group\" value=\"" + T(key) + "\"/>");
}
std::string Combo(const std::string& tower) {
    return Event("tower_list_combobox_OnSelect",
                 "<combobox id=\"tower_list_combobox\"><comboitem label=\"west-1\"/>"
                 "<comboitem label=\"" +
                     tower + "\" selected=\"true\"/></combobox>");
}
std::string Credentials(const std::string& id, const std::string& user, const std::string& pw) {
    return Event(id, "<textbox id=\"proxyuser\" value=\"" + user +
                         "\"/><passwordbox id=\"proxypswd\" value=\"" + pw + "\"/>");
}

TEST_F(PresentationAgent, EachActionReachesTheAgentInItsOrder) {
    WaitForMode(0);
    // Manual mode: the combobox sets the tower; the manual radio changes nothing.
    EXPECT_EQ(p_->HandleEvent(Combo("east-1").c_str()), 0);
    EXPECT_EQ(p_->HandleEvent(Radio(360).c_str()), 0);
    ASSERT_TRUE(log_.WaitFor("RECV session=1 COMM_MSG_CHANGE_ACTIVE_TOWER len=6 tower=\"east-1\""));
    // The agent's answers to the tower change may still be arriving: look at this thread's own.
    const size_t before = host_.NoticesOfThisThread().size();
    EXPECT_EQ(p_->HandleEvent(Radio(361).c_str()), 0);
    ASSERT_EQ(host_.NoticesOfThisThread().size(), before + 1);
    EXPECT_NE(host_.NoticesOfThisThread().back().find(
                  "<label id=\"tower_update_pending\" hidden=\"false\""),
              std::string::npos);
    ASSERT_TRUE(log_.WaitFor("RECV session=1 COMM_MSG_DCT_SETTINGS_UPDATE len=12 mode=1 detect=1"));

    // Automatic mode, once the agent says so: the combobox is ignored, the manual radio works.
    WaitForMode(1);
    EXPECT_EQ(p_->HandleEvent(Combo("west-1").c_str()), 0);
    EXPECT_EQ(p_->HandleEvent(Radio(361).c_str()), 0);
    EXPECT_EQ(p_->HandleEvent(Radio(360).c_str()), 0);
    ASSERT_EQ(host_.NoticesOfThisThread().size(), before + 2);
    EXPECT_NE(host_.NoticesOfThisThread().back().find(
                  "<label id=\"tower_update_pending\" hidden=\"true\""),
              std::string::npos);
    ASSERT_TRUE(log_.WaitFor("RECV session=1 COMM_MSG_DCT_SETTINGS_UPDATE len=12 mode=0 detect=1"));
    EXPECT_EQ(log_.Count("RECV session=1 COMM_MSG_CHANGE_ACTIVE_TOWER", true), 1u);
    EXPECT_EQ(log_.Count("RECV session=1 COMM_MSG_DCT_SETTINGS_UPDATE", true), 2u);

    // The agent asks for credentials: the dialog comes; refused input sends nothing.
    ASSERT_EQ(sim_->Control("proxy 10.1.2.3 3128 Basic office"), "OK sent=1");
    ASSERT_TRUE(host_.WaitForNotice("id=\"credential_dialog\" type=\"custom\""));
    const std::string user100(100, 'u'), pw200(200, 'p');
    for (const std::string& refused :
         {Credentials("credential_ok_btn_OnPress", "alice", ""),
          Credentials("credential_ok_btn_OnPress", "", "secret"),
          Credentials("proxyuser_OnPressEnter", user100 + "u", "secret"),
          Credentials("proxypswd_OnPressEnter", "alice", pw200 + "p")})
        EXPECT_EQ(p_->HandleEvent(refused.c_str()), 0);
    EXPECT_TRUE(disposeSeen_.empty());
    // The longest accepted values: the user field holds no terminator, the next field follows.
    EXPECT_EQ(p_->HandleEvent(Credentials("proxypswd_OnPressEnter", user100, pw200).c_str()), 0);
    ASSERT_TRUE(log_.WaitFor("RECV session=1 COMM_MSG_PROXY_CRED_RESPONSE len=400 user=\"" +
                             user100 + "\" password=\"" + pw200 + "\" reserved=zero"));
    // Another scheme: the dialog goes, no credentials do.
    std::string host = "10.1.2.3", port = "3128", scheme = "NTLM", realm = "";
    p_->OnProxyCredRequest(host, port, scheme, realm);
    EXPECT_EQ(p_->HandleEvent(Credentials("credential_ok_btn_OnPress", "bob", "pw").c_str()), 0);
    // Cancel and close: the dialog goes first, then the agent hears of it.
    EXPECT_EQ(p_->HandleEvent(Event("credential_close_OnClose", "").c_str()), 0);
    EXPECT_EQ(p_->HandleEvent(Event("credential_cancel_btn_OnPress", "").c_str()), 0);
    ASSERT_TRUE(log_.WaitFor("RECV session=1 COMM_MSG_PROXY_CANCEL_REQUEST len=0"));
    EXPECT_EQ(disposeSeen_,
              (std::vector<std::pair<size_t, size_t>>{{1, 0}, {1, 0}, {1, 0}, {1, 1}}));
    EXPECT_EQ(log_.Count("RECV session=1 COMM_MSG_PROXY_CRED_RESPONSE", true), 1u);
    ASSERT_TRUE(syslog_capture::WaitFor(kCancelLine, seconds(10), 2));

    // Not an event, or an event nobody armed: -1 with its line, or 0 and nothing.
    syslog_capture::Clear();
    EXPECT_EQ(p_->HandleEvent("<brguiNotice id=\"x\"/>"), -1);
    EXPECT_EQ(p_->HandleEvent(nullptr), -1);
    EXPECT_EQ(p_->HandleEvent(Event("nobody_OnPress", "").c_str()), 0);
    EXPECT_EQ(syslog_capture::Count("CVantoriaPresentationPlugin : Invalid incoming XML\n"), 2u);

    EXPECT_EQ(p_->Stop(), 0);
    ASSERT_TRUE(log_.WaitFor("RECV session=1 COMM_MSG_DISCONNECT len=0"));
    EXPECT_EQ(p_->Shutdown(), 0);
}

}  // namespace
