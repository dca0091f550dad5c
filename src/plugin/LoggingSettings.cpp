#include "plugin/LoggingSettings.h"

#include "common/VNTrace.h"
#include "config/DnConfigFile.h"
#include "config/XMLReadWrite.h"

bool ReadLoggingSettingsFromFile(CDnConfigFile& config, const std::string& path,
                                 LoggingSettings& out) {
    out = LoggingSettings();
    ConfigFileType type = kConfigFileUnknown;
    // Only a negative result skips the settings; the detection's failures (22, 0x80004005) are
    // positive, so an unclassifiable file goes on as type 0.
    if (config.GetConfigFileType(path, type) < 0)
        return false;

    CXMLReadWrite store;
    ConfigStatus loaded;
    if (type == kConfigFileObfuscated) {
        std::string text;
        loaded = config.ReadObfuscatedFile(path, text, true);
        if (loaded == 0)
            loaded = store.LoadFromString(text, true);
    } else {
        loaded = store.LoadFromFile(path, false);
    }
    if (loaded < 0) {
        VNTRACE(TL_ERR, "Error in initializing logging. Failed to load config file.");
        return false;
    }
    // A failed load is not negative: the store stays empty, each read logs that, and every key
    // keeps its default.
    ReadLoggingSettings(store, out);
    return true;
}

void ApplyLoggingSettings(CDnConfigFile& config, const std::string& path, CVNFileTrace& trace) {
    LoggingSettings settings;
    if (!ReadLoggingSettingsFromFile(config, path, settings))
        return;
    trace.SetDebugLevel(settings.debugLevel);
    const int64_t result = trace.ChangeSettings(
        settings.buffered, settings.flushInterval, settings.maxFlushTime, settings.logFileSize,
        settings.numLogFiles, settings.retentionSeconds, settings.errorInterval);
    if (result != 0) {
        VNTRACE(TL_WARN, "Error changing logging settings: %ld", static_cast<long>(result));
    }
}
