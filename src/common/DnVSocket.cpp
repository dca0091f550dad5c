#include "common/DnVSocket.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/select.h>

#include <algorithm>
#include <chrono>
#include <limits>
#include <memory>
#include <new>
#include <thread>

#include "common/VNTrace.h"

namespace {

constexpr int32_t kNotImplemented = static_cast<int32_t>(0x80004001u);
constexpr int32_t kBadArgument = static_cast<int32_t>(0x80070057u);
constexpr int32_t kPeekPollMs = 10;

// errno of a call that failed, never 0: a failure must not read as success to the caller.
int32_t FailureCode() {
    const int code = errno;
    return code != 0 ? code : EIO;
}

}  // namespace

CDnVSocket::CDnVSocket(int32_t handle) : m_Socket(handle), m_BufferLength(0), m_ReadOffset(0) {
    m_Buffer.reserve(kBufferReserve);
}

CDnVSocket::~CDnVSocket() {}

int32_t CDnVSocket::SetReceiveTimeout(int32_t) {
    return kNotImplemented;
}
int32_t CDnVSocket::SetSendTimeout(int32_t) {
    return kNotImplemented;
}
int32_t CDnVSocket::SetNoDelay(int32_t) {
    return kNotImplemented;
}
int32_t CDnVSocket::SetKeepAlive(int32_t) {
    return kNotImplemented;
}
int32_t CDnVSocket::GetTransportError() {
    return kNotImplemented;
}
void CDnVSocket::ResetTransport() {}

void CDnVSocket::ResetBuffer() {
    m_Buffer.clear();
    m_BufferLength = 0;
    m_ReadOffset = 0;
    m_Buffer.reserve(kBufferReserve);
}

void CDnVSocket::CompactBuffer() {
    if (Buffered() <= 0) {
        ResetBuffer();
    } else if (m_ReadOffset > 0) {
        m_Buffer.erase(0, static_cast<size_t>(m_ReadOffset));
        m_BufferLength -= m_ReadOffset;
        m_ReadOffset = 0;
    }
}

bool CDnVSocket::AppendToBuffer(const char* data, int32_t length) {
    if (length > std::numeric_limits<int32_t>::max() - m_BufferLength)
        return false;
    m_Buffer.append(data, static_cast<size_t>(length));
    m_BufferLength += length;
    return true;
}

int32_t CDnVSocket::ConnectWithTimeout(const sockaddr* address, socklen_t addressLength,
                                       int32_t timeoutSeconds) {
    int nonBlocking = 1;
    if (ioctl(m_Socket, FIONBIO, &nonBlocking) == -1) {
        const int32_t code = FailureCode();
        VNTRACE(TL_ERR, "Socket : Failed to set socket to non-blocking mode");
        return code;
    }
    if (connect(m_Socket, address, addressLength) == -1) {
        if (errno != EINPROGRESS)
            return FailureCode();
        const int32_t waited = WaitForSocket(m_Socket, kWaitWrite, timeoutSeconds, 0);
        if (waited != 0)
            return waited;
        // Writable also means "failed": the outcome of the connection is in SO_ERROR.
        int pending = 0;
        socklen_t pendingLength = sizeof(pending);
        if (getsockopt(m_Socket, SOL_SOCKET, SO_ERROR, &pending, &pendingLength) == -1)
            return FailureCode();
        if (pending != 0)
            return pending;
    }
    nonBlocking = 0;
    if (ioctl(m_Socket, FIONBIO, &nonBlocking) == -1) {
        const int32_t code = FailureCode();
        VNTRACE(TL_ERR, "Socket : Failed to set socket back to blocking mode");
        return code;
    }
    return 0;
}

int32_t CDnVSocket::WaitForSocket(int32_t handle, int32_t mode, int32_t seconds,
                                  int32_t microseconds) {
    if (mode != kWaitRead && mode != kWaitWrite)
        return kBadArgument;
    // An fd_set holds handles below FD_SETSIZE only; setting a bit outside it would write past
    // the set, so such a handle fails as select itself fails for a bad one.
    if (handle < 0 || handle >= FD_SETSIZE) {
        errno = handle < 0 ? EBADF : EINVAL;
        VNTRACE(TL_ERR, "Socket : Unknown error occurred. Code : %d", errno);
        return errno;
    }
    fd_set handles;
    FD_ZERO(&handles);
    FD_SET(handle, &handles);
    timeval timeout;
    timeout.tv_sec = seconds;
    timeout.tv_usec = microseconds;
    const int ready = select(handle + 1, mode == kWaitRead ? &handles : nullptr,
                             mode == kWaitWrite ? &handles : nullptr, nullptr, &timeout);
    if (ready == 0)
        return kWaitTimedOut;
    if (ready == 1)
        return 0;
    const int32_t code = FailureCode();
    VNTRACE(TL_ERR, "Socket : Unknown error occurred. Code : %d", code);
    return code;
}

int32_t CDnVSocket::ReceiveLine(std::string& output) {
    try {
        size_t lineFeed = m_Buffer.find('\n', static_cast<size_t>(m_ReadOffset));
        if (lineFeed == std::string::npos) {
            CompactBuffer();
            char block[kBufferReserve];
            for (;;) {
                const size_t searchFrom = m_Buffer.size();
                int32_t received = Receive(block, kBufferReserve, 0);
                if (received == 0) {
                    VNTRACE(TL_ERR, "Socket : Received close in ReceiveLine");
                    return 1;
                }
                if (received < 0) {
                    const int32_t code = FailureCode();
                    VNTRACE(TL_ERR, "Socket : Error occurred in ReceiveLine. Code : %d", code);
                    return code;
                }
                received = std::min(received, kBufferReserve);  // never trust more than asked
                if (!AppendToBuffer(block, received)) {
                    VNTRACE(TL_ERR, "Socket : System out of memory");
                    return 1;
                }
                lineFeed = m_Buffer.find('\n', searchFrom);
                if (lineFeed != std::string::npos)
                    break;
            }
        }
        output.assign(m_Buffer, static_cast<size_t>(m_ReadOffset),
                      lineFeed + 1 - static_cast<size_t>(m_ReadOffset));
        m_ReadOffset = static_cast<int32_t>(lineFeed + 1);
        if (m_ReadOffset >= m_BufferLength)
            ResetBuffer();
        return 0;
    } catch (const std::bad_alloc&) {
        VNTRACE(TL_ERR, "Socket : System out of memory");
        return 1;
    } catch (...) {
        VNTRACE(TL_ERR, "Socket : Unknown exception occurred in CDnVSocket::ReceiveLine");
        return 1;
    }
}

std::string CDnVSocket::PeekLine(int32_t size, int32_t timeoutMilliseconds,
                                 const char* cancelFlag) {
    if (size < 1) {
        VNTRACE(TL_ERR, "Socket : Bad parameter size = %d", size);
        return std::string();
    }
    // Unread bytes (pushed back or left by an earlier read) are kept and searched first rather
    // than thrown away; an empty buffer is reset.
    CompactBuffer();
    try {
        std::unique_ptr<char[]> block;
        int32_t remaining = timeoutMilliseconds;
        size_t searchFrom = 0;
        for (;;) {
            const size_t lineFeed = m_Buffer.find('\n', searchFrom);
            if (lineFeed != std::string::npos)
                return m_Buffer.substr(0, lineFeed + 1);  // stays buffered
            searchFrom = m_Buffer.size();
            if (cancelFlag != nullptr && *cancelFlag != 0)
                return m_Buffer;
            if (!block) {
                block.reset(new (std::nothrow) char[static_cast<size_t>(size)]);
                if (!block) {
                    VNTRACE(TL_ERR, "Socket : Failed to Peek Line, System Out Of Memory!!!");
                    return m_Buffer;
                }
            }
            int32_t received = Receive(block.get(), size, 0);
            if (received <= 0) {
                VNTRACE(TL_ERR, "Socket : Failed to Peek Line.");
                return m_Buffer;
            }
            received = std::min(received, size);
            if (!AppendToBuffer(block.get(), received)) {
                VNTRACE(TL_ERR, "Socket : Failed to Peek Line, System Out Of Memory!!!");
                return m_Buffer;
            }
            if (m_Buffer.find('\n', searchFrom) != std::string::npos)
                continue;
            // No line yet: wait for more bytes, in steps of 10 ms, while time is left.
            bool more = false;
            while (remaining > 0) {
                if (cancelFlag != nullptr && *cancelFlag != 0)
                    return m_Buffer;
                int ready = 0;
                if (ioctl(m_Socket, FIONREAD, &ready) == 0 && ready > 0) {
                    more = true;
                    break;
                }
                std::this_thread::sleep_for(std::chrono::milliseconds(kPeekPollMs));
                remaining -= kPeekPollMs;
            }
            if (!more) {
                VNTRACE(TL_BRIDGE, "Socket : Timed out in PeekLine. Line : %s", m_Buffer.c_str());
                return m_Buffer;
            }
        }
    } catch (const std::bad_alloc&) {
        VNTRACE(TL_ERR, "Socket : Failed to Peek Line, System Out Of Memory!!!");
        return std::string();
    }
}

int32_t CDnVSocket::ReadHeader(std::string& output) {
    output.clear();
    try {
        int32_t lineLength = 0;  // bytes of the current line, carriage returns not counted
        for (;;) {
            char byte = 0;
            if (Buffered() > 0) {
                byte = m_Buffer[static_cast<size_t>(m_ReadOffset++)];
                if (m_ReadOffset >= m_BufferLength)
                    ResetBuffer();
            } else {
                const int32_t received = Receive(&byte, 1, 0);
                if (received == 0) {
                    VNTRACE(TL_ERR, "Socket : Received close in ReadHeader");
                    return 1;
                }
                if (received < 0) {
                    const int32_t code = FailureCode();
                    VNTRACE(TL_ERR, "Socket : Error occurred in ReadHeader. Code : %d", code);
                    return code;
                }
            }
            output.push_back(byte);
            if (byte == '\n') {
                if (lineLength == 0)
                    return 0;
                lineLength = 0;
            } else if (byte != '\r') {
                ++lineLength;
            }
        }
    } catch (const std::bad_alloc&) {
        VNTRACE(TL_ERR, "Socket : System out of memory");
        return 1;
    }
}

int32_t CDnVSocket::Read(char* buffer, int32_t length) {
    if (buffer == nullptr || length < 1) {
        errno = EINVAL;
        return -1;
    }
    if (Buffered() > 0) {
        const int32_t count = std::min(length, Buffered());
        memcpy(buffer, m_Buffer.data() + m_ReadOffset, static_cast<size_t>(count));
        m_ReadOffset += count;
        if (m_ReadOffset >= m_BufferLength)
            ResetBuffer();
        return count;
    }
    return Receive(buffer, length, 0);
}

bool CDnVSocket::PushBack(const char* data, int32_t length) {
    if (data == nullptr || length < 1)
        return false;
    try {
        return AppendToBuffer(data, length);
    } catch (const std::bad_alloc&) {
        VNTRACE(TL_ERR, "Socket : System out of memory");
        return false;
    }
}

int32_t CDnVSocket::FlushBuffer(CDnVSocket* otherSocket, int32_t flags, int32_t /*flag*/) {
    if (otherSocket == nullptr || Buffered() <= 0)
        return 0;
    const int32_t total = Buffered();
    // A stream send may take part of the bytes; the rest goes in further sends. On a failure
    // the bytes not yet sent stay buffered.
    while (Buffered() > 0) {
        const int32_t sent = otherSocket->Send(m_Buffer.data() + m_ReadOffset, Buffered(), flags);
        if (sent <= 0)
            return -1;
        m_ReadOffset += std::min(sent, Buffered());
    }
    ResetBuffer();
    return total;
}

int32_t CDnVSocket::GetPeerAddress(std::string& output) {
    sockaddr_in peer;
    memset(&peer, 0, sizeof(peer));
    socklen_t length = sizeof(peer);  // 16 bytes: room for IPv4 only
    const int result = getpeername(m_Socket, reinterpret_cast<sockaddr*>(&peer), &length);
    if (result != 0)
        return result;
    // Any other family would have its bytes read as an IPv4 address: refuse it instead.
    if (peer.sin_family != AF_INET)
        return EAFNOSUPPORT;
    char text[INET_ADDRSTRLEN];
    if (inet_ntop(AF_INET, &peer.sin_addr, text, sizeof(text)) == nullptr)
        return FailureCode();
    output = text;
    return 0;
}

int32_t CDnVSocket::BytesAvailable() {
    if (Buffered() > 0)
        return Buffered();
    int ready = 0;
    if (ioctl(m_Socket, FIONREAD, &ready) == -1)
        return 0;
    return ready;
}
