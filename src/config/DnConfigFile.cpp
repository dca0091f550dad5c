#include "config/DnConfigFile.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include <exception>
#include <fstream>
#include <iterator>
#include <memory>
#include <new>
#include <sstream>

#include <openssl/evp.h>
#include <boost/filesystem.hpp>

#include "common/FileReplacement.h"
#include "common/Mutex.h"
#include "common/OpenSSLCrypt.h"
#include "common/Utils.h"
#include "common/VNTrace.h"
#include "config/ProfileFiles.h"

std::atomic<int> CDnConfigFile::m_ConfigRole{kConfigRolePlugin};

namespace {

using Guard = CRecursiveLock;
using profile_files::DecodeFile;
using profile_files::ProbeFile;
using profile_files::ProbeFileType;

// Set once GetInstance has initialised its object; cleared by the construction of any
// CDnConfigFile, so that the next GetInstance runs the file chain again.
std::atomic<bool> g_bInstanceInitialized{false};

// The store behind ReadFileValue: one per process, owned by no configuration object.
struct FileValueCache {
    CMutex mutex;
    std::unique_ptr<CXMLReadWrite> store GUARDED_BY(mutex);
};

FileValueCache& TheFileValueCache() {
    static FileValueCache cache;
    return cache;
}

// The text handed to OnConfigKey for a plain element.
const char* ValueText(const void* value) {
    return value != nullptr ? static_cast<const char*>(value) : "";
}

// Decimal parse of a signed number: leading blanks skipped, trailing text ignored, 0 for no
// number.
int32_t ParseDecimal(const std::string& text) {
    std::istringstream stream(text);
    long value = 0;
    stream >> value;
    return static_cast<int32_t>(value);
}

}  // namespace

CDnConfigFile::CDnConfigFile()
    : m_TunnelType(0), m_TowerConnectTimeout(0), m_HasHostInclusions(false) {
    g_bInstanceInitialized = false;
}

CDnConfigFile::~CDnConfigFile() {}

bool CDnConfigFile::InitializeConfig(bool checkUpdate, bool updateOnly) {
    if (!EnsureStore())
        return false;
    {
        Guard lock(m_Lock);
        m_TowerConnectTimeout = 0;
    }
    const std::vector<std::string> files = {GetConfigFileName(), GetUpdateFileName(),
                                            GetBackupFileName()};
    const std::string& current = files[0];
    const std::string& update = files[1];
    const std::string& backup = files[2];

    // Current file undecodable, in the agent's branch: deleted, then handled as absent.
    if (checkUpdate && !updateOnly)
        DeleteUndecodableCurrentFile(current);
    // None of the files exists: the default profile becomes the new current file.
    if (!FileExists(current) && !FileExists(update) && !CreateDefaultCurrentFile(backup))
        return false;
    ResetFileAttributes(files);
    // Update differs from the backup, in the agent's branch: it runs, adopted unless wanted alone.
    if (checkUpdate && (updateOnly || IsUpdateAvailable()))
        return RunNewUpdate(update, current, backup, updateOnly);
    // Update present alone: it runs in place of the missing current file, copied nowhere.
    if (!FileExists(current))
        return RunUpdateInPlace();
    // Otherwise the current file runs as it is; one that does not decode leaves no profile.
    return RunCurrentFile();
}

void CDnConfigFile::DeleteUndecodableCurrentFile(const std::string& current) {
    if (!FileExists(current))
        return;
    std::string text;
    const long code = ReadObfuscatedFile(current, text, false);
    if (code != 0) {
        VNTRACE(TL_ERR, "Config : '%s' is corrupt: Result: %ld", current.c_str(), code);
        VNTRACE(TL_ERR, "Config : deleting the file");
        DeleteIfExists(current);
    }
}

bool CDnConfigFile::CreateDefaultCurrentFile(const std::string& backup) {
    DeleteIfExists(backup);
    // The one read of the store pointer in the file chain that no operation of its own guards.
    // Reload holds the lock already, but GetInstance runs the chain again on an object that
    // other threads may be reading, so it takes the lock like every other access.
    Guard lock(m_Lock);
    if (m_pXml->LoadFromString(kDefaultConfigXml, true) != kConfigOk) {
        VNTRACE(TL_WARN, "Config : Failed to load default config file");
        return false;
    }
    m_ConfigFileType = kConfigFileObfuscated;
    if (!CommitConfig()) {
        VNTRACE(TL_WARN, "Config : Failed to create default config file");
        return false;
    }
    return true;
}

bool CDnConfigFile::RunNewUpdate(const std::string& update, const std::string& current,
                                 const std::string& backup, bool updateOnly) {
    if (!LoadUpdateFile()) {
        DropStore();
        return !updateOnly && RunCurrentFile();  // a bad update falls back to the current file
    }
    if (!updateOnly && !CopyUpdateOverCurrentAndBackup(update, current, backup))
        return false;
    FinishLoad();
    return true;
}

bool CDnConfigFile::CopyUpdateOverCurrentAndBackup(const std::string& update,
                                                   const std::string& current,
                                                   const std::string& backup) {
    std::string error;
    bool copied = true;
    try {
        PreserveCopyUpdateToConfig(update, current);
    } catch (const std::exception& e) {
        copied = false;
        error = e.what();
    }
    if (!copied) {
        // The update stays loaded, but the files could not follow it.
        VNTRACE(TL_ERR, "CONFIG : Failed to copy update config to current config: %s",
                error.c_str());
        return false;
    }
    VNTRACE(TL_TRACE, "CONFIG : Loaded and copied update config to current config");
    boost::system::error_code ec;
    boost::filesystem::copy_file(update, backup,
                                 boost::filesystem::copy_options::overwrite_existing, ec);
    if (ec)
        VNTRACE(TL_ERR, "CONFIG : Failed to copy update config to backup config");
    else
        VNTRACE(TL_TRACE, "CONFIG : Copied update config to backup config");
    return true;
}

bool CDnConfigFile::RunUpdateInPlace() {
    if (!EnsureStore())
        return false;
    if (LoadUpdateFile()) {
        FinishLoad();
        return true;
    }
    DropStore();
    return RunCurrentFile();
}

bool CDnConfigFile::RunCurrentFile() {
    if (!EnsureStore())
        return false;
    if (LoadConfigFile(false) != 0) {
        VNTRACE(TL_ERR, "ERROR : Failed to load Configuration file");
        DropStore();
        return false;
    }
    if (LoadConfigKeys() < 0) {
        VNTRACE(TL_ERR, "ERROR : Failed to load Configuration keys");
        DropStore();
        return false;
    }
    FinishLoad();
    return true;
}

bool CDnConfigFile::LoadUpdateFile() {
    if (LoadConfigFile(true) != 0) {
        VNTRACE(TL_ERR, "ERROR : Failed to load Update Configuration file");
        return false;
    }
    if (LoadConfigKeys() < 0) {
        VNTRACE(TL_ERR, "ERROR : Failed to load Update Configuration keys");
        return false;
    }
    return true;
}

void CDnConfigFile::FinishLoad() {
    Guard lock(m_Lock);
    ParseTunnelType();
    LoadHostExceptions();
    LoadProxyExceptions();
    LoadHostInclusions();
    ParseConnectTimeout();
}

bool CDnConfigFile::Reload() {
    Guard lock(m_Lock);
    if (!InitializeConfig(false, false)) {
        VNTRACE(TL_ERR, "ERROR : Failed to initialize config");
        return false;
    }
    return true;
}

long CDnConfigFile::ReadObfuscatedFile(const std::string& path, std::string& text,
                                       bool stripMarker) {
    Guard lock(m_Lock);
    return DecodeFile(path, text, stripMarker);
}

long CDnConfigFile::GetConfigFileType(const std::string& path, ConfigFileType& type) {
    Guard lock(m_Lock);
    return ProbeFileType(path, type);
}

long CDnConfigFile::LoadConfigKeys() {
    Guard lock(m_Lock);
    if (m_pXml == nullptr) {
        VNTRACE(TL_ERR, "Config : Not initialized.");
        return 1;
    }
    m_Values.clear();
    m_Towers.clear();
    m_Address.clear();
    m_DctSettings.clear();

    const ConfigStatus status = m_pXml->EnumConfig(this, &CDnConfigFile::OnConfigKey, true);
    return static_cast<long>(status);
}

void CDnConfigFile::OnConfigKey(void* config, const char* name, const void* value) {
    CDnConfigFile* const self = static_cast<CDnConfigFile*>(config);
    if (self == nullptr || name == nullptr)
        return;
    Guard lock(self->m_Lock);
    const std::string key(name);
    if (CompareNoCase(key, cfgkey::kTower) == 0) {
        // The walk reports towers under this exact name with a record; it leaves out stray
        // elements of that name. Anything else is never read as a record.
        if (strcmp(name, cfgkey::kTower) != 0 || value == nullptr) {
            VNTRACE(TL_WARN, "Config : Element '%s' is not a member of Towers; ignored", name);
            return;
        }
        const TowerInfo& info = *static_cast<const TowerInfo*>(value);
        self->m_Towers.emplace_back(info.DisplayName, info);
    } else if (CompareNoCase(key, cfgkey::kTrustedNetworkDetection) == 0) {
        // Read through the store by path when needed.
    } else if (CompareNoCase(key, cfgkey::kAddress) == 0) {
        self->m_Address = std::string(";") + ValueText(value);
    } else if (CompareNoCase(key, cfgkey::kDetectClosestTower) == 0) {
        // Children of DetectClosestTower come as pairs under the exact name; any other
        // spelling is a plain element with text.
        if (strcmp(name, cfgkey::kDetectClosestTower) != 0 || value == nullptr) {
            VNTRACE(TL_WARN, "Config : Element '%s' is not DetectClosestTower; ignored", name);
            return;
        }
        self->m_DctSettings.insert(*static_cast<const DctSetting*>(value));
    } else {
        // The first of two elements with the same name wins.
        self->m_Values.insert(std::make_pair(key, std::string(ValueText(value))));
    }
}

bool CDnConfigFile::CommitConfig() {
    Guard lock(m_Lock);
    if (m_pXml == nullptr) {
        VNTRACE(TL_ERR, "Config : XMLReadWrite not initialized.");
        return false;
    }
    std::string text;
    const ConfigStatus status = m_pXml->GetXML(text);
    if (status < 0 || text.empty()) {
        VNTRACE(TL_ERR, "Config : Failed to get XML stream. Code : %x",
                static_cast<unsigned>(status));
        return false;
    }
    const std::string path = GetConfigFileName();
    if (m_ConfigFileType == kConfigFileObfuscated) {
        text.insert(0, kObfuscatedMarker);
        if (COpenSSLCrypt::ObfuscateStringToFile(text.data(), static_cast<uint32_t>(text.size()),
                                                 path.c_str(), nullptr) == 0)
            return true;
        VNTRACE(TL_ERR, "Config : ObfuscateStringToFile failed");
        return false;
    }
    // A profile that was loaded plain is written back plain. Failures here are logged but count
    // as done to the caller.
    // The old file is replaced only once the new text is wholly on disk.
    CFileReplacement replacement(path);
    FILE* file = replacement.Open();
    if (file == nullptr) {
        VNTRACE(TL_ERR, "Config : Failed to open config file.");
        return true;
    }
    fwrite(text.data(), 1, text.size(), file);
    if (!replacement.Commit())
        VNTRACE(TL_ERR, "Config : Failed to write to config file. Code : 0x%x",
                static_cast<unsigned>(status));
    return true;
}

void CDnConfigFile::PreserveCopyUpdateToConfig(const std::string& updatePath,
                                               const std::string& configPath) {
    Guard lock(m_Lock);
    std::string user;
    std::string groups;
    CDnConfigFile previous;  // the profile being replaced
    if (previous.InitializeConfig(false, false)) {
        const std::string oldDomains = previous.GetString(cfgkey::kEnterpriseDomains);
        const std::string newDomains = GetString(cfgkey::kEnterpriseDomains);
        if (!oldDomains.empty() && oldDomains == newDomains) {
            user = previous.GetString(cfgkey::kAuthenticatedUser);
            groups = previous.GetString(cfgkey::kAuthenticatedGroups);
        }
    }
    if (FileExists(configPath))
        boost::filesystem::remove(configPath);
    boost::filesystem::copy_file(updatePath, configPath,
                                 boost::filesystem::copy_options::overwrite_existing);
    if (!user.empty() && !UpdateConfigKey(cfgkey::kAuthenticatedUser, user.c_str(), true))
        VNTRACE(TL_ERR, "PreserveCopyUpdateToConfig : Failed to preserve user");
    if (!groups.empty() && !UpdateConfigKey(cfgkey::kAuthenticatedGroups, groups.c_str(), true))
        VNTRACE(TL_ERR, "PreserveCopyUpdateToConfig : Failed to preserve groups");
}

void CDnConfigFile::ResetFileAttributes(const std::vector<std::string>& paths) {
    Guard lock(m_Lock);
    for (const std::string& path : paths) {
        if (chmod(path.c_str(), 0644) != 0 && errno != ENOENT) {
            const int error = errno;
            VNTRACE(TL_ERR, "CONFIG : Failed to change attributes for '%s' to NORMAL (err %d)",
                    path.c_str(), error);
        }
    }
}

void CDnConfigFile::ParseTunnelType() {
    Guard lock(m_Lock);
    const std::string type = GetString(cfgkey::kTunnelType);
    if (CompareNoCase(type, "plain") == 0)
        m_TunnelType = 2;
    else if (CompareNoCase(type, "ssl") == 0)
        m_TunnelType = 1;
    else
        m_TunnelType = 0;
}

void CDnConfigFile::ParseConnectTimeout() {
    Guard lock(m_Lock);
    std::string text = GetString(cfgkey::kTowerSecureConnectTimeout);
    if (text.empty())
        text = GetString(cfgkey::kConnectTimeout);
    Trim(text, kWhitespace);
    m_TowerConnectTimeout = ParseDecimal(text);
}

bool CDnConfigFile::UpdateConfigKey(const char* key, const char* value, bool commit) {
    if (key == nullptr || value == nullptr)
        return false;
    Guard lock(m_Lock);
    if (!SetXmlValue(key, value)) {
        VNTRACE(TL_ERR, "Config : Failed to update config key <%s=%s>.", key, value);
        return false;
    }
    return UpdateData(&m_Values, key, value, commit);
}

bool CDnConfigFile::UpdateData(std::map<std::string, std::string>* values, const char* key,
                               const char* value, bool commit) {
    if (values == nullptr || key == nullptr || value == nullptr) {
        VNTRACE(TL_ERR, "UpdateData : Bad parameter");
        return false;
    }
    Guard lock(m_Lock);
    values->erase(key);
    values->insert(std::make_pair(std::string(key), std::string(value)));
    // Only the process that owns the files writes them; elsewhere the change stays in memory.
    if (m_ConfigRole == kConfigRoleOwner && commit) {
        if (!CommitConfig()) {
            VNTRACE(TL_ERR, "UpdateData : Failed to commit changes to config");
            return false;
        }
        return Reload();
    }
    return true;
}

long CDnConfigFile::ReadFileValue(const std::string& path, const std::string& xpath, bool reload,
                                  std::string& out) {
    FileValueCache& cache = TheFileValueCache();
    CMutexLock lock(cache.mutex);
    if (cache.store && !reload)
        return static_cast<long>(cache.store->GetValue(xpath, out));
    cache.store.reset(new (std::nothrow) CXMLReadWrite);
    if (!cache.store)
        return static_cast<long>(kConfigOutOfMemory);
    // An obfuscated profile is decoded and parsed into the store by the probe itself; anything
    // else is read as plain text, which leaves the store empty when it is no XML either.
    ConfigFileType type = kConfigFileUnknown;
    ProbeFile(path, type, nullptr, cache.store.get());
    if (type != kConfigFileObfuscated)
        cache.store->LoadFromFile(path, false);
    return static_cast<long>(cache.store->GetValue(xpath, out));
}

CDnConfigFile& CDnConfigFile::GetInstance(bool checkUpdate) {
    static CDnConfigFile instance;
    if (!g_bInstanceInitialized) {
        if (instance.InitializeConfig(checkUpdate, false))
            g_bInstanceInitialized = true;
    }
    return instance;
}

int CDnConfigFile::GetTunnelType() {
    Guard lock(m_Lock);
    return m_TunnelType;
}

int CDnConfigFile::GetTowerConnectTimeout() {
    Guard lock(m_Lock);
    return m_TowerConnectTimeout;
}

bool CDnConfigFile::HasHostInclusions() {
    Guard lock(m_Lock);
    return m_HasHostInclusions;
}

int CDnConfigFile::GetKdfListenPort(uint16_t& out) {
    Guard lock(m_Lock);
    out = GetPort(cfgkey::kKdfListenPort);
    return 0;
}

int CDnConfigFile::GetConfigParams(ConfigParams& out) {
    Guard lock(m_Lock);
    out = ConfigParams();
    out.kdfListenPort = GetPort(cfgkey::kKdfListenPort);
    out.ipcPort = GetPort(cfgkey::kIpcPort);
    out.kdfPortIncluded = GetString(cfgkey::kKdfPortIncluded);
    out.staticExceptions = GetString(cfgkey::kStaticExceptions);
    out.maxNumStaticExceptions = GetString(cfgkey::kMaxNumStaticExceptions);
    for (const auto& tower : m_Towers)
        out.towerHosts += tower.second.HostName + ";";
    // The host of the tower URL: what lies between "//" and the first "/" of the path. A URL
    // without a path gives nothing.
    const std::string url = GetString(cfgkey::kTowerUrl);
    if (url.size() >= 2) {
        const size_t scheme = url.find("//");
        if (scheme != std::string::npos) {
            const size_t hostStart = scheme + 2;
            const size_t pathStart = url.find('/', hostStart);
            if (pathStart != std::string::npos)
                out.towerUrlHost = url.substr(hostStart, pathStart - hostStart) + ";";
        }
    }
    out.address = m_Address + ";";
    return 0;
}

std::list<std::pair<std::string, TowerInfo>> CDnConfigFile::GetTowers() {
    Guard lock(m_Lock);
    return m_Towers;
}

std::map<std::string, std::string> CDnConfigFile::GetDctSettings() {
    Guard lock(m_Lock);
    return m_DctSettings;
}
