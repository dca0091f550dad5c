// The plug-in boundary as a host sees it: the built module loaded with dlopen and driven through
// its three exported functions; and DisposePlugin's ordering, checked on the module's code linked
// into this executable, where the global and the trace object can be reached.
#include <dlfcn.h>
#include <stdio.h>
#include <syslog.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <boost/filesystem.hpp>

#include "Plugin.h"
#include "SyslogCapture.h"
#include "common/VNTrace.h"
#include "plugin/PluginEntry.h"

namespace {

using GetAvailableInterfacesFn = PluginInterfaceList (*)();
using CreatePluginFn = Plugin* (*)(const char*);
using DisposePluginFn = bool (*)(Plugin*);

// The module, loaded once for the whole suite.
class LoadedModule : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        // A module loaded like this reads its profile from the product's place, which the
        // agent's installation makes; the module writes the default profile there if none is.
        boost::system::error_code ignored;
        boost::filesystem::create_directories("/opt/tarvex/brenlo/tideway/config", ignored);
        handle_ = dlopen(TIDEWAY_MODULE_PATH, RTLD_NOW | RTLD_LOCAL);
        if (handle_ == nullptr) {
            loadError_ = dlerror();
            return;
        }
        getInterfaces_ =
            reinterpret_cast<GetAvailableInterfacesFn>(dlsym(handle_, "GetAvailableInterfaces"));
        createPlugin_ = reinterpret_cast<CreatePluginFn>(dlsym(handle_, "CreatePlugin"));
        disposePlugin_ = reinterpret_cast<DisposePluginFn>(dlsym(handle_, "DisposePlugin"));
    }
    static void TearDownTestSuite() {
        if (handle_ != nullptr)
            dlclose(handle_);
        handle_ = nullptr;
    }
    void SetUp() override {
        ASSERT_NE(handle_, nullptr) << loadError_;
        ASSERT_NE(getInterfaces_, nullptr);
        ASSERT_NE(createPlugin_, nullptr);
        ASSERT_NE(disposePlugin_, nullptr);
        // The symbols must be the module's own, not this executable's copies of the same code.
        Dl_info info;
        ASSERT_NE(dladdr(reinterpret_cast<void*>(createPlugin_), &info), 0);
        void* owner = dlopen(info.dli_fname, RTLD_NOW | RTLD_NOLOAD);
        ASSERT_EQ(owner, handle_) << info.dli_fname;
        dlclose(owner);
        syslog_capture::Clear();
    }

    static void* handle_;
    static std::string loadError_;
    static GetAvailableInterfacesFn getInterfaces_;
    static CreatePluginFn createPlugin_;
    static DisposePluginFn disposePlugin_;
};

void* LoadedModule::handle_ = nullptr;
std::string LoadedModule::loadError_;
GetAvailableInterfacesFn LoadedModule::getInterfaces_ = nullptr;
CreatePluginFn LoadedModule::createPlugin_ = nullptr;
DisposePluginFn LoadedModule::disposePlugin_ = nullptr;

TEST_F(LoadedModule, OffersTheTwoInterfacesBeforeAnythingElse) {
    const PluginInterfaceList list = getInterfaces_();
    ASSERT_EQ(list.count, 2u);
    ASSERT_NE(list.records, nullptr);
    EXPECT_STREQ(list.records[0].name, "com.tarvex.brenlo.tideway.api");
    EXPECT_EQ(list.records[0].version, 3u);
    EXPECT_STREQ(list.records[1].name, "com.tarvex.brenlo.presentation");
    EXPECT_EQ(list.records[1].version, 0u);
    // A constant table: the same rows every time, and nothing logged.
    EXPECT_EQ(getInterfaces_().records, list.records);
    EXPECT_TRUE(syslog_capture::Records().empty());
}

TEST_F(LoadedModule, NullNameIsReportedThroughTheStartedTrace) {
    EXPECT_EQ(createPlugin_(nullptr), nullptr);
    const auto records = syslog_capture::Records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].text, "CreatePlugin failed. Interface name null.\n");
    EXPECT_EQ(records[0].priority, LOG_ERR);
    // The trace starts without opening the system log under its own identity.
    EXPECT_TRUE(syslog_capture::OpenCalls().empty());
}

TEST_F(LoadedModule, NamesMustMatchWholeAndByteForByte) {
    const std::vector<std::string> unknown = {
        "COM.TARVEX.BRENLO.TIDEWAY.API",    // case variant
        "com.tarvex.brenlo.Presentation",   // case variant
        "com.tarvex.brenlo.tideway.ap",     // prefix
        "com.tarvex.brenlo.tideway.api ",   // trailing blank
        "com.tarvex.brenlo.presentation2",  // longer
        "",
    };
    for (const std::string& name : unknown) {
        syslog_capture::Clear();
        EXPECT_EQ(createPlugin_(name.c_str()), nullptr) << name;
        // The configuration is read first (with the trace lines its profile asks for); the
        // name is refused after it.
        EXPECT_EQ(syslog_capture::Count("Unknown interface name: " + name + "\n"), 1u) << name;
        EXPECT_EQ(syslog_capture::CountContaining("CreatePlugin failed"), 0u) << name;
    }
}

TEST_F(LoadedModule, ApiNameMakesALiveApiAndPresentationIsRefusedForNow) {
    // The API object comes up and starts connecting on its own; no agent is needed for that.
    Plugin* api = createPlugin_("com.tarvex.brenlo.tideway.api");
    ASSERT_NE(api, nullptr);
    EXPECT_EQ(api->SupportsInterface("com.tarvex.brenlo.tideway.api", 3), 1);
    EXPECT_EQ(api->SupportsInterface("com.tarvex.brenlo.tideway.api", 2), 0);
    EXPECT_EQ(api->SupportsInterface(nullptr, 3), 0);
    // A second creation disposes the first plug-in (the first pointer is dead afterwards).
    syslog_capture::Clear();
    Plugin* second = createPlugin_("com.tarvex.brenlo.tideway.api");
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(syslog_capture::Count("CreatePlugin called while Plugin already appears to have "
                                    "been created.  Existing Plugin will be disposed.\n"),
              1u);
    EXPECT_TRUE(disposePlugin_(second));

    syslog_capture::Clear();
    EXPECT_EQ(createPlugin_("com.tarvex.brenlo.presentation"), nullptr);
    EXPECT_EQ(syslog_capture::Count("CreatePlugin failed. Interface "
                                    "com.tarvex.brenlo.presentation cannot be created in "
                                    "this build.\n"),
              1u);
}

TEST_F(LoadedModule, DisposeOfNullIsHarmless) {
    EXPECT_TRUE(disposePlugin_(nullptr));
    // Written at API level: nothing under the default mask, the line (with its own newline and
    // the record's) under the all-levels mask of the default profile.
    const auto texts = syslog_capture::Texts();
    EXPECT_TRUE(texts.empty() ||
                texts == std::vector<std::string>{"DisposePlugin (nil) called\n\n"})
        << ::testing::PrintToString(texts);
}

// A plug-in that records how it was destroyed.
class FakePlugin : public Plugin {
  public:
    FakePlugin(int* destroyed, CVantoriaApi** apiAtDestruction)
        : destroyed_(destroyed), apiAtDestruction_(apiAtDestruction) {}
    ~FakePlugin() override {
        ++*destroyed_;
        *apiAtDestruction_ = g_pVantoriaApi;
    }
    int SupportsInterface(const char*, uint64_t) override { return 0; }

  private:
    int* destroyed_;
    CVantoriaApi** apiAtDestruction_;
};

// The module's code as linked into this executable: its trace object and global are reachable.
class InProcessBoundary : public ::testing::Test {
  protected:
    void SetUp() override {
        savedMask_ = g_Trace.GetLevelMask();
        syslog_capture::Clear();
    }
    void TearDown() override {
        g_Trace.SetLevelMask(savedMask_);
        g_pVantoriaApi = nullptr;
    }
    uint32_t savedMask_ = 0;
};

TEST_F(InProcessBoundary, DisposeClearsTheGlobalBeforeDestroyingAndLogsAtApiLevel) {
    EXPECT_EQ(CreatePluginImpl(nullptr), nullptr);  // starts the trace under the module's ident
    EXPECT_EQ(g_Trace.GetIdent(), "brtidewayapi");
    g_Trace.SetLevelMask(kDefaultTraceMask | (1u << TL_API));
    syslog_capture::Clear();

    int destroyed = 0;
    int apiStandIn = 0;
    CVantoriaApi* apiAtDestruction = reinterpret_cast<CVantoriaApi*>(&apiStandIn);
    Plugin* plugin = new FakePlugin(&destroyed, &apiAtDestruction);
    g_pVantoriaApi = reinterpret_cast<CVantoriaApi*>(&apiStandIn);

    EXPECT_TRUE(DisposePlugin(plugin));
    EXPECT_EQ(destroyed, 1);
    EXPECT_EQ(apiAtDestruction, nullptr);  // already cleared when the destructor ran
    EXPECT_EQ(g_pVantoriaApi, nullptr);

    char expected[64];
    snprintf(expected, sizeof(expected), "DisposePlugin %p called\n\n", static_cast<void*>(plugin));
    const auto records = syslog_capture::Records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].text, expected);
    EXPECT_EQ(records[0].priority, LOG_NOTICE);

    // Null: the line, the cleared global, true.
    syslog_capture::Clear();
    g_pVantoriaApi = reinterpret_cast<CVantoriaApi*>(&apiStandIn);
    EXPECT_TRUE(DisposePlugin(nullptr));
    EXPECT_EQ(g_pVantoriaApi, nullptr);
    EXPECT_EQ(syslog_capture::Texts(), std::vector<std::string>{"DisposePlugin (nil) called\n\n"});
}

}  // namespace
