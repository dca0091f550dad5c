// CVantoriaApi: the client API object. Commands make one message each and queue it on the
// communicator's main queue (refused with -10 unless the agent has said its service runs);
// notification entries, called by the communicator's threads through g_pVantoriaApi, decode
// the agent's data into result objects and call the registered IVantoriaApiCB.
//
// Commands may come from any thread: m_SendLock makes "connected?" and the post one step.
// m_CallbackLock guards Register/Unregister and the saved statuses; notifications read the
// callback pointer without it, so Unregister does not wait for a running callback.
#ifndef TIDEWAY_API_VANTORIAAPI_H_
#define TIDEWAY_API_VANTORIAAPI_H_

#include <stddef.h>
#include <stdint.h>

#include <atomic>
#include <list>
#include <string>

#include "IVantoriaApi.h"
#include "comm/ApiNotifications.h"
#include "comm/IPCClientFactory.h"
#include "common/Mutex.h"

class CClientSideCommunicator;
class MSG_QUEUE_MSG;
enum eCOMM_MESSAGE_ID : uint32_t;

// Rows of the module's interface table, in order.
constexpr const char* kVantoriaApiInterfaceName = "com.tarvex.brenlo.tideway.api";
constexpr uint64_t kVantoriaApiInterfaceVersion = 3;
constexpr const char* kPresentationInterfaceName = "com.tarvex.brenlo.presentation";
constexpr uint64_t kPresentationInterfaceVersion = 0;
constexpr size_t kInterfaceCount = 2;

class CVantoriaApi;

// The live API object, null when there is none. For the presentation plug-in it points to the
// API held inside that plug-in, not to the object the host holds. A pointer without a lock (an
// atomic word, so that the communicator threads' reads are well defined): they must cope with
// finding it null while a plug-in is being torn down, which clears it first.
extern std::atomic<CVantoriaApi*> g_pVantoriaApi;

class CVantoriaApi : public IVantoriaApi, public IApiNotifications {
  public:
    CVantoriaApi();
    ~CVantoriaApi() override;

    // Plugin
    int SupportsInterface(const char* name, uint64_t version) override;

    // IVantoriaApi
    int32_t GetLastErrorString(char* buffer, uint32_t& length) override;
    int32_t SetTower(const char* name) override;
    int32_t SendProxyInfo(const ProxyCredInfo* info) override;
    int32_t CancelProxyCred() override;
    int32_t EnableService(bool enable) override;
    int32_t GetTowerList() override;
    int32_t GetDCTSettings() override;
    int32_t SetDCTSettings(uint32_t mode, uint32_t detectClosest) override;
    int32_t StartStatsCollecting() override;
    int32_t StopStatsCollecting() override;
    int32_t QueryProxyState() override;
    int32_t Start() override;
    int32_t Disconnect() override;
    int32_t Register(IVantoriaApiCB* callback) override;
    int32_t Unregister(IVantoriaApiCB* callback) override;

    // Made by the creation sequence: the communicator for `port` (its IPC client made by
    // `factory`, the IPC library's when empty), then its main thread.
    bool Initialize(uint16_t port, IPCClientFactory factory = nullptr);
    bool StartCommunicator();
    // Runs the communicator's stop sequence now, as the destructor would, and drops it: for an
    // owner whose callback object is destroyed before the API (the presentation plug-in holds
    // the API by value). Not while a command may run on another thread.
    void StopCommunicator();
    // The one road from the commands to the communicator.
    bool SendCommMessage(const MSG_QUEUE_MSG* message);

    // Notification entries (IApiNotifications); true when the callback was called.
    bool StatusNotificationCB(uint32_t status) override;
    bool DCTSettingNotificationCB(const uint8_t* data, uint32_t length) override;
    bool DCTActiveTowerNotificationCB(const uint8_t* data, uint32_t length) override;
    bool TowerListNotificationCB(const uint8_t* data, uint32_t length) override;
    bool ProxyCredReqCB(const uint8_t* data, uint32_t length) override;
    bool StatisticsNotificationCB(const uint8_t* data) override;
    bool InfoMessageNotificationCB(uint32_t type, const std::string& text) override;
    void SetLastError(const std::string& text) override;

    // For tests and the host harness: the communicator, or null.
    CClientSideCommunicator* GetCommunicator() { return m_pClientComm; }

  private:
    // A command without data: queue `id`, log the success or the failure text.
    int32_t SendSimple(eCOMM_MESSAGE_ID id, const char* successText, const char* failureText);

    std::atomic<IVantoriaApiCB*> m_pCallback;
    std::string m_LastError GUARDED_BY(m_LastErrorLock);
    bool m_bInitialized;
    CClientSideCommunicator* m_pClientComm;
    std::list<uint32_t> m_PendingStatus GUARDED_BY(m_CallbackLock);
    // Recursive: a status 8 from a failed start reaches the host's callback with this lock held,
    // and the host may answer with a command.
    CRecursiveMutex m_SendLock;
    CMutex m_CallbackLock;
    CMutex m_LastErrorLock;  // the receiver sets the text, any thread reads it
};

#endif  // TIDEWAY_API_VANTORIAAPI_H_
