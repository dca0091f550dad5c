#include "IPCTestSupport.h"

#include <errno.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>

#include "ipc/IPCTesting.h"

namespace ipc_test {

TempRoot::TempRoot() {
    char pattern[] = "/tmp/ipc-test-XXXXXX";
    const char* made = mkdtemp(pattern);
    m_Path = made != nullptr ? made : "/tmp/ipc-test-fallback";
    chmod(m_Path.c_str(), 0755);  // other users (the impostor test) must be able to traverse it
    ipc::SetSocketRootForTesting(m_Path);
}

TempRoot::~TempRoot() {
    ipc::SetSocketRootForTesting("");
    ipc::SetSendTimeoutForTesting(0);
    ipc::SetHandshakeTimeoutForTesting(0);
    std::error_code ignored;
    std::filesystem::remove_all(m_Path, ignored);
}

void Recorder::OnPeerStateChanged(uint32_t peer, uint32_t session, uint32_t state) {
    if (closed)
        ++callsAfterClose;
    const Event event{peer, session, state};
    {
        std::lock_guard<std::mutex> guard(m_Lock);
        m_Events.push_back(event);
    }
    m_Changed.notify_all();
    if (onEvent)
        onEvent(event);
}

void Recorder::OnReqMsgRecvFrom(uint16_t session, IPCBuffer* buffer) {
    if (closed)
        ++callsAfterClose;
    std::string bytes(static_cast<const char*>(buffer->m_pData), buffer->m_Length);
    if (buffer->m_Kind != kIPCBufferKindRequest)
        bytes = "wrong kind";
    {
        std::lock_guard<std::mutex> guard(m_Lock);
        m_Packets.push_back(bytes);
        m_Sessions.push_back(session);
    }
    m_Changed.notify_all();
    if (onPacket)
        onPacket(session, bytes);
}

bool Recorder::WaitUntil(const std::function<bool()>& ready, std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(m_Lock);
    return m_Changed.wait_for(lock, timeout, ready);
}

std::vector<Event> Recorder::Events() {
    std::lock_guard<std::mutex> guard(m_Lock);
    return m_Events;
}

std::vector<std::string> Recorder::Packets() {
    std::lock_guard<std::mutex> guard(m_Lock);
    return m_Packets;
}

std::vector<uint16_t> Recorder::PacketSessions() {
    std::lock_guard<std::mutex> guard(m_Lock);
    return m_Sessions;
}

std::string Payload(size_t size, uint32_t tag) {
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<char>((i * 131 + tag * 7) & 0xff);
    for (size_t i = 0; i < 4 && i < size; ++i)
        bytes[i] = static_cast<char>(tag >> (8 * i));
    return bytes;
}

static std::string LE32(uint32_t v) {
    std::string bytes(4, '\0');
    for (int i = 0; i < 4; ++i)
        bytes[i] = static_cast<char>(v >> (8 * i));
    return bytes;
}

std::string Frame(const std::string& payload) {
    return LE32(static_cast<uint32_t>(payload.size())) + payload;
}

std::string HelloRecord(uint32_t identity, uint16_t session) {
    std::string record = "TWIP";
    record += static_cast<char>(1);
    record += static_cast<char>(0);
    record += static_cast<char>(session & 0xff);
    record += static_cast<char>(session >> 8);
    return record + LE32(identity);
}

IPCBuffer BufferOf(const std::string& bytes) {
    IPCBuffer buffer{};
    buffer.m_Kind = kIPCBufferKindRequest;
    buffer.m_Length = static_cast<uint32_t>(bytes.size());
    buffer.m_pData = const_cast<char*>(bytes.data());
    return buffer;
}

static sockaddr_un AddressOf(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    return address;
}

int RawListen(const std::string& path) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = AddressOf(path);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(fd, 4) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

int RawConnect(const std::string& path) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = AddressOf(path);
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

int AcceptWithin(int listenFd, std::chrono::milliseconds timeout) {
    pollfd waiter{listenFd, POLLIN, 0};
    if (poll(&waiter, 1, static_cast<int>(timeout.count())) != 1)
        return -1;
    return accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
}

bool WriteBytes(int fd, const std::string& bytes, bool oneAtATime) {
    size_t at = 0;
    while (at < bytes.size()) {
        const size_t n = oneAtATime ? 1 : bytes.size() - at;
        const ssize_t sent = send(fd, bytes.data() + at, n, MSG_NOSIGNAL);
        if (sent <= 0)
            return false;
        at += static_cast<size_t>(sent);
    }
    return true;
}

std::string ReadBytes(int fd, size_t n, std::chrono::milliseconds timeout) {
    std::string bytes;
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (bytes.size() < n) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd waiter{fd, POLLIN, 0};
        if (left.count() <= 0 || poll(&waiter, 1, static_cast<int>(left.count())) != 1)
            break;
        char chunk[4096];
        const ssize_t got = recv(fd, chunk, std::min(sizeof(chunk), n - bytes.size()), 0);
        if (got <= 0)
            break;
        bytes.append(chunk, static_cast<size_t>(got));
    }
    return bytes;
}

bool WaitForClose(int fd, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd waiter{fd, POLLIN, 0};
        if (left.count() <= 0 || poll(&waiter, 1, static_cast<int>(left.count())) != 1) {
            return false;
        }
        char chunk[4096];
        const ssize_t got = recv(fd, chunk, sizeof(chunk), 0);
        if (got == 0 || (got < 0 && errno != EINTR))
            return true;
    }
}

}  // namespace ipc_test
