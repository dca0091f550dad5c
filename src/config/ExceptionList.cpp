#include "config/ExceptionList.h"

#include <stdint.h>
#include <string.h>

#include <set>
#include <sstream>

#include "common/Mutex.h"
#include "common/Token.h"
#include "common/Utils.h"
#include "common/VNTrace.h"
#include "config/DnConfigFile.h"

void ParseExceptionList(const std::string& value, std::list<std::string>& names,
                        std::vector<ExceptionAddress>& addrs) {
    names.clear();
    addrs.clear();
    if (value.empty())
        return;
    std::set<std::string> entries;
    CToken::SplitSet(value, ";", entries);
    for (const std::string& entry : entries) {
        const size_t slash = entry.find('/');
        if (slash == std::string::npos) {
            names.push_back(entry);  // a host name or a bare address, taken as it stands
            continue;
        }
        const std::string addressText = entry.substr(0, slash);
        uint32_t address4 = 0;
        uint8_t address6[16] = {};
        const bool isV4 = ParseIPv4(addressText, address4);
        if (!isV4 && !ParseIPv6(addressText, address6)) {
            VNTRACE(TL_WARN, "Config : Exception = %s is invalid. Address part incorrect",
                    entry.c_str());
            continue;
        }
        const std::string subnet = entry.substr(slash + 1);
        if (subnet.empty()) {
            VNTRACE(TL_WARN, "Config : Exception = %s is invalid. Subnet part not specified",
                    entry.c_str());
            continue;
        }
        uint32_t prefix = 0;
        std::istringstream(subnet) >> prefix;  // trailing text is not noticed: "8x" is 8
        const uint32_t widest = isV4 ? 32 : 128;
        const bool valid = (prefix >= 1 && prefix <= widest) || (prefix == 0 && subnet == "0");
        if (!valid) {
            VNTRACE(TL_WARN, "Config : Exception = %s is invalid. Subnet part incorrect",
                    entry.c_str());
            continue;
        }
        ExceptionAddress parsed;
        if (isV4) {
            parsed.family = kExceptionFamilyIPv4;
            parsed.mask = prefix == 0 ? 0 : 0xFFFFFFFFu << (32 - prefix);
            parsed.address = address4 & parsed.mask;
        } else {
            parsed.family = kExceptionFamilyIPv6;
            parsed.address = 0;
            parsed.mask = prefix;
            memcpy(parsed.address6, address6, sizeof(parsed.address6));
            const uint8_t* b = address6;
            VNTRACE(
                TL_TRACE,
                "Config : IPv6 exception: %.2x%.2x:%.2x%.2x:%.2x%.2x:%.2x%.2x:%.2x%.2x:%.2x%.2x:"
                "%.2x%.2x:%.2x%.2x mask:%d",
                b[0], b[1], b[2], b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], b[11], b[12],
                b[13], b[14], b[15], static_cast<int>(prefix));
        }
        addrs.push_back(parsed);
    }
}

// The lists of a CDnConfigFile: parsed from its keys under its lock, copied out under it.

void CDnConfigFile::ParseExceptions(const char* key, std::list<std::string>& names,
                                    std::vector<ExceptionAddress>& addrs) {
    CRecursiveLock lock(m_Lock);
    ParseExceptionList(GetString(key), names, addrs);
}

void CDnConfigFile::LoadHostExceptions() {
    CRecursiveLock lock(m_Lock);
    ParseExceptions(cfgkey::kHostExceptions, m_HostExceptionNames, m_HostExceptionAddrs);
}

void CDnConfigFile::LoadProxyExceptions() {
    CRecursiveLock lock(m_Lock);
    ParseExceptions(cfgkey::kProxyExceptions, m_ProxyExceptionNames, m_ProxyExceptionAddrs);
}

void CDnConfigFile::LoadHostInclusions() {
    CRecursiveLock lock(m_Lock);
    ParseExceptions(cfgkey::kHostInclusions, m_HostInclusionNames, m_HostInclusionAddrs);
    // Assigned rather than only raised, so that a reload without inclusions clears it.
    m_HasHostInclusions = !m_HostInclusionNames.empty() || !m_HostInclusionAddrs.empty();
}

int CDnConfigFile::GetExceptionCount(int kind) {
    CRecursiveLock lock(m_Lock);
    switch (kind) {
        case 1:
            return static_cast<int>(m_HostExceptionNames.size() + m_HostExceptionAddrs.size());
        case 2:
            return static_cast<int>(m_ProxyExceptionNames.size() + m_ProxyExceptionAddrs.size());
        default:
            VNTRACE(TL_ERR, "Invalid Exception passed");
            return 0;
    }
}

void CDnConfigFile::GetHostExceptions(std::list<std::string>& names,
                                      std::vector<ExceptionAddress>& addrs) {
    CRecursiveLock lock(m_Lock);
    names = m_HostExceptionNames;
    addrs = m_HostExceptionAddrs;
}

void CDnConfigFile::GetProxyExceptions(std::list<std::string>& names,
                                       std::vector<ExceptionAddress>& addrs) {
    CRecursiveLock lock(m_Lock);
    names = m_ProxyExceptionNames;
    addrs = m_ProxyExceptionAddrs;
}

void CDnConfigFile::GetHostInclusions(std::list<std::string>& names,
                                      std::vector<ExceptionAddress>& addrs) {
    CRecursiveLock lock(m_Lock);
    names = m_HostInclusionNames;
    addrs = m_HostInclusionAddrs;
}
