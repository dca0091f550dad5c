#include "comm/Communicator.h"

#include <errno.h>
#include <string.h>

#include <exception>
#include <new>

#include <boost/chrono.hpp>

#include "comm/ApiNotifications.h"
#include "comm/ChannelPacket.h"
#include "common/VNTrace.h"

namespace {

constexpr int kThreadJoinSeconds = 4;
constexpr uint32_t kMainCycleWaitMs = 1000;

// Joins `thread` within the limit; a thread that is not joinable counts as joined.
bool JoinWithLimit(boost::thread& thread, int seconds) {
    if (!thread.joinable())
        return true;
    return thread.try_join_for(boost::chrono::seconds(seconds));
}

// Puts the new thread into `field`; a previous thread still there is let go.
void Assign(boost::thread& field, boost::thread&& thread) {
    if (field.joinable())
        field.detach();
    field = std::move(thread);
}

thread_local CCommThreadGate* t_pCurrentGate = nullptr;

}  // namespace

// ---------------------------------------------------------------------------------------------
// CCommThreadGate

void CCommThreadGate::ThreadMade() {
    CLockGuard lock(m_Mutex);
    ++m_Running;
}

void CCommThreadGate::ThreadEnded() {
    CLockGuard lock(m_Mutex);
    if (--m_Running == 0)
        m_Idle.NotifyAll();
}

void CCommThreadGate::LeaveForCallback() {
    ThreadEnded();
}

bool CCommThreadGate::ReturnFromCallback() {
    CLockGuard lock(m_Mutex);
    if (m_bClosed)
        return false;
    ++m_Running;
    return true;
}

void CCommThreadGate::Close() {
    CLockGuard lock(m_Mutex);
    m_bClosed = true;
    while (m_Running != 0)
        m_Idle.Wait(m_Mutex);
}

CCommThreadGate* CCommThreadGate::Current() {
    return t_pCurrentGate;
}

void CCommThreadGate::SetCurrent(CCommThreadGate* gate) {
    t_pCurrentGate = gate;
}

// ---------------------------------------------------------------------------------------------
// CCommunicator

CCommunicator::CCommunicator(uint32_t port, uint32_t clientType, uint32_t connectParam)
    : m_bInitialized(false),
      m_ConnectParam(connectParam),
      m_pMainQueue(nullptr),
      m_pSenderData(nullptr),
      m_pReceiverData(nullptr),
      m_EventMainCycle(false),
      m_EventStop(true),
      m_Port(port),
      m_ClientType(clientType),
      m_bConnected(false),
      m_bStop(false),
      m_Callback(this, clientType, 0),
      m_pSecureIPCClientInstance(nullptr),
      m_pSecureIPCServerInstance(nullptr),
      m_pGate(std::make_shared<CCommThreadGate>()) {
    CMutexLock lock(m_PeerSessionsLock);
    m_PeerSessions.max_load_factor(1.0f);
}

CCommunicator::~CCommunicator() {
    // Normally closed by Stop already; a thread still in a host callback finds it closed when
    // the callback returns and touches nothing of this object.
    m_pGate->Close();
    delete m_pSecureIPCServerInstance;
    m_pSecureIPCServerInstance = nullptr;
    delete m_pSecureIPCClientInstance;
    m_pSecureIPCClientInstance = nullptr;
    for (boost::thread* thread : {&m_SenderThread, &m_ReceiverThread, &m_MainThreadHandle}) {
        if (thread->joinable())
            thread->detach();
    }
    FreeThreadData();
    delete m_pMainQueue;
}

COMM_STATUS CCommunicator::Init() {
    try {
        if (m_bInitialized)
            return 0;
        const COMM_STATUS result = CreateChannel();
        if (result != 0) {
            VNTRACE(TL_ERR, "Error : Failed to create communication channel. Code : %d",
                    static_cast<int>(result));
            return result;
        }
        m_bInitialized = true;
        return 0;
    } catch (...) {
        VNTRACE(TL_ERR, "Communicator : Unknown exception occurred");
        return kCommFail;
    }
}

COMM_STATUS CCommunicator::StartMainThread() {
    if (!m_bInitialized) {
        VNTRACE(TL_ERR, "Comm : Failed to start main thread, comm not initialized");
        return kCommFail;
    }
    CMutexLock lock(m_StateLock);
    try {
        StartCountedThread(m_MainThreadHandle, [this] { MainThread(); });
        VNTRACE(TL_OFF, "Comm : Created main communicator thread.");
    } catch (const std::exception& e) {
        VNTRACE(TL_ERR, "Comm : Failed to create main communicator thread. Exception: %s",
                e.what());
        throw;
    } catch (...) {
        VNTRACE(TL_ERR, "Comm : Failed to create main communicator thread. Errno : %d", errno);
        throw;
    }
    return 0;
}

COMM_STATUS CCommunicator::CreateThreadData(uint32_t threadType,
                                            std::shared_ptr<COMM_THREAD_DATA>* out) {
    if ((threadType != kThreadTypeSender && threadType != kThreadTypeReceiver) || out == nullptr) {
        return kCommInvalidArg;
    }
    out->reset();
    COMM_THREAD_DATA* data = new (std::nothrow) COMM_THREAD_DATA;
    if (data == nullptr) {
        VNTRACE(TL_ERR, "Comm : Failed to create thread data object, system out of memory");
        return kCommOutOfMemory;
    }
    data->m_ThreadType = threadType;
    data->m_pQueue = new (std::nothrow)
        CMsgQueue(threadType == kThreadTypeSender ? "VN$COMM$SENDER" : "VN$COMM$RECEIVER");
    if (data->m_pQueue == nullptr) {
        VNTRACE(TL_ERR, "Comm : Failed to create msg queue for thread, system out of memory");
        delete data;
        return kCommOutOfMemory;
    }
    try {
        out->reset(data);
    } catch (const std::bad_alloc&) {  // the shared count could not be allocated; data is freed
        VNTRACE(TL_ERR, "Comm : Failed to create thread data object, system out of memory");
        return kCommOutOfMemory;
    }
    return 0;
}

void CCommunicator::FreeThreadData() {
    std::shared_ptr<COMM_THREAD_DATA> sender, receiver;
    {
        CMutexLock lock(m_QueueLock);
        sender.swap(m_pSenderData);
        receiver.swap(m_pReceiverData);
    }
    // Released here, outside the lock: a record whose thread still runs lives on with it.
}

void CCommunicator::FreeThreadData(const std::shared_ptr<COMM_THREAD_DATA>& sender,
                                   const std::shared_ptr<COMM_THREAD_DATA>& receiver) {
    std::shared_ptr<COMM_THREAD_DATA> oldSender, oldReceiver;
    CMutexLock lock(m_QueueLock);
    if (sender != nullptr && m_pSenderData == sender)
        oldSender.swap(m_pSenderData);
    if (receiver != nullptr && m_pReceiverData == receiver)
        oldReceiver.swap(m_pReceiverData);
}

COMM_STATUS CCommunicator::StartSndRcvThreads() {
    CMutexLock stateLock(m_StateLock);
    std::shared_ptr<COMM_THREAD_DATA> sender, receiver;
    {
        CMutexLock lock(m_QueueLock);
        sender = m_pSenderData;
        receiver = m_pReceiverData;
    }
    if (sender == nullptr) {
        const COMM_STATUS result = CreateThreadData(kThreadTypeSender, &sender);
        if (result != 0) {
            VNTRACE(TL_ERR, "Comm : Failed to create sender thread data, Code : %ld",
                    static_cast<long>(result));
            return result;
        }
        CMutexLock lock(m_QueueLock);
        m_pSenderData = sender;
    }
    if (receiver == nullptr) {
        const COMM_STATUS result = CreateThreadData(kThreadTypeReceiver, &receiver);
        if (result != 0) {
            VNTRACE(TL_ERR, "Comm : Failed to create receiver thread data, Code : %ld",
                    static_cast<long>(result));
            FreeThreadData(sender, nullptr);
            return result;
        }
        CMutexLock lock(m_QueueLock);
        m_pReceiverData = receiver;
    }

    // Each thread starts on an empty queue. Emptied here rather than by the thread, which would
    // race with the relay: it may already have handed over a command.
    sender->m_pQueue->Clear();
    receiver->m_pQueue->Clear();
    StartThreadFor(m_SenderThread, sender, "send");
    StartThreadFor(m_ReceiverThread, receiver, "recv");
    return 0;
}

void CCommunicator::StartCountedThread(boost::thread& field, std::function<void()> body) {
    std::shared_ptr<CCommThreadGate> gate = m_pGate;
    gate->ThreadMade();
    try {
        Assign(field, boost::thread([gate, body] {
                   CCommThreadGate::SetCurrent(gate.get());
                   bool counted = true;
                   try {
                       body();
                   } catch (const CCommunicatorGone&) {
                       counted = false;  // came back from a callback into a closed gate
                   } catch (...) {
                   }
                   CCommThreadGate::SetCurrent(nullptr);
                   if (counted)
                       gate->ThreadEnded();
               }));
    } catch (...) {
        gate->ThreadEnded();
        throw;
    }
}

void CCommunicator::StartThreadFor(boost::thread& field,
                                   const std::shared_ptr<COMM_THREAD_DATA>& data,
                                   const char* which) {
    try {
        // The thread holds its record too: it outlives the communicator's hold if the thread
        // outlives its join limit.
        StartCountedThread(field, [this, data] { ThreadProc(data.get()); });
        VNTRACE(TL_OFF, "Comm : Created %s communicator thread.", which);
    } catch (const std::exception& e) {
        VNTRACE(TL_ERR, "Comm : Failed to create %s communicator thread. Exception: %s", which,
                e.what());
        FreeThreadData();
        throw;
    } catch (...) {
        VNTRACE(TL_ERR, "Comm : Failed to create %s communicator thread. Errno : %d", which, errno);
        FreeThreadData();
        throw;
    }
}

void CCommunicator::StopSndRcvThreads() {
    VNTRACE(TL_TRACE, "Communicator(%d) : Stopping snd/rcv threads", m_ClientType);
    std::shared_ptr<COMM_THREAD_DATA> sender, receiver;
    boost::thread senderThread, receiverThread;
    {
        // The threads take QUIT behind what is already queued: each works its queue up to it.
        // Their handles are taken out here, so that the main thread and the stopping thread,
        // which may both come here, never join the same thread.
        CMutexLock stateLock(m_StateLock);
        {
            CMutexLock lock(m_QueueLock);
            sender = m_pSenderData;
            receiver = m_pReceiverData;
        }
        MSG_QUEUE_MSG quit(COMM_MSG_QUIT, 0, 1, 0);
        for (const auto& data : {sender, receiver}) {
            if (data != nullptr)
                data->m_pQueue->PutMessage(&quit);
        }
        senderThread = std::move(m_SenderThread);
        receiverThread = std::move(m_ReceiverThread);
    }
    VNTRACE(TL_TRACE, "Communicator(%d) : Waiting for snd/rcv threads to stop", m_ClientType);
    if (!WaitForSndRcvThreads(senderThread, receiverThread)) {
        // A thread that may still run keeps its record and queue, and frees them when it ends;
        // the next connection gets fresh ones.
        VNTRACE(TL_ERR, "Communicator(%d) : WaitForSndRcvThreads problem", m_ClientType);
        for (boost::thread* thread : {&senderThread, &receiverThread}) {
            if (thread->joinable())
                thread->detach();
        }
    }
    FreeThreadData(sender, receiver);
    SetConnected(false);
    VNTRACE(TL_TRACE, "Communicator(%d) : snd/rcv threads stopped", m_ClientType);
}

bool CCommunicator::WaitForSndRcvThreads(boost::thread& sender, boost::thread& receiver) {
    const bool senderJoined = JoinWithLimit(sender, kThreadJoinSeconds);
    const bool receiverJoined = JoinWithLimit(receiver, kThreadJoinSeconds);
    return senderJoined && receiverJoined;
}

void CCommunicator::StopMainThread() {
    {
        CMutexLock lock(m_StateLock);
        VNTRACE(TL_IPC, "Communicator(%d) : Stopping main thread", m_ClientType);
        if (m_ClientType == kClientTypeService) {
            m_bStop = true;
        } else {
            MSG_QUEUE_MSG quit(COMM_MSG_QUIT, 0, 1, 0);
            PostToMain(&quit);
        }
    }
    if (m_MainThreadHandle.joinable() &&
        !m_MainThreadHandle.try_join_for(boost::chrono::seconds(kThreadJoinSeconds))) {
        VNTRACE(TL_IPC, "Communicator(%d) : Timeout waiting for Main thread to Stop", m_ClientType);
    } else {
        VNTRACE(TL_IPC, "Communicator(%d) : Main thread Stopped", m_ClientType);
    }
    SetConnected(false);
    if (IApiNotifications* api = LiveApiNotifications())
        CallOut([&] { api->StatusNotificationCB(kStatusConnectionOver); });
}

void CCommunicator::Stop() {
    {
        CMutexLock lock(m_StateLock);
        VNTRACE(TL_IPC, "Communicator : Stopping communicator...");
        m_bStop = true;
        m_EventStop.SetEvent();
    }
    StopMainThread();
    StopSndRcvThreads();
    if (m_pSecureIPCClientInstance != nullptr) {
        VNTRACE(TL_IPC, "Tear down was called for client");
        m_pSecureIPCClientInstance->TearDown();
    }
    if (m_pSecureIPCServerInstance != nullptr) {
        VNTRACE(TL_IPC, "Tear down was called for server");
        m_pSecureIPCServerInstance->TearDown();
    }
    VNTRACE(TL_IPC, "Communicator : Communicator stopped");
    // A thread that outlived its join limit is either back in a wait that ends within moments
    // (waited for here) or held in a host callback, which it leaves without touching this object.
    m_pGate->Close();
}

void CCommunicator::WaitForMainThread(uint32_t seconds) {
    if (seconds == 0)
        seconds = 1;
    for (uint32_t left = seconds; left >= 1; --left) {
        VNTRACE(TL_IPC, "Communicator(%d) : Waiting for main thread, %d seconds go go",
                m_ClientType, left);
        CSyncEvent* events[] = {&m_EventMainCycle};
        if (WaitForObjects(1, events, false, kMainCycleWaitMs) == 0) {
            boost::this_thread::sleep_for(boost::chrono::seconds(1));
            return;
        }
    }
}

boost::unordered_map<uint32_t, uint16_t> CCommunicator::PeerSessions() {
    CMutexLock lock(m_PeerSessionsLock);
    return m_PeerSessions;
}

bool CCommunicator::IsConnected() {
    CMutexLock lock(m_ConnectedLock);
    return m_bConnected;
}

void CCommunicator::SetConnected(bool value) {
    CMutexLock lock(m_ConnectedLock);
    m_bConnected = value;
}

bool CCommunicator::IsStopping() {
    CMutexLock lock(m_StateLock);
    return m_bStop;
}

bool CCommunicator::PostToMain(const MSG_QUEUE_MSG* message) {
    CMutexLock lock(m_QueueLock);
    if (m_pMainQueue == nullptr)
        return false;
    return m_pMainQueue->PutMessage(message);
}

bool CCommunicator::PostToReceiver(const MSG_QUEUE_MSG* message) {
    CMutexLock lock(m_QueueLock);
    if (!m_pReceiverData || message == nullptr)
        return false;
    return m_pReceiverData->m_pQueue->PutMessage(message);
}

std::unique_ptr<uint8_t[]> CCommunicator::BuildPacket(const MSG_QUEUE_MSG* message,
                                                      uint32_t& size) {
    return ::BuildPacket(message, size);
}

COMM_STATUS CCommunicator::SendPacket(const MSG_QUEUE_MSG* message, bool toClient) {
    CWirePacket packet;
    if (!MakeWirePacket(message, packet)) {
        VNTRACE(TL_ERR, "Communicator : Failed to construct packet (%d bytes)",
                packet.m_Buffer.m_Length);
        return kCommSendFailed;
    }
    IPCBuffer& buffer = packet.m_Buffer;
    if (toClient && m_pSecureIPCServerInstance == nullptr) {
        VNTRACE(TL_ERR, "SecureIPC : server instance is not available");
        return kCommSendFailed;
    }
    if (!toClient && m_pSecureIPCClientInstance == nullptr) {
        VNTRACE(TL_ERR, "SecureIPC : client instance is not available");
        return kCommSendFailed;
    }
    if (message->m_MessageId != COMM_MSG_SERVICE_STATS) {
        VNTRACE(TL_IPC, "sending msg to server/client.. msgid %s",
                GetMessageName(message->m_MessageId));
    }
    if (!toClient)
        return m_pSecureIPCClientInstance->SendData(&buffer);
    uint16_t session = 0;
    {
        CMutexLock lock(m_PeerSessionsLock);
        const auto found = m_PeerSessions.find(kIdentityClientApi);
        if (found == m_PeerSessions.end()) {
            lock.Unlock();
            VNTRACE(TL_ERR, "Failed to find session id for Tideway_CLIENT_API");
            return kCommSendFailed;
        }
        session = found->second;
    }
    return m_pSecureIPCServerInstance->SendData(&buffer, session);
}

bool CCommunicator::GetConfigData(uint8_t* buffer, uint32_t& size) {
    const uint32_t length = static_cast<uint32_t>(m_ConfigData.size());
    // Nothing to copy fits any buffer, a null one too; bytes need a buffer to go to.
    const bool fits = length <= size && (buffer != nullptr || length == 0);
    if (fits && length != 0)
        memcpy(buffer, m_ConfigData.data(), length);
    size = length;
    return fits;
}

// ---------------------------------------------------------------------------------------------
// CAPISecureIPCCB

CAPISecureIPCCB::CAPISecureIPCCB(CCommunicator* communicator, uint32_t clientType,
                                 uint32_t dbgLevel)
    : m_pCommunicator(communicator),
      m_DbgLevel(dbgLevel),
      m_bDbgLevelSet(false),
      m_ClientType(clientType) {}

void CAPISecureIPCCB::SetDbgLevel(uint32_t level) {
    m_DbgLevel = level;
    m_bDbgLevelSet = true;
}

void CAPISecureIPCCB::OnPeerStateChanged(uint32_t peer, uint32_t session, uint32_t state) {
    if (peer >= kIdentityClientApi && peer <= kIdentityService) {
        if (m_pCommunicator == nullptr) {
            VNTRACE(TL_ERR, "SecureIPC : Communicator instance is NULL during OnPeerStateChanged");
            return;
        }
        if (state == IPC_PEER_CLOSED) {
            CMutexLock lock(m_pCommunicator->m_PeerSessionsLock);
            m_pCommunicator->m_PeerSessions.erase(peer);
        } else if (state == IPC_PEER_CONNECTED) {
            VNTRACE(TL_TRACE, "SecureIPC : saving the peer session id");
            CMutexLock lock(m_pCommunicator->m_PeerSessionsLock);
            m_pCommunicator->m_PeerSessions[peer] = static_cast<uint16_t>(session & 0xFFFF);
        }
    }

    switch (peer) {
        case kIdentityService:
            if (state == IPC_PEER_CLOSED) {
                if (m_ClientType != kClientTypeApi)
                    return;
                VNTRACE(TL_IPC, "SecureIPC : client received disconnect message");
                if (m_pCommunicator == nullptr) {
                    VNTRACE(TL_ERR, "SecureIPC : communicator instance is NULL");
                    return;
                }
                MSG_QUEUE_MSG message(COMM_MSG_PEER_DC, 0, 1, 0);
                if (!m_pCommunicator->PostToMain(&message)) {
                    VNTRACE(TL_ERR, "SecureIPC : Failed to write COMM_MSG_PEER_DC");
                }
            } else if (state == IPC_PEER_CONNECTED) {
                VNTRACE(TL_IPC, "SecureIPC : received connection from service");
                if (m_ClientType == kClientTypeDebugLevel && m_bDbgLevelSet) {
                    if (m_pCommunicator == nullptr) {
                        VNTRACE(TL_ERR, "SecureIPC : communicator instance is NULL");
                        return;
                    }
                    VNTRACE(TL_IPC, "SecureIPC : send DbgLevel settings");
                    MSG_QUEUE_MSG message(COMM_MSG_CLIENT_TYPE_CMD_CHANGE_DBGLEVEL, 0, 1, 0);
                    if (message.SetData(&m_DbgLevel, sizeof(m_DbgLevel)) != 0) {
                        VNTRACE(TL_ERR, "SecureIPC : Failed to set dbglevel data");
                    } else if (m_pCommunicator->SendPacket(&message, false) != 0) {
                        VNTRACE(TL_ERR, "SecureIPC : Failed to send DbgLevel");
                    }
                } else if (m_ClientType == kClientTypeEnableService ||
                           m_ClientType == kClientTypeDisableService) {
                    if (m_pCommunicator == nullptr) {
                        VNTRACE(TL_ERR, "SecureIPC : communicator instance is NULL");
                        return;
                    }
                    const bool enable = m_ClientType == kClientTypeEnableService;
                    VNTRACE(TL_IPC, "SecureIPC : send Disable svc message to peer");
                    MSG_QUEUE_MSG message(enable ? COMM_MSG_CLIENT_TYPE_CMD_ENABLE_SVC
                                                 : COMM_MSG_CLIENT_TYPE_CMD_DISABLE_SVC,
                                          0, 1, 0);
                    if (m_pCommunicator->SendPacket(&message, false) != 0) {
                        if (enable) {
                            VNTRACE(TL_ERR, "SecureIPC : Failed to send enable service message");
                        } else {
                            VNTRACE(TL_ERR, "SecureIPC : Failed to send disable service message");
                        }
                    }
                }
                // The API client waits: the agent speaks first, with COMM_MSG_SRVC_STARTED.
            }
            break;
        case kIdentityClientCommand:
            if (state == IPC_PEER_CONNECTED) {
                VNTRACE(TL_IPC,
                        "SecureIPC : service received connection from eSIPC_ID_Tideway_CLIENT_CMD");
            } else if (state == IPC_PEER_CLOSED) {
                VNTRACE(TL_IPC,
                        "SecureIPC : service received connection close from "
                        "eSIPC_ID_Tideway_CLIENT_CMD");
            }
            break;
        case kIdentityClientApi:
            if (state != IPC_PEER_CONNECTED)
                break;
            if (m_pCommunicator == nullptr) {
                VNTRACE(TL_ERR, "SecureIPC : Communicator instance is NULL");
                break;
            }
            VNTRACE(TL_IPC, "SecureIPC : service received connection from Tideway UI deamon");
            {
                MSG_QUEUE_MSG message(COMM_MSG_DMN_CONNECT, 0, 1, 0);
                if (!m_pCommunicator->PostToMain(&message)) {
                    VNTRACE(TL_ERR, "SecureIPC : Failed to write COMM_MSG_DMN_CONNECT");
                }
            }
            break;
        default:
            VNTRACE(TL_ERR, "SecureIPC : Unknown peer id connected. So do nothing");
            break;
    }
}

void CAPISecureIPCCB::OnReqMsgRecv(IPCBuffer* buffer) {
    if (buffer == nullptr)
        return;
    MSG_QUEUE_MSG message(COMM_MSG_NONE, 0, 1, 0);
    if (!ParsePacket(buffer->m_pData, buffer->m_Length, message))
        return;
    if (m_pCommunicator == nullptr) {
        VNTRACE(TL_ERR, "SecureIPC : Communicator instance is NULL");
        return;
    }
    const uint32_t id = message.m_MessageId;
    bool written;
    if (id == COMM_MSG_CLIENT_TYPE_CMD_ENABLE_SVC || id == COMM_MSG_CLIENT_TYPE_CMD_DISABLE_SVC ||
        id == COMM_MSG_CLIENT_TYPE_CMD_CHANGE_DBGLEVEL) {
        written = m_pCommunicator->PostToMain(&message);
    } else {
        written = m_pCommunicator->PostToReceiver(&message);
    }
    if (buffer->m_Kind == kIPCBufferKindRequest && id != COMM_MSG_SERVICE_STATS) {
        VNTRACE(TL_IPC, "OnReqMsgRecv received.. msgid %s", GetMessageName(id));
    }
    if (!written) {
        VNTRACE(TL_ERR, "SecureIPC : Failed to write to reciever thread queue from CB");
    }
}

void CAPISecureIPCCB::OnRespMsgRecv(IPCBuffer* /*buffer*/) {}
