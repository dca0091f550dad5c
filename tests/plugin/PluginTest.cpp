// The plug-in boundary as a host sees it, through dlopen, and DisposePlugin's ordering.
#include <dlfcn.h>
#include <stdio.h>
#include <syslog.h>

#include <string>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>
#include <boost/filesystem.hpp>

#include "Plugin.h"
#include "SyslogCapture.h"
#include "common/VNTrace.h"
#include "plugin/PluginEntry.h"

namespace {

// The built module, loaded once, and its three exported functions.
struct Module {
    void* handle = nullptr;
    std::string error;
    PluginInterfaceList (*getInterfaces)() = nullptr;
    Plugin* (*create)(const char*) = nullptr;
    bool (*dispose)(Plugin*) = nullptr;
};

const Module& LoadModule() {
    static const Module module = [] {
        // Loaded like this, the module keeps its profile in the product's place, which the
        // agent's installation makes.
        boost::system::error_code ignored;
        boost::filesystem::create_directories("/opt/tarvex/brenlo/tideway/config", ignored);
        Module m;
        m.handle = dlopen(TIDEWAY_MODULE_PATH, RTLD_NOW | RTLD_LOCAL);
        m.error = m.handle ? "" : dlerror();
        auto sym = [&](auto& fn, const char* name) {
            fn = m.handle ? reinterpret_cast<std::decay_t<decltype(fn)>>(dlsym(m.handle, name))
                          : nullptr;
        };
        sym(m.getInterfaces, "GetAvailableInterfaces");
        sym(m.create, "CreatePlugin");
        sym(m.dispose, "DisposePlugin");
        return m;
    }();
    return module;
}

class LoadedModule : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_NE(m_.handle, nullptr) << m_.error;
        ASSERT_TRUE(m_.getInterfaces && m_.create && m_.dispose);
        syslog_capture::Clear();
    }
    const Module& m_ = LoadModule();
};

TEST_F(LoadedModule, ListsInterfacesQuietlyAndRefusesANullName) {
    // Names and versions of the table are pinned by the host smoke test; nothing is logged here.
    ASSERT_EQ(m_.getInterfaces().count, 2u);
    EXPECT_EQ(m_.create(nullptr), nullptr);
    const auto records = syslog_capture::Records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].text, "CreatePlugin failed. Interface name null.\n");
    EXPECT_EQ(records[0].priority, LOG_ERR);
    // The trace starts without opening the system log under its own identity.
    EXPECT_TRUE(syslog_capture::OpenCalls().empty());
}

TEST_F(LoadedModule, NamesMustMatchWholeAndByteForByte) {
    for (const std::string name : {"COM.TARVEX.BRENLO.TIDEWAY.API", "com.tarvex.brenlo.tideway.ap",
                                   "com.tarvex.brenlo.tideway.api ", ""}) {
        syslog_capture::Clear();
        EXPECT_EQ(m_.create(name.c_str()), nullptr) << name;
        // The profile is read first; the name is refused after it.
        EXPECT_EQ(syslog_capture::Count("Unknown interface name: " + name + "\n"), 1u) << name;
        EXPECT_EQ(syslog_capture::CountContaining("CreatePlugin failed"), 0u) << name;
    }
}

TEST_F(LoadedModule, ApiNameMakesALiveApiAndPresentationIsRefusedForNow) {
    // The API object comes up and starts connecting on its own; no agent is needed for that.
    Plugin* api = m_.create("com.tarvex.brenlo.tideway.api");
    ASSERT_NE(api, nullptr);
    EXPECT_EQ(api->SupportsInterface("com.tarvex.brenlo.tideway.api", 3), 1);
    EXPECT_EQ(api->SupportsInterface("com.tarvex.brenlo.tideway.api", 2), 0);
    EXPECT_EQ(api->SupportsInterface(nullptr, 3), 0);
    // A second creation disposes the first plug-in.
    syslog_capture::Clear();
    Plugin* second = m_.create("com.tarvex.brenlo.tideway.api");
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(syslog_capture::Count("CreatePlugin called while Plugin already appears to have "
                                    "been created.  Existing Plugin will be disposed.\n"),
              1u);
    EXPECT_TRUE(m_.dispose(second));

    syslog_capture::Clear();
    EXPECT_EQ(m_.create("com.tarvex.brenlo.presentation"), nullptr);
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
