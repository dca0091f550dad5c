// The English texts that tideway-host gives the presentation plug-in as its ITranslator.
// Loaded once before the plug-in is created; TranslateText may then be called from any thread.
#ifndef TIDEWAY_TOOLS_TIDEWAY_HOST_CATALOGUE_H_
#define TIDEWAY_TOOLS_TIDEWAY_HOST_CATALOGUE_H_

#include <stdint.h>

#include <map>
#include <mutex>
#include <set>
#include <string>

#include "ITranslator.h"

// key<TAB>text lines; empty lines and lines starting with '#' are skipped.
class Catalogue : public ITranslator {
  public:
    // False, with a message on stderr, when the file cannot be read or a line is malformed.
    bool Load(const std::string& path);

    // The text for `key`, empty when the catalogue has none.
    std::string Text(uint32_t key) const;

    // A key without a text answers -1, so the plug-in shows an empty text; the key is reported
    // once on stderr so that a gap in the catalogue is seen.
    int32_t TranslateText(uint32_t key, char* buffer, uint32_t& size) override;

  private:
    std::map<uint32_t, std::string> texts_;  // written by Load only
    std::mutex missingMutex_;
    std::set<uint32_t> missing_;  // guarded by missingMutex_
};

#endif  // TIDEWAY_TOOLS_TIDEWAY_HOST_CATALOGUE_H_
