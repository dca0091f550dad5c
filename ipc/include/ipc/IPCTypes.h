// Types shared by both ends of the local IPC channel: the status type, the buffer record that
// crosses the interface in both directions, and the channel's fixed limits.
//
// Plain data and constants; nothing here needs synchronisation.
#ifndef TIDEWAY_IPC_IPCTYPES_H_
#define TIDEWAY_IPC_IPCTYPES_H_

#include <stddef.h>
#include <stdint.h>

// Result of the library's operations: 0 is success, any other value a failure from IPCStatus.
typedef int32_t BR_STATUSCODE;

enum IPCStatus : BR_STATUSCODE {
    IPC_STATUS_OK = 0,
    IPC_STATUS_BAD_ARGUMENT = 1,         // null pointer, bad length, path too long
    IPC_STATUS_NO_SERVER = 2,            // no socket file for the port
    IPC_STATUS_REFUSED = 3,              // socket file present, nobody listening
    IPC_STATUS_BUSY = 4,                 // the server's accept queue is full
    IPC_STATUS_UNTRUSTED_PEER = 5,       // server neither root nor our own user
    IPC_STATUS_NOT_CONNECTED = 6,        // no connection, or handshake not finished
    IPC_STATUS_TIMEOUT = 7,              // the peer stopped reading; connection dropped
    IPC_STATUS_PEER_LOST = 8,            // the connection broke during the call
    IPC_STATUS_TOO_LARGE = 9,            // payload above kIPCMaxFrameLength
    IPC_STATUS_WRONG_THREAD = 10,        // called from inside a callback where that is not allowed
    IPC_STATUS_NO_RESOURCES = 11,        // out of memory, threads or descriptors
    IPC_STATUS_SYSTEM_ERROR = 12,        // any other failed system call
    IPC_STATUS_INSECURE_DIRECTORY = 13,  // socket directory not owned by the server
    IPC_STATUS_ADDRESS_IN_USE = 14,      // another server listens on the port
    IPC_STATUS_NO_SESSION = 15,          // no connected peer with that session id
    IPC_STATUS_NOT_SUPPORTED = 16,       // a reserved slot
    IPC_STATUS_ALREADY = 17,             // the server listens already
};

// Peer states reported through OnPeerStateChanged.
enum IPCPeerState : uint32_t {
    IPC_PEER_CLOSED = 0,
    IPC_PEER_CONNECTED = 2,
};

// Largest payload of one packet. A peer announcing more is dropped.
constexpr uint32_t kIPCMaxFrameLength = 1u << 20;

// Buffer kind of a request packet: every packet the library delivers has it.
constexpr uint32_t kIPCBufferKindRequest = 1;

// The record exchanged with the library: 24 bytes, zero-filled before use. The data belongs to
// whoever filled the record: on sending, the caller's (it may be freed as soon as SendData
// returns); on receiving, the library's (valid only during the callback).
struct IPCBuffer {
    uint32_t m_Kind;  // 1 for a request message
    uint32_t m_Reserved0;
    uint32_t m_Length;  // bytes at m_pData
    uint32_t m_Reserved1;
    void* m_pData;
};

static_assert(sizeof(IPCBuffer) == 24, "IPCBuffer is 24 bytes");
static_assert(offsetof(IPCBuffer, m_Kind) == 0, "m_Kind at offset 0");
static_assert(offsetof(IPCBuffer, m_Length) == 8, "m_Length at offset 8");
static_assert(offsetof(IPCBuffer, m_pData) == 16, "m_pData at offset 16");

#endif  // TIDEWAY_IPC_IPCTYPES_H_
