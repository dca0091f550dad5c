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

// Records what a client or server reports; once `closed` is set, callbacks count as late.
class Recorder : public IIPCServerCallback {
  public:
    void OnPeerStateChanged(uint32_t peer, uint32_t session, uint32_t state) override {
        const Event event{peer, session, state};
        Add([&] { m_Events.push_back(event); });
        if (onEvent)
            onEvent(event);
    }
    void OnReqMsgRecv(IPCBuffer* buffer) override { OnReqMsgRecvFrom(0, buffer); }
    void OnRespMsgRecv(IPCBuffer*) override {}
    void OnReqMsgRecvFrom(uint16_t session, IPCBuffer* buffer) override {
        std::string bytes(static_cast<const char*>(buffer->m_pData), buffer->m_Length);
        if (buffer->m_Kind != kIPCBufferKindRequest)
            bytes = "wrong kind";
        Add([&] { m_Packets.push_back(bytes), m_Sessions.push_back(session); });
        if (onPacket)
            onPacket(session, bytes);
    }
    bool WaitEvents(size_t n) {
        return WaitUntil([&] { return m_Events.size() >= n; });
    }
    bool WaitPackets(size_t n) {
        return WaitUntil([&] { return m_Packets.size() >= n; });
    }
    std::vector<Event> Events() { return Copy(m_Events); }
    std::vector<std::string> Packets() { return Copy(m_Packets); }
    std::vector<uint16_t> PacketSessions() { return Copy(m_Sessions); }

    std::function<void(uint16_t session, const std::string& bytes)> onPacket;
    std::function<void(const Event&)> onEvent;
    std::atomic<bool> closed{false};
    std::atomic<int> callsAfterClose{0};

  private:
    void Add(const std::function<void()>& change) {
        callsAfterClose += closed ? 1 : 0;
        {
            std::lock_guard<std::mutex> guard(m_Lock);
            change();
        }
        m_Changed.notify_all();
    }
    bool WaitUntil(const std::function<bool()>& ready) {
        std::unique_lock<std::mutex> lock(m_Lock);
        return m_Changed.wait_for(lock, 5s, ready);
    }
    template <class T>
    T Copy(const T& member) {
        std::lock_guard<std::mutex> guard(m_Lock);
        return member;
    }

    std::mutex m_Lock;
    std::condition_variable m_Changed;
    std::vector<Event> m_Events;
    std::vector<std::string> m_Packets;
    std::vector<uint16_t> m_Sessions;
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

sockaddr_un AddressOf(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    return address;
}

// A raw server socket on the port's path, for servers that do what the library never does; reads on
// its connections give up after 5 s.
int RawListener() {
    const std::string path = ipc::SocketPathForPort(kPort);
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const timeval limit{5, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    const sockaddr_un a = AddressOf(path);
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

bool WriteBytes(int fd, const std::string& bytes, bool oneAtATime = false) {
    for (size_t at = 0; at < bytes.size();) {
        const ssize_t sent =
            send(fd, bytes.data() + at, oneAtATime ? 1 : bytes.size() - at, MSG_NOSIGNAL);
        if (sent <= 0)
            return false;
        at += static_cast<size_t>(sent);
    }
    return true;
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
        if (server->Listen() != IPC_STATUS_OK)
            return ::testing::AssertionFailure() << "Listen";
        return Reconnect();
    }
    // Connects and checks that both sides report state 2 with the same session.
    ::testing::AssertionResult Reconnect() {
        const size_t clientSeen = clientEvents.Events().size();
        const size_t serverSeen = serverEvents.Events().size();
        if (client->ConnectAsync(kAgent, 0, 5, kPort) != IPC_STATUS_OK)
            return ::testing::AssertionFailure() << "ConnectAsync";
        if (!clientEvents.WaitEvents(clientSeen + 1) || !serverEvents.WaitEvents(serverSeen + 1))
            return ::testing::AssertionFailure() << "no state-2 events";
        const Event c = clientEvents.Events()[clientSeen];
        const Event s = serverEvents.Events()[serverSeen];
        if (c != Event{kAgent, s[1], 2} || s != Event{kModule, c[1], 2} || c[1] == 0)
            return ::testing::AssertionFailure() << "sessions differ or are 0";
        session = static_cast<uint16_t>(c[1]);
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
    ASSERT_TRUE(ch.serverEvents.WaitPackets(sent.size()));
    ASSERT_TRUE(ch.clientEvents.WaitPackets(sent.size()));
    EXPECT_EQ(ch.serverEvents.Packets(), sent);
    EXPECT_EQ(ch.clientEvents.Packets(), sent);

    // Bursts from two client threads and the server at once. Sizes up to 300 KiB fill the socket,
    // so that sends are partial and a sender without the connection's lock would interleave its
    // bytes with another's.
    constexpr uint32_t kEach = 1000;
    auto sizeOf = [](uint32_t i) { return 24 + (i * 7919) % (i % 10 == 0 ? 300000 : 2000); };
    std::atomic<int> failures{0};
    auto pump = [&](uint32_t who, bool fromServer) {
        for (uint32_t i = 0; i < kEach; ++i)
            failures += ch.Send(fromServer, Payload(sizeOf(i), (who << 24) | i)) != IPC_STATUS_OK;
    };
    std::thread a(pump, 1, false), b(pump, 2, false), c(pump, 3, true);
    a.join();
    b.join();
    c.join();
    EXPECT_EQ(failures, 0);
    const size_t before = sent.size();
    ASSERT_TRUE(ch.serverEvents.WaitPackets(before + 2 * kEach));
    ASSERT_TRUE(ch.clientEvents.WaitPackets(before + kEach));
    EXPECT_EQ(ch.serverEvents.PacketSessions(),
              std::vector<uint16_t>(before + 2 * kEach, ch.session));
    // Each sender's packets arrive whole and in its own order; the senders may interleave.
    std::map<uint32_t, uint32_t> next;
    for (const auto& packets : {ch.serverEvents.Packets(), ch.clientEvents.Packets()}) {
        for (size_t k = before; k < packets.size(); ++k) {
            ASSERT_GE(packets[k].size(), 4u);
            uint32_t tag = 0;
            memcpy(&tag, packets[k].data(), 4);
            const uint32_t who = tag >> 24, i = tag & 0xffffff;
            ASSERT_EQ(i, next[who]++) << "sender " << who;
            ASSERT_EQ(packets[k], Payload(sizeOf(i), tag));
        }
    }
    EXPECT_EQ(next, (std::map<uint32_t, uint32_t>{{1, kEach}, {2, kEach}, {3, kEach}}));
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
    ASSERT_TRUE(ch.clientEvents.WaitEvents(2));
    ASSERT_TRUE(ch.serverEvents.WaitEvents(2));
    EXPECT_NE(ch.Send(false, "ping"), IPC_STATUS_OK);
    EXPECT_EQ(ch.Send(true, "ping"), IPC_STATUS_NO_SESSION);

    // The same client object connects again; the server goes away with its socket file.
    ASSERT_TRUE(ch.Reconnect());
    const uint16_t second = ch.session;
    EXPECT_NE(second, first);
    ch.server->TearDown();
    EXPECT_FALSE(std::filesystem::exists(ipc::SocketPathForPort(kPort)));
    ASSERT_TRUE(ch.clientEvents.WaitEvents(4));
    EXPECT_EQ(
        ch.clientEvents.Events(),
        (std::vector<Event>{
            {kAgent, first, 2}, {kAgent, first, 0}, {kAgent, second, 2}, {kAgent, second, 0}}));
    EXPECT_EQ(ch.serverEvents.Events(),
              (std::vector<Event>{{kModule, first, 2}, {kModule, first, 0}, {kModule, second, 2}}));
}

TEST(IPCChannel, NoCallbackRunsAfterTearDownReturnsUnderAStreamOfPackets) {
    for (int round = 0; round < 60; ++round) {
        SCOPED_TRACE(round);
        Channel ch;
        ASSERT_TRUE(ch.Connect());
        // Rounds end differently: the client torn down, the client deleted, the server torn down.
        const int way = round % 3;
        std::atomic<bool> pumping{true};
        std::thread pump([&] {
            const std::string bytes = Payload(64 + 10 * round, round);
            while (pumping)
                ch.Send(way != 2, bytes);
        });
        Recorder& receiver = way == 2 ? ch.serverEvents : ch.clientEvents;
        Recorder& survivor = way == 2 ? ch.clientEvents : ch.serverEvents;
        ASSERT_TRUE(receiver.WaitPackets(1 + (round % 7) * 20));
        if (way == 1)
            ch.client.reset();
        else
            way == 0 ? ch.client->TearDown() : ch.server->TearDown();
        receiver.closed = true;
        EXPECT_TRUE(survivor.WaitEvents(2));  // the other side saw the connection end
        pumping = false;
        pump.join();
        EXPECT_EQ(receiver.callsAfterClose, 0);
    }

    // A callback still running when TearDown is called holds TearDown until it returns.
    std::promise<void> entered, release;
    std::shared_future<void> released = release.get_future().share();
    std::atomic<bool> callbackDone{false};
    Channel ch;
    ch.clientEvents.onPacket = [&](uint16_t, const std::string&) {
        entered.set_value();
        released.wait();
        callbackDone = true;
    };
    ASSERT_TRUE(ch.Connect());
    ASSERT_EQ(ch.Send(true, Payload(100, 1)), IPC_STATUS_OK);
    ASSERT_EQ(entered.get_future().wait_for(10s), std::future_status::ready);
    auto tearDown = std::async(std::launch::async, [&] {
        ch.client->TearDown();
        return callbackDone.load();
    });
    EXPECT_EQ(tearDown.wait_for(200ms), std::future_status::timeout)
        << "TearDown returned while a callback was still running";
    release.set_value();
    EXPECT_TRUE(tearDown.get());
}

TEST(IPCChannel, ClientReassemblesTrickledFramesAndDropsBadStreamsWithoutPartialDelivery) {
    Root root;
    ipc::SetHandshakeTimeoutForTesting(200);
    syslog_capture::Clear();
    const std::vector<std::string> sent = {Payload(24, 1), Payload(600, 2), Payload(3000, 3)};
    const std::string& a = sent[1];
    const std::vector<Event> lost = {{kAgent, 0, 0}}, ended = {{kAgent, 5, 2}, {kAgent, 5, 0}};
    const struct {
        const char* what;
        std::string bytes;  // then the raw server shuts its side, unless there are none
        bool oneAtATime;
        std::vector<Event> events;
        std::vector<std::string> packets;
    } cases[] = {
        {"trickled", Hello(kAgent, 5) + Frame(sent[0]) + Frame(a) + Frame(sent[2]), true, ended,
         sent},
        {"oversize",
         Hello(kAgent, 5) + Frame(a) + LE32(kIPCMaxFrameLength + 1) + "zz",
         false,
         ended,
         {a}},
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
        if (!c.bytes.empty()) {
            WriteBytes(fd, c.bytes, c.oneAtATime);
            shutdown(fd, SHUT_WR);
        }
        EXPECT_TRUE(events.WaitEvents(c.events.size()));
        client->TearDown();
        close(fd);
        EXPECT_EQ(events.Events(), c.events);
        EXPECT_EQ(events.Packets(), c.packets);
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
    ASSERT_TRUE(WriteBytes(rawServer, Hello(kAgent, 3)));
    ASSERT_TRUE(events.WaitEvents(1));
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
    ASSERT_TRUE(events.WaitEvents(2));
    EXPECT_EQ(events.Events()[1], (Event{kAgent, 3, 0}));
    EXPECT_NE(client->SendData(&buffer), IPC_STATUS_OK);
    client->TearDown();
    EXPECT_EQ(events.Events().size(), 2u);
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
    const sockaddr_un address = AddressOf(path);
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);

    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        // The impostor, as nobody, with plain system calls only; exits 0 if it received nothing.
        if (setgid(nobody->pw_gid) != 0 || setuid(nobody->pw_uid) != 0)
            _exit(2);
        mkdir(directory.c_str(), 0755);
        const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
        if (bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
            listen(listener, 1) != 0 || write(ready[1], "1", 1) != 1)
            _exit(3);
        const timeval limit{5, 0};
        setsockopt(listener, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
        const int fd = accept(listener, nullptr, nullptr);
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
        // Even the client's handshake must not reach it: the client closes without a byte.
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
    EXPECT_TRUE(events.Events().empty());
}

TEST(IPCChannel, CallbacksMaySendAndTearDownButNotConnect) {
    Channel ch;
    EXPECT_EQ(ch.client->TearDown(), IPC_STATUS_OK);  // harmless without a connection
    EXPECT_EQ(ch.Send(false, "ping"), IPC_STATUS_NOT_CONNECTED);
    EXPECT_EQ(ch.client->SendData(nullptr), IPC_STATUS_BAD_ARGUMENT);

    // The server echoes from inside its callback; the client tries to reconnect inside its third
    // delivery, then tears itself down there.
    ch.serverEvents.onPacket = [&](uint16_t, const std::string& bytes) { ch.Send(true, bytes); };
    std::atomic<BR_STATUSCODE> connectInside{-1};
    ch.clientEvents.onPacket = [&](uint16_t, const std::string&) {
        if (ch.clientEvents.Packets().size() == 3) {
            connectInside = ch.client->ConnectAsync(kAgent, 0, 5, kPort);
            ch.client->TearDown();
        }
    };
    ASSERT_TRUE(ch.Connect());
    for (int i = 0; i < 10; ++i)
        ch.Send(false, "ping");
    ASSERT_TRUE(ch.serverEvents.WaitEvents(2));  // the client's end, seen by the server
    EXPECT_EQ(connectInside, IPC_STATUS_WRONG_THREAD);
    EXPECT_EQ(ch.clientEvents.Packets().size(), 3u);
    EXPECT_EQ(ch.clientEvents.Events().size(), 1u);  // torn down: no state 0

    // A client deleted inside its own callback ends without touching the freed object.
    Recorder doomedEvents;
    IIPCClient* doomed = MakeClient(doomedEvents).release();
    std::promise<void> deleted;
    doomedEvents.onEvent = [&](const Event&) {
        delete doomed;
        deleted.set_value();  // the recorder is not touched after this
    };
    ASSERT_EQ(doomed->ConnectAsync(kAgent, 0, 5, kPort), IPC_STATUS_OK);
    ASSERT_TRUE(ch.serverEvents.WaitEvents(4));  // its arrival and its end, seen by the server
    EXPECT_EQ(deleted.get_future().wait_for(5s), std::future_status::ready);
    EXPECT_EQ(ch.serverEvents.Events()[3][2], 0u);
    EXPECT_EQ(doomedEvents.Events().size(), 1u);
}

}  // namespace
