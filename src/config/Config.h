// CConfig: the base of the configuration objects. It owns the XML store of the running profile
// and the map of its simple keys, builds the paths of the profile files, and offers the typed,
// trimmed reading of keys and the by-path access to the store.
//
// Ownership and threads: whoever creates a configuration object owns it; after it has been
// initialised any thread may call its operations. m_Lock (recursive) guards m_pXml and m_Values
// and is held by every operation, so operations may call one another; the store's own mutex
// nests inside it. Strings come back by value, so callers need no lock afterwards.
#ifndef TIDEWAY_CONFIG_CONFIG_H_
#define TIDEWAY_CONFIG_CONFIG_H_

#include <stdint.h>

#include <atomic>
#include <map>
#include <string>

#include <boost/property_tree/ptree.hpp>

#include "common/Mutex.h"
#include "common/ThreadAnnotations.h"
#include "config/ConfigKeys.h"
#include "config/XMLReadWrite.h"

class CConfig {
  public:
    CConfig(const CConfig&) = delete;
    CConfig& operator=(const CConfig&) = delete;

    // Runs the file chain again and replaces what is loaded.
    virtual bool Reload() = 0;

    // Paths of the current profile, the update file and the backup of the last adopted update,
    // built anew from the app-data root at each call.
    std::string GetConfigFileName();
    std::string GetUpdateFileName();
    std::string GetBackupFileName();

    // By-path access to the store; `key` is appended to "Tideway/ConfigurationParameters/".
    // SetXmlValue creates what is missing and overwrites the first match.
    bool SetXmlValue(const std::string& key, const std::string& value);
    // The text at the key, trimmed of blanks, CR, LF and TAB; empty when absent.
    std::string GetXmlValue(const std::string& key);
    // A copy of the sub-tree at the key; false when it is absent.
    bool GetXmlSubtree(const std::string& key, boost::property_tree::ptree& out);
    bool KeyExists(const std::string& key);

    // Getters over the map of simple keys (case-sensitive names). Each trims the stored text and
    // returns a value, never a failure: a missing key reads as empty or 0.
    std::string GetString(const char* key);
    // Decimal (hexadecimal) stream parse; 0 when the text does not begin with a number.
    unsigned long GetInteger(const char* key);
    unsigned long GetHexInteger(const char* key);
    // inet_addr of the text, network byte order; 0xFFFFFFFF for an invalid address.
    uint32_t GetIpAddress(const char* key);
    // atoi of the text cut to its low 16 bits, without a range check.
    uint16_t GetPort(const char* key);

    // The log mask from the store ("Logging/debug_level" never reaches the map); an empty text
    // counts as "107". Returns 0.
    int GetDebugLevel(uint32_t& out);
    int GetAuthenticatedIdentity(std::string& user, std::string& groups);
    int GetGroupFilters(std::string& include, std::string& exclude);

    // A copy of the map of simple keys with their texts as parsed, untrimmed.
    std::map<std::string, std::string> GetValues();

    // Operations on the profile files that both configuration classes use (ProfileFiles.cpp).
    // True when the update file should be adopted: it exists and differs from the backup in
    // its bytes, or the backup or the current file is missing or the current one is corrupt.
    bool IsUpdateAvailable();
    // Loads the update (`update`) or the current file into the store; only an obfuscated file
    // is accepted. 0, 2 (missing), 22 (not obfuscated) or the parser's code.
    long LoadConfigFile(bool update);
    // "Tideway/ProfileLabel" of the store; false without a store.
    bool GetProfileLabel(std::string& out);

    // Downloaded profiles (HostedConfigFile.cpp). `hosted` holds the bytes of an obfuscated
    // profile file, of any length and content.
    // True when they differ from the update file's bytes or that file cannot be read.
    bool IsHostedConfigNew(const std::string& hosted);
    // Installs the bytes as the update file when they are new and decode to an XML profile; the
    // next run of the file chain adopts them. True only when the update file was replaced. The
    // old update file stays whole on every failure.
    bool UseHostedConfig(const std::string& hosted);

    // Process-wide, not per object: the type found by the last probe of any object, which
    // decides how the next commit writes.
    static std::atomic<uint32_t> m_ConfigFileType;

  protected:
    CConfig();
    // Not virtual: the one virtual slot is Reload, and objects are never deleted through this
    // base (the destructor is protected for that reason).
    ~CConfig();

    // Recursive: every operation holds it, and operations call one another (a getter of a typed
    // value calls GetString, a reload runs the whole file chain) with it held.
    // Creates the store when there is none (logging a failed allocation); drops it.
    bool EnsureStore();
    void DropStore();

    CRecursiveMutex m_Lock;
    // Owned; null until initialised and after a failed load.
    CXMLReadWriteConfig* m_pXml GUARDED_BY(m_Lock);
    std::map<std::string, std::string> m_Values GUARDED_BY(m_Lock);
};

// The log settings a profile asks for, with the clamps applied, ready for SetDebugLevel and
// ChangeSettings of the trace object.
struct LoggingSettings {
    uint32_t debugLevel = 0x107;
    bool buffered = true;
    uint32_t flushInterval = 10;    // ms
    int32_t maxFlushTime = 10000;   // ms
    uint32_t logFileSize = 100;     // 100 to 10000
    uint32_t numLogFiles = 1;       // at least 1
    uint32_t retentionSeconds = 0;  // days x 86400 + hours x 3600 + minutes x 60
    uint32_t errorInterval = 60;
};

// Reads the log settings from a loaded profile store. An absent or empty key takes its default;
// unsigned fields are read by stream extraction, so a text that is not a number reads as 0 and
// the clamp of its field applies to that 0. An unloaded store logs one line per key read.
void ReadLoggingSettings(CXMLReadWrite& store, LoggingSettings& out);
// "Logging/LogFileSize" clamped to 100 to 10000.
uint32_t ClampLogFileSize(uint32_t size);

#endif  // TIDEWAY_CONFIG_CONFIG_H_
