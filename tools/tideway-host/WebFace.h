// tideway-host --web: the harness as the UI host of the presentation plug-in, shown on a page
// that a browser loads from the harness itself (WebServer), with a panel that drives a running
// agent simulator (AgentLink).
#ifndef TIDEWAY_TOOLS_TIDEWAY_HOST_WEBFACE_H_
#define TIDEWAY_TOOLS_TIDEWAY_HOST_WEBFACE_H_

#include <stdint.h>

#include <string>

#include "PresentationFace.h"

struct WebFaceOptions {
    std::string address = "127.0.0.1";
    uint16_t port = 8080;
    std::string webRoot;  // empty: web/ beside the program
    std::string cataloguePath;
    std::string agentControl;  // the simulator's control socket; empty: no agent panel
    std::string agentLog;      // the simulator's log file; empty: no agent log tail
};

// Splits "[ADDR:]PORT" ("PORT" alone means 127.0.0.1, "localhost" too; an IPv6 address goes in
// brackets). False when the text is not of that form or the port is above 65535.
bool ParseWebAddress(const std::string& text, std::string& address, uint16_t& port);

// Serves the page, creates, initialises and starts the presentation plug-in with the
// catalogue's texts, prints "Serving http://ADDR:PORT/", and runs until SIGINT or SIGTERM; then
// stops, shuts down and disposes of the plug-in and closes the pages. False when the catalogue,
// the server or the plug-in failed.
bool RunWeb(CreatePluginFn createPlugin, DisposePluginFn disposePlugin,
            const WebFaceOptions& options);

#endif  // TIDEWAY_TOOLS_TIDEWAY_HOST_WEBFACE_H_
