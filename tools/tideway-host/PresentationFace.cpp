// The UI host's side of the presentation plug-in, on a console: notices are printed as they
// arrive, and events are typed on stdin, either as whole "brguiEvent" documents or as short
// commands that build them.
#include "PresentationFace.h"

#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <iostream>
#include <mutex>
#include <string>

#include "Catalogue.h"
#include "IPresentationHost.h"
#include "IPresentationPlugin.h"

namespace {

constexpr uint32_t kClientId = 1;
constexpr uint32_t kKeyManual = 360;
constexpr uint32_t kKeyAutomatic = 361;

// Printing is shared by the host's thread and the module's notification threads; one lock
// keeps each notice whole.
std::mutex g_printMutex;

void PrintBlock(const std::string& header, const std::string& body) {
    std::lock_guard<std::mutex> lock(g_printMutex);
    fputs(header.c_str(), stdout);
    fputc('\n', stdout);
    if (!body.empty()) {
        fputs(body.c_str(), stdout);
        if (body.back() != '\n')
            fputc('\n', stdout);
    }
    fflush(stdout);
}

class PrintingHost : public IPresentationHost {
  public:
    int32_t DeliverXml(uint32_t clientId, const char* xml) override {
        PrintBlock(Header("--- notice", clientId), xml != nullptr ? xml : "(null)");
        return 0;
    }
    int32_t NotifyStopped(uint32_t clientId) override {
        PrintBlock(Header("--- stopped", clientId), "");
        return 0;
    }

  private:
    static std::string Header(const char* what, uint32_t clientId) {
        if (clientId == kClientId)
            return what;
        return std::string(what) + " (for client " + std::to_string(clientId) + ", not " +
               std::to_string(kClientId) + ")";
    }
};

std::string EscapeAttribute(const std::string& text) {
    std::string out;
    for (char c : text) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            default:
                out += c;
        }
    }
    return out;
}

// The event the host sends when the user picks `tower` in the tower combobox.
std::string TowerEvent(const std::string& tower) {
    return "<brguiEvent id=\"tower_list_combobox_OnSelect\"><combobox id=\"tower_list_combobox\" "
           "value=\"" +
           EscapeAttribute(tower) + "\"/></brguiEvent>";
}

// The event the host sends when the user picks a mode radio: the group's value is the label.
std::string ModeEvent(const std::string& label) {
    return "<brguiEvent id=\"mode_radio_group_OnSelect\"><radiogroup id=\"mode_radio_group\" "
           "value=\"" +
           EscapeAttribute(label) + "\"/></brguiEvent>";
}

// The event the host sends when the user presses OK in the proxy credential dialog.
std::string CredentialsEvent(const std::string& user, const std::string& password) {
    return "<brguiEvent id=\"credential_ok_btn_OnPress\"><textbox id=\"proxyuser\" value=\"" +
           EscapeAttribute(user) + "\"/><passwordbox id=\"proxypswd\" value=\"" +
           EscapeAttribute(password) + "\"/></brguiEvent>";
}

std::string Trim(const std::string& text) {
    const size_t first = text.find_first_not_of(" \t\r");
    if (first == std::string::npos)
        return "";
    const size_t last = text.find_last_not_of(" \t\r");
    return text.substr(first, last - first + 1);
}

// A typed document is complete once every element it opened is closed again, whatever its root
// and whether or not a declaration leads it. One that never closes is ended by an empty line or
// the end of input and delivered as it stands, so that the plug-in refuses it and the events
// after it stay events of their own.
bool DocumentComplete(const std::string& document) {
    int depth = 0;
    bool element = false;
    for (size_t i = document.find('<'); i != std::string::npos; i = document.find('<', i)) {
        const bool closing = document.compare(i, 2, "</") == 0;
        const bool other = document.compare(i, 2, "<?") == 0 || document.compare(i, 2, "<!") == 0;
        char quote = 0;
        size_t end = i + 1;
        for (; end < document.size() && (quote != 0 || document[end] != '>'); ++end) {
            if (quote == 0 && (document[end] == '"' || document[end] == '\''))
                quote = document[end];
            else if (document[end] == quote)
                quote = 0;
        }
        if (end == document.size())
            return false;  // a tag not yet ended
        if (!other) {
            element = true;
            depth += closing ? -1 : document[end - 1] == '/' ? 0 : 1;
        }
        i = end + 1;
    }
    return element && depth <= 0 && Trim(document).back() == '>';
}

void PrintHelp() {
    PrintBlock(
        "--- commands",
        "  <brguiEvent ...>...</brguiEvent>  an event document, on one or more lines (an empty\n"
        "                                    line ends one that is left open)\n"
        "  select-tower NAME                 pick NAME in the tower list\n"
        "  mode automatic|manual             pick a mode radio (by its translated label)\n"
        "  credentials USER PASSWORD         press OK in the proxy credential dialog\n"
        "                                    (the password is the rest of the line)\n"
        "  cancel-credentials                press Cancel in that dialog\n"
        "  help                              this list\n"
        "  quit                              stop the plug-in and leave (also end of input)");
}

void Deliver(IPresentationPlugin* plugin, const std::string& document) {
    PrintBlock("--- event", document);
    const int32_t result = plugin->HandleEvent(document.c_str());
    PrintBlock("HandleEvent -> " + std::to_string(result), "");
}

// Reads stdin until "quit" or its end and hands every event to the plug-in.
void ReadEvents(IPresentationPlugin* plugin, const Catalogue& catalogue) {
    std::string document;
    std::string line;
    while (std::getline(std::cin, line)) {
        const std::string text = Trim(line);
        if (!document.empty() && text.empty()) {
            Deliver(plugin, document);  // an unfinished document, ended by the empty line
            document.clear();
            continue;
        }
        if (!document.empty() || (!text.empty() && text[0] == '<')) {
            if (!line.empty() && line.back() == '\r')
                line.pop_back();
            document += document.empty() ? text : "\n" + line;
            if (DocumentComplete(document)) {
                Deliver(plugin, document);
                document.clear();
            }
            continue;
        }
        if (text.empty())
            continue;
        if (text == "quit")
            return;
        if (text == "help") {
            PrintHelp();
        } else if (text.compare(0, 13, "select-tower ") == 0 && !Trim(text.substr(13)).empty()) {
            Deliver(plugin, TowerEvent(Trim(text.substr(13))));
        } else if (text.compare(0, 12, "credentials ") == 0) {
            const std::string rest = Trim(text.substr(12));
            const size_t blank = rest.find_first_of(" \t");
            if (blank == std::string::npos) {
                PrintBlock("--- credentials need a user and a password", "");
                continue;
            }
            Deliver(plugin, CredentialsEvent(rest.substr(0, blank), Trim(rest.substr(blank))));
        } else if (text == "cancel-credentials") {
            Deliver(plugin, "<brguiEvent id=\"credential_cancel_btn_OnPress\"/>");
        } else if (text == "mode automatic" || text == "mode manual") {
            const std::string label =
                catalogue.Text(text == "mode automatic" ? kKeyAutomatic : kKeyManual);
            Deliver(plugin, ModeEvent(label));
        } else {
            PrintBlock("--- not understood: " + text + " (try help)", "");
        }
    }
    if (!document.empty())
        Deliver(plugin, document);  // unfinished at the end of input: the plug-in judges it
}

}  // namespace

std::string ProgramDirectory() {
    char path[PATH_MAX];
    const ssize_t n = readlink("/proc/self/exe", path, sizeof(path) - 1);
    if (n <= 0)
        return ".";
    std::string self(path, static_cast<size_t>(n));
    const size_t slash = self.rfind('/');
    return slash == std::string::npos ? std::string(".") : self.substr(0, slash);
}

std::string DataPath(const std::string& name) {
    const std::string beside = ProgramDirectory() + "/" + name;
    if (access(beside.c_str(), F_OK) == 0)
        return beside;
    const std::string installed =
        ProgramDirectory() + "/" + TIDEWAY_INSTALLED_DATA_DIR + "/" + name;
    return access(installed.c_str(), F_OK) == 0 ? installed : beside;
}

std::string DefaultCataloguePath() {
    return DataPath("tideway-host.catalogue");
}

bool RunPresentation(CreatePluginFn createPlugin, DisposePluginFn disposePlugin,
                     const std::string& cataloguePath) {
    Catalogue catalogue;
    if (!catalogue.Load(cataloguePath))
        return false;
    PrintingHost host;

    Plugin* created = createPlugin("com.tarvex.brenlo.presentation");
    if (created == nullptr) {
        printf("CreatePlugin(presentation) failed; see the system log\n");
        return false;
    }
    IPresentationPlugin* plugin = static_cast<IPresentationPlugin*>(created);
    // The host context is only tested against null; the host object serves.
    const int32_t initialized = plugin->Initialize(&host, kClientId, &host, &catalogue);
    PrintBlock("Initialize -> " + std::to_string(initialized), "");
    bool ok = initialized == 0;
    if (ok) {
        const int32_t started = plugin->Start();
        PrintBlock("Start -> " + std::to_string(started), "");
        ok = started == 0;
        if (ok)
            ReadEvents(plugin, catalogue);
        if (ok) {
            const int32_t stopped = plugin->Stop();
            PrintBlock("Stop -> " + std::to_string(stopped), "");
            ok = stopped == 0;
        }
        const int32_t shutDown = plugin->Shutdown();
        PrintBlock("Shutdown -> " + std::to_string(shutDown), "");
        ok = ok && shutDown == 0;
    }
    disposePlugin(created);
    PrintBlock("Plug-in disposed", "");
    return ok;
}
