// What the UI host offers a presentation plug-in: delivery of the plug-in's XML notices and word
// that the plug-in's API has stopped. Implemented by the host; the plug-in only calls it, from
// the host's own thread or from the module's notification threads, always one call at a time.
// The slot order is part of the binary interface.
#ifndef TIDEWAY_INCLUDE_IPRESENTATIONHOST_H_
#define TIDEWAY_INCLUDE_IPRESENTATIONHOST_H_

#include <stdint.h>

class IPresentationHost {
  public:
    // One notice ("brguiNotice" document) as NUL-terminated text, valid for the call only.
    // `clientId` is the one the host gave to Initialize. The plug-in ignores the result.
    virtual int32_t DeliverXml(uint32_t clientId, const char* xml) = 0;
    // The plug-in's API has stopped (after a successful Stop).
    virtual int32_t NotifyStopped(uint32_t clientId) = 0;

  protected:
    ~IPresentationHost() {}
};

#endif  // TIDEWAY_INCLUDE_IPRESENTATIONHOST_H_
