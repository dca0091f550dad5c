// Arbitrary text to HandleEvent of a started presentation plug-in connected through the fake
// client: only the four actions' commands may reach the channel.
#include "FakeIPCClient.h"
#include "RecordingHost.h"
#include "SyslogCapture.h"
#include "api/VantoriaApi.h"
#include "presentation/VantoriaPresentationPlugin.h"

#include "FuzzSupport.h"

struct Harness {
    RecordingHost host;
    std::unique_ptr<CVantoriaPresentationPlugin> plugin{new CVantoriaPresentationPlugin};
    std::shared_ptr<FakeIPCClient::State> fake = ConnectApi(plugin->GetApi());
    Harness() {
        FUZZ_CHECK(plugin->Initialize(this, 1, &host, &host) == 0 && plugin->Start() == 0);
        fake->Deliver(COMM_MSG_SRVC_STARTED);
        FUZZ_CHECK(host.WaitForNotice("type=\"update\""));  // the status notice
        // Status 9's requests end with the proxy state: none may pass for a marker or a command.
        WaitSent(*fake, COMM_MSG_PROXY_STATE_QUERY, 0);
        std::string proxy = "proxy", port = "8080", scheme = "Basic", realm = "r";
        plugin->OnProxyCredRequest(proxy, port, scheme, realm);  // arms the dialog's events
        SendMarker();  // the requests of the start are out
    }
    ~Harness() { g_pVantoriaApi = nullptr; }  // then the plug-in ends the API's threads

    // A tower-list request, the marker: once it is out, all queued before it is. The index of it.
    size_t SendMarker() {
        const size_t before = fake->Locked([&] { return fake->sentIds.size(); });
        FUZZ_CHECK(plugin->GetApi().GetTowerList() == 0);
        return WaitSent(*fake, COMM_MSG_TOWERS_REQUEST_INFO, before);
    }
};

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Harness h;  // made after the trace object, so it ends first
    syslog_capture::Clear();
    const size_t before = h.fake->Locked([&] { return h.fake->sentIds.size(); });
    const int32_t result = h.plugin->HandleEvent(AsText(data, size).c_str());
    FUZZ_CHECK(result == 0 || result == -1);
    const size_t end = h.SendMarker();
    h.fake->Locked([&] {
        for (size_t i = before; i < end; ++i) {
            const uint32_t id = h.fake->sentIds[i];
            FUZZ_CHECK(id == COMM_MSG_CHANGE_ACTIVE_TOWER || id == COMM_MSG_DCT_SETTINGS_UPDATE ||
                       id == COMM_MSG_PROXY_CRED_RESPONSE || id == COMM_MSG_PROXY_CANCEL_REQUEST);
            const std::vector<uint8_t>& sent = h.fake->sentData[i];
            FUZZ_CHECK(id != COMM_MSG_PROXY_CRED_RESPONSE || sent.size() == 400);
            FUZZ_CHECK(id != COMM_MSG_DCT_SETTINGS_UPDATE || sent.size() == 12);
            // A tower name goes without its terminator, and an empty one not at all.
            FUZZ_CHECK(id != COMM_MSG_CHANGE_ACTIVE_TOWER ||
                       (!sent.empty() && std::find(sent.begin(), sent.end(), 0) == sent.end()));
        }
    });
    return 0;
}
