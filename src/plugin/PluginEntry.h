// The module's side of the plug-in boundary: the table of offered interfaces, the pointer to the
// live API object and the internal forms of the exported functions.
//
// Host thread only: CreatePlugin and DisposePlugin take no lock and must not run concurrently.
// g_pVantoriaApi is a pointer without a lock (an atomic word, so that the reads of the
// communicator threads are well defined); they must cope with finding it null while a plug-in is
// being torn down.
#ifndef TIDEWAY_PLUGIN_PLUGINENTRY_H_
#define TIDEWAY_PLUGIN_PLUGINENTRY_H_

#include <stddef.h>
#include <stdint.h>

#include <atomic>

#include "Plugin.h"

class CVantoriaApi;

// The live API object, null when there is none. For the presentation plug-in it points to the
// API held inside that plug-in, not to the object the host holds.
extern std::atomic<CVantoriaApi*> g_pVantoriaApi;

// Rows of the interface table, in order.
constexpr const char* kVantoriaApiInterfaceName = "com.tarvex.brenlo.tideway.api";
constexpr uint64_t kVantoriaApiInterfaceVersion = 3;
constexpr const char* kPresentationInterfaceName = "com.tarvex.brenlo.presentation";
constexpr uint64_t kPresentationInterfaceVersion = 0;
constexpr size_t kInterfaceCount = 2;

// What the exported functions do. Code inside the module calls these rather than the exported
// names, so that a host process exporting functions of the same name (a test executable that
// links the module's code statically, for one) cannot capture the call.
PluginInterfaceList GetAvailableInterfacesImpl();
Plugin* CreatePluginImpl(const char* interfaceName);
bool DisposePluginImpl(Plugin* plugin);

#endif  // TIDEWAY_PLUGIN_PLUGINENTRY_H_
