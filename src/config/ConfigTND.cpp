#include <string>

#include <boost/property_tree/ptree.hpp>

#include "common/Mutex.h"
#include "common/VNTrace.h"
#include "config/ConfigKeys.h"
#include "config/DnConfigFile.h"

void CDnConfigFile::UpdateCurrentConfigTND(const boost::property_tree::ptree& servers,
                                           const std::string& enabled) {
    // Held throughout, so that no reader sees the section cleared.
    CRecursiveLock lock(m_Lock);
    if (m_pXml == nullptr) {
        VNTRACE(TL_ERR, "Config : Not initialized.");
        return;
    }
    // The cleared element stays in place, so the new servers land where the old ones were.
    m_pXml->DeleteConfigNode(cfgkey::kTrustedNetworkDetection);
    if (!servers.empty()) {
        m_pXml->AddTNDServersToConfig(servers);
        CommitConfig();  // a failed save has logged itself; the servers stay in memory
    }
    if (!UpdateConfigKey(cfgkey::kTndEnabled, enabled.c_str(), true))
        VNTRACE(TL_WARN, "UpdateCurrentConfigTND failed to set TND enabled");
}
