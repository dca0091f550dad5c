// The log settings that the creation of a plug-in takes from the profile file named by the
// configuration, and hands to the trace object. A file that cannot be read leaves the defaults
// in place; it never fails the creation.
#ifndef TIDEWAY_PLUGIN_LOGGINGSETTINGS_H_
#define TIDEWAY_PLUGIN_LOGGINGSETTINGS_H_

#include <string>

#include "config/Config.h"

class CDnConfigFile;
class CVNFileTrace;

// Loads the profile at `path` into a store of its own (de-obfuscated when its type says so) and
// reads the settings; false when the file could not be loaded at all and the defaults stand.
bool ReadLoggingSettingsFromFile(CDnConfigFile& config, const std::string& path,
                                 LoggingSettings& out);

// Reads the settings and installs them: the mask by SetDebugLevel, the rest by ChangeSettings.
void ApplyLoggingSettings(CDnConfigFile& config, const std::string& path, CVNFileTrace& trace);

#endif  // TIDEWAY_PLUGIN_LOGGINGSETTINGS_H_
