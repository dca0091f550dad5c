// CVantoriaPresentationPlugin: the object the host gets for the presentation interface. Towards
// the host an IPresentationPlugin (started, stopped, fed user events as XML); towards the agent
// the owner of a CVantoriaApi and that API's IVantoriaApiCB, turning each callback into one XML
// notice for the host. It keeps only what the next callback compares: the last status, the
// tower shown, the mode flags, the proxy scheme and the table of armed events.
//
// Threads: the host's thread calls the IPresentationPlugin operations, the API's threads call
// the callbacks. `lock` (recursive) is held across whole host operations and callbacks, also
// while the host is called, so that a host that calls back from inside DeliverXml on the same
// thread gets in. OnProxyCredRequest and the text getters take no `lock`; the event table and
// the proxy scheme, which OnProxyCredRequest writes, sit behind the leaf m_TableLock, held only
// for a lookup or an insert. The host pointers are atomic words for the same reason.
#ifndef TIDEWAY_PRESENTATION_VANTORIAPRESENTATIONPLUGIN_H_
#define TIDEWAY_PRESENTATION_VANTORIAPRESENTATIONPLUGIN_H_

#include <stdint.h>

#include <atomic>
#include <string>

#include <boost/unordered_map.hpp>

#include "IPresentationPlugin.h"
#include "IVantoriaApiCB.h"
#include "api/VantoriaApi.h"
#include "common/Mutex.h"

class XmlUIEvent;
class XmlUINotice;
class XmlUICtrl;

// What an armed event does when the host reports it (HandleEvent).
enum PresentationAction : int32_t {
    kActionModeRadio = 0,        // mode radio changed
    kActionTowerCombobox = 1,    // tower combobox changed
    kActionCredentialCancel = 2, // credential dialog dismissed
    kActionCredentialSubmit = 3, // credential dialog submitted
};

class CVantoriaPresentationPlugin : public IPresentationPlugin, public IVantoriaApiCB {
  public:
    CVantoriaPresentationPlugin();
    // Ends the API's threads before any field goes, so that no callback can run on a half
    // destroyed object; it does not stop the API (no disconnect, no NotifyStopped).
    ~CVantoriaPresentationPlugin() override;

    // Plugin
    int SupportsInterface(const char* name, uint64_t version) override;

    // IPresentationPlugin
    int32_t Initialize(void* hostContext, uint32_t clientId, IPresentationHost* presentation,
                       ITranslator* translator) override;
    int32_t Start() override;
    int32_t Stop() override;
    int32_t Shutdown() override;
    bool IsReady() override;
    int32_t GetInterfaceName(char* buffer, uint32_t& size) override;
    int32_t GetDisplayName(char* buffer, uint32_t& size) override;
    int32_t GetTextCopy(const char* text, void* reserved, char* buffer, uint32_t& size) override;
    int32_t HandleEvent(const char* xml) override;

    // Callbacks, shared by both bases.
    int32_t OnTowerList(IVantoriaTowerList* list) override;
    int32_t OnStatus(IVantoriaStatus* status) override;
    int32_t OnDCTSettings(IVantoriaDCT* dct) override;
    int32_t OnStatistics(IVantoriaStatistics* statistics) override;
    int32_t OnInfoMessage(IVantoriaInfoMessage* message) override;
    int32_t OnProxyCredRequest(std::string& proxyHost, std::string& proxyPort,
                               std::string& authType, std::string& realm) override;

    // The embedded API: the creation sequence initialises and starts it.
    CVantoriaApi& GetApi() { return api; }

  private:
    // A text of the host's catalogue; "" on any failure of the translator.
    std::string Translate(uint32_t key);
    // Prints the notice and hands it to the host; dropped (with a trace line) without a host.
    void SendNotice(const XmlUINotice& notice);
    void SetLabelValue(XmlUINotice& notice, const char* id, const char* value);
    // The setup notice: the whole page, sent once per Start before the API is registered.
    void BuildStartupUi() REQUIRES(lock);
    XmlUICtrl BuildModeRadioGroup(XmlUINotice& notice) REQUIRES(lock);
    // The two statistics boxes of the setup notice, with placeholder values.
    void BuildStatisticsSetup(XmlUINotice& notice) REQUIRES(lock);
    // The tile, tray text and history line for lastStatus (nothing for a code without them).
    void UpdateStatusText(XmlUINotice& notice) REQUIRES(lock);
    // Greys every control of the tower page; hides only "tower_update_pending".
    void DisableTowerControls(XmlUINotice& notice);
    // The error pop-up of a failed tower change or closest-tower setting.
    void SendErrorPopup(uint32_t textKey);
    void EnterEvent(const std::string& eventId, int32_t action);

    // The four actions of HandleEvent.
    void OnModeRadio(const XmlUIEvent& event) REQUIRES(lock);
    void OnTowerCombobox(const XmlUIEvent& event) REQUIRES(lock);
    void OnCredentialCancel() REQUIRES(lock);
    void OnCredentialSubmit(const XmlUIEvent& event) REQUIRES(lock);

    boost::unordered_map<std::string, int32_t> eventTable GUARDED_BY(m_TableLock);
    CVantoriaApi api;
    CRecursiveMutex lock;
    int64_t lastStatus GUARDED_BY(lock);
    std::string towerName GUARDED_BY(lock);
    bool automaticMode GUARDED_BY(lock);
    bool detectClosest GUARDED_BY(lock);
    bool apiRunning GUARDED_BY(lock);
    std::atomic<uint32_t> clientId;
    std::atomic<IPresentationHost*> presentation;
    std::atomic<ITranslator*> translator;
    std::string authScheme GUARDED_BY(m_TableLock);
    CMutex m_TableLock;  // leaf: guards eventTable and authScheme, never held across a call out
};

#endif  // TIDEWAY_PRESENTATION_VANTORIAPRESENTATIONPLUGIN_H_
