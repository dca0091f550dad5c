#include "config/Config.h"

#include <arpa/inet.h>
#include <stdlib.h>

#include <sstream>

#include "common/Utils.h"
#include "common/VNTrace.h"

namespace {

using Guard = CRecursiveLock;

// The product's folder below the app-data root, optionally with the config folder.
std::string ProductPath(bool configFolder) {
    std::string root;
    GetAllUsersAppDataPath(root);
    root += kProductDirectory;
    if (configFolder)
        root += kConfigDirectory;
    return root;
}

std::string KeyPath(const std::string& key) {
    return std::string(kConfigBasePathSlash) + key;
}

// Stream extraction into an unsigned type, as the profile's readers do: leading blanks are
// skipped, trailing text is ignored, and a text that is not a number leaves 0.
template <typename T>
T ExtractUnsigned(const std::string& text, bool hex) {
    std::istringstream stream(text);
    if (hex)
        stream >> std::hex;
    T value = 0;
    stream >> value;
    return value;
}

}  // namespace

CConfig::CConfig() : m_pXml(nullptr) {}

CConfig::~CConfig() {
    delete m_pXml;
}

std::string CConfig::GetConfigFileName() {
    Guard lock(m_Lock);
    return ConcatPath(ProductPath(true), kConfigFileLeaf, "/");
}

std::string CConfig::GetUpdateFileName() {
    Guard lock(m_Lock);
    return ConcatPath(ProductPath(false), kUpdateFileLeaf, "/");
}

std::string CConfig::GetBackupFileName() {
    Guard lock(m_Lock);
    return ConcatPath(ProductPath(true), kBackupFileLeaf, "/");
}

bool CConfig::SetXmlValue(const std::string& key, const std::string& value) {
    Guard lock(m_Lock);
    if (m_pXml == nullptr) {
        VNTRACE(TL_ERR, "XMLParser : Not initialized.");
        return false;
    }
    if (key.empty()) {
        VNTRACE(TL_WARN, "XMLParser : Empty path passed in");
        return false;
    }
    return m_pXml->PutValue(KeyPath(key), value) == kConfigOk;
}

std::string CConfig::GetXmlValue(const std::string& key) {
    Guard lock(m_Lock);
    std::string value;
    if (m_pXml == nullptr) {
        VNTRACE(TL_ERR, "XMLParser : Config has not been initialized");
        return value;
    }
    const std::string path = KeyPath(key);
    if (m_pXml->GetValue(path, value) != kConfigOk) {
        // Absence is the ordinary answer for an optional key: the line is never shown.
        VNTRACE(TL_OFF, "XMLParser : Failed to get node %s value", path.c_str());
    }
    Trim(value, kWhitespace);
    return value;
}

bool CConfig::GetXmlSubtree(const std::string& key, boost::property_tree::ptree& out) {
    Guard lock(m_Lock);
    if (m_pXml == nullptr) {
        VNTRACE(TL_ERR, "XMLParser : Config has not been initialized");
        return false;
    }
    if (key.empty()) {
        VNTRACE(TL_WARN, "XMLParser : Empty xpath passed in");
        return false;
    }
    return m_pXml->GetChild(KeyPath(key), out);
}

bool CConfig::KeyExists(const std::string& key) {
    if (key.empty()) {
        VNTRACE(TL_ERR, "CConfig : Bad parameter");
        return false;
    }
    Guard lock(m_Lock);
    if (m_pXml == nullptr) {
        VNTRACE(TL_ERR, "XMLParser : Config has not been initialized");
        return false;
    }
    return m_pXml->NodeExists(KeyPath(key));
}

std::string CConfig::GetString(const char* key) {
    std::string value;
    if (key == nullptr)
        return value;
    Guard lock(m_Lock);
    const auto found = m_Values.find(key);
    if (found == m_Values.end())
        return value;
    value = found->second;
    Trim(value, kWhitespace);
    return value;
}

unsigned long CConfig::GetInteger(const char* key) {
    Guard lock(m_Lock);
    return ExtractUnsigned<unsigned long>(GetString(key), false);
}

unsigned long CConfig::GetHexInteger(const char* key) {
    Guard lock(m_Lock);
    return ExtractUnsigned<unsigned long>(GetString(key), true);
}

uint32_t CConfig::GetIpAddress(const char* key) {
    Guard lock(m_Lock);
    return inet_addr(GetString(key).c_str());
}

uint16_t CConfig::GetPort(const char* key) {
    Guard lock(m_Lock);
    return static_cast<uint16_t>(StringToInt(GetString(key)));
}

int CConfig::GetDebugLevel(uint32_t& out) {
    Guard lock(m_Lock);
    std::string text = GetXmlValue(cfgkey::kDebugLevel);
    if (text.empty())
        text = "107";
    out = ExtractUnsigned<uint32_t>(text, true);
    return 0;
}

int CConfig::GetAuthenticatedIdentity(std::string& user, std::string& groups) {
    Guard lock(m_Lock);
    user = GetString(cfgkey::kAuthenticatedUser);
    groups = GetString(cfgkey::kAuthenticatedGroups);
    return 0;
}

int CConfig::GetGroupFilters(std::string& include, std::string& exclude) {
    Guard lock(m_Lock);
    include = GetString(cfgkey::kGroupInclude);
    exclude = GetString(cfgkey::kGroupExclude);
    return 0;
}

std::map<std::string, std::string> CConfig::GetValues() {
    Guard lock(m_Lock);
    return m_Values;
}

uint32_t ClampLogFileSize(uint32_t size) {
    if (size < 100)
        return 100;
    if (size > 10000)
        return 10000;
    return size;
}

void ReadLoggingSettings(CXMLReadWrite& store, LoggingSettings& out) {
    out = LoggingSettings();
    // Each key is read once; an absent node and an empty text both leave the default.
    auto read = [&store](const char* key, std::string& text) {
        store.GetValue(KeyPath(key), text);
        return !text.empty();
    };
    std::string text;
    if (read(cfgkey::kDebugLevel, text))
        out.debugLevel = ExtractUnsigned<uint32_t>(text, true);
    if (read(cfgkey::kDisableBufferedLogging, text))
        out.buffered = atoi(text.c_str()) <= 0;
    if (read(cfgkey::kBufferedLoggingFlushInterval, text)) {
        const int value = atoi(text.c_str());
        out.flushInterval = value <= 0 ? 10 : static_cast<uint32_t>(value);
    }
    if (read(cfgkey::kMaxTimeToFlushLogs, text)) {
        const int value = atoi(text.c_str());
        out.maxFlushTime = value < 0 ? 10000 : value;
    }
    if (read(cfgkey::kLogFileSize, text))
        out.logFileSize = ClampLogFileSize(ExtractUnsigned<uint32_t>(text, false));
    if (read(cfgkey::kNumLogFilesToRetain, text)) {
        const uint32_t value = ExtractUnsigned<uint32_t>(text, false);
        out.numLogFiles = value < 1 ? 1 : value;
    }
    uint32_t days = 0, hours = 0, minutes = 0;
    if (read(cfgkey::kRetentionDays, text))
        days = ExtractUnsigned<uint32_t>(text, false);
    if (read(cfgkey::kRetentionHours, text))
        hours = ExtractUnsigned<uint32_t>(text, false);
    if (read(cfgkey::kRetentionMinutes, text))
        minutes = ExtractUnsigned<uint32_t>(text, false);
    out.retentionSeconds = days * 86400u + hours * 3600u + minutes * 60u;
    if (read(cfgkey::kErrorReportingInterval, text)) {
        const uint32_t value = ExtractUnsigned<uint32_t>(text, false);
        out.errorInterval = value == 0 ? 60 : value;
    }
}
