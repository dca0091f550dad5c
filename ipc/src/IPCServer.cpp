// The server end: prepares the socket directory, listens, and runs one I/O thread that accepts
// clients, completes their handshakes and delivers their frames, all through one poll loop.
#include "ipc/IPCServer.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "FrameDecoder.h"
#include "IPCMutex.h"
#include "Wire.h"
#include "ipc/IPCTesting.h"

namespace ipc {

namespace {

constexpr size_t kMaxPeers = 64;
constexpr int kListenBacklog = 16;
using Clock = std::chrono::steady_clock;

// One accepted client. Shared by the I/O thread and senders in flight; the descriptor closes
// when the last of them lets go.
struct ServerPeer {
    ServerPeer(int socketFd, Clock::time_point deadline)
        : fd(socketFd), handshakeDeadline(deadline), decoder(kIPCMaxFrameLength) {}
    ~ServerPeer() { close(fd); }

    const int fd;
    Mutex sendLock;  // one frame at a time on fd
    // The rest belongs to the I/O thread; session and identity are set before the peer is
    // published in the session table and not changed afterwards.
    bool reported = false;  // state 2 was reported, so state 0 is owed
    uint16_t session = 0;
    uint32_t identity = 0;
    const Clock::time_point handshakeDeadline;
    CFrameDecoder decoder;
};

// What the I/O thread shares with the server object. sessionsLock guards sessions (a leaf,
// never held across a callback or a send).
struct ServerCore {
    ~ServerCore() {
        if (listenFd >= 0)
            close(listenFd);
        if (wakeFd >= 0)
            close(wakeFd);
    }
    void Wake() {
        const uint64_t one = 1;
        if (write(wakeFd, &one, sizeof(one)) < 0) {
            // The counter can only be full if it was woken already.
        }
    }

    int listenFd = -1;
    int wakeFd = -1;
    std::atomic<bool> stop{false};
    Mutex startGate;  // held by Listen until it no longer touches the server object
    std::string path;
    dev_t device = 0;
    ino_t inode = 0;
    Mutex sessionsLock;
    std::unordered_map<uint16_t, std::shared_ptr<ServerPeer>> sessions IPC_GUARDED_BY(sessionsLock);
};

class ServerSink final : public IFrameSink {
  public:
    ServerSink(ServerCore& core, IIPCServerCallback* callback, uint16_t session)
        : m_Core(core), m_pCallback(callback), m_Session(session) {}

    bool OnFrame(uint8_t* data, uint32_t length) override {
        if (m_Core.stop.load(std::memory_order_acquire))
            return false;
        IPCBuffer buffer{};
        buffer.m_Kind = kIPCBufferKindRequest;
        buffer.m_Length = length;
        buffer.m_pData = data;
        m_pCallback->OnReqMsgRecvFrom(m_Session, &buffer);
        return !m_Core.stop.load(std::memory_order_acquire);
    }

  private:
    ServerCore& m_Core;
    IIPCServerCallback* const m_pCallback;
    const uint16_t m_Session;
};

// The I/O thread. Like the client's, it touches only the core and the callback.
class ServerLoop {
  public:
    ServerLoop(std::shared_ptr<ServerCore> core, IIPCServerCallback* callback, uint32_t identity)
        : m_pCore(std::move(core)), m_pCallback(callback), m_Identity(identity) {}

    void Run() {
        ServerCore& core = *m_pCore;
        { MutexLock gate(core.startGate); }
        std::vector<pollfd> waiters;
        while (!core.stop.load(std::memory_order_acquire)) {
            waiters.clear();
            waiters.push_back({core.wakeFd, POLLIN, 0});
            waiters.push_back({core.listenFd, POLLIN, 0});
            for (const auto& peer : m_Peers)
                waiters.push_back({peer->fd, POLLIN, 0});
            const int ready = poll(waiters.data(), waiters.size(), NextTimeoutMs());
            if (ready < 0 && errno != EINTR) {
                Log(LOG_ERR, "poll failed: %s, the server stops", strerror(errno));
                break;
            }
            if (core.stop.load(std::memory_order_acquire))
                break;
            if (ready <= 0) {
                DropLateHandshakes();
                continue;
            }
            if (waiters[1].revents != 0)
                AcceptAll();
            // Peers accepted just now are not in `waiters`; they are polled next round.
            const size_t polled = waiters.size() - 2;
            for (size_t i = 0; i < polled && !core.stop.load(std::memory_order_acquire); ++i) {
                if (waiters[i + 2].revents == 0)
                    continue;
                if (!Service(m_Peers[i]))
                    m_Dropped.insert(m_Peers[i].get());
            }
            RemoveDropped();
            DropLateHandshakes();
        }
        Shutdown();
    }

  private:
    int NextTimeoutMs() const {
        bool any = false;
        Clock::time_point first{};
        for (const auto& peer : m_Peers) {
            if (peer->reported)
                continue;
            if (!any || peer->handshakeDeadline < first)
                first = peer->handshakeDeadline;
            any = true;
        }
        if (!any)
            return -1;
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(first - Clock::now()).count();
        return static_cast<int>(std::max<long long>(left + 1, 0));
    }

    void AcceptAll() {
        for (;;) {
            const int fd =
                accept4(m_pCore->listenFd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
            if (fd < 0) {
                if (errno == EINTR || errno == ECONNABORTED)
                    continue;
                if (errno != EAGAIN && errno != EWOULDBLOCK) {
                    Log(LOG_ERR, "accept failed: %s", strerror(errno));
                }
                return;
            }
            if (m_Peers.size() >= kMaxPeers) {
                Log(LOG_ERR, "too many clients (%zu), connection refused", kMaxPeers);
                close(fd);
                continue;
            }
            try {
                m_Peers.push_back(std::make_shared<ServerPeer>(
                    fd, Clock::now() + std::chrono::milliseconds(HandshakeTimeoutMs())));
            } catch (...) {
                Log(LOG_ERR, "no memory for a new client, connection refused");
                close(fd);
            }
        }
    }

    // Reads once from a readable peer and delivers what is whole. False: drop the peer.
    bool Service(const std::shared_ptr<ServerPeer>& entry) {
        ServerPeer& peer = *entry;
        size_t capacity = 0;
        uint8_t* space = peer.decoder.WritableData(&capacity);
        if (space == nullptr) {
            Log(LOG_ERR, "no memory for the receive buffer of session %u, dropped", peer.session);
            return false;
        }
        const ssize_t got = recv(peer.fd, space, capacity, 0);
        if (got < 0)
            return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
        if (got == 0) {
            if (peer.reported && peer.decoder.Pending() > 0) {
                Log(LOG_WARNING, "session %u closed in the middle of a packet, %zu bytes dropped",
                    peer.session, peer.decoder.Pending());
            }
            return false;
        }
        peer.decoder.Commit(static_cast<size_t>(got));
        if (!peer.reported) {
            if (peer.decoder.Pending() < kHelloSize)
                return true;
            if (!Admit(entry))
                return false;
            if (m_pCore->stop.load(std::memory_order_acquire))
                return true;
        }
        ServerSink sink(*m_pCore, m_pCallback, peer.session);
        if (peer.decoder.Parse(sink) == CFrameDecoder::Result::kOversize) {
            const uint8_t* h = peer.decoder.PendingData();
            const uint32_t length =
                h[0] | (h[1] << 8) | (h[2] << 16) | (static_cast<uint32_t>(h[3]) << 24);
            Log(LOG_ERR, "packet of %u bytes from session %u exceeds the limit of %u, dropped",
                length, peer.session, kIPCMaxFrameLength);
            return false;
        }
        return true;
    }

    // Completes the handshake: checks the client's record, gives it a session, answers with
    // ours, publishes the session and reports the peer.
    bool Admit(const std::shared_ptr<ServerPeer>& entry) {
        ServerPeer& peer = *entry;
        Hello hello{};
        if (!DecodeHello(peer.decoder.PendingData(), &hello)) {
            Log(LOG_ERR, "bad handshake from a client, dropped");
            return false;
        }
        peer.decoder.Consume(kHelloSize);
        {
            MutexLock guard(m_pCore->sessionsLock);
            // At most kMaxPeers ids are in use, so a free one is always found.
            while (m_NextSession == 0 || m_pCore->sessions.count(m_NextSession) != 0) {
                ++m_NextSession;
            }
        }
        peer.session = m_NextSession++;
        peer.identity = hello.identity;
        uint8_t answer[kHelloSize];
        EncodeHello(Hello{kProtocolVersion, peer.session, m_Identity}, answer);
        if (!WriteAll(peer.fd, answer, sizeof(answer)))
            return false;
        try {
            MutexLock guard(m_pCore->sessionsLock);
            m_pCore->sessions[peer.session] = entry;
        } catch (...) {
            Log(LOG_ERR, "no memory for the session table, client dropped");
            return false;
        }
        peer.reported = true;
        if (!m_pCore->stop.load(std::memory_order_acquire)) {
            m_pCallback->OnPeerStateChanged(peer.identity, peer.session, IPC_PEER_CONNECTED);
        }
        return true;
    }

    void DropLateHandshakes() {
        const auto now = Clock::now();
        for (const auto& peer : m_Peers) {
            if (!peer->reported && now >= peer->handshakeDeadline &&
                m_Dropped.insert(peer.get()).second) {
                Log(LOG_ERR, "a client did not complete its handshake within %d ms, dropped",
                    HandshakeTimeoutMs());
            }
        }
        RemoveDropped();
    }

    // Closes the dropped peers; for each that was reported, the session goes first, so that a
    // send from inside the state-0 callback finds nothing, then the event.
    void RemoveDropped() {
        if (m_Dropped.empty())
            return;
        std::vector<std::shared_ptr<ServerPeer>> kept;
        kept.reserve(m_Peers.size());
        for (auto& peer : m_Peers) {
            if (m_Dropped.count(peer.get()) == 0) {
                kept.push_back(std::move(peer));
                continue;
            }
            shutdown(peer->fd, SHUT_RDWR);
            if (!peer->reported)
                continue;
            {
                MutexLock guard(m_pCore->sessionsLock);
                m_pCore->sessions.erase(peer->session);
            }
            if (!m_pCore->stop.load(std::memory_order_acquire)) {
                m_pCallback->OnPeerStateChanged(peer->identity, peer->session, IPC_PEER_CLOSED);
            }
        }
        m_Peers.swap(kept);
        m_Dropped.clear();
    }

    // Torn down: closes everything without events and removes our socket file.
    void Shutdown() {
        {
            MutexLock guard(m_pCore->sessionsLock);
            m_pCore->sessions.clear();
        }
        for (const auto& peer : m_Peers)
            shutdown(peer->fd, SHUT_RDWR);
        m_Peers.clear();
        struct stat info {};
        if (lstat(m_pCore->path.c_str(), &info) == 0 && info.st_dev == m_pCore->device &&
            info.st_ino == m_pCore->inode) {
            unlink(m_pCore->path.c_str());
        }
        close(m_pCore->listenFd);
        m_pCore->listenFd = -1;
    }

    std::shared_ptr<ServerCore> m_pCore;
    IIPCServerCallback* const m_pCallback;
    const uint32_t m_Identity;
    std::vector<std::shared_ptr<ServerPeer>> m_Peers;
    std::unordered_set<const ServerPeer*> m_Dropped;
    uint16_t m_NextSession = 1;
};

// Creates the socket directory (and its parents) or checks the one there: a real directory,
// owned by us, writable by nobody else. Group or other write permission is taken away.
BR_STATUSCODE PrepareDirectory(const std::string& directory) {
    for (size_t slash = directory.find('/', 1); slash != std::string::npos;
         slash = directory.find('/', slash + 1)) {
        mkdir(directory.substr(0, slash).c_str(), 0755);
    }
    const bool created = mkdir(directory.c_str(), 0755) == 0;
    const int fd = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        Log(LOG_ERR, "socket directory %s is not a usable directory: %s", directory.c_str(),
            strerror(errno));
        return IPC_STATUS_INSECURE_DIRECTORY;
    }
    struct stat info {};
    BR_STATUSCODE status = IPC_STATUS_OK;
    const uid_t self = geteuid();
    if (fstat(fd, &info) != 0) {
        status = IPC_STATUS_SYSTEM_ERROR;
    } else if (info.st_uid != self) {
        Log(LOG_ERR, "socket directory %s belongs to uid %u, not to this server's uid %u, refused",
            directory.c_str(), static_cast<unsigned>(info.st_uid), static_cast<unsigned>(self));
        status = IPC_STATUS_INSECURE_DIRECTORY;
    } else if (created) {
        // Clients of every local user must be able to reach the socket, whatever the umask.
        if (fchmod(fd, 0755) != 0)
            status = IPC_STATUS_SYSTEM_ERROR;
    } else if ((info.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        const mode_t repaired = info.st_mode & 0755;
        if (fchmod(fd, repaired) != 0) {
            Log(LOG_ERR, "socket directory %s is writable by others and cannot be repaired",
                directory.c_str());
            status = IPC_STATUS_INSECURE_DIRECTORY;
        } else {
            Log(LOG_WARNING, "socket directory %s was writable by others (mode %o), now %o",
                directory.c_str(), static_cast<unsigned>(info.st_mode & 07777),
                static_cast<unsigned>(repaired));
        }
    }
    close(fd);
    return status;
}

// Makes room for our socket at `path`: refused when a server answers there, a stale socket is
// removed, anything else in the way is left alone and refused.
BR_STATUSCODE ClearSocketPath(const std::string& path, const sockaddr_un& address) {
    struct stat info {};
    if (lstat(path.c_str(), &info) != 0)
        return IPC_STATUS_OK;
    if (!S_ISSOCK(info.st_mode)) {
        Log(LOG_ERR, "%s exists and is not a socket, refused", path.c_str());
        return IPC_STATUS_ADDRESS_IN_USE;
    }
    const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (probe < 0)
        return IPC_STATUS_NO_RESOURCES;
    const bool answered =
        connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 ||
        errno == EAGAIN;
    close(probe);
    if (answered) {
        Log(LOG_ERR, "another server listens on %s", path.c_str());
        return IPC_STATUS_ADDRESS_IN_USE;
    }
    unlink(path.c_str());
    return IPC_STATUS_OK;
}

// Owned by its creator; thread-safe. m_ControlLock serialises Listen, TearDown and destruction
// and guards m_IoThread; m_CoreLock (a leaf) guards m_pCore, so that sends, disconnects and
// Core() never wait behind a TearDown that joins the I/O thread. Sends and disconnects go
// through the core's session table.
class CIPCServer final : public IIPCServer {
  public:
    CIPCServer(uint32_t identity, IIPCServerCallback* callback, uint16_t port)
        : m_Identity(identity), m_pCallback(callback), m_Port(port) {}

    ~CIPCServer() override {
        if (t_pCallbackOwner == this) {
            StopLoop();  // the thread finishes after the running callback, touching only the core
            if (m_IoThread.joinable())
                m_IoThread.detach();
            return;
        }
        MutexLock control(m_ControlLock);
        EndLoopLocked();
    }

    BR_STATUSCODE SendData(IPCBuffer* buffer, uint16_t session) override {
        if (buffer == nullptr || (buffer->m_Length > 0 && buffer->m_pData == nullptr)) {
            return IPC_STATUS_BAD_ARGUMENT;
        }
        if (buffer->m_Length > kIPCMaxFrameLength)
            return IPC_STATUS_TOO_LARGE;
        std::shared_ptr<ServerPeer> peer = FindPeer(session);
        if (!peer)
            return IPC_STATUS_NO_SESSION;
        const BR_STATUSCODE status =
            SendFrame(peer->fd, peer->sendLock, buffer->m_pData, buffer->m_Length);
        if (status != IPC_STATUS_OK) {
            if (status == IPC_STATUS_TIMEOUT) {
                Log(LOG_ERR, "session %u has not read for %d ms, dropped", session,
                    SendTimeoutMs());
            }
            shutdown(peer->fd, SHUT_RDWR);  // the I/O thread reports the loss
        }
        return status;
    }

    BR_STATUSCODE TearDown() override {
        if (t_pCallbackOwner == this) {
            StopLoop();
            return IPC_STATUS_OK;
        }
        MutexLock control(m_ControlLock);
        EndLoopLocked();
        return IPC_STATUS_OK;
    }

    BR_STATUSCODE Listen() override {
        if (t_pCallbackOwner == this) {
            Log(LOG_ERR, "Listen called from inside a callback, refused");
            return IPC_STATUS_WRONG_THREAD;
        }
        MutexLock control(m_ControlLock);
        if (Core())
            return IPC_STATUS_ALREADY;
        EndLoopLocked();  // joins a thread torn down from inside its callback

        const std::string directory = SocketDirectory();
        BR_STATUSCODE status = PrepareDirectory(directory);
        if (status != IPC_STATUS_OK)
            return status;
        const std::string path = SocketPathForPort(m_Port);
        sockaddr_un address;
        if (!SocketAddressOf(path, &address))
            return IPC_STATUS_BAD_ARGUMENT;
        status = ClearSocketPath(path, address);
        if (status != IPC_STATUS_OK)
            return status;

        std::shared_ptr<ServerCore> core;
        try {
            core = std::make_shared<ServerCore>();
        } catch (...) {
            return IPC_STATUS_NO_RESOURCES;
        }
        core->path = path;
        core->wakeFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
        core->listenFd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        if (core->wakeFd < 0 || core->listenFd < 0)
            return IPC_STATUS_NO_RESOURCES;
        if (bind(core->listenFd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) !=
            0) {
            const int error = errno;
            Log(LOG_ERR, "cannot bind %s: %s", path.c_str(), strerror(error));
            return error == EADDRINUSE ? IPC_STATUS_ADDRESS_IN_USE : IPC_STATUS_SYSTEM_ERROR;
        }
        struct stat info {};
        // Every local user's client may connect; the directory keeps others from replacing it.
        if (chmod(path.c_str(), 0666) != 0 || lstat(path.c_str(), &info) != 0 ||
            listen(core->listenFd, kListenBacklog) != 0) {
            Log(LOG_ERR, "cannot listen on %s: %s", path.c_str(), strerror(errno));
            unlink(path.c_str());
            return IPC_STATUS_SYSTEM_ERROR;
        }
        core->device = info.st_dev;
        core->inode = info.st_ino;
        {
            // Published before the thread starts: a callback may send at once.
            MutexLock guard(m_CoreLock);
            m_pCore = core;
        }
        // The thread waits at the gate until we are done with `this`: its first callback may
        // delete the server.
        MutexLock gate(core->startGate);
        try {
            auto loop = std::make_shared<ServerLoop>(core, m_pCallback, m_Identity);
            const void* owner = this;
            m_IoThread = std::thread([loop, owner] {
                t_pCallbackOwner = owner;
                loop->Run();
            });
        } catch (...) {
            Log(LOG_ERR, "cannot start the I/O thread");
            unlink(path.c_str());
            MutexLock guard(m_CoreLock);
            m_pCore.reset();
            return IPC_STATUS_NO_RESOURCES;
        }
        control.Unlock();
        gate.Unlock();
        return IPC_STATUS_OK;
    }

    BR_STATUSCODE DisconnectPeer(uint16_t session) override {
        std::shared_ptr<ServerPeer> peer = FindPeer(session);
        if (!peer)
            return IPC_STATUS_NO_SESSION;
        shutdown(peer->fd, SHUT_RDWR);  // the I/O thread sees the end and reports it
        return IPC_STATUS_OK;
    }

    uint32_t PeerCount() override {
        std::shared_ptr<ServerCore> core = Core();
        if (!core)
            return 0;
        MutexLock guard(core->sessionsLock);
        return static_cast<uint32_t>(core->sessions.size());
    }

  private:
    std::shared_ptr<ServerCore> Core() IPC_EXCLUDES(m_CoreLock) {
        MutexLock guard(m_CoreLock);
        return m_pCore;
    }

    std::shared_ptr<ServerPeer> FindPeer(uint16_t session) {
        std::shared_ptr<ServerCore> core = Core();
        if (!core)
            return nullptr;
        MutexLock guard(core->sessionsLock);
        const auto found = core->sessions.find(session);
        return found != core->sessions.end() ? found->second : nullptr;
    }

    // Marks the loop stopped and wakes it. Any thread.
    void StopLoop() IPC_EXCLUDES(m_CoreLock) {
        std::shared_ptr<ServerCore> core;
        {
            MutexLock guard(m_CoreLock);
            core.swap(m_pCore);
        }
        if (core) {
            core->stop.store(true, std::memory_order_release);
            core->Wake();
        }
    }

    // StopLoop and wait for the thread. Not on the I/O thread.
    void EndLoopLocked() IPC_REQUIRES(m_ControlLock) IPC_EXCLUDES(m_CoreLock) {
        StopLoop();
        if (m_IoThread.joinable())
            m_IoThread.join();
    }

    const uint32_t m_Identity;
    IIPCServerCallback* const m_pCallback;
    const uint16_t m_Port;
    Mutex m_ControlLock;
    std::thread m_IoThread IPC_GUARDED_BY(m_ControlLock);
    Mutex m_CoreLock;  // leaf
    std::shared_ptr<ServerCore> m_pCore IPC_GUARDED_BY(m_CoreLock);
};

}  // namespace

}  // namespace ipc

IIPCServer* CIPCFactory::CreateIPCServer(uint32_t identity, IIPCServerCallback* callback,
                                         BR_STATUSCODE& status, uint16_t port) {
    if (callback == nullptr) {
        status = IPC_STATUS_BAD_ARGUMENT;
        return nullptr;
    }
    IIPCServer* server = new (std::nothrow) ipc::CIPCServer(identity, callback, port);
    status = server != nullptr ? IPC_STATUS_OK : IPC_STATUS_NO_RESOURCES;
    return server;
}
