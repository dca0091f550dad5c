// The web face's links to the agent simulator: the log tail through growth, partial lines,
// truncation and replacement of the file, and the control link through a dropped connection
// and a vanished socket, against a stand-in of the simulator's control socket.
#include "AgentLink.h"

#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/post.hpp>

namespace {

namespace asio = boost::asio;

// Only to catch a hang.
constexpr std::chrono::seconds kHang{20};

// Lines (log lines or replies) collected from the I/O thread.
class Lines {
  public:
    void Add(std::string line) {
        std::lock_guard<std::mutex> lock(mutex_);
        lines_.push_back(std::move(line));
        changed_.notify_all();
    }
    // Waits for at least `count` lines; returns them all.
    std::vector<std::string> WaitFor(size_t count) {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait_for(lock, kHang, [&] { return lines_.size() >= count; });
        return lines_;
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> lines_;
};

class AgentLinkTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/tideway-agent-link-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir_ = pattern;
        thread_ = std::thread([this] { io_.run(); });
    }
    void TearDown() override {
        // Also after a failed assertion: the links' timers would keep the I/O thread running.
        asio::post(io_, [this] {
            if (tail_)
                tail_->Close();
            if (control_)
                control_->Close();
        });
        work_.reset();
        thread_.join();
        EXPECT_EQ(system(("rm -rf '" + dir_ + "'").c_str()), 0);
    }

    asio::io_context io_;
    asio::executor_work_guard<asio::io_context::executor_type> work_ = asio::make_work_guard(io_);
    std::thread thread_;
    std::string dir_;
    Lines lines_;  // what the links handed over: log lines or replies
    std::shared_ptr<AgentLogTail> tail_;
    std::shared_ptr<AgentControl> control_;
};

void Append(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::app) << text;
}

TEST_F(AgentLinkTest, LogTailFollowsGrowthTruncationAndReplacement) {
    const std::string path = dir_ + "/agent.log";
    // More than the tail starts with: it begins on a whole line, near the end.
    std::string start;
    for (int i = 0; i < 5000; ++i) {
        char line[100];
        snprintf(line, sizeof(line), "%-98d\n", i);
        start += line;
    }
    Append(path, start + "one\ntwo\npart");
    tail_ = std::make_shared<AgentLogTail>(io_, path, [this](std::string l) { lines_.Add(l); });
    asio::post(io_, [tail = tail_] { tail->Start(); });

    // The whole numbered lines within the window that also holds "one\ntwo\npart".
    const size_t startLines = (AgentLogTail::kStartBytes - 12) / 99;
    std::vector<std::string> seen = lines_.WaitFor(startLines + 2);
    ASSERT_EQ(seen.size(), startLines + 2);
    EXPECT_EQ(seen.front().size(), 98u);
    EXPECT_EQ(std::stoi(seen.front()), 5000 - static_cast<int>(startLines));
    EXPECT_EQ(std::stoi(seen[startLines - 1]), 4999);
    EXPECT_EQ(seen[startLines], "one");
    EXPECT_EQ(seen[startLines + 1], "two");

    Append(path, "ial\r\nthree\n");
    seen = lines_.WaitFor(startLines + 4);
    ASSERT_EQ(seen.size(), startLines + 4);
    EXPECT_EQ(seen[startLines + 2], "partial");
    EXPECT_EQ(seen[startLines + 3], "three");

    std::ofstream(path, std::ios::trunc) << "after truncation\n";
    seen = lines_.WaitFor(startLines + 5);
    ASSERT_EQ(seen.size(), startLines + 5);
    EXPECT_EQ(seen.back(), "after truncation");

    // A new file under the name, already longer than what was read of the old one.
    ASSERT_EQ(rename(path.c_str(), (path + ".1").c_str()), 0);
    Append(path, std::string(40, 'n') + "\nsecond\n");
    seen = lines_.WaitFor(startLines + 7);
    ASSERT_EQ(seen.size(), startLines + 7);
    EXPECT_EQ(seen[startLines + 5], std::string(40, 'n'));
    EXPECT_EQ(seen[startLines + 6], "second");
}

// Stands in for the simulator's control socket: one client at a time, "OK <line>" for each
// line; after "bye" it hangs up, as a simulator that restarts does.
class FakeControl {
  public:
    explicit FakeControl(const std::string& path) : path_(path) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        snprintf(address.sun_path, sizeof(address.sun_path), "%s", path.c_str());
        listen_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(bind(listen_, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
        EXPECT_EQ(listen(listen_, 4), 0);
        thread_ = std::thread([this] { Serve(); });
    }
    // Closes the listener and the connection and removes the socket file.
    void Stop() {
        stop_ = true;
        thread_.join();
        close(listen_);
        unlink(path_.c_str());
    }
    Lines hangUps;  // one line per connection the fake has closed

  private:
    void Serve() {
        while (!stop_) {
            pollfd p{listen_, POLLIN, 0};
            if (poll(&p, 1, 50) <= 0)
                continue;
            const int fd = accept(listen_, nullptr, nullptr);
            std::string pending;
            bool open = fd >= 0;
            while (open && !stop_) {
                pollfd c{fd, POLLIN, 0};
                if (poll(&c, 1, 50) <= 0)
                    continue;
                char chunk[256];
                const ssize_t n = read(fd, chunk, sizeof(chunk));
                open = n > 0;
                pending.append(chunk, n > 0 ? static_cast<size_t>(n) : 0);
                for (size_t eol; open && (eol = pending.find('\n')) != std::string::npos;) {
                    const std::string line = pending.substr(0, eol);
                    pending.erase(0, eol + 1);
                    const std::string reply = "OK " + line + "\n";
                    open = write(fd, reply.data(), reply.size()) > 0 && line != "bye";
                }
            }
            if (fd >= 0)
                close(fd);
            hangUps.Add("closed");
        }
    }

    const std::string path_;
    int listen_ = -1;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

TEST_F(AgentLinkTest, ControlRepliesInOrderAndReconnects) {
    const std::string path = dir_ + "/control";
    FakeControl fake(path);
    control_ = std::make_shared<AgentControl>(io_, path);
    const auto ask = [this](const std::string& line) {
        asio::post(io_, [this, line] {
            control_->Ask(line, [this, line](const std::string& reply) {
                lines_.Add(line + " -> " + reply);
            });
        });
    };

    ask("state 1");
    ask("bye");
    EXPECT_EQ(lines_.WaitFor(2),
              (std::vector<std::string>{"state 1 -> OK state 1", "bye -> OK bye"}));
    fake.hangUps.WaitFor(1);
    ask("proxy");  // the kept connection is dead: the line goes on a new one
    EXPECT_EQ(lines_.WaitFor(3).back(), "proxy -> OK proxy");

    fake.Stop();
    ask("drop");
    const std::string last = lines_.WaitFor(4).back();
    EXPECT_EQ(last.rfind("drop -> ERR agent control " + path + ": ", 0), 0u) << last;
}

}  // namespace
