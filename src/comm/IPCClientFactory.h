// How a communicator makes its IPC client object. Handed to the communicator (through the API)
// so that tests can put a fake in the IPC library's place; an empty factory means the library's
// own CIPCFactory::CreateIPCClient.
#ifndef TIDEWAY_COMM_IPCCLIENTFACTORY_H_
#define TIDEWAY_COMM_IPCCLIENTFACTORY_H_

#include <stdint.h>

#include <functional>

#include "ipc/IPCClient.h"

using IPCClientFactory = std::function<IIPCClient*(uint32_t identity, IIPCCallback* callback)>;

#endif  // TIDEWAY_COMM_IPCCLIENTFACTORY_H_
