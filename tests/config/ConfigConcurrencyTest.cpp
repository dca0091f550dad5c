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
    std::atomic<bool> done{false};
    std::mutex mutex;  // guards the counts, which lets the writer wait until the readers moved on
    std::condition_variable readDone;
    long reads = 0, badReads = 0;
    std::vector<std::thread> readers;
    for (int r = 0; r < 3; ++r) {
        readers.emplace_back([&] {
            while (!done) {
                ConfigParams params;
                config->GetConfigParams(params);
                std::vector<std::string> lines;
                std::vector<int> marks;
                const bool bad = (params.ipcPort != 1001 && params.ipcPort != 4444) ||
                                 params.towerHosts != "a;b;" || config->GetExceptionCount(1) != 2 ||
                                 config->GetConfigDump(lines, marks) != 0 || lines.size() != 19;
                std::lock_guard<std::mutex> lock(mutex);
                badReads += bad;
                ++reads;
                readDone.notify_all();
            }
        });
    }
    for (int i = 0; i < 10; ++i) {
        std::unique_lock<std::mutex> lock(mutex);  // each round waits until every reader read again
        const long target = reads + 3;
        EXPECT_TRUE(
            readDone.wait_for(lock, std::chrono::seconds(30), [&] { return reads >= target; }));
        lock.unlock();
        EXPECT_TRUE(config->UpdateConfigKey("ipc_port", "4444", false));
        EXPECT_TRUE(config->Reload());
    }
    done = true;
    for (auto& t : readers)
        t.join();
    EXPECT_EQ(badReads, 0);
    EXPECT_EQ(config->GetPort("ipc_port"), 1001);
}

}  // namespace
