// Loads arbitrary decoded text as a profile through the file chain, as the module does at
// start-up, and reads whatever loads through every getter, the record, the dump and the log
// settings, with checks that hold for any profile. Input: [mode][text...]; mode bit 0: the text
// is the update, loaded with (true, true), else the current file with (false, false); bit 1: no
// marker in the plaintext; bit 2: the owner's role.
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "common/OpenSSLCrypt.h"
#include "common/Utils.h"
#include "common/VNTrace.h"
#include "config/Config.h"
#include "config/DnConfigFile.h"

namespace {

// A scratch app-data root for the whole run.
struct Root {
    Root() : path(MakeScratchRoot("fuzz-profile")) {
        current = path + "/tarvex/brenlo/tideway/config/Tideway.config";
        update = path + "/tarvex/brenlo/tideway/Tideway_ServiceProfile.wso";
    }
    ~Root() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    std::string path, current, update;
};

void ReadEverything(CDnConfigFile& config, bool owner) {
    const std::map<std::string, std::string> values = config.GetValues();
    for (const auto& entry : values) {
        const char* key = entry.first.c_str();
        std::string trimmed = entry.second;
        Trim(trimmed, kWhitespace);
        FUZZ_CHECK(config.GetString(key) == trimmed);
        config.GetInteger(key);
        config.GetHexInteger(key);
        config.GetIpAddress(key);
        config.GetPort(key);
        config.KeyExists(entry.first);
        config.GetXmlValue(entry.first);
    }

    ConfigParams params;
    FUZZ_CHECK(config.GetConfigParams(params) == 0);
    FUZZ_CHECK(params.ipcPort == config.GetPort("ipc_port"));
    std::string hosts;
    for (const auto& tower : config.GetTowers())
        hosts += tower.second.HostName + ";";
    FUZZ_CHECK(params.towerHosts == hosts);
    FUZZ_CHECK(!params.address.empty() && params.address.back() == ';');
    FUZZ_CHECK(params.towerUrlHost.empty() || params.towerUrlHost.back() == ';');

    std::vector<std::string> lines;
    std::vector<int> marks;
    FUZZ_CHECK(config.GetConfigDump(lines, marks) == 0);
    FUZZ_CHECK(lines.size() == (owner ? 23u : 19u) && marks.size() == lines.size());
    FUZZ_CHECK(lines[0].compare(0, 22, "Logging/debug_level = ") == 0);
    const unsigned long mask = strtoul(lines[0].c_str() + 22, nullptr, 16);
    FUZZ_CHECK(mask < 0x8000 && (mask & 6) == 6);

    uint32_t level = 0;
    uint16_t port = 0;
    std::string a, b;
    boost::property_tree::ptree subtree;
    config.GetDebugLevel(level);
    config.GetKdfListenPort(port);
    config.GetAuthenticatedIdentity(a, b);
    config.GetGroupFilters(a, b);
    FUZZ_CHECK(config.GetProfileLabel(a));
    FUZZ_CHECK(config.GetExceptionCount(1) >= 0 && config.GetExceptionCount(2) >= 0);
    config.GetXmlSubtree("Towers", subtree);
}

void CheckLoggingSettings(const std::string& text) {
    CXMLReadWrite store;
    store.LoadFromString(text, true);
    LoggingSettings settings;
    ReadLoggingSettings(store, settings);
    FUZZ_CHECK(settings.logFileSize >= 100 && settings.logFileSize <= 10000);
    FUZZ_CHECK(settings.numLogFiles >= 1);
    FUZZ_CHECK(settings.errorInterval != 0);
    FUZZ_CHECK(settings.flushInterval > 0);
    FUZZ_CHECK(settings.maxFlushTime >= 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1)
        return 0;
    static Root root;
    const uint8_t mode = data[0];
    const bool asUpdate = (mode & 1) != 0;
    const bool marker = (mode & 2) == 0;
    const bool owner = (mode & 4) != 0;
    const std::string text(reinterpret_cast<const char*>(data + 1), size - 1);

    std::error_code ignored;
    std::filesystem::remove(root.current, ignored);
    std::filesystem::remove(root.update, ignored);
    const std::string plain = (marker ? std::string(kObfuscatedMarker) : std::string()) + text;
    const std::string& path = asUpdate ? root.update : root.current;
    FUZZ_CHECK(COpenSSLCrypt::ObfuscateStringToFile(
                   plain.data(), static_cast<uint32_t>(plain.size()), path.c_str(), nullptr) == 0);

    // A decoded text without any element (the reader ends it at a NUL) is an empty profile: it
    // loads, with no key. Only a plaintext of no byte at all does not decode.
    const std::string decoded(text.c_str());
    const bool noElement =
        decoded.find_first_not_of(" \t\r\n") == std::string::npos && !plain.empty();

    CDnConfigFile::SetConfigRoleForTesting(owner ? kConfigRoleOwner : kConfigRolePlugin);
    {
        CDnConfigFile config;
        const bool loaded =
            asUpdate ? config.InitializeConfig(true, true) : config.InitializeConfig(false, false);
        if (noElement)
            FUZZ_CHECK(loaded && config.GetValues().empty());
        if (loaded) {
            ReadEverything(config, owner);
            // A reload runs the chain again on the same file and must land on the same map.
            const auto before = config.GetValues();
            if (!asUpdate) {
                FUZZ_CHECK(config.Reload());
                FUZZ_CHECK(config.GetValues() == before);
            }
        } else {
            std::string label;
            FUZZ_CHECK(!config.GetProfileLabel(label));  // a failed load leaves no store
        }
    }
    CDnConfigFile::SetConfigRoleForTesting(kConfigRolePlugin);
    // The update file is only read, never changed or removed.
    if (asUpdate)
        FUZZ_CHECK(std::filesystem::exists(root.update));
    CheckLoggingSettings(std::string(text.c_str()));
    return 0;
}
