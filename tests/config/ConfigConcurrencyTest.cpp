// Readers on several threads never see a reload by another thread half done: while the profile
// on disk flips between two versions and is reloaded, every read shows one version whole.
#include <atomic>
#include <thread>

#include "ConfigTestSupport.h"

namespace {

using config_test::ChainRoot;
using config_test::LoadParameters;

const std::string kVersions[2] = {
    "<ipc_port>1001</ipc_port><host_exceptions>a;10.0.0.0/8</host_exceptions>"
    "<Towers><Tower><DisplayName>A</DisplayName><HostName>a</HostName></Tower>"
    "<Tower><DisplayName>B</DisplayName><HostName>b</HostName></Tower></Towers>",
    "<ipc_port>2002</ipc_port><host_exceptions>c</host_exceptions><kdf_listen_port>7</"
    "kdf_listen_port>"
    "<Towers><Tower><DisplayName>C</DisplayName><HostName>c</HostName></Tower></Towers>"};

// What one locked call of each kind shows, as texts of their own: a reload may come between two.
std::pair<std::string, std::string> Snapshot(CDnConfigFile& config) {
    ConfigParams params;
    config.GetConfigParams(params);
    std::vector<std::string> lines;
    std::vector<int> marks;
    config.GetConfigDump(lines, marks);
    std::string dump;
    for (const std::string& line : lines)
        dump += line + "|";
    return {std::to_string(params.ipcPort) + "|" + std::to_string(params.kdfListenPort) + "|" +
                params.towerHosts + "|" + params.staticExceptions,
            dump};
}

TEST(ConfigConcurrencyTest, ReadersNeverSeeAReloadHalfDone) {
    ChainRoot root;
    auto config = LoadParameters(root, kVersions[1]);
    const auto second = Snapshot(*config);
    config_test::WriteObfuscated(root.Current(), config_test::Profile(kVersions[0]));
    ASSERT_TRUE(config->Reload());
    const auto first = Snapshot(*config);
    ASSERT_NE(first.first, second.first);
    ASSERT_NE(first.second, second.second);
    std::atomic<bool> done{false};
    std::atomic<long> reads{0}, badReads{0};
    std::vector<std::thread> readers;
    for (int r = 0; r < 3; ++r)
        readers.emplace_back([&] {
            for (; !done; ++reads) {
                const auto seen = Snapshot(*config);
                badReads += (seen.first != first.first && seen.first != second.first) +
                            (seen.second != first.second && seen.second != second.second);
            }
        });
    for (int i = 1; i <= 300; ++i) {
        config_test::WriteObfuscated(root.Current(), config_test::Profile(kVersions[i % 2]));
        // Reload holds the lock throughout; the chain run again alone locks step by step.
        EXPECT_TRUE(i % 4 < 2 ? config->Reload() : config->InitializeConfig(false, false));
    }
    done = true;
    for (auto& t : readers)
        t.join();
    EXPECT_EQ(badReads, 0) << "of " << reads;
    EXPECT_EQ(Snapshot(*config), first);
}

}  // namespace
