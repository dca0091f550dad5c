// Public boundary of the module: the table of offered interfaces, the common base of the
// plug-in objects and the three exported functions. A host compiles against this header alone.
//
// The host calls the functions from one thread; CreatePlugin and DisposePlugin must not run
// concurrently. The object returned by CreatePlugin belongs to the host until it is passed to
// DisposePlugin, which is the only way to release it.
#ifndef TIDEWAY_INCLUDE_PLUGIN_H_
#define TIDEWAY_INCLUDE_PLUGIN_H_

#include <stddef.h>
#include <stdint.h>
#ifndef __cplusplus
#include <stdbool.h>
#endif

#if defined(__GNUC__)
#define TIDEWAY_EXPORT __attribute__((visibility("default")))
#else
#define TIDEWAY_EXPORT
#endif

// One row of the table of offered interfaces.
struct PluginInterfaceRecord {
    const char* name;
    uint64_t version;
};

// What GetAvailableInterfaces returns: the first row of the constant table and the row count.
struct PluginInterfaceList {
    const PluginInterfaceRecord* records;
    size_t count;
};

#ifdef __cplusplus
// Common base of the API object and the presentation plug-in. No data; the slot order of the
// virtual operations is part of the binary interface: SupportsInterface, then the destructors.
class Plugin {
  public:
    // Non-zero when this object implements the named interface at this version.
    virtual int SupportsInterface(const char* name, uint64_t version) = 0;
    virtual ~Plugin() {}
};

extern "C" {
#else
typedef struct Plugin Plugin;
#endif

// The table of interfaces; allocates nothing and may be called first.
TIDEWAY_EXPORT struct PluginInterfaceList GetAvailableInterfaces(void);
// Makes the plug-in for the named interface, or returns null (the reason is in the system log).
TIDEWAY_EXPORT Plugin* CreatePlugin(const char* interfaceName);
// Destroys a plug-in made by CreatePlugin; null is allowed. Always returns true.
TIDEWAY_EXPORT bool DisposePlugin(Plugin* plugin);

#ifdef __cplusplus
}
#endif

#endif  // TIDEWAY_INCLUDE_PLUGIN_H_
