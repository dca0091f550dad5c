// The IPC channel over real Unix sockets in a temporary directory: library client and server
// against each other and against raw-socket peers that misbehave.
#include <fcntl.h>
#include <poll.h>
#include <pwd.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <thread>

#include <gtest/gtest.h>

#include "IPCTestSupport.h"
#include "SyslogCapture.h"
#include "ipc/IPCTesting.h"

using namespace ipc_test;

namespace {

using Clock = std::chrono::steady_clock;

long long MillisSince(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
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

// A library server and client on a fresh root. Objects are declared after their recorders, so
// they are destroyed (and torn down) first.
struct Channel {
    TempRoot root;
    Recorder serverEvents;
    Recorder clientEvents;
    std::unique_ptr<IIPCServer> server = MakeServer(serverEvents);
    std::unique_ptr<IIPCClient> client = MakeClient(clientEvents);
    uint16_t session = 0;

    // Listens, connects, and checks that both sides report the same session.
    ::testing::AssertionResult Connect() {
        if (server->Listen() != IPC_STATUS_OK)
            return ::testing::AssertionFailure() << "Listen";
        return Reconnect();
    }
    ::testing::AssertionResult Reconnect() {
        const size_t clientSeen = clientEvents.Events().size();
        const size_t serverSeen = serverEvents.Events().size();
        if (client->ConnectAsync(kAgent, 0, 5, kPort) != IPC_STATUS_OK) {
            return ::testing::AssertionFailure() << "ConnectAsync";
        }
        if (!clientEvents.WaitEvents(clientSeen + 1) || !serverEvents.WaitEvents(serverSeen + 1)) {
            return ::testing::AssertionFailure() << "no state-2 events";
        }
        const Event c = clientEvents.Events()[clientSeen];
        const Event s = serverEvents.Events()[serverSeen];
        if (!(c == Event{kAgent, s.session, 2}) || !(s == Event{kModule, c.session, 2}) ||
            c.session == 0) {
            return ::testing::AssertionFailure() << "client " << c << " server " << s;
        }
        session = static_cast<uint16_t>(c.session);
        return ::testing::AssertionSuccess();
    }
};

TEST(IPCChannel, DeliversWholeOrderedPacketsBothWays) {
    Channel ch;
    ASSERT_TRUE(ch.Connect());
    std::vector<std::string> sent;
    for (size_t size : {24u, 600u, 4096u, 65537u, 1u << 20, 0u}) {
        sent.push_back(Payload(size, static_cast<uint32_t>(sent.size())));
        IPCBuffer buffer = BufferOf(sent.back());
        ASSERT_EQ(ch.client->SendData(&buffer), IPC_STATUS_OK) << size;
        ASSERT_EQ(ch.server->SendData(&buffer, ch.session), IPC_STATUS_OK) << size;
    }
    // Above the limit is refused before a byte goes out; the connection stays usable.
    const std::string tooBig(kIPCMaxFrameLength + 1, 'x');
    IPCBuffer big = BufferOf(tooBig);
    EXPECT_EQ(ch.client->SendData(&big), IPC_STATUS_TOO_LARGE);
    EXPECT_EQ(ch.server->SendData(&big, ch.session), IPC_STATUS_TOO_LARGE);
    EXPECT_EQ(ch.server->SendData(&big, static_cast<uint16_t>(ch.session + 1)),
              IPC_STATUS_TOO_LARGE);
    const std::string x = "x";
    IPCBuffer nowhere = BufferOf(x);
    EXPECT_EQ(ch.server->SendData(&nowhere, static_cast<uint16_t>(ch.session + 1)),
              IPC_STATUS_NO_SESSION);
    sent.push_back("tail");
    IPCBuffer tail = BufferOf(sent.back());
    ASSERT_EQ(ch.client->SendData(&tail), IPC_STATUS_OK);
    ASSERT_EQ(ch.server->SendData(&tail, ch.session), IPC_STATUS_OK);

    ASSERT_TRUE(ch.serverEvents.WaitPackets(sent.size()));
    ASSERT_TRUE(ch.clientEvents.WaitPackets(sent.size()));
    EXPECT_EQ(ch.serverEvents.Packets(), sent);
    EXPECT_EQ(ch.clientEvents.Packets(), sent);
    EXPECT_EQ(ch.serverEvents.PacketSessions(), std::vector<uint16_t>(sent.size(), ch.session));
    EXPECT_EQ(ch.server->PeerCount(), 1u);
}

TEST(IPCChannel, ReassemblesPacketsWrittenOneByteAtATime) {
    TempRoot root;
    const std::string path = ipc::SocketPathForPort(kPort);
    const std::vector<std::string> sent = {Payload(24, 1), Payload(600, 2), Payload(3000, 3)};
    const std::string frames = Frame(sent[0]) + Frame(sent[1]) + Frame(sent[2]);

    // A raw client trickles its handshake and frames into a library server.
    Recorder serverEvents;
    auto server = MakeServer(serverEvents);
    ASSERT_EQ(server->Listen(), IPC_STATUS_OK);
    const int rawClient = RawConnect(path);
    ASSERT_GE(rawClient, 0);
    ASSERT_TRUE(WriteBytes(rawClient, HelloRecord(7, 0), true));
    const std::string answer = ReadBytes(rawClient, 12);
    ASSERT_EQ(answer.size(), 12u);
    EXPECT_EQ(answer.substr(0, 4), "TWIP");
    ASSERT_TRUE(WriteBytes(rawClient, frames, true));
    ASSERT_TRUE(serverEvents.WaitPackets(3));
    EXPECT_EQ(serverEvents.Packets(), sent);
    close(rawClient);
    ASSERT_TRUE(serverEvents.WaitEvents(2));
    const uint32_t session = serverEvents.Events()[0].session;
    EXPECT_EQ(serverEvents.Events(), (std::vector<Event>{{7, session, 2}, {7, session, 0}}));
    server.reset();

    // A raw server trickles its handshake and frames into a library client.
    const int listener = RawListen(path);
    ASSERT_GE(listener, 0);
    Recorder clientEvents;
    auto client = MakeClient(clientEvents);
    ASSERT_EQ(client->ConnectAsync(kAgent, 0, 5, kPort), IPC_STATUS_OK);
    const int rawServer = AcceptWithin(listener, 5s);
    ASSERT_GE(rawServer, 0);
    EXPECT_EQ(ReadBytes(rawServer, 12), HelloRecord(kModule, 0));
    ASSERT_TRUE(WriteBytes(rawServer, HelloRecord(kAgent, 9) + frames, true));
    ASSERT_TRUE(clientEvents.WaitPackets(3));
    EXPECT_EQ(clientEvents.Packets(), sent);
    close(rawServer);
    ASSERT_TRUE(clientEvents.WaitEvents(2));
    client->TearDown();
    EXPECT_EQ(clientEvents.Events(), (std::vector<Event>{{kAgent, 9, 2}, {kAgent, 9, 0}}));
    close(listener);
}

TEST(IPCChannel, BurstsFromSeveralThreadsArriveWholeAndInOrder) {
    Channel ch;
    ASSERT_TRUE(ch.Connect());
    constexpr uint32_t kEach = 5000;
    auto sizeOf = [](uint32_t i) { return 24 + (i * 37) % 2000; };
    std::atomic<int> failures{0};
    auto pump = [&](uint32_t who, bool fromServer) {
        for (uint32_t i = 0; i < kEach; ++i) {
            const std::string bytes = Payload(sizeOf(i), (who << 24) | i);
            IPCBuffer buffer = BufferOf(bytes);
            const BR_STATUSCODE status = fromServer ? ch.server->SendData(&buffer, ch.session)
                                                    : ch.client->SendData(&buffer);
            if (status != IPC_STATUS_OK)
                ++failures;
        }
    };
    std::thread a(pump, 1, false), b(pump, 2, false), c(pump, 3, true);
    a.join();
    b.join();
    c.join();
    EXPECT_EQ(failures, 0);
    ASSERT_TRUE(ch.serverEvents.WaitPackets(2 * kEach));
    ASSERT_TRUE(ch.clientEvents.WaitPackets(kEach));
    // Each sender's packets arrive whole and in its own order; the senders may interleave.
    std::map<uint32_t, uint32_t> next;
    for (const auto& packets : {ch.serverEvents.Packets(), ch.clientEvents.Packets()}) {
        for (const std::string& bytes : packets) {
            ASSERT_GE(bytes.size(), 4u);
            uint32_t tag = 0;
            memcpy(&tag, bytes.data(), 4);
            const uint32_t who = tag >> 24, i = tag & 0xffffff;
            ASSERT_EQ(i, next[who]++) << "sender " << who;
            ASSERT_EQ(bytes, Payload(sizeOf(i), tag));
        }
    }
    EXPECT_EQ(next, (std::map<uint32_t, uint32_t>{{1, kEach}, {2, kEach}, {3, kEach}}));
}

TEST(IPCChannel, PeerLossGivesExactlyOneClosedEventAndTheClientCanReconnect) {
    Channel ch;
    ASSERT_TRUE(ch.Connect());
    const uint16_t first = ch.session;
    const std::string bytes = "ping";
    IPCBuffer buffer = BufferOf(bytes);

    // The server drops the client: one state 0 on each side, then nothing can be sent.
    ASSERT_EQ(ch.server->DisconnectPeer(first), IPC_STATUS_OK);
    ASSERT_TRUE(ch.clientEvents.WaitEvents(2));
    ASSERT_TRUE(ch.serverEvents.WaitEvents(2));
    EXPECT_NE(ch.client->SendData(&buffer), IPC_STATUS_OK);
    EXPECT_EQ(ch.server->SendData(&buffer, first), IPC_STATUS_NO_SESSION);
    EXPECT_EQ(ch.server->DisconnectPeer(first), IPC_STATUS_NO_SESSION);

    // The same client object connects again, as the module does after each loss.
    ASSERT_TRUE(ch.Reconnect());
    const uint16_t second = ch.session;
    EXPECT_NE(second, first);
    ASSERT_EQ(ch.client->SendData(&buffer), IPC_STATUS_OK);
    ASSERT_TRUE(ch.serverEvents.WaitPackets(1));
    EXPECT_EQ(ch.serverEvents.PacketSessions()[0], second);

    // The server goes away: one event on the client, and the socket file is gone.
    ch.server->TearDown();
    EXPECT_FALSE(std::filesystem::exists(ipc::SocketPathForPort(kPort)));
    ASSERT_TRUE(ch.clientEvents.WaitEvents(4));

    // The client goes away: one event on the server, none on the client.
    ASSERT_EQ(ch.server->Listen(), IPC_STATUS_OK);
    ASSERT_TRUE(ch.Reconnect());
    const uint16_t third = ch.session;
    ch.client->TearDown();
    ASSERT_TRUE(ch.serverEvents.WaitEvents(5));
    ch.server->TearDown();
    EXPECT_EQ(ch.clientEvents.Events(), (std::vector<Event>{{kAgent, first, 2},
                                                            {kAgent, first, 0},
                                                            {kAgent, second, 2},
                                                            {kAgent, second, 0},
                                                            {kAgent, third, 2}}));
    EXPECT_EQ(ch.serverEvents.Events(), (std::vector<Event>{{kModule, first, 2},
                                                            {kModule, first, 0},
                                                            {kModule, second, 2},
                                                            {kModule, third, 2},
                                                            {kModule, third, 0}}));
}

TEST(IPCChannel, ConnectFailsAtOnceWithoutAServerAndAStaleSocketIsReplaced) {
    TempRoot root;
    Recorder clientEvents, serverEvents;
    auto client = MakeClient(clientEvents);
    const auto start = Clock::now();
    EXPECT_EQ(client->ConnectAsync(kAgent, 0, 5, kPort), IPC_STATUS_NO_SERVER);
    // A socket file left behind by a server that died.
    close(RawListen(ipc::SocketPathForPort(kPort)));
    EXPECT_EQ(client->ConnectAsync(kAgent, 0, 5, kPort), IPC_STATUS_REFUSED);
    EXPECT_LT(MillisSince(start), 1000);

    auto server = MakeServer(serverEvents);
    ASSERT_EQ(server->Listen(), IPC_STATUS_OK);
    EXPECT_EQ(server->Listen(), IPC_STATUS_ALREADY);
    Recorder otherEvents;
    auto other = MakeServer(otherEvents);
    EXPECT_EQ(other->Listen(), IPC_STATUS_ADDRESS_IN_USE);
    ASSERT_EQ(client->ConnectAsync(kAgent, 0, 5, kPort), IPC_STATUS_OK);
    ASSERT_TRUE(clientEvents.WaitEvents(1));
    EXPECT_EQ(clientEvents.Events()[0].state, 2u);
    client->TearDown();
    EXPECT_EQ(clientEvents.Events().size(), 1u);
    EXPECT_TRUE(otherEvents.Events().empty());
}

TEST(IPCChannel, NoCallbackRunsAfterTearDownReturnsUnderAStreamOfPackets) {
    TempRoot root;
    for (int round = 0; round < 60; ++round) {
        SCOPED_TRACE(round);
        Recorder serverEvents, clientEvents;
        auto server = MakeServer(serverEvents);
        auto client = MakeClient(clientEvents);
        ASSERT_EQ(server->Listen(), IPC_STATUS_OK);
        ASSERT_EQ(client->ConnectAsync(kAgent, 0, 5, kPort), IPC_STATUS_OK);
        ASSERT_TRUE(clientEvents.WaitEvents(1));
        ASSERT_TRUE(serverEvents.WaitEvents(1));
        const uint16_t session = static_cast<uint16_t>(clientEvents.Events()[0].session);
        // Rounds end differently: the client torn down, the client deleted, the server torn down.
        const int way = round % 3;
        std::atomic<bool> pumping{true};
        std::thread pump([&] {
            const std::string bytes = Payload(64 + 10 * round, round);
            IPCBuffer buffer = BufferOf(bytes);
            while (pumping) {
                if (way == 2) {
                    client->SendData(&buffer);
                } else {
                    server->SendData(&buffer, session);
                }
            }
        });
        Recorder& receiver = way == 2 ? serverEvents : clientEvents;
        Recorder& survivor = way == 2 ? clientEvents : serverEvents;
        ASSERT_TRUE(receiver.WaitPackets(1 + (round % 7) * 20));
        if (way == 0)
            client->TearDown();
        if (way == 1)
            client.reset();
        if (way == 2)
            server->TearDown();
        receiver.closed = true;
        EXPECT_TRUE(survivor.WaitEvents(2));  // the other side saw the connection end
        pumping = false;
        pump.join();
        EXPECT_EQ(receiver.callsAfterClose, 0);
    }
}

// Connects a library client to a raw server that plays `serve` on the accepted socket, and
// returns once the client has reported the end.
void AgainstRawServer(int listener, const std::function<void(int)>& serve, Recorder& events) {
    auto client = MakeClient(events);
    ASSERT_EQ(client->ConnectAsync(kAgent, 0, 5, kPort), IPC_STATUS_OK);
    const int fd = AcceptWithin(listener, 5s);
    ASSERT_GE(fd, 0);
    serve(fd);
    EXPECT_TRUE(events.WaitClosed());
    client->TearDown();
    close(fd);
}

TEST(IPCChannel, OversizeAndGarbageCloseWithOneEventAndDeliverNothingPartial) {
    TempRoot root;
    ipc::SetHandshakeTimeoutForTesting(200);
    syslog_capture::Clear();
    const std::string a = Payload(100, 1);
    const int listener = RawListen(ipc::SocketPathForPort(kPort));
    ASSERT_GE(listener, 0);
    std::string oversize = Frame(a) + Frame(std::string(8, 'z'));
    oversize[a.size() + 4 + 2] = 0x10;  // the second header now says 1 MiB + 8
    struct Case {
        const char* what;
        std::string bytes;
        bool connects;
    };
    const Case cases[] = {
        {"oversize", HelloRecord(kAgent, 5) + oversize, true},
        {"cut at close", HelloRecord(kAgent, 5) + Frame(a) + Frame(a).substr(0, 60), true},
        {"garbage record", "HTTP/1.1 200 OK\r\n\r\n", false},
        {"wrong identity", HelloRecord(7, 5) + Frame(a), false},
        {"silent", "", false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Recorder events;
        const auto start = Clock::now();
        AgainstRawServer(
            listener,
            [&](int fd) {
                if (!c.bytes.empty())
                    WriteBytes(fd, c.bytes);
                if (std::string(c.what) == "cut at close")
                    shutdown(fd, SHUT_WR);
            },
            events);
        if (c.connects) {
            EXPECT_EQ(events.Events(), (std::vector<Event>{{kAgent, 5, 2}, {kAgent, 5, 0}}));
            EXPECT_EQ(events.Packets(), std::vector<std::string>{a});
        } else {
            EXPECT_EQ(events.Events(), (std::vector<Event>{{kAgent, 0, 0}}));
            EXPECT_TRUE(events.Packets().empty());
        }
        if (std::string(c.what) == "silent") {
            EXPECT_GE(MillisSince(start), 150);
            EXPECT_LE(MillisSince(start), 1500);
        }
    }
    close(listener);
    EXPECT_EQ(syslog_capture::CountContaining("exceeds the limit"), 1u);

    // The same abuse against a library server: it drops the offender and keeps serving.
    Recorder serverEvents;
    auto server = MakeServer(serverEvents);
    ASSERT_EQ(server->Listen(), IPC_STATUS_OK);
    const std::string path = ipc::SocketPathForPort(kPort);
    for (const std::string& bytes : {HelloRecord(kModule, 0) + oversize,
                                     std::string("GET / HTTP/1.0\r\n\r\n"), std::string()}) {
        const int fd = RawConnect(path);
        ASSERT_GE(fd, 0);
        WriteBytes(fd, bytes);
        EXPECT_TRUE(WaitForClose(fd));
        close(fd);
    }
    ASSERT_TRUE(serverEvents.WaitEvents(2));
    const uint32_t session = serverEvents.Events()[0].session;
    EXPECT_EQ(serverEvents.Events(),
              (std::vector<Event>{{kModule, session, 2}, {kModule, session, 0}}));
    EXPECT_EQ(serverEvents.Packets(), std::vector<std::string>{a});
    Recorder clientEvents;
    auto client = MakeClient(clientEvents);
    ASSERT_EQ(client->ConnectAsync(kAgent, 0, 5, kPort), IPC_STATUS_OK);
    EXPECT_TRUE(clientEvents.WaitEvents(1));
    ASSERT_TRUE(serverEvents.WaitEvents(3));
    EXPECT_EQ(serverEvents.Events()[2].state, 2u);
    EXPECT_EQ(server->PeerCount(), 1u);
}

TEST(IPCChannel, RefusesAServerRunningAsAnotherUser) {
    const passwd* nobody = getpwnam("nobody");
    if (geteuid() != 0 || nobody == nullptr)
        GTEST_SKIP() << "needs root and a 'nobody' user";
    TempRoot root;
    const std::string path = ipc::SocketPathForPort(kPort);
    const std::string directory = std::filesystem::path(path).parent_path();
    std::filesystem::create_directories(std::filesystem::path(directory).parent_path());
    ASSERT_EQ(chown(std::filesystem::path(directory).parent_path().c_str(), nobody->pw_uid,
                    nobody->pw_gid),
              0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    const std::string hello = HelloRecord(kAgent, 1);
    int ready[2], report[2];
    ASSERT_EQ(pipe(ready), 0);
    ASSERT_EQ(pipe(report), 0);

    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        // The impostor: its own directory and socket, as `nobody`. Plain system calls only.
        if (setgid(nobody->pw_gid) != 0 || setuid(nobody->pw_uid) != 0)
            _exit(2);
        mkdir(directory.c_str(), 0755);
        const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
        if (bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
            listen(listener, 1) != 0) {
            _exit(3);
        }
        if (write(ready[1], "1", 1) != 1)
            _exit(4);
        pollfd waiter{listener, POLLIN, 0};
        if (poll(&waiter, 1, 5000) != 1)
            _exit(5);
        const int fd = accept(listener, nullptr, nullptr);
        send(fd, hello.data(), hello.size(), MSG_NOSIGNAL);
        int received = 0;
        char chunk[256];
        pollfd reader{fd, POLLIN, 0};
        while (poll(&reader, 1, 3000) == 1) {
            const ssize_t got = recv(fd, chunk, sizeof(chunk), 0);
            if (got <= 0)
                break;
            received += static_cast<int>(got);
        }
        _exit(write(report[1], &received, sizeof(received)) == sizeof(received) ? 0 : 6);
    }
    close(ready[1]);
    close(report[1]);
    char signal = 0;
    pollfd waiter{ready[0], POLLIN, 0};
    ASSERT_EQ(poll(&waiter, 1, 5000), 1);
    ASSERT_EQ(read(ready[0], &signal, 1), 1);

    syslog_capture::Clear();
    Recorder events;
    auto client = MakeClient(events);
    EXPECT_EQ(client->ConnectAsync(kAgent, 0, 5, kPort), IPC_STATUS_UNTRUSTED_PEER);
    int received = -1;
    EXPECT_EQ(read(report[0], &received, sizeof(received)), static_cast<ssize_t>(sizeof(received)));
    EXPECT_EQ(received, 0);  // not even our handshake reached it
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_EQ(syslog_capture::CountContaining("refusing the server on " + path +
                                              ": it runs as uid " + std::to_string(nobody->pw_uid)),
              1u);
    client->TearDown();
    EXPECT_TRUE(events.Events().empty());
    close(ready[0]);
    close(report[0]);
}

TEST(IPCChannel, SendToAPeerThatStopsReadingFailsInBoundedTimeAndDropsIt) {
    TempRoot root;
    ipc::SetSendTimeoutForTesting(300);
    const std::string big(kIPCMaxFrameLength, 'b');
    IPCBuffer buffer = BufferOf(big);
    // Sends until a call fails; returns its status and how long that call took.
    auto sendUntilFailure = [&](const std::function<BR_STATUSCODE()>& send, long long* ms) {
        BR_STATUSCODE status = IPC_STATUS_OK;
        for (int i = 0; i < 20 && status == IPC_STATUS_OK; ++i) {
            const auto start = Clock::now();
            status = send();
            *ms = MillisSince(start);
        }
        return status;
    };

    // The library client against a raw server that never reads.
    const int listener = RawListen(ipc::SocketPathForPort(kPort));
    Recorder clientEvents;
    auto client = MakeClient(clientEvents);
    ASSERT_EQ(client->ConnectAsync(kAgent, 0, 5, kPort), IPC_STATUS_OK);
    const int rawServer = AcceptWithin(listener, 5s);
    ASSERT_TRUE(WriteBytes(rawServer, HelloRecord(kAgent, 3)));
    ASSERT_TRUE(clientEvents.WaitEvents(1));
    long long ms = 0;
    EXPECT_EQ(sendUntilFailure([&] { return client->SendData(&buffer); }, &ms), IPC_STATUS_TIMEOUT);
    EXPECT_GE(ms, 250);
    EXPECT_LE(ms, 3000);
    ASSERT_TRUE(clientEvents.WaitEvents(2));
    EXPECT_NE(client->SendData(&buffer), IPC_STATUS_OK);
    client->TearDown();
    EXPECT_EQ(clientEvents.Events(), (std::vector<Event>{{kAgent, 3, 2}, {kAgent, 3, 0}}));
    close(rawServer);
    close(listener);

    // The library server against a raw client that never reads.
    Recorder serverEvents;
    auto server = MakeServer(serverEvents);
    ASSERT_EQ(server->Listen(), IPC_STATUS_OK);
    const int rawClient = RawConnect(ipc::SocketPathForPort(kPort));
    ASSERT_TRUE(WriteBytes(rawClient, HelloRecord(kModule, 0)));
    ASSERT_TRUE(serverEvents.WaitEvents(1));
    const uint16_t session = static_cast<uint16_t>(serverEvents.Events()[0].session);
    EXPECT_EQ(sendUntilFailure([&] { return server->SendData(&buffer, session); }, &ms),
              IPC_STATUS_TIMEOUT);
    EXPECT_GE(ms, 250);
    EXPECT_LE(ms, 3000);
    ASSERT_TRUE(serverEvents.WaitEvents(2));
    EXPECT_EQ(serverEvents.Events()[1], (Event{kModule, session, 0}));
    EXPECT_EQ(server->PeerCount(), 0u);
    close(rawClient);
}

TEST(IPCChannel, CallbacksMaySendAndTearDownButNotConnect) {
    Channel ch;
    // Without a connection everything is harmless.
    const std::string bytes = "ping";
    IPCBuffer ping = BufferOf(bytes);
    EXPECT_EQ(ch.client->TearDown(), IPC_STATUS_OK);
    EXPECT_EQ(ch.client->TearDown(), IPC_STATUS_OK);
    EXPECT_EQ(ch.client->SendData(&ping), IPC_STATUS_NOT_CONNECTED);
    EXPECT_EQ(ch.client->SendData(nullptr), IPC_STATUS_BAD_ARGUMENT);
    EXPECT_EQ(ch.server->TearDown(), IPC_STATUS_OK);
    EXPECT_EQ(ch.server->SendData(&ping, 1), IPC_STATUS_NO_SESSION);

    // The server echoes from inside its callback, or tears itself down there.
    std::atomic<bool> serverQuits{false};
    ch.serverEvents.onPacket = [&](uint16_t session, const std::string& bytes) {
        if (serverQuits) {
            ch.server->TearDown();
            ch.serverEvents.closed = true;
            return;
        }
        IPCBuffer echo = BufferOf(bytes);
        ch.server->SendData(&echo, session);
    };
    // The client tears itself down inside its third delivery, after trying to reconnect there.
    std::atomic<BR_STATUSCODE> connectInside{-1};
    ch.clientEvents.onPacket = [&](uint16_t, const std::string&) {
        if (ch.clientEvents.Packets().size() == 3) {
            connectInside = ch.client->ConnectAsync(kAgent, 0, 5, kPort);
            ch.client->TearDown();
        }
    };
    ASSERT_TRUE(ch.Connect());
    for (int i = 0; i < 10; ++i)
        ch.client->SendData(&ping);
    ASSERT_TRUE(ch.serverEvents.WaitEvents(2));  // the client's end, seen by the server
    EXPECT_EQ(connectInside, IPC_STATUS_WRONG_THREAD);
    EXPECT_EQ(ch.clientEvents.Packets().size(), 3u);
    EXPECT_EQ(ch.clientEvents.Events().size(), 1u);  // torn down: no state 0

    // A connection from outside afterwards works; then the server quits inside a callback.
    ASSERT_TRUE(ch.Reconnect());
    serverQuits = true;
    ASSERT_EQ(ch.client->SendData(&ping), IPC_STATUS_OK);
    ASSERT_TRUE(ch.clientEvents.WaitEvents(3));
    EXPECT_EQ(ch.clientEvents.Events()[2].state, 0u);
    EXPECT_EQ(ch.serverEvents.Events().size(), 3u);  // no state 0 after its own TearDown
    EXPECT_EQ(ch.serverEvents.callsAfterClose, 0);
    serverQuits = false;
    ASSERT_EQ(ch.server->Listen(), IPC_STATUS_OK);  // joins the thread that tore itself down
    ASSERT_TRUE(ch.Reconnect());

    // A client deleted inside its own callback ends without touching the freed object.
    Recorder doomedEvents;
    IIPCClient* doomed = MakeClient(doomedEvents).release();
    std::atomic<bool> deleted{false};
    doomedEvents.onEvent = [&](const Event&) {
        delete doomed;
        deleted = true;  // the recorder is not touched after this: it may go when we return
    };
    ASSERT_EQ(doomed->ConnectAsync(kAgent, 0, 5, kPort), IPC_STATUS_OK);
    ASSERT_TRUE(ch.serverEvents.WaitEvents(6));  // its arrival and its end, seen by the server
    for (const auto until = Clock::now() + 5s; !deleted && Clock::now() < until;) {
        std::this_thread::yield();
    }
    EXPECT_TRUE(deleted);
    EXPECT_EQ(ch.serverEvents.Events()[5].state, 0u);
    EXPECT_EQ(doomedEvents.Events().size(), 1u);
}

TEST(IPCServerDirectory, CreatesRepairsOrRefusesTheSocketDirectory) {
    TempRoot root;
    Recorder events;
    auto server = MakeServer(events);
    const std::string path = ipc::SocketPathForPort(kPort);
    const std::string directory = std::filesystem::path(path).parent_path();
    auto modeOf = [](const std::string& p) {
        struct stat info {};
        lstat(p.c_str(), &info);
        return info.st_mode & 07777;
    };
    syslog_capture::Clear();
    ASSERT_EQ(server->Listen(), IPC_STATUS_OK);
    EXPECT_EQ(modeOf(directory), 0755u);
    EXPECT_EQ(modeOf(path), 0666u);
    server->TearDown();

    chmod(directory.c_str(), 0777);
    ASSERT_EQ(server->Listen(), IPC_STATUS_OK);
    EXPECT_EQ(modeOf(directory), 0755u);
    EXPECT_EQ(syslog_capture::Count("IPC : socket directory " + directory +
                                    " was writable by others (mode 777), now 755\n"),
              1u);
    server->TearDown();

    if (geteuid() == 0) {
        ASSERT_EQ(chown(directory.c_str(), 65534, 65534), 0);
        EXPECT_EQ(server->Listen(), IPC_STATUS_INSECURE_DIRECTORY);
        EXPECT_EQ(syslog_capture::CountContaining("belongs to uid 65534"), 1u);
    }
    std::filesystem::remove_all(directory);
    std::filesystem::create_directory(root.Path() + "/elsewhere");
    std::filesystem::create_directory_symlink(root.Path() + "/elsewhere", directory);
    EXPECT_EQ(server->Listen(), IPC_STATUS_INSECURE_DIRECTORY);

    std::filesystem::remove(directory);
    std::filesystem::create_directory(directory);
    { std::ofstream(path) << "not a socket"; }
    EXPECT_EQ(server->Listen(), IPC_STATUS_ADDRESS_IN_USE);
    EXPECT_TRUE(std::filesystem::is_regular_file(path));
}

}  // namespace
