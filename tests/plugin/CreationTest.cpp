// The creation sequence on the module's code in this process, in a temporary app-data root.
#include <gtest/gtest.h>
#include <boost/filesystem.hpp>

#include "AgentSimulator.h"
#include "SyslogCapture.h"
#include "TestEnv.h"
#include "api/VantoriaApi.h"
#include "common/OpenSSLCrypt.h"
#include "common/VNTrace.h"
#include "plugin/PluginEntry.h"

namespace {

// Each test has its own app-data root; a plug-in a failed test left is disposed.
class Creation : public ::testing::Test {
  protected:
    void SetUp() override { syslog_capture::Clear(); }
    void TearDown() override { DisposePluginImpl(nullptr); }
    std::string Dir() const { return root_.path() + "/tarvex/brenlo/tideway/config"; }
    std::string Profile() const { return Dir() + "/Tideway.config"; }
    TempRoot root_;
};

TEST_F(Creation, WithoutAnyProfileTheDefaultIsWrittenAndApplied) {
    ASSERT_TRUE(boost::filesystem::create_directories(Dir()));
    Plugin* plugin = CreatePluginImpl("com.tarvex.brenlo.tideway.api");
    ASSERT_NE(plugin, nullptr);
    // The default profile is written obfuscated and its debug_level FFFFFFFF applied unclamped.
    std::string text;
    ASSERT_EQ(COpenSSLCrypt::DeObfuscateFiletoStr(Profile().c_str(), text, EVP_aes_128_cbc(), nullptr), 0);
    EXPECT_EQ(text.rfind("OBFUSCATED", 0), 0u);
    EXPECT_NE(text.find("<ipc_port>5003</ipc_port>"), std::string::npos);
    EXPECT_EQ(g_Trace.GetLevelMask(), 0xFFFFFFFFu);
    EXPECT_NE(g_pVantoriaApi.load(), nullptr);
    EXPECT_TRUE(DisposePluginImpl(plugin));
    EXPECT_EQ(g_pVantoriaApi.load(), nullptr);
}

TEST_F(Creation, ConnectsOnTheProfilesPortWithItsMask) {
    ASSERT_TRUE(boost::filesystem::create_directories(Dir()));
    const std::string text = "OBFUSCATED<Tideway><ConfigurationParameters><ipc_port>6123</ipc_port>"
                             "<Logging><debug_level>1007</debug_level></Logging>"
                             "</ConfigurationParameters></Tideway>";
    ASSERT_EQ(COpenSSLCrypt::ObfuscateStringToFile(text.data(), text.size(), Profile().c_str(), nullptr), 0);
    AgentSimOptions options;
    options.port = 6123;
    SimLog log;
    CAgentSimulator sim(options, log.Sink());
    ASSERT_EQ(sim.Start(), 0);

    Plugin* plugin = CreatePluginImpl("com.tarvex.brenlo.tideway.api");
    ASSERT_NE(plugin, nullptr);
    EXPECT_EQ(g_Trace.GetLevelMask(), 0x1007u);
    ASSERT_TRUE(log.WaitFor("CONNECT session=1 identity=6"));
    EXPECT_TRUE(DisposePluginImpl(plugin));
    sim.Stop();
}

TEST_F(Creation, WithoutAProfileFolderCreationFailsWithItsLine) {
    // No place for the profile: the configuration cannot even write its default.
    EXPECT_EQ(CreatePluginImpl("com.tarvex.brenlo.tideway.api"), nullptr);
    EXPECT_EQ(syslog_capture::Count("CreatePlugin failed. InitializeConfig failed.\n"), 1u);
    EXPECT_EQ(g_pVantoriaApi.load(), nullptr);
}

}  // namespace
