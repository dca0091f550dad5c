// The presentation plug-in's life against a recording host, without an agent.
#include <future>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ApiTrace.h"
#include "RecordingHost.h"
#include "api/VantoriaResultObjects.h"
#include "presentation/VantoriaPresentationPlugin.h"

namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
const std::string kPrefix = "CVantoriaPresentationPlugin : ";

class PresentationLife : public ::testing::Test {
  protected:
    std::string Text(int32_t (CVantoriaPresentationPlugin::*get)(char*, uint32_t&)) {
        uint32_t size = 0;
        if ((plugin_.*get)(nullptr, size) != -3)
            return "<size>";
        std::string text(size, '#');
        return (plugin_.*get)(&text[0], size) == 0 ? text.substr(0, size - 1) : "<copy>";
    }

    RecordingHost host_;
    int context_ = 0;
    CVantoriaPresentationPlugin plugin_;
    ApiTraceOn trace_;  // constructed before SetUp runs
};

TEST_F(PresentationLife, ResultCodesAndTraceLinesThroughTheWholeLife) {
    IPresentationPlugin* p = &plugin_;
    struct Step {
        const char* what;
        std::function<int32_t()> call;
        int32_t result;
        std::string line;  // the plug-in's trace lines expected
    };
    const std::vector<Step> steps = {
        {"start before initialize", [&] { return p->Start(); }, -10, ""},
        {"stop before start", [&] { return p->Stop(); }, -10,
         kPrefix + "Error API is not running\n"},
        {"shutdown before initialize", [&] { return p->Shutdown(); }, -10, ""},
        {"no host, no translator", [&] { return p->Initialize(&context_, 7, nullptr, nullptr); },
         -6, ""},
        {"no context", [&] { return p->Initialize(nullptr, 7, &host_, &host_); }, -4, ""},
        {"no translator", [&] { return p->Initialize(&context_, 7, &host_, nullptr); }, -4, ""},
        {"initialize", [&] { return p->Initialize(&context_, 7, &host_, &host_); }, 0, ""},
        {"initialize twice", [&] { return p->Initialize(&context_, 8, &host_, &host_); }, -9, ""},
        {"start", [&] { return p->Start(); }, 0, ""},
        {"start twice", [&] { return p->Start(); }, -10, kPrefix + "API is already running\n"},
        {"shutdown running", [&] { return p->Shutdown(); }, -10,
         kPrefix + "API is still running, shutting down API\n"},
        {"start after shutdown", [&] { return p->Start(); }, -10, ""},
        {"initialize again", [&] { return p->Initialize(&context_, 9, &host_, &host_); }, 0, ""},
        {"start again", [&] { return p->Start(); }, 0, ""},
        {"stop", [&] { return p->Stop(); }, 0, ""},
        {"shutdown stopped", [&] { return p->Shutdown(); }, 0, ""},
    };
    for (const Step& step : steps) {
        syslog_capture::Clear();
        EXPECT_EQ(step.call(), step.result) << step.what;
        std::string lines;
        for (const std::string& l : syslog_capture::Texts())
            if (l.rfind(kPrefix, 0) == 0 && l.find("StopStatsCollecting") == std::string::npos)
                lines += l;
        EXPECT_EQ(lines, step.line) << step.what;
    }
    // Two runs: each sent the setup notice first and was stopped once, all with the client ids
    // that Initialize gave (the refused second Initialize changed nothing).
    EXPECT_THAT(host_.Notices(), ElementsAre(HasSubstr("type=\"setup\""), "<stopped>",
                                             HasSubstr("type=\"setup\""), "<stopped>"));
    EXPECT_EQ(host_.ids, (std::vector<uint32_t>{7, 7, 9, 9}));
}

TEST_F(PresentationLife, TextGettersKeepTheBufferProtocol) {
    ASSERT_EQ(plugin_.Initialize(&context_, 1, &host_, &host_), 0);
    const std::string identity = "com.tarvex.brenlo.presentation.tideway";
    EXPECT_EQ(Text(&CVantoriaPresentationPlugin::GetInterfaceName), identity);
    EXPECT_EQ(Text(&CVantoriaPresentationPlugin::GetDisplayName), RecordingHost::Text(167));
    char buffer[64];
    uint32_t size = uint32_t(identity.size());  // one byte short
    EXPECT_EQ(plugin_.GetInterfaceName(buffer, size), -3);
    EXPECT_EQ(size, identity.size() + 1);
    // text, buffer or none, size before, result, size after
    for (const auto& c : std::vector<std::tuple<const char*, bool, uint32_t, int32_t, uint32_t>>{
             {"", true, 64, -2, 64},
             {"", false, 0, -3, 1},
             {"abc", false, 0, -3, 4},
             {"abc", true, 4, 0, 4},
             {"abc", true, 3, -2, 3}}) {
        uint32_t s = std::get<2>(c);
        EXPECT_EQ(
            plugin_.GetTextCopy(std::get<0>(c), nullptr, std::get<1>(c) ? buffer : nullptr, s),
            std::get<3>(c));
        EXPECT_EQ(s, std::get<4>(c)) << std::get<0>(c) << " " << std::get<2>(c);
    }
    EXPECT_EQ(plugin_.SupportsInterface("com.tarvex.brenlo.presentation", 99), 1);
    EXPECT_EQ(plugin_.SupportsInterface("com.tarvex.brenlo.presentatio", 0), 0);
    EXPECT_EQ(plugin_.SupportsInterface(nullptr, 0), 0);
}

TEST_F(PresentationLife, WrongTranslatorsGiveEmptyTextsAndTheSetupStillGoesOut) {
    for (auto fault :
         {RecordingHost::kSizeAnswer0, RecordingHost::kSizeZero, RecordingHost::kHugeSize,
          RecordingHost::kNoTerminator, RecordingHost::kFillFails}) {
        RecordingHost host;
        host.translatorFault = fault;
        CVantoriaPresentationPlugin plugin;
        ASSERT_EQ(plugin.Initialize(&context_, 1, &host, &host), 0);
        ASSERT_EQ(plugin.Start(), 0);
        // A text without terminator is read within the translator's size, never past it.
        const std::string text = fault == RecordingHost::kNoTerminator ? std::string(9, 'x') : "";
        EXPECT_THAT(
            host.Notices(),
            ElementsAre(AllOf(HasSubstr("<label id=\"simple_tile_label\" value=\"" + text +
                                        ":\"/>\n\t<label id=\"simple_status\""),
                              HasSubstr("<label id=\"tower_lbl\" value=\"" + text + "\"/>"))))
            << fault;
        EXPECT_EQ(plugin.Shutdown(), -10);
    }
}

TEST_F(PresentationLife, LateCallbacksAfterShutdownReachNothing) {
    ASSERT_EQ(plugin_.Initialize(&context_, 1, &host_, &host_), 0);
    ASSERT_EQ(plugin_.Start(), 0);
    ASSERT_EQ(plugin_.Stop(), 0);
    ASSERT_EQ(plugin_.Shutdown(), 0);
    const size_t before = host_.Notices().size();
    syslog_capture::Clear();
    CVantoriaStatus status(1);
    EXPECT_EQ(plugin_.OnStatus(&status), 0);
    std::string host = "10.0.0.1", port = "3128", scheme = "Basic", realm = "";
    EXPECT_EQ(plugin_.OnProxyCredRequest(host, port, scheme, realm), 0);
    uint32_t size = 0;
    EXPECT_EQ(plugin_.GetDisplayName(nullptr, size), -3);
    EXPECT_EQ(size, 1u);
    EXPECT_EQ(host_.Notices().size(), before);
    EXPECT_EQ(syslog_capture::Count("CVantoriaPresentationPlugin: NULL presentation pointer\n"),
              2u);
    // One per text looked up: the tile text of status 1 and the display name.
    EXPECT_EQ(syslog_capture::Count("CVantoriaPresentationPlugin: NULL translator pointer\n"), 2u);
}

TEST_F(PresentationLife, HostCallingBackFromDeliverXmlOnTheSameThreadGetsIn) {
    ASSERT_EQ(plugin_.Initialize(&context_, 1, &host_, &host_), 0);
    std::string h = "proxy", port = "8080", scheme = "Basic", realm = "r";
    ASSERT_EQ(plugin_.OnProxyCredRequest(h, port, scheme, realm), 0);  // arms the cancel event
    int reentries = 0;
    host_.deliverHook = [&](const char*) {
        if (reentries++ > 0)
            return;
        // From inside the setup notice: an event that sends a notice, a callback, a getter.
        plugin_.HandleEvent("<brguiEvent id=\"credential_cancel_btn_OnPress\"/>");
        CVantoriaStatus status(4);
        plugin_.OnStatus(&status);
        uint32_t size = 0;
        plugin_.GetDisplayName(nullptr, size);
    };
    auto started = std::async(std::launch::async, [&] { return plugin_.Start(); });
    ASSERT_EQ(started.wait_for(std::chrono::seconds(10)), std::future_status::ready) << "deadlock";
    EXPECT_EQ(started.get(), 0);
    // The dialog, the setup, and from inside it the dispose and the status.
    EXPECT_THAT(host_.Notices(),
                ElementsAre(HasSubstr("credential_dialog"), HasSubstr("setup"),
                            HasSubstr("dispose=\"true\""), HasSubstr("type=\"update\"")));
    host_.deliverHook = nullptr;
    EXPECT_EQ(plugin_.Shutdown(), -10);
}

}  // namespace
