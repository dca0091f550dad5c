// Cost of the UI document layer over rapidxml alone, in the same run:
// - BM_NoticeBuildPrint: an update notice of 10 controls (each with id, value, disabled, hidden),
//   tray state and a message-history line, built with XmlUINotice and printed with ToString;
// - BM_RawBuildPrint: the same elements and attributes built with rapidxml's own calls (names and
//   values copied into the pool, the timestamp formatted the same way, the document on the
//   stack) and printed with rapidxml::print into a string;
// - BM_RawBuildPrintStream: the raw build printed through rapidxml's stream overload instead;
// - BM_EventParse / BM_RawParse: an event from the host read with XmlUIEvent (copy, depth scan,
//   parse, index) and with a bare rapidxml parse of a copy.
// - BM_HandleEventTowerSelection: a tower selection from the host through HandleEvent of a
//   started plug-in whose API is connected (through a stand-in IPC client that accepts every
//   send), up to the command on the communicator's main queue: parse, table lookup, combobox
//   value, SetTower.
// Before running, the program checks that both builds print the same bytes. At the end it
// prints the ratios layer / raw, of real and of CPU time (of the medians when run with
// --benchmark_repetitions).
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include <rapidxml/rapidxml.hpp>
#include <rapidxml/rapidxml_print.hpp>

#include <atomic>
#include <chrono>
#include <thread>

#include "IPresentationHost.h"
#include "ITranslator.h"
#include "comm/ChannelPacket.h"
#include "comm/ClientSideCommunicator.h"
#include "common/VNTrace.h"
#include "presentation/UiVocabulary.h"
#include "presentation/VantoriaPresentationPlugin.h"
#include "presentation/XmlUIEvent.h"
#include "presentation/XmlUINotice.h"

namespace {

struct ControlRow {
    int32_t type;
    const char* id;
    const char* value;
};

const ControlRow kControls[10] = {
    {kCtrlLabel, kIdSimpleStatus, "Connected (Tower Frankfurt 2)"},
    {kCtrlTrayState, kIdTrayStateString, "Connected"},
    {kCtrlLabel, kIdTower, "Tower Frankfurt 2"},
    {kCtrlLabel, kIdTowerSelectLbl, "Tower selection"},
    {kCtrlLabel, kIdTowerUpdatePending, "Update pending..."},
    {kCtrlRadioGroup, kIdModeRadioGroup, "Automatic"},
    {kCtrlLabel, kIdTowerListLbl, "Available towers"},
    {kCtrlComboBox, kIdTowerListCombobox, "Tower Frankfurt 2"},
    {kCtrlLabel, kIdSimpleSubstatusLeft, "Filtered: 1,234"},
    {kCtrlLabel, kIdSimpleSubstatusRight, "Bypassed: 56"},
};
const char kHistory[] = "Connected (Tower Frankfurt 2)";

std::string LayerNotice() {
    XmlUINotice notice(kNoticeUpdate, nullptr, kUiModuleIdentity);
    notice.SetState(kTrayGood);
    for (const ControlRow& c : kControls) {
        notice.GetControl(c.type, c.id)
            .SetAttribute(kUiValue, c.value)
            .SetAttribute(kUiDisabled, kUiFalse)
            .SetAttribute(kUiHidden, kUiFalse);
    }
    notice.CreateNode(kUiLog).SetAttribute(kUiMessageHistory, kHistory);
    return notice.ToString();
}

using Document = rapidxml::xml_document<char>;
using Element = rapidxml::xml_node<char>;

void RawAttribute(Document& doc, Element* node, const char* name, const char* value) {
    node->append_attribute(
        doc.allocate_attribute(doc.allocate_string(name), doc.allocate_string(value)));
}

Element* RawElement(Document& doc, Element* parent, const char* name) {
    Element* node = doc.allocate_node(rapidxml::node_element, doc.allocate_string(name));
    parent->append_node(node);
    return node;
}

Element* RawNotice(Document& doc) {
    Element* root = RawElement(doc, &doc, kUiBrguiNotice);
    RawAttribute(doc, root, kUiModule, kUiModuleIdentity);
    RawAttribute(doc, root, kUiType, "update");
    const time_t now = time(nullptr);
    struct tm local;
    char stamp[64] = {};
    if (localtime_r(&now, &local) != nullptr)
        strftime(stamp, sizeof(stamp), "%c", &local);
    RawAttribute(doc, root, kUiTimestamp, stamp);
    RawAttribute(doc, root, kUiState, "Good");
    for (const ControlRow& c : kControls) {
        Element* node = RawElement(doc, root, g_UiControlTypes.TextOf(c.type));
        RawAttribute(doc, node, kUiId, c.id);
        RawAttribute(doc, node, kUiValue, c.value);
        RawAttribute(doc, node, kUiDisabled, kUiFalse);
        RawAttribute(doc, node, kUiHidden, kUiFalse);
    }
    RawAttribute(doc, RawElement(doc, root, kUiLog), kUiMessageHistory, kHistory);
    return root;
}

std::string RawNoticeText() {
    Document doc;
    std::string out;
    rapidxml::print(std::back_inserter(out), *RawNotice(doc), 0);
    return out;
}

const char kEvent[] =
    "<brguiEvent id=\"credential_ok_btn_OnPress\">\n"
    "\t<textbox id=\"proxyuser\" value=\"someone@example.net\"/>\n"
    "\t<passwordbox id=\"proxypswd\" value=\"s3cr&amp;t &quot;pass&quot;\"/>\n"
    "\t<combobox id=\"tower_list_combobox\">\n"
    "\t\t<comboitem label=\"Tower A\"/>\n"
    "\t\t<comboitem label=\"Tower B\" selected=\"true\"/>\n"
    "\t</combobox>\n"
    "</brguiEvent>\n";

void BM_NoticeBuildPrint(benchmark::State& state) {
    size_t bytes = 0;
    for (auto _ : state) {
        std::string text = LayerNotice();
        bytes = text.size();
        benchmark::DoNotOptimize(text);
    }
    state.counters["bytes"] = static_cast<double>(bytes);
}

void BM_RawBuildPrint(benchmark::State& state) {
    for (auto _ : state) {
        std::string text = RawNoticeText();
        benchmark::DoNotOptimize(text);
    }
}

void BM_RawBuildPrintStream(benchmark::State& state) {
    for (auto _ : state) {
        Document doc;
        std::ostringstream stream;
        std::ostream& out = stream;  // the stream overload, not the output-iterator one
        rapidxml::print(out, *RawNotice(doc), 0);
        std::string text = stream.str();
        benchmark::DoNotOptimize(text);
    }
}

void BM_EventParse(benchmark::State& state) {
    for (auto _ : state) {
        XmlUIEvent event(kEvent);
        if (!event.valid) {
            state.SkipWithError("event not valid");
            break;
        }
        std::string value = event.GetComboValue(event.GetControl(kIdTowerListCombobox));
        benchmark::DoNotOptimize(value);
    }
}

void BM_RawParse(benchmark::State& state) {
    for (auto _ : state) {
        Document doc;
        std::vector<char> text(kEvent, kEvent + sizeof(kEvent));
        doc.parse<0>(text.data());
        benchmark::DoNotOptimize(doc.first_node());
    }
}

// The IPC library's place: connects at once, accepts every packet.
struct AcceptingClient : IIPCClient {
    std::atomic<IIPCCallback*>* callback;
    std::atomic<int>* connects;
    std::atomic<uint64_t>* towerChanges;
    BR_STATUSCODE ConnectAsync(uint32_t, uint32_t, uint32_t, uint16_t) override {
        ++*connects;
        return 0;
    }
    BR_STATUSCODE SendData(IPCBuffer* buffer) override {
        MSG_QUEUE_MSG message(COMM_MSG_NONE, 0, 1, 0);
        if (ParsePacket(buffer->m_pData, buffer->m_Length, message) &&
            message.m_MessageId == COMM_MSG_CHANGE_ACTIVE_TOWER)
            ++*towerChanges;
        return 0;
    }
    BR_STATUSCODE ReservedSlot2() override { return 16; }
    BR_STATUSCODE ReservedSlot3() override { return 16; }
    BR_STATUSCODE TearDown() override { return 0; }
    BR_STATUSCODE ReservedSlot5() override { return 16; }
    BR_STATUSCODE ReservedSlot6() override { return 16; }
};

struct QuietHost : IPresentationHost, ITranslator {
    int32_t DeliverXml(uint32_t, const char*) override { return 0; }
    int32_t NotifyStopped(uint32_t) override { return 0; }
    int32_t TranslateText(uint32_t, char*, uint32_t&) override { return -1; }
};

const char kTowerSelection[] =
    "<brguiEvent id=\"tower_list_combobox_OnSelect\">"
    "<combobox id=\"tower_list_combobox\" value=\"east-1\"/></brguiEvent>";

void BM_HandleEventTowerSelection(benchmark::State& state) {
    std::atomic<IIPCCallback*> callback{nullptr};
    std::atomic<int> connects{0};
    std::atomic<uint64_t> towerChanges{0};
    QuietHost host;
    int context = 0;
    auto plugin = std::make_unique<CVantoriaPresentationPlugin>();
    CVantoriaApi& api = plugin->GetApi();
    g_pVantoriaApi = &api;
    const bool made = api.Initialize(5003, [&](uint32_t, IIPCCallback* cb) -> IIPCClient* {
        callback = cb;
        auto* client = new AcceptingClient;
        client->callback = &callback;
        client->connects = &connects;
        client->towerChanges = &towerChanges;
        return client;
    }) && api.StartCommunicator();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (made && connects == 0 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    bool ready = made && connects > 0 && plugin->Initialize(&context, 1, &host, &host) == 0 &&
                 plugin->Start() == 0;
    if (ready) {
        callback.load()->OnPeerStateChanged(8, 1, 2);
        MSG_QUEUE_MSG started(COMM_MSG_SRVC_STARTED, 0, 1, 0);
        CWirePacket packet;
        MakeWirePacket(&started, packet);
        callback.load()->OnReqMsgRecv(&packet.m_Buffer);
        while (!api.GetCommunicator()->IsConnected() && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        ready = api.GetCommunicator()->IsConnected();
    }
    if (!ready) {
        state.SkipWithError("the plug-in did not come up");
    } else {
        uint64_t events = 0;
        for (auto _ : state) {
            if (plugin->HandleEvent(kTowerSelection) != 0) {
                state.SkipWithError("HandleEvent failed");
                break;
            }
            ++events;
        }
        // Every selection must have become a tower change on the channel.
        const auto drained = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (towerChanges < events && std::chrono::steady_clock::now() < drained)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        state.counters["tower_changes_sent"] = static_cast<double>(towerChanges.load());
        if (towerChanges < events)
            state.SkipWithError("a selection did not reach the channel");
    }
    g_pVantoriaApi = nullptr;
    plugin.reset();
}

BENCHMARK(BM_NoticeBuildPrint)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_RawBuildPrint)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_RawBuildPrintStream)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_EventParse)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_RawParse)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_HandleEventTowerSelection)->Unit(benchmark::kMicrosecond);

// Keeps real and CPU time per iteration of every run (the median with --benchmark_repetitions):
// on a machine shared with other builds the CPU time is the steadier of the two.
class RatioReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            if ((run.run_type == Run::RT_Iteration || median) && !run.error_occurred) {
                const double toNanos = benchmark::GetTimeUnitMultiplier(benchmark::kNanosecond) /
                                       benchmark::GetTimeUnitMultiplier(run.time_unit);
                m_Real[run.run_name.str()] = run.GetAdjustedRealTime() * toNanos;
                m_Cpu[run.run_name.str()] = run.GetAdjustedCPUTime() * toNanos;
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }

    void PrintRatio(const std::string& layer, const std::string& raw, double goal) const {
        if (m_Real.count(layer) == 0 || m_Real.count(raw) == 0)
            return;
        const double real = m_Real.at(layer) / m_Real.at(raw);
        const double cpu = m_Cpu.at(layer) / m_Cpu.at(raw);
        printf("%s / %s: real %.2f / %.2f us = %.2fx, cpu %.2f / %.2f us = %.2fx", layer.c_str(),
               raw.c_str(), m_Real.at(layer) / 1000, m_Real.at(raw) / 1000, real,
               m_Cpu.at(layer) / 1000, m_Cpu.at(raw) / 1000, cpu);
        if (goal > 0)
            printf(" (goal %.1fx: %s)", goal, real <= goal && cpu <= goal ? "within" : "above");
        printf("\n");
    }

  private:
    std::map<std::string, double> m_Real;
    std::map<std::string, double> m_Cpu;
};

}  // namespace

int main(int argc, char** argv) {
    g_Trace.SetLevelMask(0);
    // The two builds must print the same bytes (once more if the clock ticked in between).
    bool same = LayerNotice() == RawNoticeText() || LayerNotice() == RawNoticeText();
    if (!same) {
        fprintf(stderr, "layer and raw notices differ:\n%s---\n%s", LayerNotice().c_str(),
                RawNoticeText().c_str());
        return 1;
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.PrintRatio("BM_NoticeBuildPrint", "BM_RawBuildPrint", 1.5);
    reporter.PrintRatio("BM_NoticeBuildPrint", "BM_RawBuildPrintStream", 0);
    reporter.PrintRatio("BM_EventParse", "BM_RawParse", 0);
    benchmark::Shutdown();
    return 0;
}
