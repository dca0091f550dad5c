// The web face's two links to a running agent simulator: its control socket (a line out, a
// reply line back) and its log file, tailed. Both live on an io_context and are created with
// std::make_shared; their methods are called on the io_context's thread (Close may be posted
// there). They stop all their work at Close, after which the io_context can run dry.
#ifndef TIDEWAY_TOOLS_TIDEWAY_HOST_AGENTLINK_H_
#define TIDEWAY_TOOLS_TIDEWAY_HOST_AGENTLINK_H_

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <string>

#include <boost/asio/io_context.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/streambuf.hpp>

// Sends control lines to the simulator's control socket, one at a time and in the order they
// were asked, and hands each reply line to the one who asked. The simulator serves one control
// client at a time, so the connection is made on demand, kept while lines come and closed after
// kIdleClose without one; a connection that the simulator dropped (it restarted) is made anew.
class AgentControl : public std::enable_shared_from_this<AgentControl> {
  public:
    using Reply = std::function<void(const std::string& line)>;

    static constexpr size_t kMaxPending = 64;
    static constexpr size_t kMaxReplyBytes = 64 * 1024;
    static constexpr std::chrono::seconds kReplyTimeout{5};
    static constexpr std::chrono::seconds kIdleClose{10};

    AgentControl(boost::asio::io_context& io, std::string path);

    // Queues `line` (without its line break); `reply` gets the simulator's reply line, or a line
    // starting with "ERR " when the simulator cannot be reached or does not answer.
    void Ask(std::string line, Reply reply);
    // Answers the queued lines with an error and closes the connection.
    void Close();

  private:
    struct Request {
        std::string line;
        Reply reply;
    };

    void Next();
    void Connect();
    void Write(bool freshConnection);
    void ReadReply();
    void Finish(const std::string& reply);
    void Drop();

    const std::string path_;
    boost::asio::local::stream_protocol::socket socket_;
    boost::asio::streambuf input_;
    boost::asio::steady_timer replyTimer_;
    boost::asio::steady_timer idleTimer_;
    std::deque<Request> pending_;  // the front one is in progress while busy_
    std::string output_;
    bool busy_ = false;
    bool timedOut_ = false;
    bool closed_ = false;
};

// Follows the simulator's log file: every complete new line goes to the callback. It starts
// with the file's last kStartBytes, polls every kPollInterval, starts over when the file is
// truncated, rewritten or replaced (rotation, a restarted simulator), and waits while it is
// missing.
class AgentLogTail : public std::enable_shared_from_this<AgentLogTail> {
  public:
    using LineHandler = std::function<void(std::string line)>;

    static constexpr size_t kStartBytes = 256 * 1024;
    static constexpr size_t kMaxReadPerPoll = 1024 * 1024;
    static constexpr size_t kMaxLineBytes = 64 * 1024;  // a longer line is cut there
    static constexpr std::chrono::milliseconds kPollInterval{200};
    // How much of what was read last must still stand before the offset for the file to count
    // as the same: a truncation that grew past the old end between two polls fails this.
    static constexpr size_t kMarkBytes = 64;

    AgentLogTail(boost::asio::io_context& io, std::string path, LineHandler onLine);

    void Start();
    void Close();

  private:
    void Poll();
    void Schedule();
    void Emit(std::string line);
    bool MarkStillThere(int fd) const;

    const std::string path_;
    const LineHandler onLine_;
    boost::asio::steady_timer timer_;
    bool seen_ = false;  // the file was opened once; dev_ and ino_ name it
    dev_t dev_ = 0;
    ino_t ino_ = 0;
    uint64_t offset_ = 0;
    std::string mark_;        // the last bytes read, which end at offset_
    std::string partial_;     // the start of a line not yet ended
    bool skipFirst_ = false;  // started inside the file: its first line is a fragment
    bool closed_ = false;
};

#endif  // TIDEWAY_TOOLS_TIDEWAY_HOST_AGENTLINK_H_
