// The plug-in boundary as a host sees it, through dlopen, and DisposePlugin's ordering.
#include <dlfcn.h>
#include <stdio.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <boost/filesystem.hpp>

#include "AgentSimulator.h"
#include "IPresentationPlugin.h"
#include "Plugin.h"
#include "RecordingHost.h"
#include "SyslogCapture.h"
#include "TestEnv.h"
#include "api/VantoriaApi.h"
#include "common/VNTrace.h"
#include "plugin/PluginEntry.h"

namespace {

// The built module, loaded once as a host loads it.
void* Module() {
    static void* const handle = [] {
        // The module keeps its profile in the product's place, which the agent's installation
        // makes.
        boost::system::error_code ignored;
        boost::filesystem::create_directories("/opt/tarvex/brenlo/tideway/config", ignored);
        return dlopen(TIDEWAY_MODULE_PATH, RTLD_NOW | RTLD_LOCAL);
    }();
    return handle;
}

template <typename F>
F* Symbol(const char* name) {
    return Module() ? reinterpret_cast<F*>(dlsym(Module(), name)) : nullptr;
}

class LoadedModule : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(getInterfaces_ && create_ && dispose_) << dlerror();
        syslog_capture::Clear();
    }
    PluginInterfaceList (*getInterfaces_)() =
        Symbol<PluginInterfaceList()>("GetAvailableInterfaces");
    Plugin* (*create_)(const char*) = Symbol<Plugin*(const char*)>("CreatePlugin");
    bool (*dispose_)(Plugin*) = Symbol<bool(Plugin*)>("DisposePlugin");
};

TEST_F(LoadedModule, NamesMustMatchWholeAndByteForByteAndASecondCreationDisposesTheFirst) {
    ASSERT_EQ(getInterfaces_().count, 2u);  // names and versions: the host smoke test
    EXPECT_EQ(create_(nullptr), nullptr);
    EXPECT_EQ(syslog_capture::Texts(),
              std::vector<std::string>{"CreatePlugin failed. Interface name null.\n"});
    // The trace starts without opening the system log under its own identity.
    EXPECT_TRUE(syslog_capture::OpenCalls().empty());
    for (const std::string name : {"COM.TARVEX.BRENLO.TIDEWAY.API", "com.tarvex.brenlo.tideway.ap",
                                   "com.tarvex.brenlo.tideway.api ", ""}) {
        syslog_capture::Clear();
        EXPECT_EQ(create_(name.c_str()), nullptr) << name;
        EXPECT_EQ(syslog_capture::Count("Unknown interface name: " + name + "\n"), 1u) << name;
    }
    // The API object comes up and starts connecting on its own; no agent is needed for that.
    Plugin* api = create_("com.tarvex.brenlo.tideway.api");
    ASSERT_NE(api, nullptr);
    EXPECT_EQ(api->SupportsInterface("com.tarvex.brenlo.tideway.api", 3), 1);
    EXPECT_EQ(api->SupportsInterface("com.tarvex.brenlo.tideway.api", 2) +
                  api->SupportsInterface(nullptr, 3),
              0);
    syslog_capture::Clear();
    Plugin* second = create_("com.tarvex.brenlo.tideway.api");
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(syslog_capture::Count("CreatePlugin called while Plugin already appears to have "
                                    "been created.  Existing Plugin will be disposed.\n"),
              1u);
    EXPECT_TRUE(dispose_(second));
}

// The address in the creation line "Created plugin <kind> (<address>)" of the log.
std::string CreatedAddress(const char* kind) {
    const std::string prefix = std::string("Created plugin ") + kind + " (";
    for (const std::string& line : syslog_capture::Texts())
        if (line.rfind(prefix, 0) == 0)
            return line.substr(prefix.size(), line.size() - prefix.size() - 2);
    return "<none>";
}

TEST_F(LoadedModule, PresentationPluginLivesThroughTheHostInterfacesAndIsDisposedWhole) {
    // An agent on the product's port, so that callbacks follow the setup notice.
    AgentSimOptions options;
    options.statsIntervalMs = 600000;
    SimLog log;
    CAgentSimulator sim(options, log.Sink());
    ASSERT_EQ(sim.Start(), 0);
    const int baseline = ThreadBaseline();

    Plugin* plugin = create_("com.tarvex.brenlo.presentation");
    ASSERT_NE(plugin, nullptr);
    const std::string embedded = CreatedAddress("PRESENTATION_PLUGIN");
    EXPECT_NE(embedded, "<none>");
    EXPECT_EQ(plugin->SupportsInterface("com.tarvex.brenlo.presentation", 12), 1);
    IPresentationPlugin* p = static_cast<IPresentationPlugin*>(plugin);
    RecordingHost host;
    int context = 0;
    ASSERT_EQ(p->Initialize(&context, 5, &host, &host), 0);
    ASSERT_EQ(p->Start(), 0);
    ASSERT_TRUE(host.WaitForNotice("type=\"update\""));
    EXPECT_NE(host.Notices()[0].find("type=\"setup\""), std::string::npos);
    ASSERT_TRUE(log.WaitFor("RECV session=1 COMM_MSG_TOWERS_REQUEST_INFO len=0"));
    const std::string event =
        "<brguiEvent id=\"tower_list_combobox_OnSelect\"><combobox id=\"tower_list_combobox\" "
        "value=\"east-1\"/></brguiEvent>";
    EXPECT_EQ(p->HandleEvent(event.c_str()), 0);
    ASSERT_TRUE(log.WaitFor("RECV session=1 COMM_MSG_CHANGE_ACTIVE_TOWER len=6 tower=\"east-1\""));
    EXPECT_EQ(p->Stop(), 0);
    // Stop ends with NotifyStopped on the caller's thread (a running callback may still notify).
    EXPECT_EQ(host.NoticesOfThisThread().back(), "<stopped>");
    EXPECT_EQ(p->Shutdown(), 0);

    // A second creation disposes the live plug-in whole; the line names the API it pointed to.
    syslog_capture::Clear();
    Plugin* api = create_("com.tarvex.brenlo.tideway.api");
    ASSERT_NE(api, nullptr);
    EXPECT_EQ(syslog_capture::Count("DisposePlugin " + embedded + " called\n\n"), 1u);
    Plugin* again = create_("com.tarvex.brenlo.presentation");
    ASSERT_NE(again, nullptr);
    EXPECT_TRUE(dispose_(again));
    EXPECT_EQ(ThreadCount(), baseline) << "a disposed plug-in left a thread";
    sim.Stop();
}

// A plug-in that notes the global API pointer as its destructor saw it.
struct FakePlugin : Plugin {
    explicit FakePlugin(CVantoriaApi** seen) : seen_(seen) {}
    ~FakePlugin() override { *seen_ = g_pVantoriaApi; }
    int SupportsInterface(const char*, uint64_t) override { return 0; }
    CVantoriaApi** seen_;
};

// On the module's code linked into this executable, where the global and the trace are reachable.
TEST(InProcessBoundary, DisposeClearsTheGlobalBeforeDestroyingAndLogsAtApiLevel) {
    const uint32_t savedMask = g_Trace.GetLevelMask();
    EXPECT_EQ(CreatePluginImpl(nullptr), nullptr);  // starts the trace under the module's ident
    EXPECT_EQ(g_Trace.GetIdent(), "brtidewayapi");
    g_Trace.SetLevelMask(kDefaultTraceMask | (1u << TL_API));
    syslog_capture::Clear();

    int apiStandIn = 0;
    CVantoriaApi* const standIn = reinterpret_cast<CVantoriaApi*>(&apiStandIn);
    CVantoriaApi* apiAtDestruction = standIn;
    Plugin* plugin = new FakePlugin(&apiAtDestruction);
    g_pVantoriaApi = standIn;
    EXPECT_TRUE(DisposePlugin(plugin));
    EXPECT_EQ(apiAtDestruction, nullptr);  // destroyed, after the global was cleared
    EXPECT_EQ(g_pVantoriaApi, nullptr);
    g_pVantoriaApi = standIn;  // null: the line, the cleared global, true
    EXPECT_TRUE(DisposePlugin(nullptr));
    EXPECT_EQ(g_pVantoriaApi, nullptr);

    char expected[64];
    snprintf(expected, sizeof(expected), "DisposePlugin %p called\n\n", static_cast<void*>(plugin));
    EXPECT_EQ(syslog_capture::Texts(),
              std::vector<std::string>({expected, "DisposePlugin (nil) called\n\n"}));
    g_Trace.SetLevelMask(savedMask);
    g_pVantoriaApi = nullptr;
}

}  // namespace
