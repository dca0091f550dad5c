// A minimal UI host for libtidewayapi, built outside the module's tree against its installed
// headers only:
//
//   c++ -std=c++17 example-host.cpp $(pkg-config --cflags --libs tidewayapi) -o example-host
//   ./example-host "$(pkg-config --variable=module tidewayapi)" [CATALOGUE]
//
// It opens the module with dlopen, creates the presentation plug-in through the exported
// functions, gives it a presentation host and a translator, starts it and prints every notice.
// It exits 0 once it has seen the setup notice and the notice that the agent is fully connected
// (status 9: tray state "Good" with the text of key 372 in the tray), and 1 when that has not
// happened within 20 seconds or the module misbehaved. The texts come from CATALOGUE, a
// "key<TAB>text" file such as the one installed as share/tideway/tideway-host.catalogue;
// without one every text is "#" and its key.
#include <dlfcn.h>
#include <stdio.h>
#include <string.h>

#include <chrono>
#include <condition_variable>
#include <fstream>
#include <map>
#include <mutex>
#include <string>

#include "IPresentationHost.h"
#include "IPresentationPlugin.h"
#include "ITranslator.h"
#include "Plugin.h"

namespace {

constexpr const char* kPresentationInterface = "com.tarvex.brenlo.presentation";
constexpr uint32_t kClientId = 7;
constexpr uint32_t kKeyConnected = 372;  // the tray text of status 9
constexpr std::chrono::seconds kTimeout(20);

// Texts by key from a key<TAB>text file; "#<key>" for a key it does not have. Called by the
// module from its own threads, but only read after loading.
class Translator : public ITranslator {
  public:
    bool Load(const char* path) {
        std::ifstream in(path);
        if (!in)
            return false;
        std::string line;
        while (std::getline(in, line)) {
            const size_t tab = line.find('\t');
            if (line.empty() || line[0] == '#' || tab == std::string::npos)
                continue;
            texts_[static_cast<uint32_t>(strtoul(line.c_str(), nullptr, 10))] =
                line.substr(tab + 1);
        }
        return true;
    }

    std::string Text(uint32_t key) const {
        const auto it = texts_.find(key);
        return it != texts_.end() ? it->second : "#" + std::to_string(key);
    }

    // The buffer protocol: too small a buffer answers -3 with the size needed.
    int32_t TranslateText(uint32_t key, char* buffer, uint32_t& size) override {
        const std::string text = Text(key);
        const uint32_t needed = static_cast<uint32_t>(text.size() + 1);
        if (buffer == nullptr || size < needed) {
            size = needed;
            return -3;
        }
        memcpy(buffer, text.c_str(), needed);
        return 0;
    }

  private:
    std::map<uint32_t, std::string> texts_;
};

// Prints the notices and watches for the two that end the run. The module delivers from its
// own threads, one call at a time; main() waits on the condition.
class Host : public IPresentationHost {
  public:
    explicit Host(std::string connectedTray)
        : connectedTray_("<traystate id=\"tray_state_string\" value=\"" + connectedTray +
                         "\"/>") {}

    int32_t DeliverXml(uint32_t clientId, const char* xml) override {
        const std::string notice = xml != nullptr ? xml : "";
        std::lock_guard<std::mutex> lock(mutex_);
        printf("--- notice for client %u\n%s\n", clientId, notice.c_str());
        fflush(stdout);
        if (notice.find("type=\"setup\"") != std::string::npos)
            sawSetup_ = true;
        if (notice.find("state=\"Good\"") != std::string::npos &&
            notice.find(connectedTray_) != std::string::npos)
            sawConnected_ = true;
        changed_.notify_all();
        return 0;
    }

    int32_t NotifyStopped(uint32_t clientId) override {
        printf("--- stopped (client %u)\n", clientId);
        return 0;
    }

    // True when both notices came before the time-out.
    bool WaitForSetupAndConnected() {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, kTimeout, [this] { return sawSetup_ && sawConnected_; });
    }

  private:
    const std::string connectedTray_;
    std::mutex mutex_;
    std::condition_variable changed_;
    bool sawSetup_ = false;
    bool sawConnected_ = false;
};

template <typename Fn>
Fn Lookup(void* module, const char* name) {
    Fn fn = reinterpret_cast<Fn>(dlsym(module, name));
    if (fn == nullptr)
        fprintf(stderr, "example-host: %s not found in the module\n", name);
    return fn;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2 || argc > 3) {
        fprintf(stderr, "usage: %s MODULE [CATALOGUE]\n", argv[0]);
        return 2;
    }
    Translator translator;
    if (argc == 3 && !translator.Load(argv[2])) {
        fprintf(stderr, "example-host: cannot read the catalogue %s\n", argv[2]);
        return 2;
    }

    void* module = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    if (module == nullptr) {
        fprintf(stderr, "example-host: %s\n", dlerror());
        return 1;
    }
    auto createPlugin = Lookup<Plugin* (*)(const char*)>(module, "CreatePlugin");
    auto disposePlugin = Lookup<bool (*)(Plugin*)>(module, "DisposePlugin");
    if (createPlugin == nullptr || disposePlugin == nullptr)
        return 1;

    Plugin* created = createPlugin(kPresentationInterface);
    if (created == nullptr) {
        fprintf(stderr, "example-host: CreatePlugin failed; the reason is in the system log\n");
        return 1;
    }
    // The module hands out the presentation plug-in for this name; the class is only declared
    // here, so the conversion is static.
    IPresentationPlugin* plugin = static_cast<IPresentationPlugin*>(created);
    Host host(translator.Text(kKeyConnected));
    bool ok = false;
    // The host context is only tested against null.
    const int32_t initialized = plugin->Initialize(&host, kClientId, &host, &translator);
    if (initialized != 0) {
        fprintf(stderr, "example-host: Initialize -> %d\n", initialized);
    } else if (const int32_t started = plugin->Start(); started != 0) {
        fprintf(stderr, "example-host: Start -> %d\n", started);
    } else {
        ok = host.WaitForSetupAndConnected();
        if (!ok)
            fprintf(stderr, "example-host: no setup notice and connected agent within %lld s\n",
                    static_cast<long long>(kTimeout.count()));
        plugin->Stop();
    }
    plugin->Shutdown();
    disposePlugin(created);
    dlclose(module);
    if (ok)
        printf("example-host: setup notice and agent connected (status 9)\n");
    return ok ? 0 : 1;
}
