// tideway-host --presentation: the harness as the UI host of the presentation plug-in.
#ifndef TIDEWAY_TOOLS_TIDEWAY_HOST_PRESENTATIONFACE_H_
#define TIDEWAY_TOOLS_TIDEWAY_HOST_PRESENTATIONFACE_H_

#include <string>

#include "Plugin.h"

using CreatePluginFn = Plugin* (*)(const char*);
using DisposePluginFn = bool (*)(Plugin*);

// Loads the catalogue, creates, initialises and starts the presentation plug-in, prints every
// notice, feeds the events read from stdin to it until "quit" or end of input, then stops,
// shuts down and disposes of it. False when the catalogue or the plug-in failed.
bool RunPresentation(CreatePluginFn createPlugin, DisposePluginFn disposePlugin,
                     const std::string& cataloguePath);

// The folder of the running executable ("." when it cannot be found).
std::string ProgramDirectory();

// `name` beside the running executable (in the build tree), else in the installed data folder
// (share/tideway/ under the prefix) when it is there, else beside the executable.
std::string DataPath(const std::string& name);

// The catalogue: DataPath("tideway-host.catalogue").
std::string DefaultCataloguePath();

#endif  // TIDEWAY_TOOLS_TIDEWAY_HOST_PRESENTATIONFACE_H_
