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
#include "config/DnConfigFile.h"

namespace {

using config_test::ChainRoot;
using config_test::LoadParameters;

// Counts reads and lets the writer wait until the readers have moved on.
class Progress {
  public:
    void Add() {
        std::lock_guard<std::mutex> lock(m_Mutex);
        ++m_Reads;
        m_Cond.notify_all();
    }
    long Get() {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Reads;
    }
    bool WaitAtLeast(long reads, std::chrono::milliseconds timeout) {
        std::unique_lock<std::mutex> lock(m_Mutex);
        return m_Cond.wait_for(lock, timeout, [&] { return m_Reads >= reads; });
    }

  private:
    std::mutex m_Mutex;
    std::condition_variable m_Cond;
    long m_Reads = 0;
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
                progress.Add();
            }
        });
    }
    for (int i = 0; i < kRounds; ++i) {
        // Each round starts only after every reader could have read again.
        ASSERT_TRUE(progress.WaitAtLeast(progress.Get() + kReaders, std::chrono::seconds(30)));
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
