// The presentation plug-in as the UI host drives it: CreatePlugin("com.tarvex.brenlo.
// presentation") hands out a Plugin that is an IPresentationPlugin. The host calls Initialize
// with its delivery and translation objects, Start (the first notice it then receives is the
// whole page, of type "setup"), HandleEvent for every "brguiEvent" document, Stop, Shutdown, and
// finally DisposePlugin. The slots from OnTowerList on are the plug-in's own notification
// handlers; the module calls them, a host does not need to.
//
// Results: 0 done, -1 bad input, -2 copy failed, -3 buffer missing or too small (the size needed
// is in `size`), -4 missing host context or translator, -6 missing presentation host, -9 already
// initialised, -10 not possible in this state. The slot order is part of the binary interface.
#ifndef TIDEWAY_INCLUDE_IPRESENTATIONPLUGIN_H_
#define TIDEWAY_INCLUDE_IPRESENTATIONPLUGIN_H_

#include <stdint.h>

#include <string>

#include "IPresentationHost.h"
#include "ITranslator.h"
#include "Plugin.h"
#include "VantoriaResults.h"

class IPresentationPlugin : public Plugin {
  public:
    // `hostContext` is only tested against null. `clientId` is passed back on each host call.
    virtual int32_t Initialize(void* hostContext, uint32_t clientId,
                               IPresentationHost* presentation, ITranslator* translator) = 0;
    virtual int32_t Start() = 0;
    virtual int32_t Stop() = 0;
    virtual int32_t Shutdown() = 0;
    virtual bool IsReady() = 0;
    // Texts by the buffer protocol: a null or too small buffer answers -3 with the size needed.
    virtual int32_t GetInterfaceName(char* buffer, uint32_t& size) = 0;
    virtual int32_t GetDisplayName(char* buffer, uint32_t& size) = 0;
    virtual int32_t GetTextCopy(const char* text, void* reserved, char* buffer,
                                uint32_t& size) = 0;
    // One "brguiEvent" document as NUL-terminated text: 0, or -1 when it is not a valid event.
    virtual int32_t HandleEvent(const char* xml) = 0;

    virtual int32_t OnTowerList(IVantoriaTowerList* list) = 0;
    virtual int32_t OnStatus(IVantoriaStatus* status) = 0;
    virtual int32_t OnDCTSettings(IVantoriaDCT* dct) = 0;
    virtual int32_t OnStatistics(IVantoriaStatistics* statistics) = 0;
    virtual int32_t OnInfoMessage(IVantoriaInfoMessage* message) = 0;
    virtual int32_t OnProxyCredRequest(std::string& proxyHost, std::string& proxyPort,
                                       std::string& authType, std::string& realm) = 0;
};

#endif  // TIDEWAY_INCLUDE_IPRESENTATIONPLUGIN_H_
