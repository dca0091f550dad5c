#include "AgentLink.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include <boost/asio/read_until.hpp>
#include <boost/asio/write.hpp>

namespace asio = boost::asio;
using boost::system::error_code;

AgentControl::AgentControl(asio::io_context& io, std::string path)
    : path_(std::move(path)),
      socket_(io),
      input_(kMaxReplyBytes),
      replyTimer_(io),
      idleTimer_(io) {}

void AgentControl::Ask(std::string line, Reply reply) {
    if (closed_) {
        reply("ERR the harness is closing");
        return;
    }
    if (pending_.size() >= kMaxPending) {
        reply("ERR agent control busy: " + std::to_string(kMaxPending) + " lines waiting");
        return;
    }
    pending_.push_back(Request{std::move(line), std::move(reply)});
    if (!busy_)
        Next();
}

void AgentControl::Close() {
    closed_ = true;
    idleTimer_.cancel();
    // The line in progress is answered by its own handler, cancelled by Drop.
    while (pending_.size() > (busy_ ? 1u : 0u)) {
        pending_.back().reply("ERR the harness is closing");
        pending_.pop_back();
    }
    Drop();
}

void AgentControl::Next() {
    if (pending_.empty() || closed_) {
        busy_ = false;
        if (socket_.is_open() && !closed_) {
            idleTimer_.expires_after(kIdleClose);
            idleTimer_.async_wait([self = shared_from_this()](error_code ec) {
                if (!ec && !self->busy_)
                    self->Drop();
            });
        }
        return;
    }
    busy_ = true;
    idleTimer_.cancel();
    timedOut_ = false;
    replyTimer_.expires_after(kReplyTimeout);
    replyTimer_.async_wait([self = shared_from_this()](error_code ec) {
        if (ec || !self->busy_)
            return;
        self->timedOut_ = true;
        self->Drop();  // the operation in progress ends with an error and answers
    });
    if (socket_.is_open())
        Write(false);
    else
        Connect();
}

void AgentControl::Connect() {
    socket_.async_connect(asio::local::stream_protocol::endpoint(path_),
                          [self = shared_from_this()](error_code ec) {
                              if (ec) {
                                  self->Drop();
                                  self->Finish("ERR agent control " + self->path_ + ": " +
                                               (self->timedOut_ ? "no answer" : ec.message()));
                                  return;
                              }
                              self->Write(true);
                          });
}

void AgentControl::Write(bool freshConnection) {
    output_ = pending_.front().line + "\n";
    input_.consume(input_.size());
    asio::async_write(socket_, asio::buffer(output_),
                      [self = shared_from_this(), freshConnection](error_code ec, size_t) {
                          if (!ec) {
                              self->ReadReply();
                              return;
                          }
                          self->Drop();
                          // A kept connection that the simulator closed in the meantime (it
                          // was restarted): the line did not go out, so it goes on a new one.
                          if (!freshConnection && !self->timedOut_ && !self->closed_)
                              self->Connect();
                          else
                              self->Finish("ERR agent control: " + ec.message());
                      });
}

void AgentControl::ReadReply() {
    asio::async_read_until(
        socket_, input_, '\n', [self = shared_from_this()](error_code ec, size_t length) {
            if (ec) {
                self->Drop();
                self->Finish(self->timedOut_ ? "ERR agent control: no reply within " +
                                                   std::to_string(kReplyTimeout.count()) + " s"
                                             : "ERR agent control: " + ec.message());
                return;
            }
            std::string line(
                asio::buffers_begin(self->input_.data()),
                asio::buffers_begin(self->input_.data()) + static_cast<std::ptrdiff_t>(length - 1));
            self->input_.consume(length);
            if (!line.empty() && line.back() == '\r')
                line.pop_back();
            self->Finish(line);
        });
}

void AgentControl::Finish(const std::string& reply) {
    replyTimer_.cancel();
    Request request = std::move(pending_.front());
    pending_.pop_front();
    request.reply(reply);
    Next();
}

void AgentControl::Drop() {
    error_code ignored;
    socket_.close(ignored);
}

AgentLogTail::AgentLogTail(asio::io_context& io, std::string path, LineHandler onLine)
    : path_(std::move(path)), onLine_(std::move(onLine)), timer_(io) {}

void AgentLogTail::Start() {
    Poll();
}

void AgentLogTail::Close() {
    closed_ = true;
    timer_.cancel();
}

void AgentLogTail::Schedule() {
    if (closed_)
        return;
    timer_.expires_after(kPollInterval);
    timer_.async_wait([self = shared_from_this()](error_code ec) {
        if (!ec && !self->closed_)
            self->Poll();
    });
}

void AgentLogTail::Poll() {
    const int fd = open(path_.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        Schedule();  // not there (yet, or between a rotation and the new file)
        return;
    }
    struct stat info;
    if (fstat(fd, &info) != 0) {
        close(fd);
        Schedule();
        return;
    }
    const uint64_t size = static_cast<uint64_t>(info.st_size);
    if (!seen_) {
        seen_ = true;
        offset_ = size > kStartBytes ? size - kStartBytes : 0;
        skipFirst_ = offset_ > 0;
    } else if (info.st_dev != dev_ || info.st_ino != ino_ || size < offset_ ||
               !MarkStillThere(fd)) {
        // Another file under the name, or this one truncated (and perhaps written past the old
        // end again since the last poll): read it from its start.
        offset_ = 0;
        mark_.clear();
        partial_.clear();
        skipFirst_ = false;
    }
    dev_ = info.st_dev;
    ino_ = info.st_ino;

    std::string chunk(
        static_cast<size_t>(std::min<uint64_t>(size - std::min(size, offset_), kMaxReadPerPoll)),
        '\0');
    size_t done = 0;
    while (done < chunk.size()) {
        const ssize_t n =
            pread(fd, &chunk[done], chunk.size() - done, static_cast<off_t>(offset_ + done));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        done += static_cast<size_t>(n);
    }
    close(fd);
    chunk.resize(done);
    offset_ += done;
    mark_.append(chunk, done - std::min(done, kMarkBytes), std::string::npos);
    mark_.erase(0, mark_.size() - std::min(mark_.size(), kMarkBytes));

    size_t start = 0;
    for (size_t eol = chunk.find('\n'); eol != std::string::npos;
         start = eol + 1, eol = chunk.find('\n', start)) {
        partial_.append(chunk, start, eol - start);
        std::string line = std::move(partial_);
        partial_.clear();
        if (skipFirst_) {
            skipFirst_ = false;
            continue;
        }
        Emit(std::move(line));
    }
    partial_.append(chunk, start, std::string::npos);
    if (partial_.size() > kMaxLineBytes) {
        std::string cut = partial_.substr(0, kMaxLineBytes);
        partial_.erase(0, kMaxLineBytes);
        if (skipFirst_)
            skipFirst_ = false;
        else
            Emit(std::move(cut));
    }
    Schedule();
}

bool AgentLogTail::MarkStillThere(int fd) const {
    std::string now(mark_.size(), '\0');
    const off_t at = static_cast<off_t>(offset_ - mark_.size());
    return mark_.empty() ||
           (pread(fd, &now[0], now.size(), at) == static_cast<ssize_t>(now.size()) && now == mark_);
}

void AgentLogTail::Emit(std::string line) {
    if (!line.empty() && line.back() == '\r')
        line.pop_back();
    if (line.size() > kMaxLineBytes)
        line.resize(kMaxLineBytes);
    onLine_(std::move(line));
}
