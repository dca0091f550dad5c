// The IPC channel over real Unix sockets in a temporary directory: library client and server
// against each other and against raw-socket peers that misbehave.
#include <pwd.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

#include <gtest/gtest.h>

#include "SyslogCapture.h"
#include "TestEnv.h"
#include "ipc/IPCServer.h"
#include "ipc/IPCTesting.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Event = std::array<uint32_t, 3>;  // peer identity, session, state
constexpr uint16_t kPort = 4711;
constexpr uint32_t kModule = 6;
constexpr uint32_t kAgent = 8;

long long MillisSince(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

// A fresh socket root for the life of the object; the testing time-outs are restored afterwards.
struct Root : TempRoot {
    ~Root() { ipc::SetSendTimeoutForTesting(0), ipc::SetHandshakeTimeoutForTesting(0); }
};

// What a client or server reported, in order.
struct Seen {
    std::vector<Event> events;
    std::vector<std::string> packets;
    std::vector<uint16_t> sessions;  // one per packet
};

// Records what a client or server reports.
class Recorder : public IIPCServerCallback {
  public:
    void OnPeerStateChanged(uint32_t peer, uint32_t session, uint32_t state) override {
        Add([&] { m_Seen.events.push_back({peer, session, state}); });
        if (onEvent)
            onEvent();
    }
    void OnReqMsgRecv(IPCBuffer* buffer) override { OnReqMsgRecvFrom(0, buffer); }
    void OnRespMsgRecv(IPCBuffer*) override {}
    void OnReqMsgRecvFrom(uint16_t session, IPCBuffer* buffer) override {
        std::string bytes(static_cast<const char*>(buffer->m_pData), buffer->m_Length);
        if (buffer->m_Kind != kIPCBufferKindRequest)
            bytes = "wrong kind";
        Add([&] { m_Seen.packets.push_back(bytes), m_Seen.sessions.push_back(session); });
        if (onPacket)
            onPacket(bytes);
    }
    // Waits up to 5 s until at least `events` events and `packets` packets came in.
    bool Wait(size_t events, size_t packets = 0) {
        std::unique_lock<std::mutex> lock(m_Lock);
        return m_Changed.wait_for(lock, 5s, [&] {
            return m_Seen.events.size() >= events && m_Seen.packets.size() >= packets;
        });
    }
    Seen Now() {
        std::lock_guard<std::mutex> guard(m_Lock);
        return m_Seen;
    }

    std::function<void(const std::string& bytes)> onPacket;
    std::function<void()> onEvent;

  private:
    void Add(const std::function<void()>& change) {
        {
            std::lock_guard<std::mutex> guard(m_Lock);
            change();
        }
        m_Changed.notify_all();
    }

    std::mutex m_Lock;
    std::condition_variable m_Changed;
    Seen m_Seen;
};

std::string LE32(uint32_t v) {
    return {char(v), char(v >> 8), char(v >> 16), char(v >> 24)};
}

// A recognisable packet of `size` bytes whose first 4 bytes hold `tag`.
std::string Payload(size_t size, uint32_t tag) {
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<char>(i < 4 ? tag >> (8 * i) : (i * 131 + tag * 7) & 0xff);
    return bytes;
}

std::string Frame(const std::string& payload) {
    return LE32(static_cast<uint32_t>(payload.size())) + payload;
}

// The 12-byte handshake: "TWIP", version 1, session, identity, little-endian.
std::string Hello(uint32_t identity, uint16_t session) {
    return std::string("TWIP\1\0", 6) + char(session & 0xff) + char(session >> 8) + LE32(identity);
}

// A buffer over `bytes`, which must outlive it.
IPCBuffer BufferOf(const std::string& bytes) {
    IPCBuffer buffer{};
    buffer.m_Kind = kIPCBufferKindRequest;
    buffer.m_Length = static_cast<uint32_t>(bytes.size());
    buffer.m_pData = const_cast<char*>(bytes.data());
    return buffer;
}

std::unique_ptr<IIPCClient> MakeClient(Recorder& events) {
    BR_STATUSCODE status = -1;
    std::unique_ptr<IIPCClient> client(CIPCFactory::CreateIPCClient(kModule, &events, status, 0));
    EXPECT_EQ(status, IPC_STATUS_OK);
    return client;
}

std::unique_ptr<IIPCServer> MakeServer(Recorder& events) {
    BR_STATUSCODE status = -1;
    std::unique_ptr<IIPCServer> server(
        CIPCFactory::CreateIPCServer(kAgent, &events, status, kPort));
    EXPECT_EQ(status, IPC_STATUS_OK);
    return server;
}

// A raw server socket on the port's path, for servers that do what the library never does; accept
// gives up after 5 s.
int RawListener() {
    const std::string path = ipc::SocketPathForPort(kPort);
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const timeval limit{5, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    sockaddr_un a{AF_UNIX, {}};
    strncpy(a.sun_path, path.c_str(), sizeof(a.sun_path) - 1);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&a), sizeof(a)) == 0 && listen(fd, 4) == 0)
        return fd;
    close(fd);
    return -1;
}

// Connects a library client to the raw listener: the accepted socket, after the client's hello.
int AcceptClient(int listener, IIPCClient& client) {
    EXPECT_EQ(client.ConnectAsync(kAgent, 0, 5, kPort), IPC_STATUS_OK);
    const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    std::string hello(12, '\0');
    EXPECT_EQ(recv(fd, &hello[0], hello.size(), MSG_WAITALL), 12);
    EXPECT_EQ(hello, Hello(kModule, 0));
    return fd;
}

// A library server and client on a fresh root. The objects are declared after their recorders, so
// they are destroyed (and torn down) first.
struct Channel {
    Root root;
    Recorder serverEvents, clientEvents;
    std::unique_ptr<IIPCServer> server = MakeServer(serverEvents);
    std::unique_ptr<IIPCClient> client = MakeClient(clientEvents);
    uint16_t session = 0;

    ::testing::AssertionResult Connect() {
        return server->Listen() == IPC_STATUS_OK ? Reconnect() : ::testing::AssertionFailure();
    }
    // Connects and checks that both sides report state 2 with the same non-zero session.
    ::testing::AssertionResult Reconnect() {
        const size_t n = clientEvents.Now().events.size(), m = serverEvents.Now().events.size();
        if (client->ConnectAsync(kAgent, 0, 5, kPort) != IPC_STATUS_OK ||
            !clientEvents.Wait(n + 1) || !serverEvents.Wait(m + 1))
            return ::testing::AssertionFailure() << "not connected";
        const Event c = clientEvents.Now().events[n], s = serverEvents.Now().events[m];
        session = static_cast<uint16_t>(c[1]);
        if (c != Event{kAgent, s[1], 2} || s != Event{kModule, c[1], 2} || c[1] == 0)
            return ::testing::AssertionFailure() << "sessions differ or are 0";
        return ::testing::AssertionSuccess();
    }
    BR_STATUSCODE Send(bool fromServer, const std::string& bytes) {
        IPCBuffer buffer = BufferOf(bytes);
        return fromServer ? server->SendData(&buffer, session) : client->SendData(&buffer);
    }
};

TEST(IPCChannel, DeliversWholePacketsInOrderBothWaysAlsoFromConcurrentSenders) {
    Channel ch;
    ASSERT_TRUE(ch.Connect());
    std::vector<std::string> sent;
    for (size_t size : {24u, 600u, 65537u, kIPCMaxFrameLength, 0u}) {
        sent.push_back(Payload(size, static_cast<uint32_t>(sent.size())));
        ASSERT_EQ(ch.Send(false, sent.back()), IPC_STATUS_OK) << size;
        ASSERT_EQ(ch.Send(true, sent.back()), IPC_STATUS_OK) << size;
    }
    // Above the limit is refused before a byte goes out; the connection stays usable.
    const std::string tooBig(kIPCMaxFrameLength + 1, 'x');
    EXPECT_EQ(ch.Send(false, tooBig), IPC_STATUS_TOO_LARGE);
    EXPECT_EQ(ch.Send(true, tooBig), IPC_STATUS_TOO_LARGE);
    for (Recorder* side : {&ch.serverEvents, &ch.clientEvents}) {
        ASSERT_TRUE(side->Wait(0, sent.size()));
        EXPECT_EQ(side->Now().packets, sent);
    }

    // Bursts from two client threads and the server at once. Sizes up to 300 KiB fill the socket,
    // so that sends are partial and a sender without the connection's lock would interleave its
    // bytes with another's.
    constexpr uint32_t kEach = 1000;
    auto sizeOf = [](uint32_t i) { return 24 + (i * 7919) % (i % 10 == 0 ? 300000 : 2000); };
    std::map<uint32_t, std::vector<std::string>> want, got;  // by sender
    std::atomic<int> failures{0};
    auto pump = [&](uint32_t who, bool fromServer) {
        for (uint32_t i = 0; i < kEach; ++i)
            failures += ch.Send(fromServer, Payload(sizeOf(i), (who << 24) | i)) != IPC_STATUS_OK;
    };
    for (uint32_t who = 1; who <= 3; ++who) {
        for (uint32_t i = 0; i < kEach; ++i)
            want[who].push_back(Payload(sizeOf(i), (who << 24) | i));
    }
    std::thread a(pump, 1, false), b(pump, 2, false), c(pump, 3, true);
    a.join();
    b.join();
    c.join();
    EXPECT_EQ(failures, 0);
    const size_t before = sent.size();
    ASSERT_TRUE(ch.serverEvents.Wait(0, before + 2 * kEach));
    ASSERT_TRUE(ch.clientEvents.Wait(0, before + kEach));
    const Seen server = ch.serverEvents.Now(), client = ch.clientEvents.Now();
    EXPECT_EQ(server.sessions, std::vector<uint16_t>(before + 2 * kEach, ch.session));
    // Each sender's packets arrive whole and in its own order; the senders may interleave.
    for (const Seen* side : {&server, &client}) {
        for (size_t k = before; k < side->packets.size(); ++k)
            got[static_cast<uint8_t>(side->packets[k].at(3))].push_back(side->packets[k]);
    }
    EXPECT_TRUE(got == want) << "a sender's packets were lost, torn or reordered";
}

TEST(IPCChannel, ConnectsOnlyToALiveServerAndEachConnectionEndsWithOneClosedEvent) {
    Channel ch;
    // No socket file, then one left behind by a dead server: both fail at once.
    const auto start = Clock::now();
    EXPECT_EQ(ch.client->ConnectAsync(kAgent, 0, 5, kPort), IPC_STATUS_NO_SERVER);
    close(RawListener());
    EXPECT_EQ(ch.client->ConnectAsync(kAgent, 0, 5, kPort), IPC_STATUS_REFUSED);
    EXPECT_LT(MillisSince(start), 1000);
    // The stale file is replaced; a live server's is not taken by a second one.
    ASSERT_TRUE(ch.Connect());
    Recorder otherEvents;
    EXPECT_EQ(MakeServer(otherEvents)->Listen(), IPC_STATUS_ADDRESS_IN_USE);
    const uint16_t first = ch.session;

    // The server drops the client: one state 0 on each side, then nothing can be sent.
    ASSERT_EQ(ch.server->DisconnectPeer(first), IPC_STATUS_OK);
    ASSERT_TRUE(ch.clientEvents.Wait(2));
    ASSERT_TRUE(ch.serverEvents.Wait(2));
    EXPECT_NE(ch.Send(false, "ping"), IPC_STATUS_OK);
    EXPECT_EQ(ch.Send(true, "ping"), IPC_STATUS_NO_SESSION);

    // The same client object connects again; the server goes away with its socket file.
    ASSERT_TRUE(ch.Reconnect());
    const uint16_t second = ch.session;
    EXPECT_NE(second, first);
    ch.server->TearDown();
    EXPECT_FALSE(std::filesystem::exists(ipc::SocketPathForPort(kPort)));
    ASSERT_TRUE(ch.clientEvents.Wait(4));
    EXPECT_EQ(
        ch.clientEvents.Now().events,
        (std::vector<Event>{
            {kAgent, first, 2}, {kAgent, first, 0}, {kAgent, second, 2}, {kAgent, second, 0}}));
    EXPECT_EQ(ch.serverEvents.Now().events,
              (std::vector<Event>{{kModule, first, 2}, {kModule, first, 0}, {kModule, second, 2}}));
}

// A callback still running holds the call that stops its end until it returns, so no I/O
// thread outlives the client's TearDown, the server's TearDown or the client's destruction.
TEST(IPCChannel, TearDownWaitsForTheRunningCallback) {
    const char* const ends[] = {"client TearDown", "server TearDown", "client destroyed"};
    for (int which = 0; which < 3; ++which) {
        SCOPED_TRACE(ends[which]);
        const bool server = which == 1;
        std::promise<void> entered, release;
        std::shared_future<void> released = release.get_future().share();
        std::atomic<bool> callbackDone{false};
        Channel ch;
        (server ? ch.serverEvents : ch.clientEvents).onPacket = [&](const std::string&) {
            entered.set_value();
            released.wait();
            callbackDone = true;
        };
        ASSERT_TRUE(ch.Connect());
        ASSERT_EQ(ch.Send(!server, Payload(100, 1)), IPC_STATUS_OK);
        ASSERT_EQ(entered.get_future().wait_for(10s), std::future_status::ready);
        auto stop = std::async(std::launch::async, [&] {
            if (which == 0)
                ch.client->TearDown();
            else if (server)
                ch.server->TearDown();
            else
                ch.client.reset();
            return callbackDone.load();
        });
        EXPECT_EQ(stop.wait_for(200ms), std::future_status::timeout)
            << "returned while a callback was still running";
        release.set_value();
        EXPECT_TRUE(stop.get());
    }
}

TEST(IPCChannel, ClientReassemblesTrickledFramesAndDropsBadStreamsWithoutPartialDelivery) {
    Root root;
    ipc::SetHandshakeTimeoutForTesting(200);
    syslog_capture::Clear();
    const std::vector<std::string> sent = {Payload(24, 1), Payload(600, 2), Payload(3000, 3)};
    const std::string& a = sent[1];
    const std::vector<Event> lost = {{kAgent, 0, 0}}, ended = {{kAgent, 5, 2}, {kAgent, 5, 0}};
    const std::string tooLong = LE32(kIPCMaxFrameLength + 1) + "zz";
    const struct {
        const char* what;
        std::string bytes;  // then the raw server shuts its side, unless there are none
        bool trickled;      // one byte per send
        std::vector<Event> events;
        std::vector<std::string> packets;
    } cases[] = {
        {"trickled", Hello(kAgent, 5) + Frame(sent[0]) + Frame(a) + Frame(sent[2]), true, ended,
         sent},
        {"oversize", Hello(kAgent, 5) + Frame(a) + tooLong, false, ended, {a}},
        {"cut at close", Hello(kAgent, 5) + Frame(a) + Frame(a).substr(0, 60), false, ended, {a}},
        {"garbage record", "HTTP/1.1 200 OK\r\n\r\n", false, lost, {}},
        {"wrong identity", Hello(7, 5) + Frame(a), false, lost, {}},
        {"silent", "", false, lost, {}},
    };
    const int listener = RawListener();
    ASSERT_GE(listener, 0);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Recorder events;
        const auto start = Clock::now();
        auto client = MakeClient(events);
        const int fd = AcceptClient(listener, *client);
        const size_t step = c.trickled ? 1 : c.bytes.size();
        for (size_t at = 0; at < c.bytes.size(); at += step)
            send(fd, c.bytes.data() + at, std::min(step, c.bytes.size() - at), MSG_NOSIGNAL);
        if (!c.bytes.empty())
            shutdown(fd, SHUT_WR);
        EXPECT_TRUE(events.Wait(c.events.size()));
        client->TearDown();
        close(fd);
        EXPECT_EQ(events.Now().events, c.events);
        EXPECT_EQ(events.Now().packets, c.packets);
        if (c.bytes.empty()) {
            EXPECT_GE(MillisSince(start), 150);
            EXPECT_LE(MillisSince(start), 1500);
        }
    }
    EXPECT_EQ(syslog_capture::CountContaining("exceeds the limit"), 1u);

    // A server that stops reading: sends fill the socket until one times out after about 300 ms,
    // and the connection is dropped.
    ipc::SetSendTimeoutForTesting(300);
    Recorder events;
    auto client = MakeClient(events);
    const int rawServer = AcceptClient(listener, *client);
    ASSERT_EQ(send(rawServer, Hello(kAgent, 3).data(), 12, MSG_NOSIGNAL), 12);
    ASSERT_TRUE(events.Wait(1));
    const std::string big(kIPCMaxFrameLength, 'b');
    IPCBuffer buffer = BufferOf(big);
    BR_STATUSCODE status = IPC_STATUS_OK;
    long long ms = 0;
    for (int i = 0; i < 20 && status == IPC_STATUS_OK; ++i) {
        const auto start = Clock::now();
        status = client->SendData(&buffer);
        ms = MillisSince(start);
    }
    EXPECT_EQ(status, IPC_STATUS_TIMEOUT);
    EXPECT_GE(ms, 250);
    EXPECT_LE(ms, 3000);
    ASSERT_TRUE(events.Wait(2));
    EXPECT_NE(client->SendData(&buffer), IPC_STATUS_OK);
    client->TearDown();
    EXPECT_EQ(events.Now().events, (std::vector<Event>{{kAgent, 3, 2}, {kAgent, 3, 0}}));
    close(rawServer);
    close(listener);
}

TEST(IPCChannel, RefusesAServerRunningAsAnotherUser) {
    const passwd* nobody = getpwnam("nobody");
    if (geteuid() != 0 || nobody == nullptr)
        GTEST_SKIP() << "needs root and a 'nobody' user";
    Root root;
    chmod(root.path().c_str(), 0755);  // the impostor, running as nobody, must traverse it
    const std::string path = ipc::SocketPathForPort(kPort);
    const std::filesystem::path directory = std::filesystem::path(path).parent_path();
    std::filesystem::create_directories(directory.parent_path());
    ASSERT_EQ(chown(directory.parent_path().c_str(), nobody->pw_uid, nobody->pw_gid), 0);
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);

    // The impostor, as nobody (this process has no other thread here); exits 0 if even the
    // client's handshake did not reach it: the client must close without a byte.
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        if (setgid(nobody->pw_gid) != 0 || setuid(nobody->pw_uid) != 0)
            _exit(2);
        const int listener = RawListener();
        if (listener < 0 || write(ready[1], "1", 1) != 1)
            _exit(3);
        const int fd = accept(listener, nullptr, nullptr);
        const timeval limit{5, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
        char byte = 0;
        _exit(fd < 0 ? 4 : recv(fd, &byte, 1, 0) > 0 ? 5 : 0);
    }
    close(ready[1]);
    char signal = 0;
    ASSERT_EQ(read(ready[0], &signal, 1), 1);  // 0 when the child failed before listening
    close(ready[0]);

    syslog_capture::Clear();
    Recorder events;
    auto client = MakeClient(events);
    EXPECT_EQ(client->ConnectAsync(kAgent, 0, 5, kPort), IPC_STATUS_UNTRUSTED_PEER);
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_EQ(syslog_capture::CountContaining("refusing the server on " + path +
                                              ": it runs as uid " + std::to_string(nobody->pw_uid)),
              1u);
    client->TearDown();
    EXPECT_TRUE(events.Now().events.empty());
}

TEST(IPCChannel, CallbacksMaySendAndTearDownButNotConnect) {
    Channel ch;
    EXPECT_EQ(ch.client->TearDown(), IPC_STATUS_OK);  // harmless without a connection
    EXPECT_EQ(ch.Send(false, "ping"), IPC_STATUS_NOT_CONNECTED);
    EXPECT_EQ(ch.client->SendData(nullptr), IPC_STATUS_BAD_ARGUMENT);

    // The server echoes from inside its callback; the client tries to reconnect inside its third
    // delivery, then tears itself down there.
    ch.serverEvents.onPacket = [&](const std::string& bytes) { ch.Send(true, bytes); };
    std::atomic<BR_STATUSCODE> connectInside{-1};
    ch.clientEvents.onPacket = [&](const std::string&) {
        if (ch.clientEvents.Now().packets.size() == 3) {
            connectInside = ch.client->ConnectAsync(kAgent, 0, 5, kPort);
            ch.client->TearDown();
        }
    };
    ASSERT_TRUE(ch.Connect());
    for (int i = 0; i < 10; ++i)
        ch.Send(false, "ping");
    ASSERT_TRUE(ch.serverEvents.Wait(2));  // the client's end, seen by the server
    EXPECT_EQ(connectInside, IPC_STATUS_WRONG_THREAD);
    EXPECT_EQ(ch.clientEvents.Now().packets.size(), 3u);
    EXPECT_EQ(ch.clientEvents.Now().events.size(), 1u);  // torn down: no state 0

    // A client deleted inside its own callback ends without touching the freed object.
    Recorder doomedEvents;
    IIPCClient* doomed = MakeClient(doomedEvents).release();
    std::promise<void> deleted;
    doomedEvents.onEvent = [&] {
        delete doomed;
        deleted.set_value();  // the recorder is not touched after this
    };
    ASSERT_EQ(doomed->ConnectAsync(kAgent, 0, 5, kPort), IPC_STATUS_OK);
    ASSERT_TRUE(ch.serverEvents.Wait(4));  // its arrival and its end, seen by the server
    EXPECT_EQ(deleted.get_future().wait_for(5s), std::future_status::ready);
    EXPECT_EQ(ch.serverEvents.Now().events[3][2], 0u);
    EXPECT_EQ(doomedEvents.Now().events.size(), 1u);
}

}  // namespace
