// The module's side of the plug-in boundary: the internal forms of the exported functions. The
// table's names and the live API pointer g_pVantoriaApi belong to the API (api/VantoriaApi.h).
//
// Host thread only: CreatePlugin and DisposePlugin take no lock and must not run concurrently.
#ifndef TIDEWAY_PLUGIN_PLUGINENTRY_H_
#define TIDEWAY_PLUGIN_PLUGINENTRY_H_

#include <stddef.h>
#include <stdint.h>

#include "Plugin.h"

// What the exported functions do. Code inside the module calls these rather than the exported
// names, so that a host process exporting functions of the same name (a test executable that
// links the module's code statically, for one) cannot capture the call.
PluginInterfaceList GetAvailableInterfacesImpl();
Plugin* CreatePluginImpl(const char* interfaceName);
bool DisposePluginImpl(Plugin* plugin);

#endif  // TIDEWAY_PLUGIN_PLUGINENTRY_H_
