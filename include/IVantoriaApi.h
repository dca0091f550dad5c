// The commands an application gives to the agent, through the object CreatePlugin returns for
// "com.tarvex.brenlo.tideway.api" (version 3). Every command only queues one message and returns
// at once: 0 when queued, -10 when the module is not connected to a running agent (no command
// is kept for later), -6 for a required null pointer. Answers come later on IVantoriaApiCB.
// Commands may be called from any thread.
#ifndef TIDEWAY_INCLUDE_IVANTORIAAPI_H_
#define TIDEWAY_INCLUDE_IVANTORIAAPI_H_

#include <stdint.h>

#include "IVantoriaApiCB.h"
#include "Plugin.h"
#include "VantoriaRecords.h"

class IVantoriaApi : public Plugin {
  public:
    // The last failure the agent reported, by the buffer protocol of VantoriaResults.h.
    virtual int32_t GetLastErrorString(char* buffer, uint32_t& length) = 0;
    virtual int32_t SetTower(const char* name) = 0;
    virtual int32_t SendProxyInfo(const ProxyCredInfo* info) = 0;
    virtual int32_t CancelProxyCred() = 0;
    virtual int32_t EnableService(bool enable) = 0;
    virtual int32_t GetTowerList() = 0;
    virtual int32_t GetDCTSettings() = 0;
    virtual int32_t SetDCTSettings(uint32_t mode, uint32_t detectClosest) = 0;
    virtual int32_t StartStatsCollecting() = 0;
    virtual int32_t StopStatsCollecting() = 0;
    virtual int32_t QueryProxyState() = 0;
    // Replays the statuses that came before a callback was registered; always 0.
    virtual int32_t Start() = 0;
    virtual int32_t Disconnect() = 0;
    // -9 when a callback is registered already, -6 for null.
    virtual int32_t Register(IVantoriaApiCB* callback) = 0;
    // -4 when `callback` is not the registered one.
    virtual int32_t Unregister(IVantoriaApiCB* callback) = 0;
};

#endif  // TIDEWAY_INCLUDE_IVANTORIAAPI_H_
