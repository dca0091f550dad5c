#include <stdint.h>
#include <stdio.h>

#include <sstream>
#include <string>
#include <vector>

#include "common/Mutex.h"
#include "common/VNTrace.h"
#include "config/Config.h"
#include "config/DnConfigFile.h"

namespace {

std::string Hex(uint32_t value) {
    char buffer[16];
    snprintf(buffer, sizeof(buffer), "%X", value);
    return buffer;
}

}  // namespace

// The diagnostic dump of the running settings: the log settings as the trace applies them, the
// ports, the lists as stored, and the owner-only keys when this process owns the files.
int CDnConfigFile::GetConfigDump(std::vector<std::string>& lines, std::vector<int>& marks) {
    CRecursiveLock lock(m_Lock);
    if (m_pXml == nullptr) {
        VNTRACE(TL_ERR, "Config : Not initialized");
        return -1;
    }
    const bool owner = m_ConfigRole == kConfigRoleOwner;
    // A text from the store, or `fallback` when it is empty.
    auto fromStore = [this](const char* key, const char* fallback) {
        std::string text = GetXmlValue(key);
        return text.empty() ? std::string(fallback) : text;
    };
    auto line = [&](const std::string& text) {
        lines.push_back(text);
        marks.push_back(0);
    };

    uint32_t mask = 0;
    std::istringstream(fromStore(cfgkey::kDebugLevel, "107")) >> std::hex >> mask;
    if (mask >= 0x8000)
        mask &= 0x7FFF;
    if ((mask & 0x6) != 0x6)
        mask |= 0x6;  // WARN and ERR are always on
    line(std::string(cfgkey::kDebugLevel) + " = " + Hex(mask));

    uint32_t size = 0;
    std::istringstream(GetXmlValue(cfgkey::kLogFileSize)) >> size;
    line(std::string(cfgkey::kLogFileSize) + " = " + std::to_string(ClampLogFileSize(size)));
    line(std::string(cfgkey::kNumLogFilesToRetain) + " = " +
         fromStore(cfgkey::kNumLogFilesToRetain, "1"));
    line(std::string(cfgkey::kRetentionDays) + "\t= " + fromStore(cfgkey::kRetentionDays, "0"));
    line(std::string(cfgkey::kRetentionHours) + "\t= " + fromStore(cfgkey::kRetentionHours, "0"));
    line(std::string(cfgkey::kRetentionMinutes) +
         "\t= " + fromStore(cfgkey::kRetentionMinutes, "0"));

    if (owner)
        line(std::string(cfgkey::kKdfListenPort) + " = " +
             std::to_string(GetPort(cfgkey::kKdfListenPort)));
    line(std::string(cfgkey::kIpcPort) + " = " + std::to_string(GetPort(cfgkey::kIpcPort)));
    if (owner)
        line(std::string(cfgkey::kKdfPortIncluded) + " = " + GetString(cfgkey::kKdfPortIncluded));
    const std::string tunnel = GetString(cfgkey::kTunnelType);
    line(std::string(cfgkey::kTunnelType) + " = " + (tunnel.empty() ? "ssl" : tunnel));
    for (const char* key :
         {cfgkey::kMaxConnections, cfgkey::kMinConnections, cfgkey::kHostExceptions,
          cfgkey::kProxyExceptions, cfgkey::kStaticExceptions, cfgkey::kEnterpriseDomains})
        line(std::string(key) + " = " + GetString(key));
    if (owner) {
        line(std::string(cfgkey::kAuthenticatedUser) + " = " +
             GetString(cfgkey::kAuthenticatedUser));
        line(std::string(cfgkey::kAuthenticatedGroups) + " = " +
             GetString(cfgkey::kAuthenticatedGroups));
    }
    unsigned long cleanup = GetInteger(cfgkey::kConnectionCleanupInterval);
    if (cleanup == 0)
        cleanup = 3000;
    line(std::string(cfgkey::kConnectionCleanupInterval) + " = " + std::to_string(cleanup));
    line(std::string(cfgkey::kActiveTowerDisplayName) + " = " +
         GetString(cfgkey::kActiveTowerDisplayName));
    line(std::string(cfgkey::kActiveTowerHostName) + " = " +
         GetString(cfgkey::kActiveTowerHostName));
    line(std::string(cfgkey::kTndEnabled) + " = " + GetXmlValue(cfgkey::kTndEnabled));
    line(std::string(cfgkey::kDctDetectClosest) + " = " + GetXmlValue(cfgkey::kDctDetectClosest));
    return 0;
}
