// One tower of the profile as the configuration hands it around: five texts, copied by value.
#ifndef TIDEWAY_CONFIG_TOWERINFO_H_
#define TIDEWAY_CONFIG_TOWERINFO_H_

#include <string>

struct TowerInfo {
    std::string DisplayName;  // the name the user sees; the key of every match
    std::string Active;       // the text of the Active element, carried unchanged
    std::string HostName;
    std::string PlainPort;  // port of the "plain" tunnel
    std::string SSLPort;    // port of the "ssl" tunnel
};

#endif  // TIDEWAY_CONFIG_TOWERINFO_H_
