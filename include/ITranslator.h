// The host's catalogue of user-visible texts, by numeric key. Implemented by the host.
//
// Buffer protocol: TranslateText(key, null, size) with size 0 answers -3 and puts the size
// needed, terminator included, in `size`; a second call with a buffer of that size fills it
// and answers 0.
#ifndef TIDEWAY_INCLUDE_ITRANSLATOR_H_
#define TIDEWAY_INCLUDE_ITRANSLATOR_H_

#include <stdint.h>

class ITranslator {
  public:
    virtual int32_t TranslateText(uint32_t key, char* buffer, uint32_t& size) = 0;

  protected:
    ~ITranslator() {}
};

#endif  // TIDEWAY_INCLUDE_ITRANSLATOR_H_
