#include "common/DnVSocket.h"

#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "SyslogCapture.h"
#include "common/VNTrace.h"

namespace {

using Clock = std::chrono::steady_clock;

long ElapsedMs(Clock::time_point since) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - since).count());
}

// The transport over a plain descriptor. Every Receive is counted and announced, so that a
// peer can write its next chunk only once the reader is waiting for it.
class FdSocket : public CDnVSocket {
  public:
    explicit FdSocket(int fd) : CDnVSocket(fd) {}
    ~FdSocket() override { Close(); }

    int32_t Send(const char* buffer, int32_t length, int32_t flags) override {
        return static_cast<int32_t>(send(m_Socket, buffer, length, flags | MSG_NOSIGNAL));
    }
    int32_t Receive(char* buffer, int32_t length, int32_t flags) override {
        {
            std::lock_guard<std::mutex> guard(m_Mutex);
            ++m_Receives;
        }
        m_Changed.notify_all();
        return static_cast<int32_t>(recv(m_Socket, buffer, length, flags));
    }
    int32_t Connect(const sockaddr* address, socklen_t length) override {
        return connect(m_Socket, address, length);
    }
    int32_t Close() override {
        const int result = m_Socket >= 0 ? close(m_Socket) : 0;
        m_Socket = -1;
        return result;
    }
    int32_t Shutdown(int32_t how) override { return shutdown(m_Socket, how); }
    int32_t Attach(int32_t handle) override {
        Close();
        m_Socket = handle;
        return 0;
    }

    int Receives() {
        std::lock_guard<std::mutex> guard(m_Mutex);
        return m_Receives;
    }
    // Waits until at least `count` receives have begun: false when `stop` is set first or on a
    // time-out.
    bool WaitReceives(int count, const bool& stop) {
        std::unique_lock<std::mutex> lock(m_Mutex);
        m_Changed.wait_for(lock, std::chrono::seconds(10),
                           [&] { return m_Receives >= count || stop; });
        return m_Receives >= count && !stop;
    }
    void Release(bool& stop) {
        {
            std::lock_guard<std::mutex> guard(m_Mutex);
            stop = true;
        }
        m_Changed.notify_all();
    }

  private:
    std::mutex m_Mutex;
    std::condition_variable m_Changed;
    int m_Receives = 0;
};

struct Pair {
    Pair() {
        int fds[2] = {-1, -1};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
        socket.reset(new FdSocket(fds[0]));
        peer = fds[1];
    }
    ~Pair() {
        if (peer >= 0)
            close(peer);
    }
    void Write(const std::string& bytes) const {
        ASSERT_EQ(send(peer, bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }
    std::string ReadPeer(size_t count) const {
        std::string bytes(count, '\0');
        size_t got = 0;
        while (got < count) {
            const ssize_t n = recv(peer, &bytes[got], count - got, 0);
            if (n <= 0)
                break;
            got += static_cast<size_t>(n);
        }
        bytes.resize(got);
        return bytes;
    }
    std::unique_ptr<FdSocket> socket;
    int peer = -1;
};

std::string Drain(CDnVSocket& socket) {
    std::string bytes;
    char block[512];
    int32_t n;
    while ((n = socket.Read(block, sizeof(block))) > 0)
        bytes.append(block, static_cast<size_t>(n));
    return bytes;
}

class VSocket : public ::testing::Test {
  protected:
    void SetUp() override {
        g_Trace.InitTrace(kTraceIdent, "/tmp", "TidewayAPI.log", 2, kDefaultTraceMask, false, true,
                          10, 10000, 100, 1, 0, 60);
        savedMask_ = g_Trace.GetLevelMask();
        g_Trace.SetLevelMask(kDefaultTraceMask | (1u << TL_BRIDGE));
        syslog_capture::Clear();
    }
    void TearDown() override { g_Trace.SetLevelMask(savedMask_); }
    uint32_t savedMask_ = 0;
};

TEST_F(VSocket, ReceiveLineOverSplitReadsLongLinesAndCloseMidLine) {
    const std::string longLine = std::string(1500, 'x') + "\n";
    const struct {
        const char* name;
        std::vector<std::string> chunks;  // each written once the reader waits for it
        std::vector<std::string> lines;
        int receives;  // including the one that sees the close
        std::string leftOver;
    } cases[] = {
        {"split", {"hel", "lo\nwor", "ld\r\n"}, {"hello\n", "world\r\n"}, 4, ""},
        {"buffered", {"a\nb\n\nc\n"}, {"a\n", "b\n", "\n", "c\n"}, 2, ""},
        {"long", {longLine + "tail\n"}, {longLine, "tail\n"}, 3, ""},
        {"close mid-line",
         {"one\ntw", "o-and-"},
         {"one\n"},
         3,
         "tw"
         "o-and-"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        syslog_capture::Clear();
        Pair pair;
        bool stop = false;
        std::thread writer([&] {
            size_t i = 0;
            while (i < c.chunks.size() && pair.socket->WaitReceives(static_cast<int>(i) + 1, stop))
                pair.Write(c.chunks[i++]);
            // The close follows the next receive. A writer that gave up closes all the same, so
            // that a reader waiting for more fails instead of hanging.
            pair.socket->WaitReceives(static_cast<int>(c.chunks.size()) + 1, stop);
            shutdown(pair.peer, SHUT_WR);
        });
        for (const auto& expected : c.lines) {
            std::string line = "stale";
            EXPECT_EQ(pair.socket->ReceiveLine(line), 0);
            EXPECT_EQ(line, expected);
        }
        std::string line = "untouched";
        EXPECT_EQ(pair.socket->ReceiveLine(line), 1);
        EXPECT_EQ(line, "untouched");
        pair.socket->Release(stop);
        writer.join();
        EXPECT_EQ(pair.socket->Receives(), c.receives);
        EXPECT_EQ(syslog_capture::Count("Socket : Received close in ReceiveLine\n"), 1u);
        // Nothing of an unfinished line is lost.
        EXPECT_EQ(pair.socket->BytesAvailable(), static_cast<int32_t>(c.leftOver.size()));
        EXPECT_EQ(Drain(*pair.socket), c.leftOver);
    }

    FdSocket broken(-1);
    std::string line;
    EXPECT_EQ(broken.ReceiveLine(line), EBADF);
    EXPECT_EQ(syslog_capture::Count("Socket : Error occurred in ReceiveLine. Code : 9\n"), 1u);
}

TEST_F(VSocket, PeekLineKeepsTheLineTimesOutWithBridgeLineAndFlushesIntoSecondSocket) {
    {
        // Rounds of 8 bytes until the line feed; the line stays buffered for the header read.
        Pair pair;
        const std::string header = "CONNECT host:443 HTTP/1.1\r\nHost: x\r\n\r\n";
        pair.Write(header + "body");
        shutdown(pair.peer, SHUT_WR);  // a read past the end fails instead of waiting
        EXPECT_EQ(pair.socket->PeekLine(8, 1000, nullptr), "CONNECT host:443 HTTP/1.1\r\n");
        EXPECT_EQ(pair.socket->PeekLine(8, 1000, nullptr), "CONNECT host:443 HTTP/1.1\r\n");
        EXPECT_EQ(pair.socket->BytesAvailable(), 32);
        std::string read;
        EXPECT_EQ(pair.socket->ReadHeader(read), 0);
        EXPECT_EQ(read, header);
        char body[16];
        EXPECT_EQ(pair.socket->Read(body, sizeof(body)), 4);
        EXPECT_EQ(std::string(body, 4), "body");
    }
    {
        // No line feed: after the time-out, all that is buffered, with the BRIDGE line.
        Pair pair;
        pair.Write("GET /partial");
        const Clock::time_point start = Clock::now();
        EXPECT_EQ(pair.socket->PeekLine(1024, 200, nullptr), "GET /partial");
        EXPECT_GE(ElapsedMs(start), 150);
        EXPECT_LE(ElapsedMs(start), 1500);
        const auto records = syslog_capture::Records();
        ASSERT_EQ(records.size(), 1u);
        EXPECT_EQ(records[0].text, "Socket : Timed out in PeekLine. Line : GET /partial\n");
        EXPECT_EQ(pair.socket->BytesAvailable(), 12);

        // A set cancel flag ends the peek with what is held, without reading.
        const char cancel = 1;
        pair.Write("more\n");
        shutdown(pair.peer, SHUT_WR);
        EXPECT_EQ(pair.socket->PeekLine(1024, 5000, &cancel), "GET /partial");
        EXPECT_EQ(pair.socket->PeekLine(0, 5000, nullptr), "");
        EXPECT_EQ(syslog_capture::Count("Socket : Bad parameter size = 0\n"), 1u);
        EXPECT_EQ(pair.socket->PeekLine(1024, 5000, nullptr), "GET /partialmore\n");
    }
    {
        // The bridge: peek at the request line, then hand every byte read so far upstream.
        Pair client, upstream;
        const std::string request = "GET / HTTP/1.1\r\nHost: a\r\n\r\n";
        client.Write(request);
        shutdown(client.peer, SHUT_WR);
        EXPECT_EQ(client.socket->PeekLine(1024, 1000, nullptr), "GET / HTTP/1.1\r\n");
        EXPECT_EQ(client.socket->FlushBuffer(upstream.socket.get(), 0, 0),
                  static_cast<int32_t>(request.size()));
        EXPECT_EQ(upstream.ReadPeer(request.size()), request);
        EXPECT_EQ(client.socket->FlushBuffer(upstream.socket.get(), 0, 0), 0);
        EXPECT_TRUE(client.socket->PushBack("kept", 4));
        EXPECT_EQ(client.socket->FlushBuffer(nullptr, 0, 0), 0);
        close(upstream.peer);
        upstream.peer = -1;
        EXPECT_EQ(client.socket->FlushBuffer(upstream.socket.get(), 0, 0), -1);
        char kept[8];
        ASSERT_EQ(client.socket->Read(kept, sizeof(kept)), 4);
        EXPECT_EQ(std::string(kept, 4), "kept");
    }
}

TEST_F(VSocket, ReadHeaderStopsAtTheFirstEmptyLine) {
    const struct {
        std::string sent, header;
        int32_t result;
        std::string rest;
    } cases[] = {
        {"A: 1\r\nB: 2\r\n\r\nBODY", "A: 1\r\nB: 2\r\n\r\n", 0, "BODY"},
        {"A: 1\n\nB", "A: 1\n\n", 0, "B"},
        {"\r\nX", "\r\n", 0, "X"},
        {"A\r\r\n\r\r\nZ", "A\r\r\n\r\r\n", 0, "Z"},  // carriage returns are not content
        {"A: 1\r\nB", "A: 1\r\nB", 1, ""},            // the peer closed first
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.sent);
        Pair pair;
        pair.Write(c.sent);
        shutdown(pair.peer, SHUT_WR);
        std::string header = "stale";
        EXPECT_EQ(pair.socket->ReadHeader(header), c.result);
        EXPECT_EQ(header, c.header);
        EXPECT_EQ(Drain(*pair.socket), c.rest);
    }
    // Pushed-back bytes are read before the socket's own.
    Pair pair;
    EXPECT_FALSE(pair.socket->PushBack(nullptr, 3));
    EXPECT_FALSE(pair.socket->PushBack("x", 0));
    EXPECT_TRUE(pair.socket->PushBack("H: v\r", 5));
    pair.Write("\n\r\nrest");
    shutdown(pair.peer, SHUT_WR);
    std::string header;
    EXPECT_EQ(pair.socket->ReadHeader(header), 0);
    EXPECT_EQ(header, "H: v\r\n\r\n");
    EXPECT_EQ(pair.socket->BytesAvailable(), 4);
}

TEST_F(VSocket, WaitConnectPeerAddressAndDefaults) {
    Pair pair;
    const int32_t handle = pair.socket->GetHandle();
    const struct {
        int32_t mode, seconds, micros;
        bool peerWrites;
        int32_t result;
    } waits[] = {
        {3, 0, 0, false, static_cast<int32_t>(0x80070057u)},
        {1, 0, 200000, false, 60},
        {2, 0, 0, false, 0},
        {1, 5, 0, true, 0},
    };
    for (const auto& w : waits) {
        if (w.peerWrites)
            pair.Write("x");
        const Clock::time_point start = Clock::now();
        EXPECT_EQ(pair.socket->WaitForSocket(handle, w.mode, w.seconds, w.micros), w.result)
            << w.mode;
        EXPECT_LE(ElapsedMs(start), 1500);
        if (w.result == 60) {
            EXPECT_GE(ElapsedMs(start), 150);
        }
    }
    EXPECT_EQ(pair.socket->WaitForSocket(-1, 1, 0, 0), EBADF);
    EXPECT_EQ(syslog_capture::Count("Socket : Unknown error occurred. Code : 9\n"), 1u);

    // Connecting to a listening Unix socket leaves the handle blocking; errors come back as codes.
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof(address.sun_path), "/tmp/vsocket-test-%d.sock", getpid());
    unlink(address.sun_path);
    const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    ASSERT_EQ(listen(listener, 4), 0);
    FdSocket client(socket(AF_UNIX, SOCK_STREAM, 0));
    EXPECT_EQ(client.ConnectWithTimeout(reinterpret_cast<sockaddr*>(&address), sizeof(address), 5),
              0);
    EXPECT_EQ(fcntl(client.GetHandle(), F_GETFL) & O_NONBLOCK, 0);
    std::string unixPeer;
    EXPECT_EQ(client.GetPeerAddress(unixPeer), EAFNOSUPPORT);  // not IPv4
    unlink(address.sun_path);
    close(listener);
    FdSocket refused(socket(AF_UNIX, SOCK_STREAM, 0));
    EXPECT_EQ(refused.ConnectWithTimeout(reinterpret_cast<sockaddr*>(&address), sizeof(address), 5),
              ENOENT);
    FdSocket closed(-1);
    EXPECT_EQ(closed.ConnectWithTimeout(reinterpret_cast<sockaddr*>(&address), sizeof(address), 5),
              EBADF);
    EXPECT_EQ(syslog_capture::Count("Socket : Failed to set socket to non-blocking mode\n"), 1u);

    // Over TCP on the loopback the peer's address reads as text.
    const int server = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in loopback = {};
    loopback.sin_family = AF_INET;
    loopback.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(loopback);
    ASSERT_EQ(bind(server, reinterpret_cast<sockaddr*>(&loopback), sizeof(loopback)), 0);
    ASSERT_EQ(getsockname(server, reinterpret_cast<sockaddr*>(&loopback), &length), 0);
    ASSERT_EQ(listen(server, 4), 0);
    FdSocket tcp(socket(AF_INET, SOCK_STREAM, 0));
    EXPECT_EQ(tcp.ConnectWithTimeout(reinterpret_cast<sockaddr*>(&loopback), sizeof(loopback), 5),
              0);
    std::string peerAddress;
    EXPECT_EQ(tcp.GetPeerAddress(peerAddress), 0);
    EXPECT_EQ(peerAddress, "127.0.0.1");
    EXPECT_EQ(closed.GetPeerAddress(peerAddress), -1);
    close(server);

    const int32_t notImplemented = static_cast<int32_t>(0x80004001u);
    EXPECT_EQ(tcp.SetReceiveTimeout(10), notImplemented);
    EXPECT_EQ(tcp.SetSendTimeout(10), notImplemented);
    EXPECT_EQ(tcp.SetNoDelay(1), notImplemented);
    EXPECT_EQ(tcp.SetKeepAlive(1), notImplemented);
    EXPECT_EQ(tcp.GetTransportError(), notImplemented);
}

}  // namespace
