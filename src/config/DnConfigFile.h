// CDnConfigFile: the profile shared with the service agent. It decides at start-up which of
// the three files (current, update, backup) becomes the running configuration, rotates and
// repairs them, loads the winner into the XML store and the map of keys, and parses the
// exception lists, the tunnel type and the connect time-out out of it.
//
// Ownership and threads: the creator owns the object. InitializeConfig takes no lock of its
// own and runs before other threads can reach the object (Reload holds m_Lock around it); after
// it, any thread may call the rest. m_Lock (inherited, recursive) guards every field below.
// The process-wide m_ConfigFileType and m_ConfigRole are atomics; the store behind
// ReadFileValue has a mutex of its own.
#ifndef TIDEWAY_CONFIG_DNCONFIGFILE_H_
#define TIDEWAY_CONFIG_DNCONFIGFILE_H_

#include <stdint.h>

#include <atomic>
#include <list>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "config/Config.h"
#include "config/ConfigKeys.h"
#include "config/TowerInfo.h"

class CDnConfigFile final : public CConfig {
  public:
    CDnConfigFile();
    ~CDnConfigFile();

    // The decision tree of the file chain. checkUpdate adopts an update that differs from the
    // backup (the agent's branch); updateOnly loads the update alone and touches no file. The
    // plug-in passes false, false. False when no configuration could be loaded.
    bool InitializeConfig(bool checkUpdate, bool updateOnly);
    // InitializeConfig(false, false) under the lock.
    bool Reload() override;

    // Decodes the obfuscated file at `path` into `text` (replacing it); with `stripMarker`, a
    // leading "OBFUSCATED" is removed. 0, or 22 for any failure.
    long ReadObfuscatedFile(const std::string& path, std::string& text, bool stripMarker);
    // Probes the file: plain XML (1), obfuscated XML (3), decodes to bad XML (2), or unknown
    // (0). 0 for types 1 and 3; otherwise the code of the failed decode or parse.
    long GetConfigFileType(const std::string& path, ConfigFileType& type);
    // Refills the map, the towers, the address and the DCT settings from the store. The store's
    // status (negative means failure); 1 without a store.
    long LoadConfigKeys();
    // Writes the store to the current file: obfuscated with the marker when the last probe
    // found an obfuscated file, else plain (a plain write that fails still counts as done).
    bool CommitConfig();
    // Replaces the current file by the update file, keeping the old authenticated user and
    // groups when the enterprise domains did not change. Throws what the file operations throw.
    void PreserveCopyUpdateToConfig(const std::string& updatePath, const std::string& configPath);
    // chmod 0644 on each path; a missing file is no error.
    void ResetFileAttributes(const std::vector<std::string>& paths);
    void ParseTunnelType();
    void ParseConnectTimeout();

    // Sets the key in the store and in the map; commits and reloads only in the process that
    // owns the files.
    bool UpdateConfigKey(const char* key, const char* value, bool commit);
    bool UpdateData(std::map<std::string, std::string>* values, const char* key, const char* value,
                    bool commit);

    // Reads `xpath` from any profile file through one process-wide store, which is loaded
    // again only when `reload` is set or nothing is cached. The store's status, a decode code,
    // or 0x8007000E.
    static long ReadFileValue(const std::string& path, const std::string& xpath, bool reload,
                              std::string& out);
    // The process-wide object, initialised at first use and again after any CDnConfigFile has
    // been constructed since (construction clears the flag).
    static CDnConfigFile& GetInstance(bool checkUpdate);

    // Callback of EnumConfig: `config` is the CDnConfigFile being loaded.
    static void OnConfigKey(void* config, const char* name, const void* value);

    int GetTunnelType();
    int GetTowerConnectTimeout();
    bool HasHostInclusions();
    int GetKdfListenPort(uint16_t& out);
    int GetConfigParams(ConfigParams& out);
    // One line per running setting for diagnostics, each with a 0 in `marks` (ConfigDump.cpp).
    // -1 without a store.
    int GetConfigDump(std::vector<std::string>& lines, std::vector<int>& marks);

    // Exception lists (ExceptionList.cpp): the text at `key` parsed by ParseExceptionList.
    // Entries without "/" go to `names`, valid subnets to `addrs`; the rest costs a warning
    // each. Entries are visited sorted and without repeats.
    void ParseExceptions(const char* key, std::list<std::string>& names,
                         std::vector<ExceptionAddress>& addrs);
    void LoadHostExceptions();
    void LoadProxyExceptions();
    void LoadHostInclusions();
    // 1: host exceptions, 2: proxy exceptions; names plus subnets.
    int GetExceptionCount(int kind);

    // Copies of the parsed lists and of the tower data, taken under the lock.
    void GetHostExceptions(std::list<std::string>& names, std::vector<ExceptionAddress>& addrs);
    void GetProxyExceptions(std::list<std::string>& names, std::vector<ExceptionAddress>& addrs);
    void GetHostInclusions(std::list<std::string>& names, std::vector<ExceptionAddress>& addrs);
    std::list<std::pair<std::string, TowerInfo>> GetTowers();
    std::map<std::string, std::string> GetDctSettings();

    // Towers and closest-tower settings (DnConfigTowers.cpp). Names and host names match
    // without regard to ASCII case, and the first match in list order wins.
    // The active tower: the stored choice when its display name is in the list (its host
    // followed to the list's), else Default, else the first tower; a stale choice is repaired
    // in the store. `out` keeps what it held when there is no tower. Always 0.
    int GetActiveTower(TowerInfo& out);
    bool SetActiveTower(const std::string& host, const std::string& display);
    // Replaces the towers in the store and the list, follows the active tower to its new
    // host, and stamps LastUpdateTime (committed under the rule of UpdateData).
    void UpdateTowerList(const std::list<std::pair<std::string, TowerInfo>>& towers, bool commit);
    // A copy the caller owns; null when memory runs out.
    std::list<std::pair<std::string, TowerInfo>>* GetTowerList();
    // The tower names to offer, in the order of DisplayTowers, spelled as in the tower list;
    // all towers when DisplayTowers names none of them. -1 when there is no tower.
    int GetValidDisplayTowers(std::list<std::string>& out);
    // The offered names, each followed by ",". Always 0.
    int GetDisplayTowerNames(std::string& out);
    // The first tower of each offered name. Always 0.
    int GetDisplayTowerInfos(std::vector<TowerInfo>& out);
    // The items of DisplayTowers, trimmed, without empty ones and without repeats. Always 0.
    int GetDisplayTowersList(std::list<std::string>& out);
    std::string GetDctString(const char* key);
    int GetDctInteger(const char* key);
    int GetDctParams(DctParams& out);
    // Sets DetectClosestTower/`key` in the store and the DCT map (committed under the rule of
    // UpdateData); false for a null key or value.
    bool UpdateDCTData(const char* key, const char* value, bool commit);
    bool UpdateDCTData(const char* key, int value, bool commit);
    // DetectClosest and Mode (0 "manual", 1 "auto"), then a commit whatever the role.
    bool UpdateDCT(int detectClosest, int mode, bool commit);

    // Process-wide: the role of this process (kConfigRolePlugin in the module).
    static std::atomic<int> m_ConfigRole;
    // Testing hook, not a product setting: lets tests take the file owner's role.
    static void SetConfigRoleForTesting(int role) { m_ConfigRole = role; }

    // Trusted network detection (ConfigTND.cpp). Replaces the servers of the section with the
    // children of `servers` (each a Server element) and commits them when there are any, then
    // sets its Enabled text, which reaches the file only in the process that owns it. The rest
    // of the profile keeps its bytes and order. Reports nothing; failures are logged.
    void UpdateCurrentConfigTND(const boost::property_tree::ptree& servers,
                                const std::string& enabled);

  private:
    // The steps of InitializeConfig, in the order it takes them. Like it, they take no lock of
    // their own; the operations they call do.
    // Deletes the current file when it exists and does not decode (the agent's branch).
    void DeleteUndecodableCurrentFile(const std::string& current);
    // Deletes the backup and writes the built-in profile, loaded, as the new current file.
    // False when it does not parse or cannot be written; the store keeps what was parsed.
    bool CreateDefaultCurrentFile(const std::string& backup);
    // Runs the update and, unless `updateOnly`, copies it over the current file (keeping user
    // and groups) and the backup. An update that does not load falls back to the current file,
    // or to nothing with `updateOnly`; a failed copy to the current file returns false.
    bool RunNewUpdate(const std::string& update, const std::string& current,
                      const std::string& backup, bool updateOnly);
    // The copies of RunNewUpdate; false only when the current file could not be replaced.
    bool CopyUpdateOverCurrentAndBackup(const std::string& update, const std::string& current,
                                        const std::string& backup);
    // Runs the update in place of a missing current file. If it does not load, the current
    // file is tried all the same, which reports it missing and returns false.
    bool RunUpdateInPlace();
    // Runs the current file; on failure the store is dropped and the result is false.
    bool RunCurrentFile();
    // Loads the update file and its keys; false, after its message, on failure.
    bool LoadUpdateFile();
    // The last step of a successful initialisation: tunnel type, lists, connect time-out.
    void FinishLoad();

    std::list<std::string> m_HostExceptionNames GUARDED_BY(m_Lock);
    std::vector<ExceptionAddress> m_HostExceptionAddrs GUARDED_BY(m_Lock);
    std::list<std::string> m_ProxyExceptionNames GUARDED_BY(m_Lock);
    std::vector<ExceptionAddress> m_ProxyExceptionAddrs GUARDED_BY(m_Lock);
    int32_t m_TunnelType GUARDED_BY(m_Lock);  // 2 plain, 1 ssl, 0 anything else
    std::list<std::pair<std::string, TowerInfo>> m_Towers GUARDED_BY(m_Lock);
    // ";" followed by the last Address element's text.
    std::string m_Address GUARDED_BY(m_Lock);
    std::map<std::string, std::string> m_DctSettings GUARDED_BY(m_Lock);
    int32_t m_TowerConnectTimeout GUARDED_BY(m_Lock);
    std::list<std::string> m_HostInclusionNames GUARDED_BY(m_Lock);
    std::vector<ExceptionAddress> m_HostInclusionAddrs GUARDED_BY(m_Lock);
    bool m_HasHostInclusions GUARDED_BY(m_Lock);
};

#endif  // TIDEWAY_CONFIG_DNCONFIGFILE_H_
