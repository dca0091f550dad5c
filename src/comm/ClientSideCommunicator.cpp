#include "comm/ClientSideCommunicator.h"

#include <stdlib.h>
#include <string.h>

#include <chrono>
#include <memory>
#include <new>
#include <string>

#include "comm/ApiNotifications.h"
#include "common/VNTrace.h"

namespace {

constexpr uint32_t kQueueReadMs = 200;
constexpr uint32_t kReceiverStartMs = 2000;
constexpr uint32_t kReconnectPauseMs = 2000;
// How long after the start of a stop the sender may begin sending what was queued before it.
constexpr std::chrono::milliseconds kStopHandOverLimit(500);

// The live API, read afresh at each notification: DisposePlugin clears it before the API goes.
IApiNotifications* LiveApi() {
    return LiveApiNotifications();
}

void Notify(uint32_t status) {
    if (IApiNotifications* api = LiveApi())
        CallOut([&] { api->StatusNotificationCB(status); });
}

// A record of the agent's for one notification entry: with no live API nothing happens, and a
// record of length 0 calls nothing; `before` runs just before the call (a log line).
using DataEntry = bool (IApiNotifications::*)(const uint8_t*, uint32_t);
void NotifyData(DataEntry entry, const uint8_t* data, uint32_t length,
                const char* before = nullptr) {
    IApiNotifications* api = LiveApi();
    if (api == nullptr || length == 0)
        return;
    if (before != nullptr)
        VNTRACE(TL_IPC, "%s", before);
    CallOut([&] { (api->*entry)(data, length); });
}

// A result byte: length 0 has no effect at all.
void NotifyResult(const MSG_QUEUE_MSG& message, uint32_t success, uint32_t failure,
                  const char* failureText) {
    if (message.m_DataLength == 0 || message.m_pData == nullptr)
        return;
    IApiNotifications* api = LiveApi();
    if (api == nullptr)
        return;
    if (message.m_pData[0] != 0) {
        CallOut([&] { api->StatusNotificationCB(success); });
    } else {
        api->SetLastError(failureText);
        CallOut([&] { api->StatusNotificationCB(failure); });
    }
}

bool IsSenderMessage(uint32_t id) {
    switch (id) {
        case COMM_MSG_START_SERVICE:
        case COMM_MSG_STOP_SERVICE:
        case COMM_MSG_DISCONNECT:
        case COMM_MSG_CONFIG_DATA:
        case COMM_MSG_TOWERS_REQUEST_INFO:
        case COMM_MSG_CHANGE_ACTIVE_TOWER:
        case COMM_MSG_DCT_SETTINGS_REQUEST:
        case COMM_MSG_DCT_SETTINGS_UPDATE:
        case COMM_MSG_PROXY_CRED_RESPONSE:
        case COMM_MSG_PROXY_STATE_QUERY:
        case COMM_MSG_PROXY_CANCEL_REQUEST:
        case COMM_MSG_SERVICE_STATS_START:
        case COMM_MSG_SERVICE_STATS_STOP:
            return true;
        default:
            return false;
    }
}

}  // namespace

CClientSideCommunicator::CClientSideCommunicator(uint32_t port, uint32_t clientType,
                                                 uint32_t connectParam, uint32_t dbgLevel,
                                                 IPCClientFactory factory)
    : CCommunicator(port, clientType, connectParam),
      m_bSenderStarted(false),
      m_bReceiverStarted(false),
      m_DbgLevel(dbgLevel),
      m_bServiceStopped(false),
      m_EventRcvThreadStarted(true),
      m_Factory(std::move(factory)) {}

CClientSideCommunicator::~CClientSideCommunicator() {
    Stop();
    m_bInitialized = false;
}

void CClientSideCommunicator::Stop() {
    // The first stop's start bounds how long the sender may still send (see SenderLoop).
    int64_t unset = 0;
    m_StopStarted.compare_exchange_strong(
        unset, std::chrono::steady_clock::now().time_since_epoch().count());
    CCommunicator::Stop();
}

COMM_STATUS CClientSideCommunicator::CreateChannel() {
    uint32_t identity;
    switch (m_ClientType) {
        case kClientTypeApi:
            identity = kIdentityClientApi;
            break;
        case kClientTypeDebugLevel:
            m_Callback.SetDbgLevel(m_DbgLevel);
            identity = kIdentityClientCommand;
            break;
        case kClientTypeDisableService:
        case kClientTypeEnableService:
            identity = kIdentityClientCommand;
            break;
        default:
            VNTRACE(TL_ERR, "ClientComm - Invalid client type (%d)", m_ClientType);
            return kCommNoConnection;
    }
    IIPCClient* client;
    if (m_Factory) {
        client = m_Factory(identity, &m_Callback);
    } else {
        BR_STATUSCODE status = 0;  // not looked at: a null object says enough
        client = CIPCFactory::CreateIPCClient(identity, &m_Callback, status, 0);
    }
    delete m_pSecureIPCClientInstance;
    m_pSecureIPCClientInstance = client;
    if (client == nullptr) {
        VNTRACE(TL_ERR, "SecureIPC : Failed to create client object");
        return kCommNoConnection;
    }
    VNTRACE(TL_IPC, "SecureIPC : client object created successfully");
    return 0;
}

uint32_t CClientSideCommunicator::MainThread() {
    COMM_STATUS result = 0;
    try {
        while (!IsStopping()) {
            result = Connect();
            if (result != 0) {
                CSyncEvent* events[] = {&m_EventStop};
                WaitForObjects(1, events, false, kReconnectPauseMs);
            }
            SetConnected(false);
            Notify(kStatusConnectionOver);
            m_EventMainCycle.SetEvent();
        }
    } catch (const CCommunicatorGone&) {
        throw;  // back from status 8 after the stop: nothing of this object may be touched
    } catch (...) {
        VNTRACE(TL_ERR, "ClientComm: MainThread exception");
    }
    return static_cast<uint32_t>(result);
}

COMM_STATUS CClientSideCommunicator::Connect() {
    CMutexLock lock(m_StateLock);
    if (m_ClientType < kClientTypeApi || m_ClientType > kClientTypeDebugLevel) {
        VNTRACE(TL_ERR, "ClientComm - Invalid client type (%d)", m_ClientType);
        return kCommFail;
    }
    if (m_pSecureIPCClientInstance == nullptr) {
        VNTRACE(TL_ERR, "ClientComm - m_pSecureIPCClientInstance not available");
        return kCommNoConnection;
    }
    if (m_ClientType != kClientTypeApi) {
        if (m_pSecureIPCClientInstance->ConnectAsync(kIdentityService, 0, m_ConnectParam,
                                                     static_cast<uint16_t>(m_Port)) != 0) {
            VNTRACE(TL_ERR, "SecureIPC : ConnectAsync failed");
            return kCommNoConnection;
        }
        VNTRACE(TL_TRACE, "SecureIPC : ConnectAsync was done successfully");
        return 0;
    }
    CMsgQueue* queue = MainQueue();
    if (queue == nullptr) {
        queue = new (std::nothrow) CMsgQueue("VN$COMMUNICATOR");
        if (queue == nullptr) {
            VNTRACE(TL_ERR,
                    "ClientComm : Failed to create main thread's message queue, System Out Of "
                    "Memory!!!");
            return kCommOutOfMemory;
        }
        CMutexLock queueLock(m_QueueLock);
        m_pMainQueue = queue;
    }
    queue->Clear();
    lock.Unlock();
    ProcessMessages();
    {
        CMutexLock queueLock(m_QueueLock);
        m_pMainQueue = nullptr;
    }
    delete queue;
    return kCommNoConnection;
}

COMM_STATUS CClientSideCommunicator::ProcessMessages() {
    try {
        if (m_pSecureIPCClientInstance == nullptr) {
            VNTRACE(TL_ERR, "ClientComm : m_pSecureIPCClientInstance is not available");
            return kCommNoConnection;
        }
        const COMM_STATUS started = StartSndRcvThreads();
        if (started != 0) {
            VNTRACE(TL_WARN, "ClientComm : Failed to start snd/rcv threads. Code : %d",
                    static_cast<int>(started));
            return started;
        }
        CSyncEvent* events[] = {&m_EventRcvThreadStarted};
        const uint32_t waited = WaitForObjects(1, events, false, kReceiverStartMs);
        if (waited != 0) {
            if (waited == kWaitTimeout) {
                VNTRACE(TL_TRACE, "ClientComm : m_EventRcvThreadStarted time out event happened");
            } else {
                VNTRACE(TL_TRACE,
                        "ClientComm : WaitForSingleObject m_EventRcvThreadStarted event error");
            }
            m_EventRcvThreadStarted.ResetEvent();
            StopSndRcvThreads();
            return kCommNoConnection;
        }
        VNTRACE(TL_TRACE, "ClientComm : m_EventRcvThreadStarted notified");
        m_EventRcvThreadStarted.ResetEvent();

        if (m_pSecureIPCClientInstance->ConnectAsync(kIdentityService, 0, m_ConnectParam,
                                                     static_cast<uint16_t>(m_Port)) != 0) {
            VNTRACE(TL_ERR, "SecureIPC : setupasync failed");
            StopSndRcvThreads();
            return kCommNoConnection;
        }
        VNTRACE(TL_TRACE, "SecureIPC : setupasync was done successfully");

        CMsgQueue* mainQueue = MainQueue();  // stays until this pass of Connect ends
        bool left = mainQueue == nullptr;
        while (!left && !IsStopping()) {
            if (std::unique_ptr<MSG_QUEUE_MSG> message = mainQueue->GetMessage(true, kQueueReadMs))
                left = Relay(*message);
        }
        // A host that stops right after its last commands (statistics off, Disconnect) has them
        // in this queue when the stop flag is seen: they still go to the sender, ahead of the
        // QUIT below, so that the agent hears them before the channel is torn down.
        while (!left) {
            std::unique_ptr<MSG_QUEUE_MSG> message = mainQueue->GetMessage(false, 0);
            left = message == nullptr || Relay(*message);
        }
        StopSndRcvThreads();
        return 0;
    } catch (...) {
        VNTRACE(TL_ERR, "ClientComm: ProcessMessages exception");
        return 0;
    }
}

bool CClientSideCommunicator::Relay(const MSG_QUEUE_MSG& message) {
    VNTRACE(TL_TRACE, "ClientComm : msgid %s", GetMessageName(message.m_MessageId));
    if (message.m_MessageId == COMM_MSG_PEER_DC) {
        VNTRACE(TL_TRACE, "ClientComm : peer disconnected, stopping snd/rcv threads");
        return true;
    }
    if (message.m_MessageId == COMM_MSG_QUIT) {
        VNTRACE(TL_TRACE, "ClientComm : Received quit message (2)");
        return true;
    }
    CMutexLock queueLock(m_QueueLock);
    if (m_pSenderData != nullptr)
        m_pSenderData->m_pQueue->PutMessage(&message);
    return false;
}

uint32_t CClientSideCommunicator::ThreadProc(COMM_THREAD_DATA* data) {
    const bool sender = data->m_ThreadType == kThreadTypeSender;
    bool gone = false;
    try {
        // The queue was emptied by StartSndRcvThreads before this thread began: clearing it
        // here would race with the relay, which may already have handed over a command.
        if (sender) {
            SenderLoop(data->m_pQueue);
        } else {
            ReceiverLoop(data->m_pQueue);
        }
    } catch (const CCommunicatorGone&) {
        gone = true;
    } catch (...) {
        VNTRACE(TL_ERR, "ClientComm : Unknown exception occurred");
    }
    if (sender) {
        VNTRACE(TL_IPC, "ClientComm : Sender thread exits");
    } else {
        VNTRACE(TL_IPC, "ClientComm : Receiver thread exits");
    }
    if (gone)
        throw CCommunicatorGone();
    return 0;
}

void CClientSideCommunicator::SenderLoop(CMsgQueue* queue) {
    VNTRACE(TL_IPC, "ClientComm : Sender thread started");
    m_bSenderStarted = true;
    // Everything queued before the QUIT of a disconnect is worked off. At the stop of the whole
    // communicator the relay hands over what the host queued before it and then the QUIT: those
    // commands are still sent, but none is begun later than kStopHandOverLimit after the stop
    // began. A send may block for the channel's send time-out (3 s), so the thread still ends
    // inside its 4-second join limit; a sender that was blocked when the stop came finds the time
    // over and leaves at once. A failed send ends the loop as always.
    const auto maySend = [this] {
        if (!IsStopping())
            return true;
        // Read after the flag: the start was written before it was set.
        const std::chrono::steady_clock::duration stopStarted(m_StopStarted.load());
        return std::chrono::steady_clock::now() <
               std::chrono::steady_clock::time_point(stopStarted) + kStopHandOverLimit;
    };
    bool quit = false;
    while (!quit && maySend()) {
        if (std::unique_ptr<MSG_QUEUE_MSG> message = NextMessage(queue))
            quit = Dispatch(true, *message);
    }
}

void CClientSideCommunicator::ReceiverLoop(CMsgQueue* queue) {
    VNTRACE(TL_IPC, "ClientComm : Receiver thread started");
    m_bReceiverStarted = true;
    m_EventRcvThreadStarted.SetEvent();
    bool quit = false;
    while (!quit && !IsStopping()) {
        if (std::unique_ptr<MSG_QUEUE_MSG> message = NextMessage(queue))
            quit = Dispatch(false, *message);
    }
}

std::unique_ptr<MSG_QUEUE_MSG> CClientSideCommunicator::NextMessage(CMsgQueue* queue) {
    std::unique_ptr<MSG_QUEUE_MSG> message = queue->GetMessage(true, kQueueReadMs);
    if (!message || message->m_MessageId == COMM_MSG_NONE)
        return nullptr;
    const uint32_t id = message->m_MessageId;
    if (m_bServiceStopped) {
        // Until the agent says its service runs, only these three are looked at.
        if (id != COMM_MSG_SRVC_STARTED && id != COMM_MSG_DISCONNECT && id != COMM_MSG_QUIT)
            return nullptr;
    } else if (id < COMM_MSG_START_SERVICE || id > COMM_MSG_INFO_MESSAGE) {
        return nullptr;
    }
    return message;
}

bool CClientSideCommunicator::Dispatch(bool sender, const MSG_QUEUE_MSG& message) {
    const uint32_t id = message.m_MessageId;
    if (IsSenderMessage(id)) {
        if (!sender)
            return false;
        VNTRACE(TL_IPC, "ClientComm sending... msgid %s", GetMessageName(id));
        if (SendPacket(&message, false) == 0)
            return false;
        VNTRACE(TL_ERR, "ClientComm : Failed to send msg (%s) to server, server not accessible.",
                GetMessageName(id));
        // A failed send ends like a lost agent: the main thread stops both threads and the
        // reconnect cycle takes over.
        MSG_QUEUE_MSG disconnected(COMM_MSG_PEER_DC, 0, 1, 0);
        PostToMain(&disconnected);
        return true;
    }

    // Every notification row is skipped whole while there is no live API; the log lines that
    // name the message come first and stay.
    const uint32_t length = message.m_pData != nullptr ? message.m_DataLength : 0;
    const uint8_t* data = message.m_pData;
    switch (id) {
        case COMM_MSG_SRVC_STARTED:
            if (LiveApi() == nullptr)
                break;
            SetConnected(true);
            VNTRACE(TL_IPC, "ClientComm : Fully Connected to server");
            m_bServiceStopped = false;
            Notify(kStatusConnected);
            break;
        case COMM_MSG_SRVC_START_FAILED:
        case COMM_MSG_SRVC_STOPPED:
            if (LiveApi() == nullptr)
                break;
            m_bServiceStopped = true;
            Notify(kStatusServiceStopped);
            break;
        case COMM_MSG_QUIT:
            if (sender) {
                VNTRACE(TL_IPC, "ClientComm : sender thread received quit message.");
            } else {
                VNTRACE(TL_IPC, "ClientComm : receiver thread received quit message.");
            }
            return true;
        case COMM_MSG_ICON_APLUS_STATE:
            // A state message without its byte has nothing to decode: reading it would read past
            // the data (or a null pointer).
            if (length != 0 && LiveApi() != nullptr)
                HandleStateByte(static_cast<int8_t>(data[0]));
            break;
        case COMM_MSG_TOWERS_RESPONSE_INFO:
            NotifyData(&IApiNotifications::TowerListNotificationCB, data, length);
            break;
        case COMM_MSG_CHANGE_ACTIVE_TOWER_STATUS:
            NotifyResult(message, kStatusTowerChanged, kStatusTowerChangeFailed,
                         "Tower change failed");
            break;
        case COMM_MSG_DCT_SETTINGS_RESPONSE:
            NotifyData(&IApiNotifications::DCTSettingNotificationCB, data, length);
            break;
        case COMM_MSG_DCT_SETTINGS_UPDATED:
            NotifyResult(message, kStatusDctChanged, kStatusDctFailed,
                         "Detect Closest Tower change failed");
            break;
        case COMM_MSG_DCT_TOWER_ACTIVATED:
            VNTRACE(TL_IPC, "ClientComm: COMM_MSG_DCT_TOWER_ACTIVATED");
            NotifyData(&IApiNotifications::DCTActiveTowerNotificationCB, data, length,
                       "ClientComm: calling DCTActiveTowerNotificationCB");
            break;
        case COMM_MSG_PROXY_CRED_REQUEST:
            VNTRACE(TL_IPC, "ClientComm: COMM_MSG_PROXY_CRED_REQUEST");
            NotifyData(&IApiNotifications::ProxyCredReqCB, data, length);
            break;
        case COMM_MSG_SERVICE_STATS_START_RESULT:
            VNTRACE(TL_IPC, "ClientComm : COMM_MSG_SERVICE_STATS_START_RESULT");
            NotifyResult(message, kStatusStatsStarted, kStatusStatsFailed,
                         "Start collecting Statistics failed");
            break;
        case COMM_MSG_SERVICE_STATS:
            if (IApiNotifications* api = LiveApi()) {
                // The record is read whole: a short message is padded with zeros here rather
                // than read past its end.
                if (length >= sizeof(ServiceStatistics)) {
                    CallOut([&] { api->StatisticsNotificationCB(data); });
                } else {
                    ServiceStatistics padded;
                    memset(&padded, 0, sizeof(padded));
                    if (length != 0)
                        memcpy(&padded, data, length);
                    CallOut([&] {
                        api->StatisticsNotificationCB(reinterpret_cast<uint8_t*>(&padded));
                    });
                }
            }
            break;
        case COMM_MSG_INFO_MESSAGE:
            VNTRACE(TL_IPC, "ClientComm : COMM_MSG_INFO_MESSAGE");
            if (LiveApi() != nullptr)
                HandleInfoMessage(message);
            break;
        default:
            break;
    }
    return false;
}

void CClientSideCommunicator::HandleStateByte(int8_t state) {
    const uint8_t bits = static_cast<uint8_t>(state);
    if (bits & 0x08) {
        Notify(kStatusStateBit08);
        Notify(kStatusStateClear);
        Notify(kStatusStateBit08);
    } else if (bits & 0x40) {
        Notify(kStatusStateBit40);
    } else if (bits & 0x02) {
        Notify(kStatusStateBit02);
    } else if (bits & 0x04) {
        Notify(kStatusStateBit04);
    } else if (bits & 0x10) {
        Notify(kStatusStateBit10);
    } else if (bits & 0x20) {
        Notify(kStatusStateBit20);
    } else if (bits & 0x01) {
        Notify(kStatusStateBit01);
        Notify(kStatusStateClear);
        Notify(kStatusStateBit01);
    } else if (bits == 0) {
        Notify(kStatusStateClear);
    }
}

void CClientSideCommunicator::HandleInfoMessage(const MSG_QUEUE_MSG& message) {
    // The text ends at its NUL; a message without one ends at its length, so nothing past the
    // data is read.
    std::string text;
    if (message.m_pData != nullptr && message.m_DataLength != 0) {
        const char* data = reinterpret_cast<const char*>(message.m_pData);
        text.assign(data, strnlen(data, message.m_DataLength));
    }
    const size_t hash = text.find('#');
    if (text.empty() || hash == std::string::npos) {
        VNTRACE(TL_ERR, "ClientComm : COMM_MSG_INFO_MESSAGE, badly formatted message");
        return;
    }
    const uint32_t type = static_cast<uint32_t>(atoi(text.substr(0, hash).c_str()));
    const std::string body = text.substr(hash + 1);
    VNTRACE(TL_IPC, "ClientComm : COMM_MSG_INFO_MESSAGE: msg='%s'", body.c_str());
    if (IApiNotifications* api = LiveApi())
        CallOut([&] { api->InfoMessageNotificationCB(type, body); });
}
