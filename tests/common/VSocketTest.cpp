// The line socket over a real Unix socket pair.
#include "common/DnVSocket.h"

#include <errno.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ApiTrace.h"
#include "SyslogCapture.h"
#include "common/VNTrace.h"

namespace {

using Clock = std::chrono::steady_clock;

long ElapsedMs(Clock::time_point since) {
    using namespace std::chrono;
    return static_cast<long>(duration_cast<milliseconds>(Clock::now() - since).count());
}

// One end of the pair; each receive takes at most `chunk` bytes, so that lines span reads.
class FdSocket : public CDnVSocket {
  public:
    explicit FdSocket(int fd) : CDnVSocket(fd) {}
    ~FdSocket() override { Close(); }
    int32_t Send(const char* buffer, int32_t length, int32_t flags) override {
        return static_cast<int32_t>(send(m_Socket, buffer, length, flags | MSG_NOSIGNAL));
    }
    int32_t Receive(char* buffer, int32_t length, int32_t flags) override {
        return static_cast<int32_t>(recv(m_Socket, buffer, std::min(length, chunk), flags));
    }
    int32_t Connect(const sockaddr*, socklen_t) override { return -1; }
    int32_t Close() override { return m_Socket >= 0 ? close(std::exchange(m_Socket, -1)) : 0; }
    int32_t Shutdown(int32_t how) override { return shutdown(m_Socket, how); }
    int32_t Attach(int32_t) override { return -1; }
    int32_t chunk = 1 << 20;
};

// `socket` reads what the test writes on `peer`; Close shuts the peer's side. A failed
// socketpair leaves both at -1, and every check after it fails.
struct Pair {
    int fds[2] = {-1, -1};
    int made = socketpair(AF_UNIX, SOCK_STREAM, 0, fds);
    FdSocket socket{fds[0]};
    int peer = fds[1];
    ~Pair() { close(peer); }
    void Write(const std::string& bytes, bool thenClose = false) const {
        ASSERT_EQ(send(peer, bytes.data(), bytes.size(), MSG_NOSIGNAL), ssize_t(bytes.size()));
        if (thenClose)
            shutdown(peer, SHUT_WR);
    }
    std::string Drain() {
        std::string bytes;
        char block[512];
        for (int32_t n; (n = socket.Read(block, sizeof(block))) > 0;)
            bytes.append(block, static_cast<size_t>(n));
        return bytes;
    }
};

// With the BRIDGE level on, for the time-out line.
struct VSocket : ::testing::Test {
    VSocket() { g_Trace.SetLevelMask(kDefaultTraceMask | (1u << TL_BRIDGE)); }
    ApiTraceOn trace;
};

TEST_F(VSocket, ReceiveLineAcrossReadsLongLinesAndCloseMidLine) {
    const std::string longLine = std::string(1500, 'x') + "\n";
    const struct {
        int32_t chunk;
        std::string sent;
        std::vector<std::string> lines;
        std::string leftOver;  // an unfinished line stays buffered
    } cases[] = {
        {3, "hello\nworld\r\n", {"hello\n", "world\r\n"}, ""},
        {64, "a\nb\n\nc\n", {"a\n", "b\n", "\n", "c\n"}, ""},
        {1 << 20, longLine + "tail\n", {longLine, "tail\n"}, ""},
        {4, "one\ntwo-and-", {"one\n"}, "two-and-"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.sent.substr(0, 16));
        syslog_capture::Clear();
        Pair pair;
        pair.socket.chunk = c.chunk;
        pair.Write(c.sent, true);
        for (const auto& expected : c.lines) {
            std::string line = "stale";
            EXPECT_EQ(pair.socket.ReceiveLine(line), 0);
            EXPECT_EQ(line, expected);
        }
        std::string line = "untouched";
        EXPECT_EQ(pair.socket.ReceiveLine(line), 1);
        EXPECT_EQ(line, "untouched");
        EXPECT_EQ(syslog_capture::Texts(),
                  std::vector<std::string>{"Socket : Received close in ReceiveLine\n"});
        EXPECT_EQ(pair.socket.BytesAvailable(), static_cast<int32_t>(c.leftOver.size()));
        EXPECT_EQ(pair.Drain(), c.leftOver);
    }
}

TEST_F(VSocket, PeekLineKeepsTheLineTimesOutWithBridgeLineAndFlushesIntoSecondSocket) {
    {
        // The peeked line stays buffered for the header read; 8 bytes a round.
        Pair pair;
        const std::string header = "CONNECT host:443 HTTP/1.1\r\nHost: x\r\n\r\n";
        pair.Write(header + "body", true);
        for (int i = 0; i < 2; ++i)
            EXPECT_EQ(pair.socket.PeekLine(8, 1000, nullptr), "CONNECT host:443 HTTP/1.1\r\n");
        EXPECT_EQ(pair.socket.BytesAvailable(), 32);
        std::string read;
        EXPECT_EQ(pair.socket.ReadHeader(read), 0);
        EXPECT_EQ(read, header);
        EXPECT_EQ(pair.Drain(), "body");
    }
    {
        // No line feed: after the time-out, all that is buffered, with the BRIDGE line.
        Pair pair;
        pair.Write("GET /partial");
        const Clock::time_point start = Clock::now();
        EXPECT_EQ(pair.socket.PeekLine(1024, 200, nullptr), "GET /partial");
        EXPECT_GE(ElapsedMs(start), 150);
        EXPECT_LE(ElapsedMs(start), 1500);
        EXPECT_EQ(
            syslog_capture::Texts(),
            std::vector<std::string>{"Socket : Timed out in PeekLine. Line : GET /partial\n"});
        pair.Write("more\n", true);
        EXPECT_EQ(pair.socket.PeekLine(1024, 5000, nullptr), "GET /partialmore\n");
    }
    {
        // The bridge hands every byte read so far to a second socket; on a failed send they stay.
        Pair client, upstream;
        const std::string request = "GET / HTTP/1.1\r\nHost: a\r\n\r\n";
        client.Write(request, true);
        EXPECT_EQ(client.socket.PeekLine(1024, 1000, nullptr), "GET / HTTP/1.1\r\n");
        EXPECT_EQ(client.socket.FlushBuffer(&upstream.socket, 0, 0), int32_t(request.size()));
        EXPECT_EQ(client.socket.FlushBuffer(&upstream.socket, 0, 0), 0);
        std::string received(request.size() + 1, '\0');
        EXPECT_EQ(recv(upstream.peer, &received[0], received.size(), 0), ssize_t(request.size()));
        EXPECT_EQ(received.substr(0, request.size()), request);
        shutdown(upstream.socket.GetHandle(), SHUT_WR);  // its next send fails
        EXPECT_TRUE(client.socket.PushBack("kept", 4));
        EXPECT_EQ(client.socket.FlushBuffer(&upstream.socket, 0, 0), -1);
        EXPECT_EQ(client.Drain(), "kept");
    }
}

TEST_F(VSocket, ReadHeaderStopsAtTheFirstEmptyLineAndWaitReportsItsTimeOut) {
    const struct {
        std::string sent, header;
        int32_t result;
    } cases[] = {
        {"A: 1\r\nB: 2\r\n\r\nBODY", "A: 1\r\nB: 2\r\n\r\n", 0},
        {"A: 1\n\nBODY", "A: 1\n\n", 0},
        {"A\r\r\n\r\r\nBODY", "A\r\r\n\r\r\n", 0},  // carriage returns are not content
        {"A: 1\r\nB", "A: 1\r\nB", 1},              // the peer closed first
    };
    for (const auto& c : cases) {
        Pair pair;
        pair.Write(c.sent, true);
        std::string header = "stale";
        EXPECT_EQ(pair.socket.ReadHeader(header), c.result) << c.sent;
        EXPECT_EQ(header, c.header);
        EXPECT_EQ(pair.Drain(), c.result == 0 ? "BODY" : "");
    }

    Pair pair;
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(pair.socket.WaitForSocket(pair.socket.GetHandle(), 1, 0, 200000), 60);
    EXPECT_GE(ElapsedMs(start), 150);
    pair.Write("x");
    EXPECT_EQ(pair.socket.WaitForSocket(pair.socket.GetHandle(), 1, 5, 0), 0);
    std::string address;  // not IPv4: refused
    EXPECT_EQ(pair.socket.GetPeerAddress(address), EAFNOSUPPORT);
}

}  // namespace
