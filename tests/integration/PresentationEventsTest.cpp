// The presentation plug-in made by CreatePlugin and driven by host events, against the agent
// simulator over the real channel: what each of the four actions makes reach the agent, what
// it must not send, and whether the dialog's notice comes before or after the command.
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <boost/filesystem.hpp>

#include "AgentSimulator.h"
#include "IPresentationPlugin.h"
#include "RecordingHost.h"
#include "SyslogCapture.h"
#include "TestEnv.h"
#include "api/VantoriaApi.h"
#include "common/VNTrace.h"
#include "plugin/PluginEntry.h"
#include "presentation/VantoriaPresentationPlugin.h"

namespace {

using std::chrono::seconds;

const std::string kCredLine = "CVantoriaApi: Proxy Cred Info structure\n";
const std::string kCancelLine = "CVantoriaApi: Proxycancel request query success\n";

std::string Event(const std::string& id, const std::string& body) {
    return "<brguiEvent id=\"" + id + "\">" + body + "</brguiEvent>";
}
std::string Radio(const std::string& label) {
    return Event("mode_radio_group_OnSelect",
                 "<radiogroup id=\"mode_radio_group\" value=\"" + label + "\"/>");
}
std::string Combo(const std::string& tower) {
    return Event("tower_list_combobox_OnSelect",
                 "<combobox id=\"tower_list_combobox\"><comboitem label=\"west-1\"/>"
                 "<comboitem label=\"" + tower + "\" selected=\"true\"/></combobox>");
}
std::string Credentials(const std::string& id, const std::string& user, const std::string& pw) {
    return Event(id, "<textbox id=\"proxyuser\" value=\"" + user +
                         "\"/><passwordbox id=\"proxypswd\" value=\"" + pw + "\"/>");
}

class PresentationEvents : public ::testing::Test {
  protected:
    void SetUp() override {
        syslog_capture::Clear();
        ASSERT_TRUE(boost::filesystem::create_directories(root_.path() +
                                                          "/tarvex/brenlo/tideway/config"));
        AgentSimOptions options;
        options.port = 5003;
        options.statsIntervalMs = 600000;
        options.dctDetectClosest = 1;
        sim_ = std::make_unique<CAgentSimulator>(options, log_.Sink());
        ASSERT_EQ(sim_->Start(), 0);
        baseline_ = ThreadBaseline();
        // Each dispose notice notes whether the command had been queued when it came.
        host_.deliverHook = [this](const char* xml) {
            if (strstr(xml, "dispose=\"true\"") != nullptr)
                disposeSeen_.push_back({syslog_capture::Count(kCredLine),
                                        syslog_capture::Count(kCancelLine)});
        };
    }
    void TearDown() override {
        if (plugin_ != nullptr)
            DisposePluginImpl(plugin_);
        EXPECT_EQ(ThreadCount(), baseline_) << "the plug-in left a thread";
        sim_.reset();
    }
    // Waits until the plug-in has taken the agent's n-th settings report with this mode: a
    // further request is answered after the earlier report's callback has returned.
    void WaitForMode(uint32_t mode) {
        const std::string line = "DCTSettingNotificationCB: nMode:" + std::to_string(mode) +
                                 " nDetectClosest:1 nGUI:1\n";
        ASSERT_TRUE(syslog_capture::WaitFor(line, std::chrono::seconds(10)));
        const size_t seen = syslog_capture::Count(line);
        ASSERT_EQ(static_cast<CVantoriaPresentationPlugin*>(p_)->GetApi().GetDCTSettings(), 0);
        ASSERT_TRUE(syslog_capture::WaitFor(line, std::chrono::seconds(10), seen + 1));
    }
    size_t Received(const std::string& prefix) { return log_.Count(prefix, true); }

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

TEST_F(PresentationEvents, EachActionReachesTheAgentInItsOrder) {
    plugin_ = CreatePluginImpl("com.tarvex.brenlo.presentation");
    ASSERT_NE(plugin_, nullptr);
    g_Trace.SetLevelMask(kDefaultTraceMask | (1u << TL_API));
    p_ = static_cast<IPresentationPlugin*>(plugin_);
    ASSERT_EQ(p_->Initialize(&context_, 3, &host_, &host_), 0);
    ASSERT_EQ(p_->Start(), 0);
    WaitForMode(0);

    // Manual mode: the combobox sets the tower; the manual radio changes nothing.
    EXPECT_EQ(p_->HandleEvent(Combo("east-1").c_str()), 0);
    EXPECT_EQ(p_->HandleEvent(Radio(RecordingHost::Text(360)).c_str()), 0);
    ASSERT_TRUE(log_.WaitFor("RECV session=1 COMM_MSG_CHANGE_ACTIVE_TOWER len=6 tower=\"east-1\""));
    // The agent's answers to the tower change may still be arriving: look at this thread's own.
    const size_t before = host_.NoticesOfThisThread().size();
    EXPECT_EQ(p_->HandleEvent(Radio(RecordingHost::Text(361)).c_str()), 0);
    ASSERT_EQ(host_.NoticesOfThisThread().size(), before + 1);
    EXPECT_NE(host_.NoticesOfThisThread().back().find(
                  "<label id=\"tower_update_pending\" hidden=\"false\""),
              std::string::npos);
    ASSERT_TRUE(log_.WaitFor("RECV session=1 COMM_MSG_DCT_SETTINGS_UPDATE len=12 mode=1 detect=1"));
    EXPECT_EQ(Received("RECV session=1 COMM_MSG_DCT_SETTINGS_UPDATE"), 1u);

    // Automatic mode, once the agent says so: the combobox is ignored, the manual radio works.
    WaitForMode(1);
    EXPECT_EQ(p_->HandleEvent(Combo("west-1").c_str()), 0);
    EXPECT_EQ(p_->HandleEvent(Radio(RecordingHost::Text(361)).c_str()), 0);
    EXPECT_EQ(p_->HandleEvent(Radio(RecordingHost::Text(360)).c_str()), 0);
    ASSERT_EQ(host_.NoticesOfThisThread().size(), before + 2);
    EXPECT_NE(host_.NoticesOfThisThread().back().find(
                  "<label id=\"tower_update_pending\" hidden=\"true\""),
              std::string::npos);
    ASSERT_TRUE(log_.WaitFor("RECV session=1 COMM_MSG_DCT_SETTINGS_UPDATE len=12 mode=0 detect=1"));
    EXPECT_EQ(Received("RECV session=1 COMM_MSG_CHANGE_ACTIVE_TOWER"), 1u);
    EXPECT_EQ(Received("RECV session=1 COMM_MSG_DCT_SETTINGS_UPDATE"), 2u);

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
    EXPECT_EQ(disposeSeen_, (std::vector<std::pair<size_t, size_t>>{{1, 0}, {1, 0}, {1, 0}, {1, 1}}));
    EXPECT_EQ(Received("RECV session=1 COMM_MSG_PROXY_CRED_RESPONSE"), 1u);
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
