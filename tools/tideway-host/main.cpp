// tideway-host: loads libtidewayapi.so the way the suite's UI host does (dlopen, then the three
// exported functions by name), lists the interfaces it offers and checks that a creation without
// a name is refused. Exit status 0 when the module behaved, 1 otherwise, 2 for a usage error.
#include <dlfcn.h>
#include <inttypes.h>
#include <stdio.h>
#include <string.h>

#include <string>

#include "Plugin.h"

namespace {

using GetAvailableInterfacesFn = PluginInterfaceList (*)();
using CreatePluginFn = Plugin* (*)(const char*);
using DisposePluginFn = bool (*)(Plugin*);

void PrintUsage(const char* program) {
    printf(
        "Usage: %s [MODULE]\n"
        "\n"
        "Loads the plug-in module MODULE with dlopen, as the UI host does, and\n"
        "  - lists every interface from GetAvailableInterfaces with its version,\n"
        "  - calls CreatePlugin with a null name and reports the null it must return,\n"
        "  - unloads the module.\n"
        "The module's diagnostics go to the system log.\n"
        "\n"
        "MODULE defaults to the module built with this program:\n"
        "  %s\n"
        "\n"
        "Exit status: 0 when the module behaved as expected, 1 when it did not or could\n"
        "not be loaded, 2 for a usage error.\n",
        program, TIDEWAY_DEFAULT_MODULE_PATH);
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

int Run(const std::string& modulePath) {
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

        Plugin* plugin = createPlugin(nullptr);
        if (plugin == nullptr) {
            printf("CreatePlugin(null) returned null, as it must\n");
        } else {
            printf("CreatePlugin(null) returned %p instead of null\n", static_cast<void*>(plugin));
            disposePlugin(plugin);
            status = 1;
        }
    }

    if (dlclose(module) != 0) {
        fprintf(stderr, "tideway-host: dlclose failed: %s\n", dlerror());
        status = 1;
    }
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    std::string modulePath = TIDEWAY_DEFAULT_MODULE_PATH;
    if (argc > 2) {
        PrintUsage(argv[0]);
        return 2;
    }
    if (argc == 2) {
        if (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0) {
            PrintUsage(argv[0]);
            return 0;
        }
        modulePath = argv[1];
    }
    return Run(modulePath);
}
