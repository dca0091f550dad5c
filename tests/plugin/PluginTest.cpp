// The plug-in boundary as a host sees it, through dlopen, and DisposePlugin's ordering.
#include <dlfcn.h>
#include <stdio.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <boost/filesystem.hpp>

#include "Plugin.h"
#include "SyslogCapture.h"
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

TEST_F(LoadedModule, ListsInterfacesQuietlyAndRefusesANullName) {
    // Names and versions of the table are pinned by the host smoke test; nothing is logged here.
    ASSERT_EQ(getInterfaces_().count, 2u);
    EXPECT_EQ(create_(nullptr), nullptr);
    EXPECT_EQ(syslog_capture::Texts(),
              std::vector<std::string>{"CreatePlugin failed. Interface name null.\n"});
    // The trace starts without opening the system log under its own identity.
    EXPECT_TRUE(syslog_capture::OpenCalls().empty());
}

TEST_F(LoadedModule, NamesMustMatchWholeAndByteForByte) {
    for (const std::string name : {"COM.TARVEX.BRENLO.TIDEWAY.API", "com.tarvex.brenlo.tideway.ap",
                                   "com.tarvex.brenlo.tideway.api ", ""}) {
        syslog_capture::Clear();
        EXPECT_EQ(create_(name.c_str()), nullptr) << name;
        // The profile is read first; the name is refused after it.
        EXPECT_EQ(syslog_capture::Count("Unknown interface name: " + name + "\n"), 1u) << name;
        EXPECT_EQ(syslog_capture::CountContaining("CreatePlugin failed"), 0u) << name;
    }
}

TEST_F(LoadedModule, ApiNameMakesALiveApiAndPresentationIsRefusedForNow) {
    // The API object comes up and starts connecting on its own; no agent is needed for that.
    Plugin* api = create_("com.tarvex.brenlo.tideway.api");
    ASSERT_NE(api, nullptr);
    EXPECT_EQ(api->SupportsInterface("com.tarvex.brenlo.tideway.api", 3), 1);
    EXPECT_EQ(api->SupportsInterface("com.tarvex.brenlo.tideway.api", 2), 0);
    EXPECT_EQ(api->SupportsInterface(nullptr, 3), 0);
    // A second creation disposes the first plug-in.
    syslog_capture::Clear();
    Plugin* second = create_("com.tarvex.brenlo.tideway.api");
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(syslog_capture::Count("CreatePlugin called while Plugin already appears to have "
                                    "been created.  Existing Plugin will be disposed.\n"),
              1u);
    EXPECT_TRUE(dispose_(second));

    syslog_capture::Clear();
    EXPECT_EQ(create_("com.tarvex.brenlo.presentation"), nullptr);
    EXPECT_EQ(syslog_capture::Count("CreatePlugin failed. Interface com.tarvex.brenlo.presentation "
                                    "cannot be created in this build.\n"),
              1u);
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
    // Null: the line, the cleared global, true.
    g_pVantoriaApi = standIn;
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
