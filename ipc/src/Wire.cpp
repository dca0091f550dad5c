#include "Wire.h"

#include <errno.h>
#include <poll.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <syslog.h>

#include <atomic>
#include <chrono>

#include "ipc/IPCTesting.h"

namespace ipc {

namespace {

constexpr uint8_t kHelloMagic[4] = {'T', 'W', 'I', 'P'};
// Below the communicator's 4-second thread joins, so that a sender blocked by a peer that stopped
// reading always ends within a stop instead of being abandoned mid-call.
constexpr int kDefaultSendTimeoutMs = 3000;
constexpr int kDefaultHandshakeTimeoutMs = 5000;
constexpr const char* kProductRoot = "/opt";

std::atomic<int> g_SendTimeoutMs{kDefaultSendTimeoutMs};
std::atomic<int> g_HandshakeTimeoutMs{kDefaultHandshakeTimeoutMs};

Mutex g_RootLock;
std::string& Root() IPC_REQUIRES(g_RootLock) {
    static std::string* root = new std::string(kProductRoot);  // lives until the process ends
    return *root;
}

void PutLE16(uint8_t* p, uint16_t v) {
    p[0] = static_cast<uint8_t>(v);
    p[1] = static_cast<uint8_t>(v >> 8);
}
void PutLE32(uint8_t* p, uint32_t v) {
    for (int i = 0; i < 4; ++i)
        p[i] = static_cast<uint8_t>(v >> (8 * i));
}
uint16_t GetLE16(const uint8_t* p) {
    return static_cast<uint16_t>(p[0] | (p[1] << 8));
}
uint32_t GetLE32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
           (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

// vsyslog rather than syslog: the record takes the same road as the rest of the process's log.
void Syslog(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));
void Syslog(int priority, const char* format, ...) {
    va_list args;
    va_start(args, format);
    vsyslog(priority, format, args);
    va_end(args);
}

}  // namespace

thread_local const void* t_pCallbackOwner = nullptr;

void EncodeHello(const Hello& hello, uint8_t out[kHelloSize]) {
    memcpy(out, kHelloMagic, 4);
    PutLE16(out + 4, hello.version);
    PutLE16(out + 6, hello.session);
    PutLE32(out + 8, hello.identity);
}

bool DecodeHello(const uint8_t in[kHelloSize], Hello* hello) {
    if (memcmp(in, kHelloMagic, 4) != 0)
        return false;
    hello->version = GetLE16(in + 4);
    hello->session = GetLE16(in + 6);
    hello->identity = GetLE32(in + 8);
    return hello->version == kProtocolVersion;
}

BR_STATUSCODE SendFrame(int fd, Mutex& sendLock, const void* data, uint32_t length) {
    uint8_t header[4];
    PutLE32(header, length);
    iovec parts[2];
    parts[0].iov_base = header;
    parts[0].iov_len = sizeof(header);
    parts[1].iov_base = const_cast<void*>(data);
    parts[1].iov_len = length;
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = length > 0 ? 2 : 1;

    MutexLock guard(sendLock);
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(SendTimeoutMs());
    for (;;) {
        const ssize_t sent = sendmsg(fd, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent >= 0) {
            size_t done = static_cast<size_t>(sent);
            while (message.msg_iovlen > 0 && done >= message.msg_iov[0].iov_len) {
                done -= message.msg_iov[0].iov_len;
                ++message.msg_iov;
                --message.msg_iovlen;
            }
            if (message.msg_iovlen == 0)
                return IPC_STATUS_OK;
            message.msg_iov[0].iov_base = static_cast<uint8_t*>(message.msg_iov[0].iov_base) + done;
            message.msg_iov[0].iov_len -= done;
            continue;
        }
        if (errno == EINTR)
            continue;
        if (errno != EAGAIN && errno != EWOULDBLOCK)
            return IPC_STATUS_PEER_LOST;
        // The peer's buffer is full: wait for room, but not for ever.
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                              deadline - std::chrono::steady_clock::now())
                              .count();
        if (left <= 0)
            return IPC_STATUS_TIMEOUT;
        pollfd waiter{fd, POLLOUT, 0};
        const int ready = poll(&waiter, 1, static_cast<int>(left));
        if (ready < 0 && errno != EINTR)
            return IPC_STATUS_PEER_LOST;
    }
}

bool WriteAll(int fd, const void* data, size_t n) {
    const uint8_t* p = static_cast<const uint8_t*>(data);
    while (n > 0) {
        const ssize_t sent = send(fd, p, n, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR)
            continue;
        if (sent <= 0)
            return false;
        p += sent;
        n -= static_cast<size_t>(sent);
    }
    return true;
}

int SendTimeoutMs() {
    return g_SendTimeoutMs.load(std::memory_order_relaxed);
}
int HandshakeTimeoutMs() {
    return g_HandshakeTimeoutMs.load(std::memory_order_relaxed);
}

std::string SocketDirectory() {
    MutexLock guard(g_RootLock);
    return Root() + "/tarvex/brenlo/tideway/ipc";
}

void Log(int priority, const char* format, ...) {
    char text[512];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    Syslog(priority, "IPC : %s\n", text);
}

void SetSocketRootForTesting(const std::string& root) {
    MutexLock guard(g_RootLock);
    Root() = root.empty() ? kProductRoot : root;
}

std::string SocketPathForPort(uint16_t port) {
    return SocketDirectory() + "/" + std::to_string(port) + ".sock";
}

void SetSendTimeoutForTesting(int milliseconds) {
    g_SendTimeoutMs = milliseconds > 0 ? milliseconds : kDefaultSendTimeoutMs;
}

void SetHandshakeTimeoutForTesting(int milliseconds) {
    g_HandshakeTimeoutMs = milliseconds > 0 ? milliseconds : kDefaultHandshakeTimeoutMs;
}

bool SocketAddressOf(const std::string& path, sockaddr_un* address) {
    *address = sockaddr_un{};
    address->sun_family = AF_UNIX;
    if (path.size() >= sizeof(address->sun_path)) {
        Log(LOG_ERR, "socket path %s is too long", path.c_str());
        return false;
    }
    memcpy(address->sun_path, path.c_str(), path.size() + 1);
    return true;
}

}  // namespace ipc
