// What an application implements to hear from the agent. Calls come on the module's threads
// (mostly its receiver thread; status 8 also from the main or the stopping thread, replayed
// statuses from the caller of Start), so an implementation needs its own lock. The result
// objects are valid only during the call. The API does not look at the returned values.
#ifndef TIDEWAY_INCLUDE_IVANTORIAAPICB_H_
#define TIDEWAY_INCLUDE_IVANTORIAAPICB_H_

#include <stdint.h>

#include <string>

#include "VantoriaResults.h"

class IVantoriaApiCB {
  public:
    virtual int32_t OnTowerList(IVantoriaTowerList* list) = 0;
    virtual int32_t OnStatus(IVantoriaStatus* status) = 0;
    virtual int32_t OnDCTSettings(IVantoriaDCT* dct) = 0;
    // Only for proxies asking for "Basic" authentication; the port is decimal text.
    virtual int32_t OnProxyCredRequest(std::string& proxyHost, std::string& proxyPort,
                                       std::string& authType, std::string& realm) = 0;
    virtual int32_t OnStatistics(IVantoriaStatistics* statistics) = 0;
    virtual int32_t OnInfoMessage(IVantoriaInfoMessage* message) = 0;

  protected:
    ~IVantoriaApiCB() {}
};

#endif  // TIDEWAY_INCLUDE_IVANTORIAAPICB_H_
