// CHostedConfigFile: a light configuration object for reading a profile through the XML store
// by path (GetXmlValue, GetProfileLabel, KeyExists), without the key maps of CDnConfigFile. It
// never touches a file: it loads the update file if that would be adopted, else the current one.
//
// Ownership and threads: as for CConfig; the creator owns it and its store.
#ifndef TIDEWAY_CONFIG_HOSTEDCONFIGFILE_H_
#define TIDEWAY_CONFIG_HOSTEDCONFIGFILE_H_

#include "config/Config.h"

class CHostedConfigFile final : public CConfig {
  public:
    CHostedConfigFile() = default;
    ~CHostedConfigFile() = default;

    // Nothing to run again: the object holds only what LoadHostedProfile read.
    bool Reload() override;
    // Fills the store from the update file when IsUpdateAvailable says it would be adopted,
    // else (or when it does not load) from the current file. False, without a store, when
    // neither loads.
    bool LoadHostedProfile();
};

#endif  // TIDEWAY_CONFIG_HOSTEDCONFIGFILE_H_
