// Drives the receive path of a connected client API with arbitrary packets: the IPC callback's
// OnReqMsgRecv (played by a fake IPC client), the receiver thread's dispatch, the notification
// entries and the result objects, up to an application callback that reads every getter.
//
// One API stays connected for the whole process. Each input is cut into packets that are
// delivered one after another on this thread, as the IPC library would; then the agent's
// "service started" and an info text with a serial number follow as a marker. Once the marker
// has reached the callback, everything before it has been dispatched, and the callbacks seen
// are compared with what a model of the agent's protocol expects: the same notifications, in
// the same order, with the same values. Then a command is sent and waited for, so that the
// requests the API makes by itself after a tower or detection answer have left before the next
// input (none lost). A marker that does not arrive within 60 s means a lost message, a dead
// receiver or a deadlock, and aborts. (The limit is generous: a tower list of a few thousand
// "&" items that match nothing costs a quadratic number of comparisons, each logged at the API
// level that is on here; about 10 s under the sanitizers for a 4 KB input.)
//
// Input: a sequence of packets, each introduced by a mode byte.
//   mode bit 7 set: a raw packet: 2-byte little-endian size, then that many bytes, as is.
//   mode bit 7 clear: a built packet with a proper header. Bits 0-5 pick the id: 0-40 are the
//     ids 1025-1065, 41-63 odd ids outside that range. Bit 6: the header's length field is the
//     next 4 bytes (little-endian) instead of the true data length, so that a field promising
//     more or less than the packet holds is easy to reach. Then a 2-byte size and the data.
// Sizes are cut to what the input has left; at most 64 packets per input. Every packet is a
// heap block of exactly its size, so that AddressSanitizer sees any read past it.
//
// Ids that belong to the communicator's own threads (1036 QUIT among them) are delivered too:
// the glue must drop them, or a QUIT from the wire would end the receiver and the marker would
// be lost.
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "FakeIPCClient.h"
#include "IVantoriaApiCB.h"
#include "SyslogCapture.h"
#include "api/VantoriaApi.h"
#include "common/VNTrace.h"
#include "plugin/PluginEntry.h"

namespace {

constexpr size_t kMaxPackets = 64;
constexpr auto kMarkerWait = std::chrono::seconds(60);
constexpr uint32_t kMarkerType = 77;

[[noreturn]] void Fail(const char* what, const std::string& detail = "") {
    fprintf(stderr, "fuzz_comm_receive: %s %s\n", what, detail.c_str());
    abort();
}

uint32_t ReadLE32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
           (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

void WriteLE32(uint8_t* p, uint32_t v) {
    for (int i = 0; i < 4; ++i)
        p[i] = static_cast<uint8_t>(v >> (8 * i));
}

std::string FieldText(const void* field, size_t size) {
    const char* text = static_cast<const char*>(field);
    return std::string(text, strnlen(text, size));
}

// Reads a text getter by the two-call protocol and checks the protocol on the way.
template <typename Getter>
std::string ReadText(const char* name, Getter get) {
    uint32_t length = 0;
    if (get(nullptr, length) != -3 || length == 0)
        Fail("text getter broke the size protocol:", name);
    std::vector<char> buffer(length + 1, '#');
    uint32_t given = length;
    if (get(buffer.data(), given) != 0)
        Fail("text getter refused the size it asked for:", name);
    if (buffer[length - 1] != '\0' || buffer[length] != '#' || strlen(buffer.data()) != length - 1)
        Fail("text getter wrote a wrong size or past it:", name);
    if (length > 1) {
        uint32_t shortLength = length - 1;
        if (get(buffer.data(), shortLength) != -3 || shortLength != length)
            Fail("text getter took a buffer one byte short:", name);
    }
    return std::string(buffer.data(), length - 1);
}

// The application: turns each notification into one line of text, reading every getter of the
// result object while it is alive, and checking what can be checked without the data.
class EventLog : public IVantoriaApiCB {
  public:
    int32_t OnTowerList(IVantoriaTowerList* list) override {
        uint64_t count = 0;
        const int32_t counted = list->GetCount(count);
        if (counted != (count == 0 ? -1 : 0))
            Fail("tower list count result");
        for (uint64_t i = 0; i < count; ++i) {
            const std::string name =
                ReadText("GetAt", [&](char* b, uint32_t& l) { return list->GetAt(i, b, l); });
            if (name.find(',') != std::string::npos)
                Fail("tower name with a separator:", name);
        }
        char probe[4];
        uint32_t probeLength = sizeof(probe);
        if (list->GetAt(count, probe, probeLength) != -4)
            Fail("tower list index past the end accepted");
        int64_t active = -2;
        list->GetActiveIndex(active);
        if (active < -1 || active >= static_cast<int64_t>(count))
            Fail("active index out of range:", std::to_string(active));
        Record("T");  // the names are the tokenizer's business, which has its own tests
        return 0;
    }
    int32_t OnStatus(IVantoriaStatus* status) override {
        uint64_t code = ~0ull;
        status->GetStatus(code);
        Record("S" + std::to_string(code));
        return 0;
    }
    int32_t OnDCTSettings(IVantoriaDCT* dct) override {
        bool changed = false;
        uint32_t mode = 0, detect = 0, gui = 0;
        dct->ActiveTowerChanged(changed);
        dct->GetMode(mode);
        dct->GetDetectClosest(detect);
        dct->GetGUI(gui);
        const std::string tower = ReadText("GetActivatedTower", [&](char* b, uint32_t& l) {
            return dct->GetActivatedTower(b, l);
        });
        if (changed != !tower.empty())
            Fail("ActiveTowerChanged disagrees with the tower");
        Record(changed ? "A:" + tower
                       : "D:" + std::to_string(mode) + "," + std::to_string(detect) + "," +
                             std::to_string(gui));
        return 0;
    }
    int32_t OnProxyCredRequest(std::string& host, std::string& port, std::string& authType,
                               std::string& realm) override {
        Record("P:" + host + "|" + port + "|" + authType + "|" + realm);
        return 0;
    }
    int32_t OnStatistics(IVantoriaStatistics* s) override {
        uint64_t filtered = 0, bypassed = 0, other = 0, tFiltered = 0, tBypassed = 0, tOther = 0;
        uint64_t status = 0, reserved = 0, detectOnLan = 0, onLan = 0, mode = 0;
        s->GetConnectionCounts(filtered, bypassed, other);
        s->GetTotalCounts(tFiltered, tBypassed, tOther);
        s->GetServiceStatus(status);
        s->GetReserved(reserved);
        s->GetLanState(detectOnLan, onLan);
        s->GetSelectionMode(mode);
        const std::string tower = ReadText("GetActiveTowerName", [&](char* b, uint32_t& l) {
            return s->GetActiveTowerName(b, l);
        });
        const std::string enabled = ReadText("GetTimeServiceEnabled", [&](char* b, uint32_t& l) {
            return s->GetTimeServiceEnabled(b, l);
        });
        const std::string since =
            ReadText("GetTimeSinceLastTowerSelect",
                     [&](char* b, uint32_t& l) { return s->GetTimeSinceLastTowerSelect(b, l); });
        Record("X:" + tower + "|" + enabled + "|" + since + "|" + std::to_string(filtered) + "|" +
               std::to_string(tFiltered) + "|" + std::to_string(mode));
        return 0;
    }
    int32_t OnInfoMessage(IVantoriaInfoMessage* m) override {
        uint64_t type = 0;
        m->GetMessageType(type);
        const std::string text = ReadText(
            "GetMessageText", [&](char* b, uint32_t& l) { return m->GetMessageText(b, l); });
        Record("I:" + std::to_string(type) + "#" + text);
        return 0;
    }

    // Waits until `line` is the last line and has come `occurrences` times.
    bool WaitForLast(const std::string& line, size_t occurrences = 1) {
        std::unique_lock<std::mutex> lock(m_Mutex);
        return m_Changed.wait_for(lock, kMarkerWait, [&] {
            return !m_Lines.empty() && m_Lines.back() == line &&
                   static_cast<size_t>(std::count(m_Lines.begin(), m_Lines.end(), line)) >=
                       occurrences;
        });
    }
    std::vector<std::string> Take() {
        std::lock_guard<std::mutex> lock(m_Mutex);
        std::vector<std::string> lines;
        lines.swap(m_Lines);
        return lines;
    }

  private:
    void Record(std::string line) {
        {
            std::lock_guard<std::mutex> lock(m_Mutex);
            m_Lines.push_back(std::move(line));
        }
        m_Changed.notify_all();
    }

    std::mutex m_Mutex;
    std::condition_variable m_Changed;
    std::vector<std::string> m_Lines;
};

// What the client should make of the packets, from the protocol's tables: the callback lines in
// order, the requests the API sends by itself, and the last error text it keeps.
struct Model {
    std::vector<std::string> lines;
    size_t requests = 0;        // GetTowerList + GetDCTSettings after statuses 10 to 13
    bool requestsExact = true;  // false once a service stop may make the sender drop some
    bool stopped = false;
    std::string lastError;

    void Status(uint32_t code) {
        lines.push_back("S" + std::to_string(code));
        if (code >= 10 && code <= 13)
            requests += 2;
    }
    void ResultByte(const uint8_t* data, uint32_t length, uint32_t ok, uint32_t failed,
                    const char* failure) {
        if (length == 0)
            return;
        if (data[0] != 0) {
            Status(ok);
        } else {
            lastError = failure;
            Status(failed);
        }
    }

    // A packet as the receive path sees it: dropped unless it holds a header and an id; the
    // data only when the packet holds all the length field promises.
    void Packet(const uint8_t* p, size_t n) {
        if (n < 24)
            return;
        const uint32_t id = ReadLE32(p + 20);
        const uint32_t promised = ReadLE32(p + 16);
        const bool whole = promised != 0 && n - 24 >= promised;
        Message(id, whole ? p + 24 : nullptr, whole ? promised : 0);
    }

    void Message(uint32_t id, const uint8_t* data, uint32_t length) {
        if (stopped) {
            if (id != COMM_MSG_SRVC_STARTED)
                return;
        } else if (id < COMM_MSG_START_SERVICE || id > COMM_MSG_INFO_MESSAGE) {
            return;
        }
        switch (id) {
            case COMM_MSG_SRVC_STARTED:
                stopped = false;
                Status(9);
                break;
            case COMM_MSG_SRVC_START_FAILED:
            case COMM_MSG_SRVC_STOPPED:
                stopped = true;
                requestsExact = requestsExact && requests == 0;
                Status(1);
                break;
            case COMM_MSG_ICON_APLUS_STATE:
                if (length != 0)
                    StateByte(data[0]);
                break;
            case COMM_MSG_TOWERS_RESPONSE_INFO:
                if (length != 0)
                    lines.push_back("T");
                break;
            case COMM_MSG_CHANGE_ACTIVE_TOWER_STATUS:
                ResultByte(data, length, 11, 10, "Tower change failed");
                break;
            case COMM_MSG_DCT_SETTINGS_RESPONSE:
                if (length != 0 && length <= sizeof(DCTSettings)) {
                    DCTSettings s;
                    memset(&s, 0, sizeof(s));
                    memcpy(&s, data, length);
                    lines.push_back("D:" + std::to_string(s.nMode) + "," +
                                    std::to_string(s.nDetectClosest) + "," +
                                    std::to_string(s.nGUI));
                }
                break;
            case COMM_MSG_DCT_SETTINGS_UPDATED:
                ResultByte(data, length, 13, 12, "Detect Closest Tower change failed");
                break;
            case COMM_MSG_DCT_TOWER_ACTIVATED:
                if (length != 0) {
                    // An empty name cannot be told from a settings event with zeros.
                    const std::string tower = FieldText(data, length);
                    lines.push_back(tower.empty() ? "D:0,0,0" : "A:" + tower);
                }
                break;
            case COMM_MSG_PROXY_CRED_REQUEST:
                if (length >= sizeof(ProxyCredRequest)) {
                    ProxyCredRequest r;
                    memcpy(&r, data, sizeof(r));
                    const std::string auth = FieldText(r.szAuthType, sizeof(r.szAuthType));
                    if (auth == "Basic") {
                        lines.push_back("P:" + FieldText(r.szProxyHost, sizeof(r.szProxyHost)) +
                                        "|" + std::to_string(r.nProxyPort) + "|" + auth + "|" +
                                        FieldText(r.szRealm, sizeof(r.szRealm)));
                    }
                }
                break;
            case COMM_MSG_SERVICE_STATS_START_RESULT:
                ResultByte(data, length, 15, 14, "Start collecting Statistics failed");
                break;
            case COMM_MSG_SERVICE_STATS: {
                // A short record reads as zeros beyond its end.
                ServiceStatistics s;
                memset(&s, 0, sizeof(s));
                if (length != 0)
                    memcpy(&s, data, std::min<size_t>(length, sizeof(s)));
                lines.push_back(
                    "X:" + FieldText(s.szActiveTower, sizeof(s.szActiveTower)) + "|" +
                    FieldText(s.szServiceEnabled, sizeof(s.szServiceEnabled)) + "|" +
                    FieldText(s.szLastTowerSelect, sizeof(s.szLastTowerSelect)) + "|" +
                    std::to_string(static_cast<uint32_t>(s.activeFilteredA + s.activeFilteredB)) +
                    "|" + std::to_string(s.totalFilteredA + s.totalFilteredB) + "|" +
                    std::to_string(s.nSelectionMode));
                break;
            }
            case COMM_MSG_INFO_MESSAGE: {
                const std::string text = length != 0 ? FieldText(data, length) : "";
                const size_t hash = text.find('#');
                if (text.empty() || hash == std::string::npos)
                    break;
                const uint32_t type = static_cast<uint32_t>(atoi(text.substr(0, hash).c_str()));
                lines.push_back("I:" + std::to_string(type) + "#" + text.substr(hash + 1));
                break;
            }
            default:
                break;  // commands, internal ids and ids the client does not handle
        }
    }

    void StateByte(uint8_t bits) {
        if (bits & 0x08) {
            Status(6);
            Status(0);
            Status(6);
        } else if (bits & 0x40) {
            Status(17);
        } else if (bits & 0x02) {
            Status(3);
        } else if (bits & 0x04) {
            Status(4);
        } else if (bits & 0x10) {
            Status(5);
        } else if (bits & 0x20) {
            Status(16);
        } else if (bits & 0x01) {
            Status(2);
            Status(0);
            Status(2);
        } else if (bits == 0) {
            Status(0);
        }
    }
};

// Ids outside the protocol's range, for built packets.
const uint32_t kOddIds[] = {0,          1,          1024,       1066,       1067,       2048,
                            0x00010401, 0x00010424, 0x80000401, 0xFFFFFFFF, 0x7FFFFFFF, 0x0400,
                            0x0401,     0x0441,     65535,      65536,      1023,       100000,
                            0x04040404, 0x41414141, 0x0000FFFF, 0x00FF0000, 0xDEADBEEF};
static_assert(sizeof(kOddIds) / sizeof(kOddIds[0]) == 23, "bits 0-5 cover 41 ids and 23 odd");

// Reads the input's packets; each is a heap block of exactly its size.
std::vector<std::unique_ptr<uint8_t[]>> SplitPackets(const uint8_t* data, size_t size,
                                                     std::vector<size_t>* sizes) {
    std::vector<std::unique_ptr<uint8_t[]>> packets;
    size_t at = 0;
    auto take = [&](size_t n) {
        const size_t got = std::min(n, size - at);
        const uint8_t* p = data + at;
        at += got;
        return std::make_pair(p, got);
    };
    auto takeSize = [&]() -> size_t {
        const auto bytes = take(2);
        size_t n = 0;
        for (size_t i = 0; i < bytes.second; ++i)
            n |= size_t{bytes.first[i]} << (8 * i);
        return n;
    };
    while (at < size && packets.size() < kMaxPackets) {
        const uint8_t mode = data[at++];
        std::unique_ptr<uint8_t[]> packet;
        size_t n = 0;
        if (mode & 0x80) {
            const auto bytes = take(takeSize());
            n = bytes.second;
            packet.reset(new uint8_t[n]);
            if (n != 0)
                memcpy(packet.get(), bytes.first, n);
        } else {
            const uint32_t pick = mode & 0x3F;
            const uint32_t id = pick < 41 ? COMM_MSG_START + pick : kOddIds[pick - 41];
            uint32_t promised = 0;
            bool lie = false;
            if (mode & 0x40) {
                const auto field = take(4);
                uint8_t le[4] = {0, 0, 0, 0};
                memcpy(le, field.first, field.second);
                promised = ReadLE32(le);
                lie = true;
            }
            const auto body = take(takeSize());
            n = 24 + body.second;
            packet.reset(new uint8_t[n]);
            WriteLE32(packet.get(), 0xDEADBEEF);
            const uint8_t versions[4] = {1, 0, 0, 0};  // major 1, minor 0
            memcpy(packet.get() + 4, versions, sizeof(versions));
            memcpy(packet.get() + 8, "STARTMSG", 8);
            WriteLE32(packet.get() + 16, lie ? promised : static_cast<uint32_t>(body.second));
            WriteLE32(packet.get() + 20, id);
            if (body.second != 0)
                memcpy(packet.get() + 24, body.first, body.second);
        }
        sizes->push_back(n);
        packets.push_back(std::move(packet));
    }
    return packets;
}

// The connected API, made on the first input and stopped when the process exits.
struct Harness {
    std::shared_ptr<FakeIPCClient::State> fake;
    EventLog callback;
    CVantoriaApi* api = nullptr;
    uint64_t serial = 0;
};

Harness* g_Harness = nullptr;

void StopHarness() {
    if (g_Harness == nullptr)
        return;
    g_pVantoriaApi = nullptr;
    delete g_Harness->api;  // the whole stop sequence
    g_Harness->api = nullptr;
    FakeIPCClient::Uninstall();
}

Harness& TheHarness() {
    if (g_Harness != nullptr)
        return *g_Harness;
    // Every level on, so that every log statement on the path formats its arguments.
    g_Trace.InitTrace(kTraceIdent, "/tmp", "TidewayAPI.log", 2, kDefaultTraceMask, false, true, 10,
                      10000, 100, 1, 0, 60);
    g_Trace.SetLevelMask(0xFFFFFFFF);
    Harness* h = new Harness;
    h->fake = FakeIPCClient::Install();
    h->api = new CVantoriaApi;
    g_pVantoriaApi = h->api;
    if (!h->api->Initialize(5003) || !h->api->StartCommunicator())
        Fail("the API did not start");
    if (!h->fake->WaitFor([&] { return h->fake->connects >= 1; }))
        Fail("the communicator never connected");
    h->fake->PeerState(8, 1, 2);
    if (h->api->Register(&h->callback) != 0)
        Fail("Register refused");
    h->fake->Deliver(COMM_MSG_SRVC_STARTED);
    if (!h->callback.WaitForLast("S9"))
        Fail("no status 9 after the service started");
    h->callback.Take();
    g_Harness = h;
    atexit(StopHarness);  // before the trace object goes: the threads log while they stop
    return *h;
}

std::string Join(const std::vector<std::string>& lines) {
    std::string out;
    for (const std::string& line : lines)
        out += "  " + line + "\n";
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Harness& h = TheHarness();
    std::vector<size_t> sizes;
    const std::vector<std::unique_ptr<uint8_t[]>> packets = SplitPackets(data, size, &sizes);

    Model model;
    const size_t sentBefore = h.fake->Locked([&] { return h.fake->sentIds.size(); });
    for (size_t i = 0; i < packets.size(); ++i) {
        h.fake->DeliverRaw(packets[i].get(), static_cast<uint32_t>(sizes[i]));
        model.Packet(packets[i].get(), sizes[i]);
    }

    // The marker: the service (re)started, so that a stop among the packets lets it through,
    // then an info text that only this input sends.
    const std::string text =
        std::to_string(kMarkerType) + "#fuzz-marker " + std::to_string(++h.serial);
    h.fake->Deliver(COMM_MSG_SRVC_STARTED);
    h.fake->Deliver(COMM_MSG_INFO_MESSAGE, text.c_str(), static_cast<uint32_t>(text.size() + 1));
    model.Message(COMM_MSG_SRVC_STARTED, nullptr, 0);
    const std::string marker = "I:" + text;
    model.lines.push_back(marker);
    // An input may carry the same text itself; the real marker is the last of them.
    const size_t markers =
        static_cast<size_t>(std::count(model.lines.begin(), model.lines.end(), marker));
    if (!h.callback.WaitForLast(marker, markers))
        Fail("marker lost: a message, the receiver or a lock was lost; got\n",
             Join(h.callback.Take()));
    const std::vector<std::string> seen = h.callback.Take();
    if (seen != model.lines) {
        Fail("notifications differ from the protocol's; want\n",
             Join(model.lines) + "got\n" + Join(seen));
    }

    // A command behind whatever the API asked for by itself: once it is out, so is the rest.
    if (h.api->QueryProxyState() != 0)
        Fail("a command was refused while connected");
    bool sent = h.fake->WaitFor(
        [&] {
            return h.fake->sentIds.size() > sentBefore &&
                   h.fake->sentIds.back() == COMM_MSG_PROXY_STATE_QUERY;
        },
        kMarkerWait);
    if (!sent)
        Fail("a command was lost on its way to the channel");
    const std::vector<uint32_t> ids = h.fake->Locked([&] {
        std::vector<uint32_t> out(h.fake->sentIds.begin() + sentBefore, h.fake->sentIds.end() - 1);
        h.fake->sentIds.clear();
        h.fake->sentData.clear();
        return out;
    });
    for (size_t i = 0; i < ids.size(); ++i) {
        const uint32_t want =
            i % 2 == 0 ? COMM_MSG_TOWERS_REQUEST_INFO : COMM_MSG_DCT_SETTINGS_REQUEST;
        if (model.requestsExact ? ids[i] != want
                                : (ids[i] != COMM_MSG_TOWERS_REQUEST_INFO &&
                                   ids[i] != COMM_MSG_DCT_SETTINGS_REQUEST)) {
            Fail("unexpected request id", std::to_string(ids[i]));
        }
    }
    if (model.requestsExact ? ids.size() != model.requests : ids.size() > model.requests)
        Fail("requests after a change answer:",
             std::to_string(ids.size()) + " of " + std::to_string(model.requests));

    if (!model.lastError.empty()) {
        const std::string error = ReadText("GetLastErrorString", [&](char* b, uint32_t& l) {
            return h.api->GetLastErrorString(b, l);
        });
        if (error != model.lastError)
            Fail("last error", error + " instead of " + model.lastError);
    }
    syslog_capture::Clear();  // the records of this input are not needed, and would pile up
    return 0;
}
