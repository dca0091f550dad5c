// The client end of the local IPC channel between a desktop component and the service agent.
//
// What the library promises:
// - One packet sent is one packet delivered: whole, in order, exactly once, as one IPCBuffer of
//   kind 1, whatever pieces the kernel splits it into. Packets hold 0 to kIPCMaxFrameLength
//   bytes. Nothing partial is ever delivered: a connection that breaks in the middle of a packet,
//   announces a packet above the limit or fails the identity handshake is closed, and what was
//   pending on it is dropped.
// - After ConnectAsync has returned 0 there is exactly one OnPeerStateChanged(peer, session, 0)
//   for that attempt, unless TearDown (or another ConnectAsync, or destruction) ends it first: it
//   follows a state-2 event when the connection came up, or stands alone when the handshake
//   failed (then with session 0).
// - The client talks only to a server running as root or as its own user. A socket owned by any
//   other user is refused before a byte is sent: ConnectAsync logs an "IPC : ..." line to the
//   system log at LOG_ERR, closes the socket and returns IPC_STATUS_UNTRUSTED_PEER (no event).
// What it does not promise: encryption (the channel is a local socket, guarded by file modes and
// peer credentials), delivery of packets still unsent or unread when a connection breaks, flow
// control beyond the kernel's socket buffers, or any retry: reconnecting is the caller's job.
//
// Thread model: each client object has at most one I/O thread, started by a successful
// ConnectAsync and ended by TearDown, the next ConnectAsync or destruction. That thread alone
// runs the callbacks, one at a time, so events of one client never overlap. The operations may be
// called from any thread; ConnectAsync and TearDown are serialised with each other.
// Inside a callback:
// - SendData is allowed (it writes from the calling thread; while the peer's receive buffer is
//   full it blocks this client's deliveries, for at most the send time-out).
// - TearDown is allowed and does not wait for the I/O thread (it cannot wait for itself): it
//   closes the connection and returns; no further callback follows the one that is running. The
//   thread ends on its own and is joined by the next ConnectAsync, TearDown or the destructor.
// - Deleting the client is allowed as the last thing a callback does; it implies TearDown, and
//   the I/O thread then ends touching neither the client nor the callback object.
// - ConnectAsync is not: it returns IPC_STATUS_WRONG_THREAD.
#ifndef TIDEWAY_IPC_IPCCLIENT_H_
#define TIDEWAY_IPC_IPCCLIENT_H_

#include <stdint.h>

#include "ipc/IPCTypes.h"

// Receives the events of a client (and, through IIPCServerCallback, of a server). The slot order
// is part of the binary interface. Implementations must return quickly: the I/O thread waits.
class IIPCCallback {
  public:
    // A peer came up (state 2) or went away (state 0). `peerIdentity` is the other end's IPC
    // identity; `session` the 16-bit id the server gave the connection (0 if none was agreed).
    virtual void OnPeerStateChanged(uint32_t peerIdentity, uint32_t session, uint32_t state) = 0;
    // One whole packet. The buffer and its data belong to the library and are valid only during
    // the call.
    virtual void OnReqMsgRecv(IPCBuffer* buffer) = 0;
    // Never called by this library; kept for the slot order.
    virtual void OnRespMsgRecv(IPCBuffer* buffer) = 0;

  protected:
    ~IIPCCallback() = default;
};

// One client connection to a server, made by CIPCFactory::CreateIPCClient and owned by its
// creator. Thread-safe; see the thread model above for what a callback may call.
class IIPCClient {
  public:
    // Connects to the server of `port` and sends this end's identity. Returns at once: non-zero
    // when the attempt cannot be made (no socket file, nobody listening, untrusted server, ...),
    // else 0 and the outcome follows as OnPeerStateChanged(peer, session, 2 or 0) after the
    // server's identity arrives (or fails to within the handshake time-out). The server must
    // announce identity `peer`. `flags` and `param` are accepted and not interpreted. A
    // connection still open from an earlier call is ended first, without an event.
    virtual BR_STATUSCODE ConnectAsync(uint32_t peer, uint32_t flags, uint32_t param,
                                       uint16_t port) = 0;
    // Sends m_Length bytes at m_pData as one packet (m_Kind is not looked at); returns when all
    // is written, so the caller may free the data at once. Non-zero when not connected (also
    // before the state-2 event), for a payload above kIPCMaxFrameLength, or when the peer broke
    // or stopped reading for longer than the send time-out (a few seconds): in the last two cases
    // the connection is closed and its state-0 event follows. Concurrent calls are serialised.
    virtual BR_STATUSCODE SendData(IPCBuffer* buffer) = 0;
    // Reserved; return IPC_STATUS_NOT_SUPPORTED.
    virtual BR_STATUSCODE ReservedSlot2() = 0;
    virtual BR_STATUSCODE ReservedSlot3() = 0;
    // Ends the connection and its I/O thread. When it returns (outside a callback) no callback
    // runs any more; there is no state-0 event for a connection ended this way. Harmless without
    // a connection and when repeated. ConnectAsync may start a new connection afterwards.
    virtual BR_STATUSCODE TearDown() = 0;
    // Reserved; return IPC_STATUS_NOT_SUPPORTED.
    virtual BR_STATUSCODE ReservedSlot5() = 0;
    virtual BR_STATUSCODE ReservedSlot6() = 0;
    // Implies TearDown.
    virtual ~IIPCClient() {}
};

class IIPCServer;
class IIPCServerCallback;

// Makes the library's objects. Nothing connects or listens here.
class CIPCFactory {
  public:
    // A client with IPC identity `identity` (6 the desktop module, 7 command clients) reporting
    // to `callback`, which must outlive the object. `port` is not used (0). Returns the new object
    // (delete it to release it) or null with `status` set.
    static IIPCClient* CreateIPCClient(uint32_t identity, IIPCCallback* callback,
                                       BR_STATUSCODE& status, uint16_t port);
    // A server with IPC identity `identity` (8 the agent) for the socket of `port`, reporting to
    // `callback`, which must outlive the object. IIPCServer::Listen starts it. Returns the new
    // object or null with `status` set.
    static IIPCServer* CreateIPCServer(uint32_t identity, IIPCServerCallback* callback,
                                       BR_STATUSCODE& status, uint16_t port);
};

#endif  // TIDEWAY_IPC_IPCCLIENT_H_
