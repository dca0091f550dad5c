// CClientSideCommunicator: the communicator of this module (client type 2). Its main thread
// keeps a connection to the agent alive for ever, one pass per connection with a 2-second pause
// after each; its sender writes commands to the channel; its receiver turns the agent's messages
// into calls on the API's notification entries (through g_pVantoriaApi, tested for null).
//
// Made and destroyed by CVantoriaApi on the host's thread; the destructor runs the stop
// sequence. m_bServiceStopped is shared by sender and receiver without a lock (atomic).
#ifndef TIDEWAY_COMM_CLIENTSIDECOMMUNICATOR_H_
#define TIDEWAY_COMM_CLIENTSIDECOMMUNICATOR_H_

#include <stdint.h>

#include <atomic>
#include <functional>
#include <memory>

#include "comm/Communicator.h"

class CClientSideCommunicator : public CCommunicator {
  public:
    // `factory` makes the IPC client object; an empty one means the IPC library's own.
    CClientSideCommunicator(uint32_t port, uint32_t clientType, uint32_t connectParam,
                            uint32_t dbgLevel, IPCClientFactory factory = nullptr);
    ~CClientSideCommunicator() override;

    void Stop() override;
    uint32_t MainThread() override;
    uint32_t ThreadProc(COMM_THREAD_DATA* data) override;
    COMM_STATUS ProcessMessages() override;
    COMM_STATUS CreateChannel() override;
    COMM_STATUS Connect() override;

  private:
    // One message of the main queue: PEER_DC and QUIT end the relay (true), anything else goes
    // to the sender's queue.
    bool Relay(const MSG_QUEUE_MSG& message);
    // The two thread bodies: each reads its queue until QUIT or the communicator's stop (the
    // sender, at a stop, first sends what was queued before it).
    void SenderLoop(CMsgQueue* queue);
    void ReceiverLoop(CMsgQueue* queue);
    // The next message of `queue` that passes the filter (all but three ids while the service
    // is stopped; only the protocol's range otherwise), or null after a 200 ms read.
    std::unique_ptr<MSG_QUEUE_MSG> NextMessage(CMsgQueue* queue);
    // The table both threads share: acts on one message read by the sender or the receiver;
    // true ends the thread's loop.
    bool Dispatch(bool sender, const MSG_QUEUE_MSG& message);
    // The receiver's handling of a state byte and of an info text.
    void HandleStateByte(int8_t state);
    void HandleInfoMessage(const MSG_QUEUE_MSG& message);

    bool m_bSenderStarted;
    bool m_bReceiverStarted;
    uint32_t m_DbgLevel;
    std::atomic<bool> m_bServiceStopped;
    CSyncEvent m_EventRcvThreadStarted;  // auto reset
    // Steady-clock ticks at the start of the first Stop; 0 before. Written before the stop flag
    // is set under m_StateLock, so a thread that has seen the flag reads the time.
    std::atomic<int64_t> m_StopStarted{0};
    IPCClientFactory m_Factory;
};

#endif  // TIDEWAY_COMM_CLIENTSIDECOMMUNICATOR_H_
