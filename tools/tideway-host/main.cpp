// tideway-host: loads libtidewayapi.so the way the suite's UI host does (dlopen, then the three
// exported functions by name) and lists the interfaces it offers. Alone, it also checks that a
// creation without a name is refused. With --api it creates the API plug-in and holds a short
// conversation with a running agent, printing every notification, and ends it as an application
// does (statistics stopped, Disconnect, Unregister); with --presentation it hosts the
// presentation plug-in on the console (PresentationFace.cpp), with --web on a page served to a
// browser (WebFace.cpp). Exit status 0 when the module behaved, 1 otherwise, 2 for a usage
// error.
#include <dlfcn.h>
#include <inttypes.h>
#include <stdio.h>
#include <string.h>
#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "IVantoriaApi.h"

#include "Plugin.h"
#include "PresentationFace.h"
#include "WebFace.h"

namespace {

using GetAvailableInterfacesFn = PluginInterfaceList (*)();

enum class Face { kCheck, kApi, kPresentation, kWeb };

// The module installed with this program (bin/../lib/<multiarch>/) when there is one, else the
// module built with it.
std::string DefaultModulePath() {
    const std::string installed = ProgramDirectory() + "/" + TIDEWAY_INSTALLED_MODULE_PATH;
    return access(installed.c_str(), F_OK) == 0 ? installed : TIDEWAY_DEFAULT_MODULE_PATH;
}

void PrintUsage(const char* program) {
    printf(
        "Usage: %s [--api | --presentation [--catalogue FILE]] [--keep-loaded] [MODULE]\n"
        "       %s --web [[ADDR:]PORT] [--catalogue FILE] [--web-root DIR]\n"
        "           [--agent-control PATH] [--agent-log FILE] [--keep-loaded] [MODULE]\n"
        "\n"
        "Loads the plug-in module MODULE with dlopen, as the UI host does, and\n"
        "  - lists every interface from GetAvailableInterfaces with its version,\n"
        "  - calls CreatePlugin with a null name and reports the null it must return,\n"
        "  - with --api: creates \"com.tarvex.brenlo.tideway.api\", registers a callback\n"
        "    that prints every notification, waits for the agent (status 9), asks for the\n"
        "    towers and closest-tower settings, switches the tower, collects statistics for\n"
        "    a few seconds, then disposes of the plug-in (an agent must listen on port 5003,\n"
        "    e.g. tideway-agent-sim),\n"
        "  - with --presentation: creates \"com.tarvex.brenlo.presentation\" as the UI host\n"
        "    does, with the English texts of FILE (default: tideway-host.catalogue beside\n"
        "    this program, one key<TAB>text line each), starts it and prints every notice\n"
        "    after a \"--- notice\" line; then reads events from stdin: brguiEvent\n"
        "    documents, or the commands select-tower NAME, mode automatic|manual,\n"
        "    credentials USER PASSWORD, cancel-credentials, help, quit (end of input\n"
        "    quits too); then stops, shuts down and disposes of it,\n"
        "  - with --web: hosts the presentation plug-in as --presentation does, but on a\n"
        "    page served at http://ADDR:PORT/ (default 127.0.0.1:8080; PORT 0 picks a free\n"
        "    port; loopback only unless ADDR says otherwise) from the files of DIR (default:\n"
        "    web/ beside this program); prints \"Serving http://ADDR:PORT/\" when ready and\n"
        "    runs until SIGINT or SIGTERM. With --agent-control, the page's agent panel sends\n"
        "    control lines to the simulator's control socket PATH (tideway-agent-sim\n"
        "    --control PATH); with --agent-log, the page shows the tail of its log FILE;\n"
        "    on the signal it stops, shuts down and disposes of the plug-in,\n"
        "  - unloads the module (not with --keep-loaded, which leak checkers need to see\n"
        "    the module's memory at exit).\n"
        "The module's diagnostics go to the system log, under this program's identity\n"
        "(tideway-host[PID], facility user).\n"
        "\n"
        "MODULE defaults to the module installed or built with this program:\n"
        "  %s\n"
        "\n"
        "Exit status: 0 when the module behaved as expected, 1 when it did not or could\n"
        "not be loaded, 2 for a usage error.\n",
        program, program, DefaultModulePath().c_str());
}

// Looks up one exported function; reports a missing one.
template <typename Fn>
Fn Lookup(void* module, const char* name) {
    dlerror();
    void* symbol = dlsym(module, name);
    const char* error = dlerror();
    if (error != nullptr || symbol == nullptr) {
        fprintf(stderr, "tideway-host: %s not found: %s\n", name,
                error != nullptr ? error : "null");
        return nullptr;
    }
    return reinterpret_cast<Fn>(symbol);
}

// Prints what the agent's messages turn into, and lets the conversation wait for a status.
class PrintingCallback : public IVantoriaApiCB {
  public:
    int32_t OnTowerList(IVantoriaTowerList* list) override {
        uint64_t count = 0;
        list->GetCount(count);
        int64_t active = -1;
        list->GetActiveIndex(active);
        std::string names;
        for (uint64_t i = 0; i < count; ++i) {
            const std::string name =
                Text([&](char* b, uint32_t& l) { return list->GetAt(i, b, l); });
            names += (i != 0 ? ", " : "") + name;
            if (static_cast<int64_t>(i) == active)
                names += " (active)";
        }
        printf("  OnTowerList: %s\n", names.c_str());
        Remember(towers_, names);
        return 0;
    }
    int32_t OnStatus(IVantoriaStatus* status) override {
        uint64_t code = 0;
        status->GetStatus(code);
        printf("  OnStatus: %" PRIu64 "\n", code);
        Remember(statuses_, code);
        return 0;
    }
    int32_t OnDCTSettings(IVantoriaDCT* dct) override {
        bool changed = false;
        dct->ActiveTowerChanged(changed);
        if (changed) {
            const std::string tower =
                Text([&](char* b, uint32_t& l) { return dct->GetActivatedTower(b, l); });
            printf("  OnDCTSettings: tower %s activated\n", tower.c_str());
        } else {
            uint32_t mode = 0, detect = 0, gui = 0;
            dct->GetMode(mode);
            dct->GetDetectClosest(detect);
            dct->GetGUI(gui);
            printf("  OnDCTSettings: mode %u, detect closest %u, gui %u\n", mode, detect, gui);
        }
        return 0;
    }
    int32_t OnProxyCredRequest(std::string& host, std::string& port, std::string& authType,
                               std::string& realm) override {
        printf("  OnProxyCredRequest: %s:%s %s realm \"%s\"\n", host.c_str(), port.c_str(),
               authType.c_str(), realm.c_str());
        return 0;
    }
    int32_t OnStatistics(IVantoriaStatistics* s) override {
        uint64_t filtered = 0, bypassed = 0, other = 0, totalFiltered = 0, totalBypassed = 0,
                 totalOther = 0;
        s->GetConnectionCounts(filtered, bypassed, other);
        s->GetTotalCounts(totalFiltered, totalBypassed, totalOther);
        const std::string tower =
            Text([&](char* b, uint32_t& l) { return s->GetActiveTowerName(b, l); });
        printf("  OnStatistics: open %" PRIu64 "/%" PRIu64 "/%" PRIu64 ", total %" PRIu64
               "/%" PRIu64 "/%" PRIu64 " (filtered/bypassed/other), tower %s\n",
               filtered, bypassed, other, totalFiltered, totalBypassed, totalOther, tower.c_str());
        return 0;
    }
    int32_t OnInfoMessage(IVantoriaInfoMessage* m) override {
        uint64_t type = 0;
        m->GetMessageType(type);
        const std::string text =
            Text([&](char* b, uint32_t& l) { return m->GetMessageText(b, l); });
        printf("  OnInfoMessage: type %" PRIu64 ": %s\n", type, text.c_str());
        return 0;
    }

    bool WaitForStatus(uint64_t code, int seconds) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(seconds), [&] {
            for (uint64_t s : statuses_) {
                if (s == code)
                    return true;
            }
            return false;
        });
    }
    size_t TowerLists() {
        std::lock_guard<std::mutex> lock(mutex_);
        return towers_.size();
    }

  private:
    template <typename Getter>
    static std::string Text(Getter get) {
        uint32_t length = 0;
        if (get(nullptr, length) != -3 || length == 0)
            return "";
        std::string text(length, '\0');
        if (get(&text[0], length) != 0)
            return "";
        text.resize(length - 1);
        return text;
    }
    template <typename T>
    void Remember(std::vector<T>& list, const T& value) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            list.push_back(value);
        }
        changed_.notify_all();
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<uint64_t> statuses_;
    std::vector<std::string> towers_;
};

// A short conversation through the API plug-in; false when the module or the agent failed.
bool Converse(CreatePluginFn createPlugin, DisposePluginFn disposePlugin) {
    Plugin* plugin = createPlugin("com.tarvex.brenlo.tideway.api");
    if (plugin == nullptr) {
        printf("CreatePlugin(api) failed; see the system log\n");
        return false;
    }
    IVantoriaApi* api = static_cast<IVantoriaApi*>(plugin);
    PrintingCallback callback;
    api->Register(&callback);
    api->Start();
    printf("Waiting for the agent...\n");
    bool ok = callback.WaitForStatus(9, 15);
    if (!ok) {
        printf("No agent answered within 15 s (is tideway-agent-sim running on port 5003?)\n");
    } else {
        printf("GetTowerList -> %d\n", api->GetTowerList());
        printf("GetDCTSettings -> %d\n", api->GetDCTSettings());
        printf("SetTower(\"east-1\") -> %d\n", api->SetTower("east-1"));
        ok = callback.WaitForStatus(11, 5);
        printf("StartStatsCollecting -> %d\n", api->StartStatsCollecting());
        ok = callback.WaitForStatus(15, 5) && ok;
        std::this_thread::sleep_for(std::chrono::seconds(3));
        printf("StopStatsCollecting -> %d\n", api->StopStatsCollecting());
        printf("Disconnect -> %d\n", api->Disconnect());
        // The agent answers with the bypassed state; waiting for it also keeps the plug-in
        // alive until the message has left, which a disposal at once would cut off.
        ok = callback.WaitForStatus(4, 5) && ok && callback.TowerLists() >= 2;
    }
    api->Unregister(&callback);
    disposePlugin(plugin);
    printf("Plug-in disposed\n");
    return ok;
}

// Whether the argument after --web is meant as its [ADDR:]PORT rather than the module's path:
// digits, or a text with a colon and no slash.
bool LooksLikeWebAddress(const char* text) {
    const bool digits = text[0] != '\0' && strspn(text, "0123456789") == strlen(text);
    return digits || (strchr(text, ':') != nullptr && strchr(text, '/') == nullptr);
}

int Run(const std::string& modulePath, Face face, const WebFaceOptions& web, bool keepLoaded) {
    void* module = dlopen(modulePath.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (module == nullptr) {
        fprintf(stderr, "tideway-host: cannot load %s: %s\n", modulePath.c_str(), dlerror());
        return 1;
    }
    printf("Loaded %s\n", modulePath.c_str());

    int status = 0;
    const auto getInterfaces = Lookup<GetAvailableInterfacesFn>(module, "GetAvailableInterfaces");
    const auto createPlugin = Lookup<CreatePluginFn>(module, "CreatePlugin");
    const auto disposePlugin = Lookup<DisposePluginFn>(module, "DisposePlugin");
    if (getInterfaces == nullptr || createPlugin == nullptr || disposePlugin == nullptr) {
        status = 1;
    } else {
        const PluginInterfaceList list = getInterfaces();
        printf("Interfaces: %zu\n", list.count);
        for (size_t i = 0; i < list.count; ++i) {
            const PluginInterfaceRecord& row = list.records[i];
            printf("  [%zu] %s version %" PRIu64 "\n", i, row.name != nullptr ? row.name : "(null)",
                   row.version);
        }

        // The check alone also tries a creation without a name, which must be refused; the
        // other faces create as the UI host does, and leave no refusal in the system log.
        if (face == Face::kCheck) {
            Plugin* plugin = createPlugin(nullptr);
            if (plugin == nullptr) {
                printf("CreatePlugin(null) returned null, as it must\n");
            } else {
                printf("CreatePlugin(null) returned %p instead of null\n",
                       static_cast<void*>(plugin));
                disposePlugin(plugin);
                status = 1;
            }
        }
        if (face == Face::kApi && !Converse(createPlugin, disposePlugin))
            status = 1;
        if (face == Face::kPresentation &&
            !RunPresentation(createPlugin, disposePlugin, web.cataloguePath))
            status = 1;
        if (face == Face::kWeb && !RunWeb(createPlugin, disposePlugin, web))
            status = 1;
    }

    if (!keepLoaded && dlclose(module) != 0) {
        fprintf(stderr, "tideway-host: dlclose failed: %s\n", dlerror());
        status = 1;
    }
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    std::string modulePath = DefaultModulePath();
    Face face = Face::kCheck;
    WebFaceOptions web;
    bool keepLoaded = false;
    bool havePath = false;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--help") == 0 || strcmp(argv[i], "-h") == 0) {
            PrintUsage(argv[0]);
            return 0;
        }
        if (strcmp(argv[i], "--api") == 0 && face == Face::kCheck) {
            face = Face::kApi;
        } else if (strcmp(argv[i], "--presentation") == 0 && face == Face::kCheck) {
            face = Face::kPresentation;
        } else if (strcmp(argv[i], "--web") == 0 && face == Face::kCheck) {
            face = Face::kWeb;
            if (i + 1 < argc && LooksLikeWebAddress(argv[i + 1]) &&
                !ParseWebAddress(argv[++i], web.address, web.port)) {
                fprintf(stderr, "tideway-host: --web takes [ADDR:]PORT, not %s\n", argv[i]);
                return 2;
            }
        } else if (strcmp(argv[i], "--catalogue") == 0 && i + 1 < argc) {
            web.cataloguePath = argv[++i];
        } else if (strcmp(argv[i], "--web-root") == 0 && i + 1 < argc) {
            web.webRoot = argv[++i];
        } else if (strcmp(argv[i], "--agent-control") == 0 && i + 1 < argc) {
            web.agentControl = argv[++i];
        } else if (strcmp(argv[i], "--agent-log") == 0 && i + 1 < argc) {
            web.agentLog = argv[++i];
        } else if (strcmp(argv[i], "--keep-loaded") == 0) {
            keepLoaded = true;
        } else if (!havePath && argv[i][0] != '-') {
            modulePath = argv[i];
            havePath = true;
        } else {
            PrintUsage(argv[0]);
            return 2;
        }
    }
    const bool webOnly = !web.webRoot.empty() || !web.agentControl.empty() || !web.agentLog.empty();
    if ((!web.cataloguePath.empty() && face != Face::kPresentation && face != Face::kWeb) ||
        (webOnly && face != Face::kWeb)) {
        PrintUsage(argv[0]);
        return 2;
    }
    if (web.cataloguePath.empty())
        web.cataloguePath = DefaultCataloguePath();
    // The module writes to the system log through the process's connection and, as long as
    // nothing fails badly, leaves its identity to the host; so the host names itself before
    // loading the module, and every record of the module carries "tideway-host[PID]".
    // LOG_PID tells two hosts apart and ties a record to its process; facility user because
    // this is a desktop application (and the facility the records had without openlog, so they
    // stay in user.log); no LOG_CONS, since a desktop program has no business writing on the
    // system console.
    openlog("tideway-host", LOG_PID, LOG_USER);
    return Run(modulePath, face, web, keepLoaded);
}
