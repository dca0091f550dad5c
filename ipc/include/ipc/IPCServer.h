// The server end of the local IPC channel, as the service agent (or a simulator of it) runs it.
//
// A server listens on the socket of its port, accepts several clients and gives each, once its
// identity handshake is done, a 16-bit session id (never 0, not reused while in use). Per client
// it promises what the client end does (see IPCClient.h): whole, ordered, exactly-once packets,
// one OnPeerStateChanged(identity, session, 2) and later exactly one (identity, session, 0), a
// hostile or broken client dropped without harm to the others. A client that never completes its
// handshake is dropped silently after the handshake time-out.
//
// Security: the socket directory <root>/tarvex/brenlo/tideway/ipc is created 0755 and must be
// owned by the server's user: a directory writable by group or others is repaired (chmod), one
// owned by another user, or not a directory, is refused (Listen fails with a log line). The
// socket itself is 0666 so that every local user's client can connect; clients check who the
// server is (SO_PEERCRED).
//
// Thread model: one I/O thread per listening server runs all callbacks, one at a time, for all
// sessions. SendData and DisconnectPeer may be called from any thread, including from inside a
// callback. TearDown from inside a callback closes everything and returns without waiting; no
// callback follows the running one; deleting the server there is allowed likewise. Listen is
// refused inside a callback (IPC_STATUS_WRONG_THREAD).
#ifndef TIDEWAY_IPC_IPCSERVER_H_
#define TIDEWAY_IPC_IPCSERVER_H_

#include <stdint.h>

#include "ipc/IPCClient.h"
#include "ipc/IPCTypes.h"

// The server's callback: the client callback's three slots, plus delivery with the session of
// the sender. The server calls OnPeerStateChanged and OnReqMsgRecvFrom; the default
// OnReqMsgRecvFrom forwards to OnReqMsgRecv for callbacks that do not care about sessions.
class IIPCServerCallback : public IIPCCallback {
  public:
    virtual void OnReqMsgRecvFrom(uint16_t /*session*/, IPCBuffer* buffer) { OnReqMsgRecv(buffer); }

  protected:
    ~IIPCServerCallback() = default;
};

// Made by CIPCFactory::CreateIPCServer and owned by its creator. Thread-safe as told above.
class IIPCServer {
  public:
    // Sends one packet to the client of `session`; as IIPCClient::SendData. IPC_STATUS_NO_SESSION
    // when no connected client has that id (also after its state-0 event).
    virtual BR_STATUSCODE SendData(IPCBuffer* buffer, uint16_t session) = 0;
    // Stops listening, closes every client connection (without state-0 events), removes the
    // socket file and ends the I/O thread. Outside a callback, no callback runs once it returns.
    // Harmless when not listening and when repeated; Listen may start the server again.
    virtual BR_STATUSCODE TearDown() = 0;
    // Implies TearDown.
    virtual ~IIPCServer() {}
    // Prepares the socket directory, binds the port's socket and starts the I/O thread.
    // IPC_STATUS_ADDRESS_IN_USE when another server answers on the socket; a stale socket file is
    // replaced.
    virtual BR_STATUSCODE Listen() = 0;
    // Drops one client: its connection is closed and its state-0 event follows on the I/O thread
    // (packets it had already sent whole may still be delivered before that event).
    virtual BR_STATUSCODE DisconnectPeer(uint16_t session) = 0;
    // Number of clients that completed the handshake and are still connected.
    virtual uint32_t PeerCount() = 0;
};

#endif  // TIDEWAY_IPC_IPCSERVER_H_
