// Arbitrary decoded text loaded as a profile through the file chain and read through every getter.
// Input: [mode][text]; bit 0: the text is the update file, else the current one; bit 1: no marker;
// bit 2: the owner's role.
#include "FuzzSupport.h"
#include "config/Config.h"
#include "config/DnConfigFile.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1)
        return 0;
    static ScratchRoot root("fuzz-profile");
    static const std::string current = root.folder + "/config/Tideway.config",
                             update = root.folder + "/Tideway_ServiceProfile.wso";
    const bool asUpdate = (data[0] & 1) != 0, owner = (data[0] & 4) != 0;
    const std::string text = AsText(data + 1, size - 1);
    const std::string plain = ((data[0] & 2) ? "" : std::string(kObfuscatedMarker)) + text;
    unlink(current.c_str());
    unlink(update.c_str());
    ObfuscateTo(asUpdate ? update : current, plain);

    // A decoded text without any element (the reader ends it at a NUL) is an empty profile: it
    // loads, with no key. Only a plaintext of no byte at all does not decode.
    const std::string decoded(text.c_str());
    const bool noElement =
        decoded.find_first_not_of(" \t\r\n") == std::string::npos && !plain.empty();

    CDnConfigFile::SetConfigRoleForTesting(owner ? kConfigRoleOwner : kConfigRolePlugin);
    {
        CDnConfigFile config;
        const bool loaded = config.InitializeConfig(asUpdate, asUpdate);
        std::string a, b;
        FUZZ_CHECK(loaded || !config.GetProfileLabel(a));  // a failed load leaves no store
        FUZZ_CHECK(!noElement || (loaded && config.GetValues().empty()));
        if (loaded) {
            const auto values = config.GetValues();
            for (const auto& [key, value] : values) {
                std::string trimmed = value;
                Trim(trimmed, kWhitespace);
                FUZZ_CHECK(config.GetString(key.c_str()) == trimmed);
                config.GetInteger(key.c_str());
                config.GetHexInteger(key.c_str());
                config.GetIpAddress(key.c_str());
                config.GetPort(key.c_str());
                config.KeyExists(key);
                config.GetXmlValue(key);
            }

            std::string hosts;
            for (const auto& tower : config.GetTowers())
                hosts += tower.second.HostName + ";";
            ConfigParams params;
            FUZZ_CHECK(config.GetConfigParams(params) == 0 &&
                       params.ipcPort == config.GetPort("ipc_port") && params.towerHosts == hosts &&
                       !params.address.empty() && params.address.back() == ';' &&
                       (params.towerUrlHost.empty() || params.towerUrlHost.back() == ';'));

            std::vector<std::string> lines;
            std::vector<int> marks;
            FUZZ_CHECK(config.GetConfigDump(lines, marks) == 0 &&
                       lines.size() == (owner ? 23u : 19u) && marks.size() == lines.size() &&
                       lines[0].compare(0, 22, "Logging/debug_level = ") == 0);
            const unsigned long mask = strtoul(lines[0].c_str() + 22, nullptr, 16);
            FUZZ_CHECK(mask < 0x8000 && (mask & 6) == 6);

            uint32_t level = 0;
            uint16_t port = 0;
            boost::property_tree::ptree subtree;
            config.GetDebugLevel(level);
            config.GetKdfListenPort(port);
            config.GetAuthenticatedIdentity(a, b);
            config.GetGroupFilters(a, b);
            config.GetXmlSubtree("Towers", subtree);
            FUZZ_CHECK(config.GetProfileLabel(a) && config.GetExceptionCount(1) >= 0 &&
                       config.GetExceptionCount(2) >= 0);
            FUZZ_CHECK(asUpdate || (config.Reload() && config.GetValues() == values));
        }
    }
    // The update file is only read, never changed or removed.
    FUZZ_CHECK(!asUpdate || std::filesystem::exists(update));
    CXMLReadWrite store;
    store.LoadFromString(decoded, true);
    LoggingSettings settings;
    ReadLoggingSettings(store, settings);
    FUZZ_CHECK(settings.logFileSize >= 100 && settings.logFileSize <= 10000 &&
               settings.numLogFiles >= 1 && settings.errorInterval != 0 &&
               settings.flushInterval > 0 && settings.maxFlushTime >= 0);
    return 0;
}
