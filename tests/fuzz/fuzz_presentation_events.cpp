// Feeds arbitrary text to HandleEvent of a started presentation plug-in whose API is connected
// through the fake IPC client, with the credential dialog armed. Checks: no crash, no leak, and
// nothing goes to the agent but the four actions' commands (1042 tower, 1046 closest-tower
// settings, 1050 credentials, 1052 cancel). After each input a tower-list request (1040) is the
// marker: once it is out, everything the input queued before it is out too.
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <memory>
#include <string>

#include "FakeIPCClient.h"
#include "RecordingHost.h"
#include "SyslogCapture.h"
#include "api/VantoriaApi.h"
#include "common/VNTrace.h"
#include "presentation/VantoriaPresentationPlugin.h"

namespace {

[[noreturn]] void Fail(const char* what) {
    fprintf(stderr, "fuzz_presentation_events: %s\n", what);
    abort();
}

struct Harness {
    std::shared_ptr<FakeIPCClient::State> fake;
    RecordingHost host;
    int context = 0;
    CVantoriaPresentationPlugin* plugin = nullptr;
};
Harness* g_Harness = nullptr;

void StopHarness() {
    if (g_Harness == nullptr)
        return;
    g_pVantoriaApi = nullptr;
    delete g_Harness->plugin;  // ends the API's threads
    delete g_Harness;
    g_Harness = nullptr;
}

// Queues the marker and waits until it is out; returns the index just past it.
size_t SendMarker(Harness& h) {
    const size_t before = h.fake->Locked([&] { return h.fake->sentIds.size(); });
    if (h.plugin->GetApi().GetTowerList() != 0)
        Fail("the marker was refused");
    size_t end = 0;
    if (!h.fake->WaitFor(
            [&] {
                for (size_t i = before; i < h.fake->sentIds.size(); ++i)
                    if (h.fake->sentIds[i] == COMM_MSG_TOWERS_REQUEST_INFO)
                        return (end = i + 1) != 0;
                return false;
            },
            std::chrono::seconds(60)))
        Fail("the marker never went out");
    return end;
}

Harness& TheHarness() {
    if (g_Harness != nullptr)
        return *g_Harness;
    g_Trace.InitTrace(kTraceIdent, "/tmp", "TidewayAPI.log", 2, kDefaultTraceMask, false, true, 10,
                      10000, 100, 1, 0, 60);
    g_Trace.SetLevelMask(0xFFFFFFFF);  // every statement formats its arguments
    Harness* h = new Harness;
    h->fake = std::make_shared<FakeIPCClient::State>();
    h->plugin = new CVantoriaPresentationPlugin;
    CVantoriaApi& api = h->plugin->GetApi();
    g_pVantoriaApi = &api;
    if (!api.Initialize(5003, FakeIPCClient::Factory(h->fake)) || !api.StartCommunicator() ||
        !h->fake->WaitFor([&] { return h->fake->connects >= 1; }))
        Fail("the communicator never connected");
    h->fake->PeerState(8, 1, 2);
    if (h->plugin->Initialize(&h->context, 1, &h->host, &h->host) != 0 || h->plugin->Start() != 0)
        Fail("the plug-in did not start");
    h->fake->Deliver(COMM_MSG_SRVC_STARTED);
    if (!h->host.WaitForNotice("type=\"update\""))
        Fail("no status notice after the service started");
    // Status 9 makes the plug-in ask for towers, settings, statistics and the proxy state, the
    // last of them after its notice: wait for that one, so that none of them (a tower-list
    // request among them) is taken for the marker or for an event's command.
    if (!h->fake->WaitFor([&] {
            for (uint32_t id : h->fake->sentIds)
                if (id == COMM_MSG_PROXY_STATE_QUERY)
                    return true;
            return false;
        }))
        Fail("the requests of the start never went out");
    std::string host = "proxy", port = "8080", scheme = "Basic", realm = "r";
    h->plugin->OnProxyCredRequest(host, port, scheme, realm);  // arms the dialog's events
    g_Harness = h;
    SendMarker(*h);  // the requests of the start are out
    atexit(StopHarness);
    return *h;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Harness& h = TheHarness();
    syslog_capture::Clear();
    const size_t before = h.fake->Locked([&] { return h.fake->sentIds.size(); });
    const std::string text(reinterpret_cast<const char*>(data), size);
    const int32_t result = h.plugin->HandleEvent(text.c_str());
    if (result != 0 && result != -1)
        Fail("a result other than 0 and -1");
    const size_t end = SendMarker(h) - 1;
    h.fake->Locked([&] {
        for (size_t i = before; i < end; ++i) {
            const uint32_t id = h.fake->sentIds[i];
            if (id != COMM_MSG_CHANGE_ACTIVE_TOWER && id != COMM_MSG_DCT_SETTINGS_UPDATE &&
                id != COMM_MSG_PROXY_CRED_RESPONSE && id != COMM_MSG_PROXY_CANCEL_REQUEST)
                Fail("a command no action sends");
            if (id == COMM_MSG_PROXY_CRED_RESPONSE && h.fake->sentData[i].size() != 400)
                Fail("a credential record not of 400 bytes");
        }
        return 0;
    });
    return 0;
}
