#include "plugin/PluginEntry.h"

#include <string.h>

#include <memory>
#include <string>

#include "api/VantoriaApi.h"
#include "common/Utils.h"
#include "common/VNTrace.h"
#include "config/DnConfigFile.h"
#include "plugin/LoggingSettings.h"
#include "presentation/VantoriaPresentationPlugin.h"

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

// The object the host holds for the live plug-in. Disposing the live plug-in must free the whole
// object, which for a presentation plug-in is not the API that g_pVantoriaApi points into.
Plugin* g_pLivePlugin = nullptr;

// Connects the API of a new plug-in on `port`: `api` is the plug-in itself for row 0 and the
// API held inside it for row 1, `whole` the object the host gets. Null on failure, with the
// reason in the log, the whole plug-in destroyed and nothing left running.
Plugin* StartPlugin(Plugin* whole, CVantoriaApi* api, uint16_t port) {
    if (!api->Initialize(port)) {
        g_pVantoriaApi = nullptr;
        delete whole;
        VNTRACE(TL_ERR, "CreatePlugin failed. CVantoriaApi initialize failed.");
        return nullptr;
    }
    if (!api->StartCommunicator()) {
        g_pVantoriaApi = nullptr;
        delete whole;
        VNTRACE(TL_ERR, "CreatePlugin failed. StartCommunicator failed.");
        return nullptr;
    }
    VNTRACE(TL_TRACE, "CreatePlugin created new CVantoriaApi");
    return whole;
}

// Disposes the live plug-in as DisposePlugin(g_pVantoriaApi) does, but whole: for a
// presentation plug-in g_pVantoriaApi points into the object, which is freed as one.
void DisposeLivePlugin() {
    VNTRACE(TL_API, "DisposePlugin %p called\n", static_cast<void*>(g_pVantoriaApi.load()));
    g_pVantoriaApi = nullptr;
    Plugin* whole = g_pLivePlugin;
    g_pLivePlugin = nullptr;
    delete whole;
}

// Makes the plug-in for a non-null name. The names are compared whole, byte for byte.
Plugin* CreateNamedPlugin(const char* interfaceName, uint16_t port) {
    if (g_pVantoriaApi.load() != nullptr) {
        VNTRACE(TL_WARN,
                "CreatePlugin called while Plugin already appears to have been created.  "
                "Existing Plugin will be disposed.");
        DisposeLivePlugin();
    }
    if (strcmp(interfaceName, kVantoriaApiInterfaceName) == 0) {
        CVantoriaApi* api = new CVantoriaApi();
        g_pVantoriaApi = api;
        VNTRACE(TL_TRACE, "Created plugin IVANTORIA_API (%p)", static_cast<void*>(api));
        g_pLivePlugin = StartPlugin(api, api, port);
        return g_pLivePlugin;
    }
    if (strcmp(interfaceName, kPresentationInterfaceName) == 0) {
        CVantoriaPresentationPlugin* plugin = new CVantoriaPresentationPlugin();
        CVantoriaApi* api = &plugin->GetApi();
        g_pVantoriaApi = api;
        VNTRACE(TL_TRACE, "Created plugin PRESENTATION_PLUGIN (%p)", static_cast<void*>(api));
        g_pLivePlugin = StartPlugin(plugin, api, port);
        return g_pLivePlugin;
    }
    VNTRACE(TL_ERR, "Unknown interface name: %s", interfaceName);
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
    // The configuration is read once, for the port and the log settings, and is gone again
    // when the creation returns, on every path.
    std::unique_ptr<CDnConfigFile> config(new CDnConfigFile());
    if (!config->InitializeConfig(false, false)) {
        VNTRACE(TL_ERR, "CreatePlugin failed. InitializeConfig failed.");
        return nullptr;
    }
    ConfigParams params;
    config->GetConfigParams(params);
    const std::string path = config->GetConfigFileName();
    if (path.empty()) {
        VNTRACE(TL_ERR, "CreatePlugin failed. Can't find Config File path.");
        return nullptr;
    }
    ApplyLoggingSettings(*config, path, g_Trace);
    return CreateNamedPlugin(interfaceName, params.ipcPort);
}

bool DisposePluginImpl(Plugin* plugin) {
    VNTRACE(TL_API, "DisposePlugin %p called\n", static_cast<void*>(plugin));
    // Cleared before the destruction: a communicator thread that looks during the tear-down
    // finds no API and drops its notification.
    g_pVantoriaApi = nullptr;
    if (plugin == g_pLivePlugin)
        g_pLivePlugin = nullptr;
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
