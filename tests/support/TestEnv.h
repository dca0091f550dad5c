// A temporary app-data root (also the IPC sockets' root), the thread count, the simulator's log.
#ifndef TIDEWAY_TESTS_SUPPORT_TESTENV_H_
#define TIDEWAY_TESTS_SUPPORT_TESTENV_H_

#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "common/Utils.h"
#include "ipc/IPCTesting.h"

inline int ThreadCount() {
    using Entries = std::filesystem::directory_iterator;
    return static_cast<int>(std::distance(Entries("/proc/self/task"), Entries()));
}

// The thread count to come back to, counted after a first thread (a sanitizer starts its own).
inline int ThreadBaseline() {
    std::thread([] {}).join();
    return ThreadCount();
}

// A fresh directory as the app-data root for the life of the object.
class TempRoot {
  public:
    TempRoot() {
        char pattern[] = "/tmp/tideway-test-XXXXXX";
        path_ = mkdtemp(pattern) != nullptr ? pattern : "";
        SetAllUsersAppDataPathForTesting(path_);
        ipc::SetSocketRootForTesting(path_);
    }
    ~TempRoot() {
        SetAllUsersAppDataPathForTesting("");
        ipc::SetSocketRootForTesting("");
        if (!path_.empty() && system(("rm -rf '" + path_ + "'").c_str()) != 0)
            ADD_FAILURE() << "cannot remove " << path_;
    }
    const std::string& path() const { return path_; }

  private:
    std::string path_;
};

class SimLog {
  public:
    std::function<void(const std::string&)> Sink() {
        return [this](const std::string& line) {
            std::lock_guard<std::mutex> lock(mutex_);
            lines_.push_back(line);
            changed_.notify_all();
        };
    }
    // Lines equal to `line`, or starting with it when `prefix` is set.
    size_t Count(const std::string& line, bool prefix = false) {
        std::lock_guard<std::mutex> lock(mutex_);
        return CountLocked(line, prefix);
    }
    std::vector<std::string> Lines() {
        std::lock_guard<std::mutex> lock(mutex_);
        return lines_;
    }
    // Waits until `count` lines equal `line`.
    bool WaitFor(const std::string& line, size_t count = 1) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(10),
                                 [&] { return CountLocked(line) >= count; });
    }

  private:
    size_t CountLocked(const std::string& line, bool prefix = false) const {
        return std::count_if(lines_.begin(), lines_.end(), [&](const std::string& l) {
            return prefix ? l.rfind(line, 0) == 0 : l == line;
        });
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> lines_;
};

#endif  // TIDEWAY_TESTS_SUPPORT_TESTENV_H_
