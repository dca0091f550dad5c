// Readers on several threads against a thread that edits and reloads the same configuration:
// every read sees one whole profile, never the emptied maps of a reload in progress.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "ConfigTestSupport.h"

namespace {

using config_test::ChainRoot;
using config_test::LoadParameters;

// Counts reads, so that the writer can wait until every reader has moved on.
struct Progress {
    std::mutex mutex;
    std::condition_variable cond;
    long reads = 0;
};

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
    Progress progress;

    std::vector<std::thread> readers;
    for (int r = 0; r < kReaders; ++r) {
        readers.emplace_back([&] {
            while (!done.load()) {
                ConfigParams params;
                config->GetConfigParams(params);
                const bool portOk = params.ipcPort == 1001 || params.ipcPort == 4444;
                const bool towersOk = params.towerHosts == "a;b;";
                const bool listsOk = config->GetExceptionCount(1) == 2;
                std::vector<std::string> lines;
                std::vector<int> marks;
                const bool dumpOk = config->GetConfigDump(lines, marks) == 0 && lines.size() == 19;
                if (!(portOk && towersOk && listsOk && dumpOk))
                    ++badReads;
                std::lock_guard<std::mutex> lock(progress.mutex);
                ++progress.reads;
                progress.cond.notify_all();
            }
        });
    }
    for (int i = 0; i < kRounds; ++i) {
        {  // each round starts only after the readers have read again
            std::unique_lock<std::mutex> lock(progress.mutex);
            const long target = progress.reads + kReaders;
            ASSERT_TRUE(progress.cond.wait_for(lock, std::chrono::seconds(30),
                                               [&] { return progress.reads >= target; }));
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
