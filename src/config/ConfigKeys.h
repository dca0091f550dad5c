// Names and plain records of the profile: the places of the three files, the element names of
// the keys, the start-up record ConfigParams, the parsed subnet ExceptionAddress, and the
// built-in default profile. Constants and plain data only; nothing here holds state.
#ifndef TIDEWAY_CONFIG_CONFIGKEYS_H_
#define TIDEWAY_CONFIG_CONFIGKEYS_H_

#include <stddef.h>
#include <stdint.h>

#include <string>

// What a probe of a profile file found (GetConfigFileType).
using ConfigFileType = uint32_t;
constexpr ConfigFileType kConfigFileUnknown = 0;     // neither plain XML nor decodable
constexpr ConfigFileType kConfigFilePlainXml = 1;    // parses as XML as it stands
constexpr ConfigFileType kConfigFileBadXml = 2;      // decodes, but the text is not XML
constexpr ConfigFileType kConfigFileObfuscated = 3;  // decodes to XML: the only kind loaded

// File-level result codes of the configuration operations.
constexpr long kConfigFileMissing = 2;       // no such file
constexpr long kConfigFileUndecodable = 22;  // cannot be decoded, or is not obfuscated

// The role of the process in the file chain: the service agent owns the files and commits its
// edits; the plug-in module only reads.
constexpr int kConfigRoleOwner = 1;
constexpr int kConfigRolePlugin = 2;

// Where the files lie, below the app-data root.
constexpr const char* kProductDirectory = "/tarvex/brenlo/tideway";
constexpr const char* kConfigDirectory = "/config";
constexpr const char* kConfigFileLeaf = "Tideway.config";
constexpr const char* kUpdateFileLeaf = "Tideway_ServiceProfile.wso";
constexpr const char* kBackupFileLeaf = "Tideway_config.backup";

// Paths inside the document. Every key path is kConfigBasePath + "/" + the key.
constexpr const char* kConfigBasePath = "Tideway/ConfigurationParameters";
constexpr const char* kConfigBasePathSlash = "Tideway/ConfigurationParameters/";
constexpr const char* kProfileLabelPath = "Tideway/ProfileLabel";

// Element names of the keys under ConfigurationParameters.
namespace cfgkey {
// Logging, nested: read through the XML store by path.
constexpr const char* kDebugLevel = "Logging/debug_level";
constexpr const char* kLogFileSize = "Logging/LogFileSize";
constexpr const char* kNumLogFilesToRetain = "Logging/NumLogFilesToRetain";
constexpr const char* kRetentionDays = "Logging/LogFileRetentionTime/Days";
constexpr const char* kRetentionHours = "Logging/LogFileRetentionTime/Hours";
constexpr const char* kRetentionMinutes = "Logging/LogFileRetentionTime/Minutes";
constexpr const char* kErrorReportingInterval = "Logging/ErrorReportingInterval";
// Buffering, directly under ConfigurationParameters although it belongs with Logging.
constexpr const char* kDisableBufferedLogging = "DisableBufferedLogging";
constexpr const char* kBufferedLoggingFlushInterval = "BufferedLoggingFlushInterval_ms";
constexpr const char* kMaxTimeToFlushLogs = "MaxTimeToFlushLogs_ms";
constexpr const char* kDaysToKeepLogs = "DaysToKeepLogs";

constexpr const char* kKdfListenPort = "kdf_listen_port";
constexpr const char* kIpcPort = "ipc_port";
constexpr const char* kKdfPortIncluded = "kdf_port_included";
constexpr const char* kTunnelType = "tunnel_type";
constexpr const char* kHostExceptions = "host_exceptions";
constexpr const char* kProxyExceptions = "proxy_exceptions";
constexpr const char* kHostInclusions = "host_inclusions";
constexpr const char* kStaticExceptions = "static_exceptions";
constexpr const char* kMaxNumStaticExceptions = "MaxNumStaticExceptions";
constexpr const char* kMaxConnections = "max_connections";
constexpr const char* kMinConnections = "min_connections";
constexpr const char* kConnectionCleanupInterval = "connection_cleanup_interval_ms";
constexpr const char* kAuthenticatedUser = "authenticated_user";
constexpr const char* kAuthenticatedGroups = "authenticated_groups";
constexpr const char* kGroupInclude = "GroupInclude";
constexpr const char* kGroupExclude = "GroupExclude";
constexpr const char* kEnterpriseDomains = "enterprise_domains";
constexpr const char* kConnectTimeout = "connect_timeout";
constexpr const char* kTowerSecureConnectTimeout = "tower_secure_connect_timeout";
constexpr const char* kTowerUrl = "TowerUrl";
constexpr const char* kActiveTowerHostName = "ActiveTowerHostName";
constexpr const char* kActiveTowerDisplayName = "ActiveTowerDisplayName";
constexpr const char* kDefaultTower = "Default";
constexpr const char* kDisplayTowers = "DisplayTowers";
constexpr const char* kLastUpdateTime = "LastUpdateTime";
constexpr const char* kAddress = "Address";
constexpr const char* kTowers = "Towers";
constexpr const char* kTower = "Tower";
constexpr const char* kTrustedNetworkDetection = "TrustedNetworkDetection";
constexpr const char* kTndEnabled = "TrustedNetworkDetection/Enabled";
constexpr const char* kDetectClosestTower = "DetectClosestTower";
constexpr const char* kDctDetectClosest = "DetectClosestTower/DetectClosest";
constexpr const char* kDctMode = "DetectClosestTower/Mode";
constexpr const char* kDctNumberReadings = "DetectClosestTower/NumberReadings";
constexpr const char* kDetectOnLanClient = "DetectOnLANClient";

// Carried for the service agent; nothing in this module acts on them.
constexpr const char* kServiceHeartbeatInterval = "service_heartbeat_interval";
constexpr const char* kClientHeartbeatInterval = "client_heartbeat_interval";
constexpr const char* kHostedConfig = "hosted_config";
constexpr const char* kDisableSessionReuse = "disable_session_reuse";
constexpr const char* kPassword = "password";
constexpr const char* kAuthUserFormat = "auth_user_format";
constexpr const char* kThreadpoolEnable = "threadpool_enable";
constexpr const char* kDnsFwdTimeout = "dns_fwd_timeout_ms";
constexpr const char* kDnsFwdFailTtl = "dns_fwd_fail_ttl_s";
constexpr const char* kIconStateSendInterval = "icon_state_send_interval";
constexpr const char* kTelemetryMode = "telemetry_mode";
constexpr const char* kReportIpv6Address = "report_ipv6_address";
constexpr const char* kTowerPollFrequency = "TowerPollFrequency";
constexpr const char* kTowerPollFrequencyShort = "TowerPollFrequencyShort";
constexpr const char* kSerial = "Serial";
constexpr const char* kForcedGpRefresh = "ForcedGPRefresh";
constexpr const char* kConnectionFailurePolicy = "ConnectionFailure/Policy";
constexpr const char* kConnectionFailureOnCaptivePortal = "ConnectionFailure/OnCaptivePortal";

// Defined for the agent's schema; no path of this module reads them.
constexpr const char* kEnableLockdown = "EnableLockdown";
constexpr const char* kUseEncryptedConfig = "UseEncryptedConfig";
}  // namespace cfgkey

// The settings the plug-in starts with, filled by CDnConfigFile::GetConfigParams.
struct ConfigParams {
    uint16_t kdfListenPort = 0;
    uint16_t ipcPort = 0;
    std::string kdfPortIncluded;
    std::string staticExceptions;
    std::string maxNumStaticExceptions;  // handed on as text, not converted
    std::string towerHosts;              // HostName of each tower, each followed by ";"
    std::string towerUrlHost;            // host part of TowerUrl followed by ";", or empty
    std::string address;                 // the stored Address (";" before it) followed by ";"
};

// One subnet of an exception list. IPv4: `address` is masked, both in host byte order, and
// `address6` is zero. IPv6: `address` is 0, `mask` holds the prefix length, and `address6` the
// address as written, not masked.
struct ExceptionAddress {
    int32_t family = 0;  // 0 IPv4, 1 IPv6
    uint32_t address = 0;
    uint32_t mask = 0;
    uint8_t address6[16] = {};
};
constexpr int32_t kExceptionFamilyIPv4 = 0;
constexpr int32_t kExceptionFamilyIPv6 = 1;

// The profile written when no file exists. The runs of blanks carry no meaning; the length is
// fixed at 889 characters.
inline constexpr char kDefaultConfigXml[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\r\n"
    "<Tideway xsi:noNamespaceSchemaLocation=\"Tideway.xsd\" "
    "xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\">\r\n"
    "             <SchemaVersion>3.0</SchemaVersion>\r\n"
    "             <ConfigurationParameters>\r\n"
    "                          <kdf_listen_port>5001</kdf_listen_port>\r\n"
    "                          <ipc_port>5003</ipc_port>\r\n"
    "                          <kdf_port_included>80,8080,3128</kdf_port_included>\r\n"
    "                          <Logging>\r\n"
    "                                       <debug_level>FFFFFFFF</debug_level>\r\n"
    "                          </Logging>\r\n"
    "                          <ConnectionFailure>\r\n"
    "                                       <Policy>FailClose</Policy>\r\n"
    "                                       <OnCaptivePortal>FailClose</OnCaptivePortal>\r\n"
    "                          </ConnectionFailure>\r\n"
    "             </ConfigurationParameters>\r\n"
    "</Tideway>\r\n";
constexpr size_t kDefaultConfigXmlLength = sizeof(kDefaultConfigXml) - 1;
static_assert(kDefaultConfigXmlLength == 889, "the default profile is 889 characters long");

#endif  // TIDEWAY_CONFIG_CONFIGKEYS_H_
