// CCommunicator: the engine that owns the channel to the peer and the threads serving it: one
// main thread that connects and reconnects, and per connection one sender and one receiver.
// The side-specific parts are the pure virtual operations; this module's side is
// CClientSideCommunicator. CAPISecureIPCCB is the IPC library's callback, a member of the
// communicator for its whole life.
//
// Threads: the owner's thread (Init, StartMainThread, Stop, destruction), the main thread,
// sender, receiver, and the IPC library's threads (the callback: parse and queue only).
// Locks, outermost first: m_StateLock (start/stop of threads, m_bStop), m_ConnectedLock
// (m_bConnected), m_QueueLock (the queue pointers that the IPC threads post to), then a queue's
// own lock; m_PeerSessionsLock is a leaf. None is held across a join, a queue wait or a
// callback into the API, and none is re-entered, so all are plain mutexes. Clang's
// thread-safety analysis checks the GUARDED_BY and REQUIRES contracts below.
#ifndef TIDEWAY_COMM_COMMUNICATOR_H_
#define TIDEWAY_COMM_COMMUNICATOR_H_

#include <stdint.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include <boost/thread/thread.hpp>
#include <boost/unordered_map.hpp>

#include "comm/IPCClientFactory.h"
#include "comm/MsgQueue.h"
#include "comm/MsgQueueMsg.h"
#include "comm/SyncEvent.h"
#include "common/Mutex.h"
#include "ipc/IPCClient.h"
#include "ipc/IPCServer.h"

class CCommunicator;

// Statuses of the communicator: 0, or the system's 32-bit result patterns held as positive
// 64-bit numbers, or small negative codes.
typedef int64_t COMM_STATUS;

// IPC identities of the three kinds of peer, under the protocol's names and as constants.
enum IPC_IDENTITY : uint32_t {
    Tideway_CLIENT_API = 6,           // this module
    eSIPC_ID_Tideway_CLIENT_CMD = 7,  // command clients
    eSIPC_ID_Tideway_SERVICE = 8,     // the agent
};
constexpr uint32_t kIdentityClientApi = Tideway_CLIENT_API;
constexpr uint32_t kIdentityClientCommand = eSIPC_ID_Tideway_CLIENT_CMD;
constexpr uint32_t kIdentityService = eSIPC_ID_Tideway_SERVICE;

// Client types of the communicator (m_ClientType).
constexpr uint32_t kClientTypeService = 1;
constexpr uint32_t kClientTypeApi = 2;
constexpr uint32_t kClientTypeDisableService = 4;
constexpr uint32_t kClientTypeEnableService = 5;
constexpr uint32_t kClientTypeDebugLevel = 6;

// Thread types of COMM_THREAD_DATA.
constexpr uint32_t kThreadTypeSender = 1;
constexpr uint32_t kThreadTypeReceiver = 2;

// The data of a sender or receiver thread: its type and its queue, which it owns. Shared by
// the communicator and the thread: a thread that outlives its join limit (held in a host
// callback) keeps its record, and frees it when it ends, while the communicator lets go of it
// and gives the next connection fresh records.
struct COMM_THREAD_DATA {
    uint32_t m_ThreadType = 0;
    CMsgQueue* m_pQueue = nullptr;
    ~COMM_THREAD_DATA() { delete m_pQueue; }
};

// Thrown on one of a communicator's threads when a host callback returns after the communicator
// has been stopped for good: the thread unwinds and ends without touching it again.
struct CCommunicatorGone {};

// What a communicator's threads share with it beyond its life: how many of them are running the
// communicator's code (rather than waiting in a host callback), and whether it has been closed.
// Close waits until none is: a thread held in a callback is left there and, when the callback
// returns, learns that the communicator is gone. The communicator's threads only leave its code
// for bounded waits and host callbacks, so Close waits a bounded time.
class CCommThreadGate {
  public:
    // A thread is made that will run communicator code: counted by its maker before it starts.
    void ThreadMade();
    // The thread ends, or was never started.
    void ThreadEnded();
    // The calling thread (one of the communicator's, or any other, which is not counted) goes out
    // to a host callback, and comes back: false when the communicator was closed meanwhile.
    void LeaveForCallback();
    bool ReturnFromCallback();
    // From now on no thread runs the communicator's code; waits for those that do.
    void Close();

    // The gate of the communicator whose thread is calling, or null on any other thread.
    static CCommThreadGate* Current();
    static void SetCurrent(CCommThreadGate* gate);

  private:
    CMutex m_Mutex;
    CCondition m_Idle;
    int m_Running GUARDED_BY(m_Mutex) = 0;
    bool m_bClosed GUARDED_BY(m_Mutex) = false;
};

// Calls `call` (a host callback through g_pVantoriaApi) as a way out of the communicator: on one
// of its threads, throws CCommunicatorGone when the communicator was closed while it ran.
template <typename Call>
void CallOut(Call call) {
    CCommThreadGate* gate = CCommThreadGate::Current();
    if (gate == nullptr) {
        call();
        return;
    }
    gate->LeaveForCallback();
    try {
        call();
    } catch (...) {
        if (!gate->ReturnFromCallback())
            throw CCommunicatorGone();
        throw;
    }
    if (!gate->ReturnFromCallback())
        throw CCommunicatorGone();
}

// The IPC library's callback. Runs on the library's threads: it only parses and queues.
class CAPISecureIPCCB : public IIPCCallback {
  public:
    CAPISecureIPCCB(CCommunicator* communicator, uint32_t clientType, uint32_t dbgLevel);
    void OnPeerStateChanged(uint32_t peer, uint32_t session, uint32_t state) override;
    void OnReqMsgRecv(IPCBuffer* buffer) override;
    void OnRespMsgRecv(IPCBuffer* buffer) override;
    void SetDbgLevel(uint32_t level);

  private:
    CCommunicator* m_pCommunicator;  // the owner, never owned
    uint32_t m_DbgLevel;
    bool m_bDbgLevelSet;
    uint32_t m_ClientType;
};

class CCommunicator {
  public:
    CCommunicator(uint32_t port, uint32_t clientType, uint32_t connectParam);
    virtual ~CCommunicator();
    CCommunicator(const CCommunicator&) = delete;
    CCommunicator& operator=(const CCommunicator&) = delete;

    // The stop sequence: main thread, then sender and receiver, then the IPC objects.
    virtual void Stop();
    virtual uint32_t MainThread() = 0;
    virtual uint32_t ThreadProc(COMM_THREAD_DATA* data) = 0;
    virtual COMM_STATUS ProcessMessages() = 0;
    virtual COMM_STATUS CreateChannel() = 0;
    virtual COMM_STATUS Connect() = 0;

    COMM_STATUS Init();
    COMM_STATUS StartMainThread();
    COMM_STATUS StartSndRcvThreads();
    void StopSndRcvThreads();
    // Joins each thread within its limit, sender first; a thread that is not joinable counts as
    // joined. True when both joined.
    static bool WaitForSndRcvThreads(boost::thread& sender, boost::thread& receiver);
    void StopMainThread();
    void WaitForMainThread(uint32_t seconds);

    bool IsConnected();
    void SetConnected(bool value);
    bool IsStopping();

    bool PostToMain(const MSG_QUEUE_MSG* message) EXCLUDES(m_QueueLock);
    bool PostToReceiver(const MSG_QUEUE_MSG* message) EXCLUDES(m_QueueLock);
    COMM_STATUS SendPacket(const MSG_QUEUE_MSG* message, bool toClient);
    bool GetConfigData(uint8_t* buffer, uint32_t& size);

    // The packet of a message: the 24-byte header and the data; null on failure.
    static std::unique_ptr<uint8_t[]> BuildPacket(const MSG_QUEUE_MSG* message, uint32_t& size);

    // A copy of the peer sessions, for tests.
    boost::unordered_map<uint32_t, uint16_t> PeerSessions() EXCLUDES(m_PeerSessionsLock);

  protected:
    friend class CAPISecureIPCCB;

    // The main queue of the running connection attempt, or null.
    CMsgQueue* MainQueue() EXCLUDES(m_QueueLock) {
        CMutexLock lock(m_QueueLock);
        return m_pMainQueue;
    }

    // Makes a thread's data record with its queue; kCommInvalidArg, kCommOutOfMemory or 0.
    COMM_STATUS CreateThreadData(uint32_t threadType, std::shared_ptr<COMM_THREAD_DATA>* out);
    // Lets go of the records in the two fields (all of them, or those equal to the given ones).
    void FreeThreadData() EXCLUDES(m_QueueLock);
    void FreeThreadData(const std::shared_ptr<COMM_THREAD_DATA>& sender,
                        const std::shared_ptr<COMM_THREAD_DATA>& receiver) EXCLUDES(m_QueueLock);
    // Runs `body` on a new thread counted by m_pGate and moves it into `field`.
    void StartCountedThread(boost::thread& field, std::function<void()> body) REQUIRES(m_StateLock);
    // Runs ThreadProc(data) on a new thread kept in `field` ("send" or "recv" in the messages).
    // A failure frees both thread data records and rethrows.
    void StartThreadFor(boost::thread& field, const std::shared_ptr<COMM_THREAD_DATA>& data,
                        const char* which) REQUIRES(m_StateLock);

    // Peers and their sessions: written by the IPC callback, read by the server branch of
    // SendPacket.
    CMutex m_PeerSessionsLock;
    boost::unordered_map<uint32_t, uint16_t> m_PeerSessions GUARDED_BY(m_PeerSessionsLock);
    bool m_bInitialized;
    uint32_t m_ConnectParam;
    // Exists only while a connection attempt runs; replaced only by the main thread, which may
    // read it without the lock.
    CMsgQueue* m_pMainQueue GUARDED_BY(m_QueueLock);
    boost::thread m_SenderThread GUARDED_BY(m_StateLock);
    boost::thread m_ReceiverThread GUARDED_BY(m_StateLock);
    // Shared with their threads (see COMM_THREAD_DATA); written under m_QueueLock.
    std::shared_ptr<COMM_THREAD_DATA> m_pSenderData GUARDED_BY(m_QueueLock);
    std::shared_ptr<COMM_THREAD_DATA> m_pReceiverData GUARDED_BY(m_QueueLock);
    boost::thread m_MainThreadHandle;
    CSyncEvent m_EventMainCycle;  // manual reset: end of each pass of the main thread
    CSyncEvent m_EventStop;       // auto reset: set by Stop, ends the pause between attempts
    uint32_t m_Port;
    uint32_t m_ClientType;
    CMutex m_StateLock;
    CMutex m_ConnectedLock;
    bool m_bConnected GUARDED_BY(m_ConnectedLock);
    bool m_bStop GUARDED_BY(m_StateLock);
    std::vector<uint8_t> m_ConfigData;
    CAPISecureIPCCB m_Callback;
    IIPCClient* m_pSecureIPCClientInstance;
    IIPCServer* m_pSecureIPCServerInstance;
    // Guards the queue pointers against the IPC threads' posts while a connection's queues are
    // made and freed. A leaf below m_StateLock.
    CMutex m_QueueLock ACQUIRED_AFTER(m_StateLock);
    // Shared with every thread this communicator starts; closed at the end of Stop.
    std::shared_ptr<CCommThreadGate> m_pGate;
};

#endif  // TIDEWAY_COMM_COMMUNICATOR_H_
