// The client end: connects to the server's socket, checks who the server is, runs one I/O thread
// per connection that reads large chunks and delivers every whole frame in them.
#include "ipc/IPCClient.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <new>
#include <string>
#include <thread>

#include "FrameDecoder.h"
#include "IPCMutex.h"
#include "Wire.h"
#include "ipc/IPCTesting.h"

namespace ipc {

namespace {

// One connection. Shared by the client object, its I/O thread and senders in flight, so that the
// descriptor is closed only when none of them can touch it any more.
struct ClientConnection {
    explicit ClientConnection(int socketFd) : fd(socketFd), decoder(kIPCMaxFrameLength) {}
    ~ClientConnection() { close(fd); }

    const int fd;
    Mutex startGate;                 // held by ConnectAsync until it no longer touches the client
    Mutex sendLock;                  // one frame at a time on fd
    std::atomic<bool> stop{false};   // torn down: no callback any more
    std::atomic<bool> ready{false};  // handshake done and the connection not lost
    uint16_t session = 0;            // I/O thread only
    CFrameDecoder decoder;           // I/O thread only
};

// Hands each whole frame to the callback, unless the connection was torn down meanwhile.
class ClientSink final : public IFrameSink {
  public:
    ClientSink(ClientConnection& connection, IIPCCallback* callback)
        : m_Connection(connection), m_pCallback(callback) {}

    bool OnFrame(uint8_t* data, uint32_t length) override {
        if (m_Connection.stop.load(std::memory_order_acquire))
            return false;
        IPCBuffer buffer{};
        buffer.m_Kind = kIPCBufferKindRequest;
        buffer.m_Length = length;
        buffer.m_pData = data;
        m_pCallback->OnReqMsgRecv(&buffer);
        return !m_Connection.stop.load(std::memory_order_acquire);
    }

  private:
    ClientConnection& m_Connection;
    IIPCCallback* const m_pCallback;
};

// Body of the I/O thread. It touches only the connection and the callback, never the client
// object, so that a client torn down or deleted from inside a callback is safe to leave.
void RunClientConnection(std::shared_ptr<ClientConnection> connection, IIPCCallback* callback,
                         uint32_t peer, const void* owner) {
    t_pCallbackOwner = owner;
    ClientConnection& c = *connection;
    { MutexLock gate(c.startGate); }
    ClientSink sink(c, callback);
    const auto handshakeDeadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(HandshakeTimeoutMs());
    while (!c.stop.load(std::memory_order_acquire)) {
        if (!c.ready.load(std::memory_order_relaxed)) {
            // Until the server has answered, a silent server must not keep us for ever.
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                                  handshakeDeadline - std::chrono::steady_clock::now())
                                  .count();
            if (left <= 0) {
                Log(LOG_ERR, "no handshake from the server within %d ms, closing",
                    HandshakeTimeoutMs());
                break;
            }
            pollfd waiter{c.fd, POLLIN, 0};
            const int ready = poll(&waiter, 1, static_cast<int>(left));
            if (ready == 0 || (ready < 0 && errno == EINTR))
                continue;
            if (ready < 0)
                break;
        }
        size_t capacity = 0;
        uint8_t* space = c.decoder.WritableData(&capacity);
        if (space == nullptr) {
            Log(LOG_ERR, "no memory for the receive buffer, closing the connection");
            break;
        }
        const ssize_t got = recv(c.fd, space, capacity, 0);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0) {
            if (got == 0 && c.decoder.Pending() > 0 && !c.stop.load()) {
                Log(LOG_WARNING, "server closed in the middle of a packet, %zu bytes dropped",
                    c.decoder.Pending());
            }
            break;
        }
        c.decoder.Commit(static_cast<size_t>(got));
        if (!c.ready.load(std::memory_order_relaxed)) {
            if (c.decoder.Pending() < kHelloSize)
                continue;
            Hello hello{};
            if (!DecodeHello(c.decoder.PendingData(), &hello) || hello.identity != peer ||
                hello.session == 0) {
                Log(LOG_ERR, "bad handshake from the server (expected identity %u), closing", peer);
                break;
            }
            c.decoder.Consume(kHelloSize);
            c.session = hello.session;
            c.ready.store(true, std::memory_order_release);
            if (c.stop.load(std::memory_order_acquire))
                break;
            callback->OnPeerStateChanged(peer, c.session, IPC_PEER_CONNECTED);
        }
        if (c.decoder.Parse(sink) == CFrameDecoder::Result::kOversize) {
            const uint8_t* header = c.decoder.PendingData();
            const uint32_t length = header[0] | (header[1] << 8) | (header[2] << 16) |
                                    (static_cast<uint32_t>(header[3]) << 24);
            Log(LOG_ERR, "packet of %u bytes from the server exceeds the limit of %u, closing",
                length, kIPCMaxFrameLength);
            break;
        }
    }
    c.ready.store(false, std::memory_order_release);
    shutdown(c.fd, SHUT_RDWR);
    if (!c.stop.load(std::memory_order_acquire)) {
        callback->OnPeerStateChanged(peer, c.session, IPC_PEER_CLOSED);
    }
}

// Owned by its creator; all operations thread-safe. m_ControlLock serialises ConnectAsync,
// TearDown and destruction and guards m_IoThread; m_ConnLock (a leaf, never held across a wait)
// guards m_pConn, so that SendData never waits behind a TearDown that joins the I/O thread.
class CIPCClient final : public IIPCClient {
  public:
    CIPCClient(uint32_t identity, IIPCCallback* callback)
        : m_Identity(identity), m_pCallback(callback) {}

    ~CIPCClient() override {
        if (t_pCallbackOwner == this) {
            // Deleted from inside our own callback: the thread cannot be joined from itself. It
            // sees the stop flag when the callback returns and ends without touching us.
            StopConnection();
            if (m_IoThread.joinable())
                m_IoThread.detach();
            return;
        }
        MutexLock control(m_ControlLock);
        EndConnectionLocked();
    }

    BR_STATUSCODE ConnectAsync(uint32_t peer, uint32_t /*flags*/, uint32_t /*param*/,
                               uint16_t port) override {
        if (t_pCallbackOwner == this) {
            Log(LOG_ERR, "ConnectAsync called from inside a callback, refused");
            return IPC_STATUS_WRONG_THREAD;
        }
        MutexLock control(m_ControlLock);
        EndConnectionLocked();

        const std::string path = SocketPathForPort(port);
        sockaddr_un address;
        if (!SocketAddressOf(path, &address))
            return IPC_STATUS_BAD_ARGUMENT;

        // Non-blocking only for connect: a full accept queue must not block the caller.
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (fd < 0)
            return IPC_STATUS_NO_RESOURCES;
        if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
            const int error = errno;
            close(fd);
            switch (error) {
                case ENOENT:
                case ENOTDIR:
                    return IPC_STATUS_NO_SERVER;
                case ECONNREFUSED:
                    return IPC_STATUS_REFUSED;
                case EAGAIN:
                    return IPC_STATUS_BUSY;
                default:
                    Log(LOG_ERR, "connect to %s failed: %s", path.c_str(), strerror(error));
                    return IPC_STATUS_SYSTEM_ERROR;
            }
        }
        const int fileFlags = fcntl(fd, F_GETFL);
        if (fileFlags < 0 || fcntl(fd, F_SETFL, fileFlags & ~O_NONBLOCK) != 0) {
            close(fd);
            return IPC_STATUS_SYSTEM_ERROR;
        }

        // The channel carries secrets: talk only to root or to our own user.
        ucred credentials{};
        socklen_t size = sizeof(credentials);
        if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) {
            Log(LOG_ERR, "cannot read the credentials of the server on %s: %s", path.c_str(),
                strerror(errno));
            close(fd);
            return IPC_STATUS_SYSTEM_ERROR;
        }
        const uid_t self = geteuid();
        if (credentials.uid != 0 && credentials.uid != self) {
            Log(LOG_ERR,
                "refusing the server on %s: it runs as uid %u, neither root nor our uid %u",
                path.c_str(), static_cast<unsigned>(credentials.uid), static_cast<unsigned>(self));
            close(fd);
            return IPC_STATUS_UNTRUSTED_PEER;
        }

        uint8_t hello[kHelloSize];
        EncodeHello(Hello{kProtocolVersion, 0, m_Identity}, hello);
        if (!WriteAll(fd, hello, sizeof(hello))) {
            close(fd);
            return IPC_STATUS_PEER_LOST;
        }

        std::shared_ptr<ClientConnection> connection;
        try {
            connection = std::make_shared<ClientConnection>(fd);
        } catch (...) {
            close(fd);
            return IPC_STATUS_NO_RESOURCES;
        }
        {
            MutexLock guard(m_ConnLock);
            m_pConn = connection;
        }
        // The thread waits at the gate until we are done with `this`: its first callback may
        // delete the client.
        MutexLock gate(connection->startGate);
        try {
            m_IoThread = std::thread(RunClientConnection, connection, m_pCallback, peer,
                                     static_cast<const void*>(this));
        } catch (...) {
            Log(LOG_ERR, "cannot start the I/O thread");
            MutexLock guard(m_ConnLock);
            m_pConn.reset();
            return IPC_STATUS_NO_RESOURCES;
        }
        control.Unlock();
        gate.Unlock();
        return IPC_STATUS_OK;
    }

    BR_STATUSCODE SendData(IPCBuffer* buffer) override {
        if (buffer == nullptr || (buffer->m_Length > 0 && buffer->m_pData == nullptr)) {
            return IPC_STATUS_BAD_ARGUMENT;
        }
        if (buffer->m_Length > kIPCMaxFrameLength)
            return IPC_STATUS_TOO_LARGE;
        std::shared_ptr<ClientConnection> connection;
        {
            MutexLock guard(m_ConnLock);
            connection = m_pConn;
        }
        if (!connection || !connection->ready.load(std::memory_order_acquire)) {
            return IPC_STATUS_NOT_CONNECTED;
        }
        const BR_STATUSCODE status =
            SendFrame(connection->fd, connection->sendLock, buffer->m_pData, buffer->m_Length);
        if (status != IPC_STATUS_OK) {
            if (status == IPC_STATUS_TIMEOUT) {
                Log(LOG_ERR, "the server has not read for %d ms, closing the connection",
                    SendTimeoutMs());
            }
            // Part of a frame may be out: the stream is unusable. The I/O thread reports the loss.
            shutdown(connection->fd, SHUT_RDWR);
        }
        return status;
    }

    BR_STATUSCODE ReservedSlot2() override { return IPC_STATUS_NOT_SUPPORTED; }
    BR_STATUSCODE ReservedSlot3() override { return IPC_STATUS_NOT_SUPPORTED; }

    BR_STATUSCODE TearDown() override {
        if (t_pCallbackOwner == this) {
            StopConnection();  // the thread ends after the running callback; joined later
            return IPC_STATUS_OK;
        }
        MutexLock control(m_ControlLock);
        EndConnectionLocked();
        return IPC_STATUS_OK;
    }

    BR_STATUSCODE ReservedSlot5() override { return IPC_STATUS_NOT_SUPPORTED; }
    BR_STATUSCODE ReservedSlot6() override { return IPC_STATUS_NOT_SUPPORTED; }

  private:
    // Marks the current connection torn down and wakes its I/O thread. Any thread.
    void StopConnection() IPC_EXCLUDES(m_ConnLock) {
        std::shared_ptr<ClientConnection> connection;
        {
            MutexLock guard(m_ConnLock);
            connection.swap(m_pConn);
        }
        if (connection) {
            connection->stop.store(true, std::memory_order_release);
            shutdown(connection->fd, SHUT_RDWR);  // wakes a blocked recv or poll
        }
    }

    // StopConnection and wait for the I/O thread. Not on the I/O thread.
    void EndConnectionLocked() IPC_REQUIRES(m_ControlLock) IPC_EXCLUDES(m_ConnLock) {
        StopConnection();
        if (m_IoThread.joinable())
            m_IoThread.join();
    }

    const uint32_t m_Identity;
    IIPCCallback* const m_pCallback;
    Mutex m_ControlLock;
    std::thread m_IoThread IPC_GUARDED_BY(m_ControlLock);
    Mutex m_ConnLock;
    std::shared_ptr<ClientConnection> m_pConn IPC_GUARDED_BY(m_ConnLock);
};

}  // namespace

}  // namespace ipc

IIPCClient* CIPCFactory::CreateIPCClient(uint32_t identity, IIPCCallback* callback,
                                         BR_STATUSCODE& status, uint16_t /*port*/) {
    if (callback == nullptr) {
        status = IPC_STATUS_BAD_ARGUMENT;
        return nullptr;
    }
    IIPCClient* client = new (std::nothrow) ipc::CIPCClient(identity, callback);
    status = client != nullptr ? IPC_STATUS_OK : IPC_STATUS_NO_RESOURCES;
    return client;
}
