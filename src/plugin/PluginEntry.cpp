#include "plugin/PluginEntry.h"

#include <string.h>

#include "common/Utils.h"
#include "common/VNTrace.h"

CVantoriaApi* g_pVantoriaApi = nullptr;

namespace {

const PluginInterfaceRecord kInterfaceTable[kInterfaceCount] = {
    {kVantoriaApiInterfaceName, kVantoriaApiInterfaceVersion},
    {kPresentationInterfaceName, kPresentationInterfaceVersion},
};

// Starts the trace object with its start-up values; does nothing once it is started, so a
// second creation keeps the settings the first one installed.
void StartTrace() {
    g_Trace.InitTrace(kTraceIdent, GetInitialDirectory(), "TidewayAPI.log", 2, kDefaultTraceMask,
                      false, true, 10, 10000, 100, 1, 0, 60);
}

// Makes the plug-in for a non-null name. The names are compared whole, byte for byte.
Plugin* CreateNamedPlugin(const char* interfaceName) {
    const bool isApi = strcmp(interfaceName, kVantoriaApiInterfaceName) == 0;
    const bool isPresentation = strcmp(interfaceName, kPresentationInterfaceName) == 0;
    if (!isApi && !isPresentation) {
        VNTRACE(TL_ERR, "Unknown interface name: %s", interfaceName);
        return nullptr;
    }
    // The API object and the presentation plug-in are not part of this build yet: refuse
    // rather than hand out an object that cannot do anything.
    VNTRACE(TL_ERR, "CreatePlugin failed. Interface %s cannot be created in this build.",
            interfaceName);
    return nullptr;
}

}  // namespace

PluginInterfaceList GetAvailableInterfacesImpl() {
    return PluginInterfaceList{kInterfaceTable, kInterfaceCount};
}

Plugin* CreatePluginImpl(const char* interfaceName) {
    // The trace comes first so that every failure below, a null name included, can be reported.
    StartTrace();
    if (interfaceName == nullptr) {
        VNTRACE(TL_ERR, "CreatePlugin failed. Interface name null.");
        return nullptr;
    }
    return CreateNamedPlugin(interfaceName);
}

bool DisposePluginImpl(Plugin* plugin) {
    VNTRACE(TL_API, "DisposePlugin %p called\n", static_cast<void*>(plugin));
    // Cleared before the destruction: a communicator thread that looks during the tear-down
    // finds no API and drops its notification.
    g_pVantoriaApi = nullptr;
    if (plugin != nullptr)
        delete plugin;
    return true;
}

extern "C" {

TIDEWAY_EXPORT PluginInterfaceList GetAvailableInterfaces(void) {
    return GetAvailableInterfacesImpl();
}

TIDEWAY_EXPORT Plugin* CreatePlugin(const char* interfaceName) {
    return CreatePluginImpl(interfaceName);
}

TIDEWAY_EXPORT bool DisposePlugin(Plugin* plugin) {
    return DisposePluginImpl(plugin);
}

}  // extern "C"
