// The towers of the profile and the closest-tower (DCT) settings: which tower is active and how
// a stale choice is repaired, the replacement of the tower list, the towers offered for display,
// and the DetectClosestTower values. Both the plug-in and the service agent use these; the
// plug-in itself only reads, the agent stores what it learns through them.
#include <stdio.h>
#include <strings.h>
#include <time.h>

#include <new>
#include <sstream>

#include "common/Mutex.h"
#include "common/Token.h"
#include "common/Utils.h"
#include "common/VNTrace.h"
#include "config/DnConfigFile.h"

namespace {

using Guard = CRecursiveLock;
using TowerList = std::list<std::pair<std::string, TowerInfo>>;

constexpr int kTunnelPlain = 2;

// The first tower whose display name equals `name` ignoring ASCII case, or end.
TowerList::const_iterator FindTower(const TowerList& towers, const std::string& name) {
    for (auto it = towers.begin(); it != towers.end(); ++it) {
        if (CompareNoCase(it->second.DisplayName, name) == 0)
            return it;
    }
    return towers.end();
}

// Copies the tower into `out` with the one port of the tunnel in use; the other port field
// keeps what it held.
void FillActive(const TowerInfo& tower, int tunnelType, TowerInfo& out) {
    out.DisplayName = tower.DisplayName;
    out.HostName = tower.HostName;
    out.Active = tower.Active;
    if (tunnelType == kTunnelPlain)
        out.PlainPort = tower.PlainPort;
    else
        out.SSLPort = tower.SSLPort;
}

// Now in local time as yyyymmddhhmmss.
std::string LocalTimeStamp() {
    const time_t now = time(nullptr);
    struct tm local = {};
    localtime_r(&now, &local);
    char text[32];
    snprintf(text, sizeof(text), "%04d%02d%02d%02d%02d%02d", local.tm_year + 1900, local.tm_mon + 1,
             local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
    return text;
}

// The names the two display getters offer; false, after the line both write, when there is none.
bool OfferedTowers(CDnConfigFile& config, std::list<std::string>& names) {
    if (config.GetValidDisplayTowers(names) == 0)
        return true;
    VNTRACE(TL_ERR, "Config: Failed to get valid display towers list.");
    return false;
}

}  // namespace

int CDnConfigFile::GetActiveTower(TowerInfo& out) {
    Guard lock(m_Lock);
    if (m_Towers.empty()) {
        VNTRACE(TL_ERR, "Config : List of towers is empty.");
        return 0;
    }
    const std::string host = GetString(cfgkey::kActiveTowerHostName);
    const std::string display = GetString(cfgkey::kActiveTowerDisplayName);
    const std::string preferred = GetString(cfgkey::kDefaultTower);

    // A host without a name, or a name without a host, counts as no choice.
    if (!host.empty() && !display.empty()) {
        const auto found = FindTower(m_Towers, display);
        if (found != m_Towers.end()) {
            // Copied: a commit in the owner's process reloads and rebuilds m_Towers.
            const TowerInfo tower = found->second;
            FillActive(tower, m_TunnelType, out);
            if (CompareNoCase(host, tower.HostName) != 0) {
                VNTRACE(TL_TRACE, "Config: Changing ActiveTowerHostName from %s to %s",
                        host.c_str(), tower.HostName.c_str());
                UpdateConfigKey(cfgkey::kActiveTowerHostName, tower.HostName.c_str(), true);
            }
            return 0;
        }
    }

    // The stored choice is stale or missing: Default when it names a tower, else the first.
    bool byDefault = false;
    TowerInfo tower;
    if (!preferred.empty()) {
        const auto found = FindTower(m_Towers, preferred);
        if (found != m_Towers.end()) {
            tower = found->second;
            byDefault = true;
        }
    }
    if (!byDefault)
        tower = m_Towers.front().second;
    FillActive(tower, m_TunnelType, out);
    UpdateConfigKey(cfgkey::kActiveTowerDisplayName, tower.DisplayName.c_str(), false);
    if (byDefault) {
        VNTRACE(TL_TRACE, "Config: ActiveHostDisplayName has been changed from %s to %s (Default)",
                display.c_str(), tower.DisplayName.c_str());
    } else {
        VNTRACE(TL_TRACE,
                "Config: ActiveHostDisplayName has been changed from %s to %s (First tower's "
                "display name from the Tower List)",
                display.c_str(), tower.DisplayName.c_str());
    }
    UpdateConfigKey(cfgkey::kActiveTowerHostName, tower.HostName.c_str(), true);
    VNTRACE(TL_TRACE, "Config: ActiveTowerHostName has been changed from %s to %s", host.c_str(),
            tower.HostName.c_str());
    return 0;
}

bool CDnConfigFile::SetActiveTower(const std::string& host, const std::string& display) {
    Guard lock(m_Lock);
    UpdateConfigKey(cfgkey::kActiveTowerDisplayName, display.c_str(), false);
    return UpdateConfigKey(cfgkey::kActiveTowerHostName, host.c_str(), true);
}

void CDnConfigFile::UpdateTowerList(const TowerList& towers, bool commit) {
    Guard lock(m_Lock);
    if (m_pXml == nullptr) {
        VNTRACE(TL_ERR, "Config : Not initialized.");
        return;
    }
    std::vector<TowerInfo> records;
    records.reserve(towers.size());
    for (const auto& tower : towers)
        records.push_back(tower.second);
    m_pXml->DeleteConfigNode(cfgkey::kTowers);
    m_pXml->AddTowersToConfig(records);
    // `towers` may be a copy the caller took of m_Towers itself; assigning to itself is safe.
    m_Towers = towers;

    const std::string host = GetString(cfgkey::kActiveTowerHostName);
    const std::string display = GetString(cfgkey::kActiveTowerDisplayName);
    const auto found = FindTower(m_Towers, display);
    if (found != m_Towers.end() && CompareNoCase(found->second.HostName, host) != 0) {
        const std::string newHost = found->second.HostName;
        VNTRACE(TL_TRACE, "Config: Current ActiveTowerHostName is being changed from %s to %s",
                host.c_str(), newHost.c_str());
        UpdateConfigKey(cfgkey::kActiveTowerHostName, newHost.c_str(), false);
        VNTRACE(TL_TRACE, "Config: ActiveTowerHostName has been changed to %s", newHost.c_str());
    }
    // A name that is gone from the list is left for GetActiveTower to repair.
    UpdateConfigKey(cfgkey::kLastUpdateTime, LocalTimeStamp().c_str(), commit);
}

TowerList* CDnConfigFile::GetTowerList() {
    Guard lock(m_Lock);
    TowerList* copy = new (std::nothrow) TowerList;
    if (copy == nullptr)
        return nullptr;
    try {
        *copy = m_Towers;
    } catch (const std::bad_alloc&) {
        delete copy;
        return nullptr;
    }
    return copy;
}

int CDnConfigFile::GetDisplayTowersList(std::list<std::string>& out) {
    Guard lock(m_Lock);
    out.clear();
    std::vector<std::string> tokens;
    CToken::SplitList(GetString(cfgkey::kDisplayTowers), ",", tokens);
    for (const std::string& token : tokens) {
        bool seen = false;
        for (const std::string& entry : out) {
            if (strcasecmp(entry.c_str(), token.c_str()) == 0) {
                seen = true;
                break;
            }
        }
        if (!seen)
            out.push_back(token);
    }
    return 0;
}

int CDnConfigFile::GetValidDisplayTowers(std::list<std::string>& out) {
    Guard lock(m_Lock);
    out.clear();
    std::list<std::string> names;
    for (const auto& tower : m_Towers)
        names.push_back(tower.second.DisplayName);
    if (names.empty()) {
        VNTRACE(TL_ERR, "Config: TowerInfo map is empty.");
        return -1;
    }
    std::list<std::string> wanted;
    GetDisplayTowersList(wanted);
    for (const std::string& entry : wanted) {
        for (const std::string& name : names) {
            if (strcasecmp(name.c_str(), entry.c_str()) == 0) {
                out.push_back(name);
                break;
            }
        }
    }
    if (out.empty())
        out = names;
    return 0;
}

int CDnConfigFile::GetDisplayTowerNames(std::string& out) {
    Guard lock(m_Lock);
    out.clear();
    std::list<std::string> names;
    if (!OfferedTowers(*this, names))
        return 0;
    for (const std::string& name : names)
        out += name + ",";
    return 0;
}

int CDnConfigFile::GetDisplayTowerInfos(std::vector<TowerInfo>& out) {
    Guard lock(m_Lock);
    out.clear();
    std::list<std::string> names;
    if (!OfferedTowers(*this, names))
        return 0;
    for (const std::string& name : names) {
        const auto found = FindTower(m_Towers, name);
        if (found != m_Towers.end())
            out.push_back(found->second);
    }
    return 0;
}

std::string CDnConfigFile::GetDctString(const char* key) {
    std::string value;
    if (key == nullptr)
        return value;
    Guard lock(m_Lock);
    const auto found = m_DctSettings.find(key);
    if (found == m_DctSettings.end())
        return value;
    value = found->second;
    Trim(value, kWhitespace);
    return value;
}

int CDnConfigFile::GetDctInteger(const char* key) {
    const std::string text = GetDctString(key);
    if (text.empty())
        return 0;
    // Leading blanks skipped, trailing text ignored, 0 for no number.
    std::istringstream stream(text);
    long value = 0;
    stream >> value;
    return static_cast<int>(value);
}

int CDnConfigFile::GetDctParams(DctParams& out) {
    Guard lock(m_Lock);
    out.connectTimeout = GetInteger(cfgkey::kConnectTimeout);
    out.mode = GetDctString("Mode");
    out.numberReadings = GetDctInteger("NumberReadings");
    return 0;
}

bool CDnConfigFile::UpdateDCTData(const char* key, const char* value, bool commit) {
    // A null value would have no text to store; it is refused like a null key.
    if (key == nullptr || value == nullptr)
        return false;
    Guard lock(m_Lock);
    const std::string path = std::string(cfgkey::kDetectClosestTower) + "/" + key;
    if (!SetXmlValue(path, value)) {
        VNTRACE(TL_WARN, "CDnConfigFile::UpdateDCTData failed to set config value: %s = %s",
                path.c_str(), value);
    }
    return UpdateData(&m_DctSettings, key, value, commit);
}

bool CDnConfigFile::UpdateDCTData(const char* key, int value, bool commit) {
    return UpdateDCTData(key, std::to_string(value).c_str(), commit);
}

bool CDnConfigFile::UpdateDCT(int detectClosest, int mode, bool commit) {
    Guard lock(m_Lock);
    UpdateDCTData("DetectClosest", detectClosest, commit);
    if (mode == 0)
        UpdateDCTData("Mode", "manual", commit);
    else if (mode == 1)
        UpdateDCTData("Mode", "auto", commit);
    else
        VNTRACE(TL_WARN, "CDnConfigFile : Invalid DCT mode received from client");
    CommitConfig();
    return true;
}
