// Pieces both ends of the channel share: the identity handshake record, the framed send with a
// bounded wait, the socket's address, the library's log line and the hooks' settings.
//
// Free functions without state of their own, but for the settings, which are atomics.
#ifndef TIDEWAY_IPC_WIRE_H_
#define TIDEWAY_IPC_WIRE_H_

#include <stddef.h>
#include <stdint.h>
#include <sys/un.h>

#include <string>

#include "IPCMutex.h"
#include "ipc/IPCTypes.h"

namespace ipc {

// The handshake record, sent once by each side before any frame: "TWIP", version, session
// (0 from a client, the id given by the server from a server), the sender's IPC identity; all
// little-endian, 12 bytes.
constexpr size_t kHelloSize = 12;
constexpr uint16_t kProtocolVersion = 1;

struct Hello {
    uint16_t version;
    uint16_t session;
    uint32_t identity;
};

void EncodeHello(const Hello& hello, uint8_t out[kHelloSize]);
// False when the bytes are not a handshake of this protocol's version.
bool DecodeHello(const uint8_t in[kHelloSize], Hello* hello);

// Writes the 4-byte length and the payload under `sendLock`, from the calling thread. Waits at
// most SendTimeoutMs() in all for room in the socket. OK, IPC_STATUS_TIMEOUT or
// IPC_STATUS_PEER_LOST; on failure part of the frame may have gone out, so the caller must drop
// the connection.
BR_STATUSCODE SendFrame(int fd, Mutex& sendLock, const void* data, uint32_t length)
    IPC_EXCLUDES(sendLock);

// Writes all of `data` to a socket that is expected to take it at once (the handshake).
bool WriteAll(int fd, const void* data, size_t n);

// The socket address of `path`; false, with a log record, when the path does not fit.
bool SocketAddressOf(const std::string& path, sockaddr_un* address);

// Settings, changed only by the testing hooks.
int SendTimeoutMs();
int HandshakeTimeoutMs();
std::string SocketDirectory();

// The client or server object whose I/O thread the current thread is (null on other threads):
// lets an operation see that it was called from inside one of that object's callbacks.
extern thread_local const void* t_pCallbackOwner;

// One "IPC : ..." record to the system log, newline included.
void Log(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace ipc

#endif  // TIDEWAY_IPC_WIRE_H_
