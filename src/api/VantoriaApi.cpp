#include "api/VantoriaApi.h"

#include <string.h>

#include <memory>
#include <new>
#include <vector>

#include <openssl/err.h>
#include <openssl/ssl.h>

#include "api/VantoriaResultObjects.h"
#include "comm/ClientSideCommunicator.h"
#include "common/Token.h"
#include "common/VNTrace.h"

std::atomic<CVantoriaApi*> g_pVantoriaApi{nullptr};

IApiNotifications* LiveApiNotifications() {
    return g_pVantoriaApi.load();
}

namespace {

// Statuses that come often and are not logged one by one.
bool IsFrequentStatus(uint32_t status) {
    return status == kStatusStateClear || status == kStatusStateBit01 ||
           status == kStatusStateBit10;
}

// Statuses that answer a tower or closest-tower change: fresh state is asked for after them.
bool IsChangeAnswer(uint32_t status) {
    return status >= kStatusTowerChangeFailed && status <= kStatusDctChanged;
}

}  // namespace

CVantoriaApi::CVantoriaApi()
    : m_pCallback(nullptr), m_bInitialized(false), m_pClientComm(nullptr) {}

CVantoriaApi::~CVantoriaApi() {
    StopCommunicator();
}

void CVantoriaApi::StopCommunicator() {
    // The communicator's destructor runs the whole stop sequence.
    delete m_pClientComm;
    m_pClientComm = nullptr;
}

int CVantoriaApi::SupportsInterface(const char* name, uint64_t version) {
    if (name == nullptr)
        return 0;
    return strcmp(name, kVantoriaApiInterfaceName) == 0 && version == kVantoriaApiInterfaceVersion
               ? 1
               : 0;
}

bool CVantoriaApi::Initialize(uint16_t port, IPCClientFactory factory) {
    VNTRACE(TL_API, "CVantoriaApi::Initialize");
    if (m_bInitialized)
        return true;
    SSL_load_error_strings();
    OPENSSL_init_ssl(0, nullptr);  // the library start-up that SSL_library_init stood for
    m_pClientComm =
        new (std::nothrow) CClientSideCommunicator(port, kClientTypeApi, 5, 0, std::move(factory));
    if (m_pClientComm == nullptr) {
        VNTRACE(TL_API,
                "CVantoriaApi::Initialize : Failed to create client comm, System Out Of Memory!!!");
        return false;
    }
    const COMM_STATUS result = m_pClientComm->Init();
    if (result != 0) {
        VNTRACE(TL_API, "CVantoriaApi::Initialize : Failed to initialize client comm. Code : %d",
                static_cast<int>(result));
        return false;
    }
    return true;
}

bool CVantoriaApi::StartCommunicator() {
    CRecursiveLock lock(m_SendLock);
    if (m_pClientComm == nullptr)
        return false;
    if (m_pClientComm->IsConnected())
        return true;
    const COMM_STATUS result = m_pClientComm->StartMainThread();
    if (result == 0)
        return true;
    VNTRACE(TL_ERR, "StartCommunicator : Failed to start client communicator, Code : %d",
            static_cast<int>(result));
    delete m_pClientComm;
    m_pClientComm = nullptr;
    return false;
}

bool CVantoriaApi::SendCommMessage(const MSG_QUEUE_MSG* message) {
    CRecursiveLock lock(m_SendLock);
    if (m_pClientComm == nullptr) {
        VNTRACE(TL_ERR, "Message could not be sent, ClientComm object not created");
        return false;
    }
    if (!m_pClientComm->IsConnected()) {
        VNTRACE(TL_ERR, "Message could not be sent, ClientComm not connected to svc");
        return false;
    }
    m_pClientComm->PostToMain(message);
    return true;
}

int32_t CVantoriaApi::SendSimple(eCOMM_MESSAGE_ID id, const char* successText,
                                 const char* failureText) {
    MSG_QUEUE_MSG message(id, 0, 1, 0);
    if (!SendCommMessage(&message)) {
        VNTRACE(TL_API, "%s", failureText);
        return kApiRefused;
    }
    VNTRACE(TL_API, "%s", successText);
    return kApiOk;
}

int32_t CVantoriaApi::GetTowerList() {
    return SendSimple(COMM_MSG_TOWERS_REQUEST_INFO, "CVantoriaApi :GetTowerList success",
                      "CVantoriaApi :GetTowerList failed");
}

int32_t CVantoriaApi::GetDCTSettings() {
    return SendSimple(COMM_MSG_DCT_SETTINGS_REQUEST, "CVantoriaApi: GetDCTSettings success",
                      "CVantoriaApi: GetDCTSettings failed");
}

int32_t CVantoriaApi::StartStatsCollecting() {
    return SendSimple(COMM_MSG_SERVICE_STATS_START, "CVantoriaApi :StartStatsCollecting success",
                      "CVantoriaApi :StartStatsCollecting failed");
}

int32_t CVantoriaApi::StopStatsCollecting() {
    return SendSimple(COMM_MSG_SERVICE_STATS_STOP, "CVantoriaApi :StopStatsCollecting success",
                      "CVantoriaApi :StopStatsCollecting failed");
}

int32_t CVantoriaApi::QueryProxyState() {
    return SendSimple(COMM_MSG_PROXY_STATE_QUERY, "CVantoriaApi: Proxystate query success",
                      "CVantoriaApi: Proxystate query  failed");
}

int32_t CVantoriaApi::Disconnect() {
    return SendSimple(COMM_MSG_DISCONNECT, "CVantoriaApi : Sending Disconnect message",
                      "CVantoriaApi : Could not send Disconnect message");
}

int32_t CVantoriaApi::CancelProxyCred() {
    VNTRACE(TL_API, "CVantoriaApi: Proxy cred cancel request from user");
    return SendSimple(COMM_MSG_PROXY_CANCEL_REQUEST,
                      "CVantoriaApi: Proxycancel request query success",
                      "CVantoriaApi: Proxystate query  failed");
}

int32_t CVantoriaApi::EnableService(bool enable) {
    MSG_QUEUE_MSG message(enable ? COMM_MSG_START_SERVICE : COMM_MSG_STOP_SERVICE, 0, 1, 0);
    if (!SendCommMessage(&message)) {
        VNTRACE(TL_API, "CVantoriaApi :EnableService, SendCommMessage failed");
        return kApiRefused;
    }
    return kApiOk;
}

int32_t CVantoriaApi::SetTower(const char* name) {
    if (name == nullptr) {
        VNTRACE(TL_API, "CVantoriaApi::SetTower, TowerName pointer is NULL");
        return kApiNullPointer;
    }
    MSG_QUEUE_MSG message(COMM_MSG_CHANGE_ACTIVE_TOWER, 0, 1, 0);
    VNTRACE(TL_API, "CVantoriaApi::SetTower - tower str = '%s'", name);
    // An empty name is refused by SetData and goes out as a message without data.
    message.SetData(name, static_cast<uint32_t>(strlen(name)));
    if (!SendCommMessage(&message)) {
        VNTRACE(TL_API, "CVantoriaApi::SetTower, MSG_QUEUE_MSG :SendData failed");
        return kApiRefused;
    }
    return kApiOk;
}

int32_t CVantoriaApi::SetDCTSettings(uint32_t mode, uint32_t detectClosest) {
    VNTRACE(TL_API, "CVantoriaApi : SetDCTSettings - mode = %d and detectclosest = %d", mode,
            detectClosest);
    DCTSettings settings;
    memset(&settings, 0, sizeof(settings));  // the GUI field means nothing in an update
    settings.nMode = mode;
    settings.nDetectClosest = detectClosest;
    MSG_QUEUE_MSG message(COMM_MSG_DCT_SETTINGS_UPDATE, 0, 1, 0);
    message.SetData(&settings, sizeof(settings));
    if (!SendCommMessage(&message)) {
        VNTRACE(TL_ERR, "CVantoriaApi :SetDCTSettings SetData failed");
        return kApiRefused;
    }
    return kApiOk;
}

int32_t CVantoriaApi::SendProxyInfo(const ProxyCredInfo* info) {
    VNTRACE(TL_API, "CVantoriaApi: Proxy Cred Info structure");
    MSG_QUEUE_MSG message(COMM_MSG_PROXY_CRED_RESPONSE, 0, 1, 0);
    message.SetData(info, sizeof(ProxyCredInfo));  // null info: sent without data
    if (!SendCommMessage(&message)) {
        VNTRACE(TL_API, "CVantoriaApi: SendProxyInfo, MSG_QUEUE_MSG :SendData failed");
        return kApiRefused;
    }
    return kApiOk;
}

int32_t CVantoriaApi::Register(IVantoriaApiCB* callback) {
    CMutexLock lock(m_CallbackLock);
    if (m_pCallback.load() != nullptr) {
        VNTRACE(TL_API, "CVantoriaApi::Register, IVantoriaApiCB pointer already initialized.");
        return kApiAlreadyRegistered;
    }
    if (callback == nullptr) {
        VNTRACE(TL_API, "CVantoriaApi::Register, IVantoriaApiCB pointer invalid.");
        return kApiNullPointer;
    }
    m_pCallback = callback;
    return kApiOk;
}

int32_t CVantoriaApi::Unregister(IVantoriaApiCB* callback) {
    CMutexLock lock(m_CallbackLock);
    if (callback == m_pCallback.load()) {
        m_pCallback = nullptr;
        return kApiOk;
    }
    VNTRACE(TL_API,
            "CVantoriaApi::Unregister, IVantoriaApiCB pointer does not match the cached one.");
    return kApiMismatch;
}

int32_t CVantoriaApi::Start() {
    if (m_pClientComm == nullptr || !m_pClientComm->IsConnected()) {
        VNTRACE(TL_API, "CVantoriaApi::Start not IsConnected");
        return kApiOk;
    }
    std::list<uint32_t> pending;
    {
        CMutexLock lock(m_CallbackLock);
        pending.swap(m_PendingStatus);
    }
    for (uint32_t status : pending) {
        VNTRACE(TL_API, "Found message in Start(): status: %d", status);
        StatusNotificationCB(status);
    }
    return kApiOk;
}

int32_t CVantoriaApi::GetLastErrorString(char* buffer, uint32_t& length) {
    std::string text;
    {
        CMutexLock lock(m_LastErrorLock);
        text = m_LastError.c_str();  // up to the first NUL
    }
    const int32_t result = copyUTF8String(buffer, length, text);
    if (result != kApiOk && result != kApiBufferTooSmall) {
        VNTRACE(TL_ERR, "CVantoriaApi::GetLastErrorString failed");
    }
    return result;
}

void CVantoriaApi::SetLastError(const std::string& text) {
    CMutexLock lock(m_LastErrorLock);
    m_LastError = text;
}

bool CVantoriaApi::StatusNotificationCB(uint32_t status) {
    IVantoriaApiCB* callback = m_pCallback.load();
    if (callback == nullptr) {
        // Decided under the lock that Register and Start take, so a status is either delivered
        // or saved where the next Start finds it, never lost between the two.
        CMutexLock lock(m_CallbackLock);
        callback = m_pCallback.load();
        if (callback == nullptr) {
            m_PendingStatus.push_back(status);
            lock.Unlock();
            VNTRACE(TL_API,
                    "StatusNotificationCB: status: %d, but callback not registered so save msg",
                    status);
            return false;
        }
    }
    if (!IsFrequentStatus(status))
        VNTRACE(TL_API, "StatusNotificationCB: status: %d", status);
    CVantoriaStatus result(status);
    callback->OnStatus(&result);
    // Asked only while this object is still the live API: a callback that returns after the
    // plug-in was disposed must not reach into it.
    if (IsChangeAnswer(status) && g_pVantoriaApi.load() == this) {
        // Fresh state after any change, whether it worked or not.
        GetTowerList();
        GetDCTSettings();
    }
    return true;
}

bool CVantoriaApi::DCTSettingNotificationCB(const uint8_t* data, uint32_t length) {
    IVantoriaApiCB* callback = m_pCallback.load();
    VNTRACE(TL_API, "DCTSettingNotificationCB: %d %X", length,
            static_cast<uint32_t>(reinterpret_cast<uintptr_t>(callback)));
    if (callback == nullptr || length >= 13 || data == nullptr)
        return false;
    // A shorter record leaves the rest zero.
    DCTSettings settings;
    memset(&settings, 0, sizeof(settings));
    memcpy(&settings, data, length);
    VNTRACE(TL_API, "DCTSettingNotificationCB: nMode:%d nDetectClosest:%d nGUI:%d", settings.nMode,
            settings.nDetectClosest, settings.nGUI);
    CVantoriaDCT result(settings.nMode, settings.nDetectClosest, settings.nGUI);
    callback->OnDCTSettings(&result);
    return true;
}

bool CVantoriaApi::DCTActiveTowerNotificationCB(const uint8_t* data, uint32_t length) {
    IVantoriaApiCB* callback = m_pCallback.load();
    VNTRACE(TL_API, "DCTActiveTowerNotificationCB: %d %X", length,
            static_cast<uint32_t>(reinterpret_cast<uintptr_t>(callback)));
    if (length == 0 || callback == nullptr || data == nullptr)
        return false;
    const std::string tower(reinterpret_cast<const char*>(data),
                            strnlen(reinterpret_cast<const char*>(data), length));
    VNTRACE(TL_API, "DCTActiveTowerNotificationCB: tower: '%s'", tower.c_str());
    CVantoriaDCT result(tower);
    callback->OnDCTSettings(&result);
    return true;
}

bool CVantoriaApi::TowerListNotificationCB(const uint8_t* data, uint32_t length) {
    IVantoriaApiCB* callback = m_pCallback.load();
    VNTRACE(TL_API, "TowerListNotificationCB: %X",
            static_cast<uint32_t>(reinterpret_cast<uintptr_t>(callback)));
    if (callback == nullptr)
        return false;
    CVantoriaTowerList list;
    std::string text;
    if (data != nullptr) {
        text.assign(reinterpret_cast<const char*>(data),
                    strnlen(reinterpret_cast<const char*>(data), length));
    }
    CToken tokens(text, ",");
    VNTRACE(TL_API, "TowerListNotificationCB : tower-response: '%s'", text.c_str());
    while (tokens.HasMoreTokens()) {
        const std::string token = tokens.NextToken();
        const size_t amp = token.find('&');
        if (amp != std::string::npos) {
            list.Append(token.substr(0, amp));
            list.CalculateActiveIndex(token.substr(amp + 1));
        } else {
            list.Append(token);
        }
    }
    callback->OnTowerList(&list);
    return true;
}

bool CVantoriaApi::ProxyCredReqCB(const uint8_t* data, uint32_t length) {
    IVantoriaApiCB* callback = m_pCallback.load();
    VNTRACE(TL_API, "ProxyCredReqCB");
    if (length < sizeof(ProxyCredRequest) || callback == nullptr || data == nullptr)
        return false;
    ProxyCredRequest request;
    memcpy(&request, data, sizeof(request));
    // Each text ends at its NUL or at the end of its field, whichever comes first: an agent that
    // fills a field without a terminator must not make us read the next field, or past the
    // record for the realm.
    std::string host(request.szProxyHost,
                     strnlen(request.szProxyHost, sizeof(request.szProxyHost)));
    std::string authType(request.szAuthType,
                         strnlen(request.szAuthType, sizeof(request.szAuthType)));
    std::string port = std::to_string(request.nProxyPort);
    if (authType == "Basic") {
        std::string realm(request.szRealm, strnlen(request.szRealm, sizeof(request.szRealm)));
        callback->OnProxyCredRequest(host, port, authType, realm);
    }
    return true;
}

bool CVantoriaApi::StatisticsNotificationCB(const uint8_t* data) {
    IVantoriaApiCB* callback = m_pCallback.load();
    if (callback == nullptr)
        return false;
    CVantoriaStatistics statistics(data);
    callback->OnStatistics(&statistics);
    return true;
}

bool CVantoriaApi::InfoMessageNotificationCB(uint32_t type, const std::string& text) {
    IVantoriaApiCB* callback = m_pCallback.load();
    if (callback == nullptr)
        return false;
    CVantoriaInfoMessage message(type, text);
    callback->OnInfoMessage(&message);
    return true;
}
