// Hooks for tests and tools only; the product never calls them. Each is process-wide and may be
// called from any thread; a change applies to connections and servers started afterwards.
#ifndef TIDEWAY_IPC_IPCTESTING_H_
#define TIDEWAY_IPC_IPCTESTING_H_

#include <string>

#include <stdint.h>

namespace ipc {

// Moves the root of the socket directory from "/opt" to `root` (an empty text restores "/opt").
void SetSocketRootForTesting(const std::string& root);
// The socket file of `port` under the current root: <root>/tarvex/brenlo/tideway/ipc/<port>.sock.
std::string SocketPathForPort(uint16_t port);
// Changes how long a send may wait for a peer that does not read (default 3000 ms), and how long
// a connection may take to complete its identity handshake (default 5000 ms). 0 restores them.
void SetSendTimeoutForTesting(int milliseconds);
void SetHandshakeTimeoutForTesting(int milliseconds);

}  // namespace ipc

#endif  // TIDEWAY_IPC_IPCTESTING_H_
