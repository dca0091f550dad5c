// Readers on several threads never see a reload by another thread half done.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "ConfigTestSupport.h"

namespace {

using config_test::ChainRoot;
using config_test::LoadParameters;

TEST(ConfigConcurrencyTest, ReadersNeverSeeAReloadHalfDone) {
    ChainRoot root;
    auto config = LoadParameters(
        root,
        "<ipc_port>1001</ipc_port><host_exceptions>a;10.0.0.0/8</host_exceptions>"
        "<Towers><Tower><DisplayName>A</DisplayName><HostName>a</HostName></Tower>"
        "<Tower><DisplayName>B</DisplayName><HostName>b</HostName></Tower></Towers>");
    constexpr int kReaders = 3;
    constexpr int kRounds = 10;
    std::atomic<bool> done{false};
    std::atomic<int> badReads{0};
    std::mutex mutex;  // guards reads, which lets the writer wait until every reader moved on
    std::condition_variable readDone;
    long reads = 0;

    std::vector<std::thread> readers;
    for (int r = 0; r < kReaders; ++r) {
        readers.emplace_back([&] {
            while (!done.load()) {
                ConfigParams params;
                config->GetConfigParams(params);
                std::vector<std::string> lines;
                std::vector<int> marks;
                if ((params.ipcPort != 1001 && params.ipcPort != 4444) ||
                    params.towerHosts != "a;b;" || config->GetExceptionCount(1) != 2 ||
                    config->GetConfigDump(lines, marks) != 0 || lines.size() != 19)
                    ++badReads;
                std::lock_guard<std::mutex> lock(mutex);
                ++reads;
                readDone.notify_all();
            }
        });
    }
    for (int i = 0; i < kRounds; ++i) {
        {  // each round starts only after the readers have read again
            std::unique_lock<std::mutex> lock(mutex);
            const long target = reads + kReaders;
            ASSERT_TRUE(
                readDone.wait_for(lock, std::chrono::seconds(30), [&] { return reads >= target; }));
        }
        EXPECT_TRUE(config->UpdateConfigKey("ipc_port", "4444", false));
        EXPECT_TRUE(config->Reload());
    }
    done = true;
    for (auto& t : readers)
        t.join();
    EXPECT_EQ(badReads.load(), 0);
    EXPECT_EQ(config->GetPort("ipc_port"), 1001);
}

}  // namespace
