// One tower of the profile as the configuration hands it around: five texts, copied by value.
#ifndef TIDEWAY_CONFIG_TOWERINFO_H_
#define TIDEWAY_CONFIG_TOWERINFO_H_

#include <stdint.h>

#include <string>

struct TowerInfo {
    std::string DisplayName;  // the name the user sees; the key of every match
    std::string Active;       // the text of the Active element, carried unchanged
    std::string HostName;
    std::string PlainPort;  // port of the "plain" tunnel
    std::string SSLPort;    // port of the "ssl" tunnel
};

// The closest-tower settings in typed form, filled by CDnConfigFile::GetDctParams.
struct DctParams {
    uint64_t connectTimeout = 0;  // connect_timeout of the main section
    std::string mode;             // Mode of DetectClosestTower ("manual", "auto", ...)
    int32_t numberReadings = 0;   // NumberReadings of DetectClosestTower
};

#endif  // TIDEWAY_CONFIG_TOWERINFO_H_
