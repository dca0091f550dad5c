// The notification entries of the client API, as the communicator's threads call them. The
// communicator owns this interface; the API layer implements it (CVantoriaApi) and defines
// LiveApiNotifications, so that the communicator depends on nothing above it.
//
// The entries run on the receiver thread (and status 8 on the main or the stopping thread); the
// implementation must take calls from several threads.
#ifndef TIDEWAY_COMM_APINOTIFICATIONS_H_
#define TIDEWAY_COMM_APINOTIFICATIONS_H_

#include <stdint.h>

#include <string>

class IApiNotifications {
  public:
    // Each returns true when the registered callback was called.
    virtual bool StatusNotificationCB(uint32_t status) = 0;
    virtual bool DCTSettingNotificationCB(const uint8_t* data, uint32_t length) = 0;
    virtual bool DCTActiveTowerNotificationCB(const uint8_t* data, uint32_t length) = 0;
    virtual bool TowerListNotificationCB(const uint8_t* data, uint32_t length) = 0;
    virtual bool ProxyCredReqCB(const uint8_t* data, uint32_t length) = 0;
    virtual bool StatisticsNotificationCB(const uint8_t* data) = 0;
    virtual bool InfoMessageNotificationCB(uint32_t type, const std::string& text) = 0;
    virtual void SetLastError(const std::string& text) = 0;

  protected:
    ~IApiNotifications() = default;
};

// The live API (g_pVantoriaApi), or null when there is none. Read afresh at each notification:
// the plug-in's disposal clears it before the API goes.
IApiNotifications* LiveApiNotifications();

#endif  // TIDEWAY_COMM_APINOTIFICATIONS_H_
