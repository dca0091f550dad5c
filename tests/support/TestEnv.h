// A temporary app-data root (also the IPC sockets' root), the thread count, the simulator's log.
#ifndef TIDEWAY_TESTS_SUPPORT_TESTENV_H_
#define TIDEWAY_TESTS_SUPPORT_TESTENV_H_

#include <dirent.h>
#include <stdlib.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "common/Utils.h"
#include "ipc/IPCTesting.h"

inline int ThreadCount() {
    int n = 0;
    if (DIR* dir = opendir("/proc/self/task")) {
        while (dirent* entry = readdir(dir))
            n += entry->d_name[0] != '.' ? 1 : 0;
        closedir(dir);
    }
    return n;
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
        const char* made = mkdtemp(pattern);
        path_ = made != nullptr ? made : "";
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

// Collects the agent simulator's log lines.
class SimLog {
  public:
    std::function<void(const std::string&)> Sink() {
        return [this](const std::string& line) {
            {
                std::lock_guard<std::mutex> lock(mutex_);
                lines_.push_back(line);
            }
            changed_.notify_all();
        };
    }
    // Lines equal to `line`, or starting with it when `prefix` is set.
    size_t Count(const std::string& line, bool prefix = false) {
        std::lock_guard<std::mutex> lock(mutex_);
        return CountLocked(line, prefix);
    }
    bool Has(const std::string& line) { return Count(line) > 0; }
    bool WaitFor(const std::string& line) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(10),
                                 [&] { return CountLocked(line, false) > 0; });
    }

  private:
    size_t CountLocked(const std::string& line, bool prefix) const {
        size_t n = 0;
        for (const auto& l : lines_)
            n += (prefix ? l.rfind(line, 0) == 0 : l == line) ? 1 : 0;
        return n;
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> lines_;
};

#endif  // TIDEWAY_TESTS_SUPPORT_TESTENV_H_
