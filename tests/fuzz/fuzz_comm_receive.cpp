// Feeds arbitrary packets into a connected client API through the fake IPC client and checks
// that the notifications are exactly those a model of the protocol expects, in order, with every
// result object keeping its getter contracts; then that the requests the API sends by itself are
// all out, none lost or extra. A marker missing after 60 s (lost message, deadlock) aborts; the
// limit is generous because thousands of "&" tower items cost quadratic comparisons under ASan.
//
// Input: packets, each after a mode byte. Bit 7 set: raw, a 2-byte little-endian size and the
// bytes. Bit 7 clear: a built packet; bits 0-5 pick the id (0-40: 1025-1065, 41-63: odd ids);
// bit 6: the header's length field is the next 4 bytes instead of the true length; then a
// 2-byte size and the data. At most 64 packets, each a heap block of exactly its size so that
// ASan sees a read past it. Ids of the module's own threads reach the receiver like any other:
// a QUIT (1036) ends it, after which nothing more is notified; the harness then makes a fresh API.
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "FakeIPCClient.h"
#include "RecordingCallback.h"
#include "SyslogCapture.h"
#include "api/VantoriaApi.h"
#include "common/VNTrace.h"
#include "plugin/PluginEntry.h"

namespace {

constexpr size_t kMaxPackets = 64;
constexpr auto kMarkerWait = std::chrono::seconds(60);

[[noreturn]] void Fail(const char* what, const std::string& detail = "") {
    fprintf(stderr, "fuzz_comm_receive: %s %s\n", what, detail.c_str());
    abort();
}

uint32_t ReadLE32(const uint8_t* p) {
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

void WriteLE32(uint8_t* p, uint32_t v) {
    for (int i = 0; i < 4; ++i)
        p[i] = static_cast<uint8_t>(v >> (8 * i));
}

std::string FieldText(const void* field, size_t size) {
    return std::string(static_cast<const char*>(field),
                       strnlen(static_cast<const char*>(field), size));
}

// What the client should make of the packets, from the protocol's tables: the callback events
// in order, the requests the API sends by itself, and the last error text it keeps.
struct Model {
    std::vector<std::string> lines;
    size_t requests = 0;        // GetTowerList + GetDCTSettings after statuses 10 to 13
    bool requestsExact = true;  // false once a service stop may make the sender drop some
    bool stopped = false;
    bool quit = false;  // the receiver has ended
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
        if (data[0] == 0)
            lastError = failure;
        Status(data[0] != 0 ? ok : failed);
    }
    // Dropped unless the packet holds a header and an id; the data only when the packet holds
    // all the length field promises.
    void Packet(const uint8_t* p, size_t n) {
        if (n < 24)
            return;
        const uint32_t promised = ReadLE32(p + 16);
        const bool whole = promised != 0 && n - 24 >= promised;
        Message(ReadLE32(p + 20), whole ? p + 24 : nullptr, whole ? promised : 0);
    }
    void Message(uint32_t id, const uint8_t* data, uint32_t length) {
        if (quit || (stopped ? id != COMM_MSG_SRVC_STARTED && id != COMM_MSG_QUIT
                             : id < COMM_MSG_START_SERVICE || id > COMM_MSG_INFO_MESSAGE))
            return;
        switch (id) {
            case COMM_MSG_QUIT:
                quit = true;
                break;
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
                    DCTSettings s = {};
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
            case COMM_MSG_PROXY_CRED_REQUEST:  // whole and "Basic", else dropped
                if (length >= sizeof(ProxyCredRequest) &&
                    FieldText(data + offsetof(ProxyCredRequest, szAuthType),
                              sizeof(ProxyCredRequest::szAuthType)) == "Basic")
                    lines.push_back("P");
                break;
            case COMM_MSG_SERVICE_STATS_START_RESULT:
                ResultByte(data, length, 15, 14, "Start collecting Statistics failed");
                break;
            case COMM_MSG_SERVICE_STATS:  // always reported, a short one read as zeros
                lines.push_back("X");
                break;
            case COMM_MSG_INFO_MESSAGE: {
                const std::string text = length != 0 ? FieldText(data, length) : "";
                const size_t hash = text.find('#');
                if (hash != std::string::npos)
                    lines.push_back(
                        "I:" + std::to_string(uint32_t(atoi(text.substr(0, hash).c_str()))) + "#" +
                        text.substr(hash + 1));
                break;
            }
        }  // commands, internal ids and ids the client does not handle: nothing
    }
    // The highest-priority bit decides; no bit at all is status 0, 0x80 alone nothing.
    void StateByte(uint8_t bits) {
        const uint8_t order[] = {0x08, 0x40, 0x02, 0x04, 0x10, 0x20, 0x01};
        const std::vector<uint32_t> statuses[] = {{6, 0, 6}, {17}, {3}, {4}, {5}, {16}, {2, 0, 2}};
        for (size_t i = 0; i < sizeof(order); ++i) {
            if (bits & order[i]) {
                for (uint32_t code : statuses[i])
                    Status(code);
                return;
            }
        }
        if (bits == 0)
            Status(0);
    }
};

// Ids outside the protocol's range, for built packets (saved inputs depend on this table).
const uint32_t kOddIds[] = {0,          1,          1024,       1066,       1067,       2048,
                            0x00010401, 0x00010424, 0x80000401, 0xFFFFFFFF, 0x7FFFFFFF, 0x0400,
                            0x0401,     0x0441,     65535,      65536,      1023,       100000,
                            0x04040404, 0x41414141, 0x0000FFFF, 0x00FF0000, 0xDEADBEEF};
static_assert(sizeof(kOddIds) / sizeof(kOddIds[0]) == 23, "bits 0-5 cover 41 ids and 23 odd");

using Packet = std::pair<std::unique_ptr<uint8_t[]>, size_t>;

std::vector<Packet> SplitPackets(const uint8_t* data, size_t size) {
    std::vector<Packet> packets;
    size_t at = 0;
    auto take = [&](size_t n) {
        const size_t got = std::min(n, size - at);
        at += got;
        return std::make_pair(data + at - got, got);
    };
    auto takeSize = [&]() {
        const auto bytes = take(2);
        return size_t(bytes.second > 0 ? bytes.first[0] : 0) |
               size_t(bytes.second > 1 ? bytes.first[1] : 0) << 8;
    };
    while (at < size && packets.size() < kMaxPackets) {
        const uint8_t mode = data[at++];
        if (mode & 0x80) {
            const auto bytes = take(takeSize());
            packets.emplace_back(new uint8_t[bytes.second], bytes.second);
            memcpy(packets.back().first.get(), bytes.first, bytes.second);
            continue;
        }
        const uint32_t pick = mode & 0x3F;
        const auto field = take(mode & 0x40 ? 4 : 0);
        uint8_t promised[4] = {0, 0, 0, 0};
        memcpy(promised, field.first, field.second);
        const auto body = take(takeSize());
        Packet p(new uint8_t[24 + body.second], 24 + body.second);
        uint8_t* out = p.first.get();
        WriteLE32(out, 0xDEADBEEF);
        memcpy(out + 4, "\1\0\0\0STARTMSG", 12);  // version 1.0, then the start tag
        WriteLE32(out + 16, (mode & 0x40) ? ReadLE32(promised) : uint32_t(body.second));
        WriteLE32(out + 20, pick < 41 ? COMM_MSG_START + pick : kOddIds[pick - 41]);
        memcpy(out + 24, body.first, body.second);
        packets.push_back(std::move(p));
    }
    return packets;
}

// The connected API, made on the first input and stopped when the process exits.
struct Harness {
    std::shared_ptr<FakeIPCClient::State> fake;
    RecordingCallback callback;
    CVantoriaApi* api = nullptr;
    uint64_t serial = 0;
};
Harness* g_Harness = nullptr;

void StopHarness() {
    if (g_Harness == nullptr || g_Harness->api == nullptr)
        return;
    g_pVantoriaApi = nullptr;
    delete g_Harness->api;  // the whole stop sequence
    g_Harness->api = nullptr;
}

Harness& TheHarness() {
    if (g_Harness != nullptr)
        return *g_Harness;
    static bool registered = false;
    // Every level on, so that every log statement on the path formats its arguments.
    g_Trace.InitTrace(kTraceIdent, "/tmp", "TidewayAPI.log", 2, kDefaultTraceMask, false, true, 10,
                      10000, 100, 1, 0, 60);
    g_Trace.SetLevelMask(0xFFFFFFFF);
    Harness* h = new Harness;
    h->fake = std::make_shared<FakeIPCClient::State>();
    h->api = new CVantoriaApi;
    g_pVantoriaApi = h->api;
    if (!h->api->Initialize(5003, FakeIPCClient::Factory(h->fake)) ||
        !h->api->StartCommunicator() || !h->fake->WaitFor([&] { return h->fake->connects >= 1; }))
        Fail("the communicator never connected");
    h->fake->PeerState(8, 1, 2);
    if (h->api->Register(&h->callback) != 0)
        Fail("Register refused");
    h->fake->Deliver(COMM_MSG_SRVC_STARTED);
    if (!h->callback.WaitForStatus(9))
        Fail("no status 9 after the service started");
    h->callback.TakeEvents();
    g_Harness = h;
    if (!registered)
        atexit(StopHarness);  // before the trace object goes: the threads log while they stop
    registered = true;
    return *h;
}

// After a QUIT has ended the receiver: the whole stop, then a fresh connected API.
void RestartHarness() {
    StopHarness();
    delete g_Harness;
    g_Harness = nullptr;
    TheHarness();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Harness& h = TheHarness();
    RecordingCallback& cb = h.callback;
    Model model;
    const size_t sentBefore = h.fake->Locked([&] { return h.fake->sentIds.size(); });
    for (const Packet& p : SplitPackets(data, size)) {
        h.fake->DeliverRaw(p.first.get(), static_cast<uint32_t>(p.second));
        model.Packet(p.first.get(), p.second);
    }

    if (model.quit) {
        // The receiver's end is the marker: everything before the QUIT was dispatched.
        if (!syslog_capture::WaitFor("ClientComm : Receiver thread exits\n", kMarkerWait))
            Fail("a QUIT from the agent did not end the receiver");
    } else {
        // The marker: the service (re)started, so that a stop among the packets lets it
        // through, then an info text that only this input sends (an input may carry it too:
        // wait for all).
        const std::string text = "77#fuzz-marker " + std::to_string(++h.serial);
        h.fake->Deliver(COMM_MSG_SRVC_STARTED);
        h.fake->Deliver(COMM_MSG_INFO_MESSAGE, text.c_str(),
                        static_cast<uint32_t>(text.size() + 1));
        model.Message(COMM_MSG_SRVC_STARTED, nullptr, 0);
        const std::string marker = "I:" + text;
        model.lines.push_back(marker);
        const auto markers = std::count(model.lines.begin(), model.lines.end(), marker);
        if (!cb.WaitUntil(
                [&] {
                    return !cb.events.empty() && cb.events.back() == marker &&
                           std::count(cb.events.begin(), cb.events.end(), marker) >= markers;
                },
                kMarkerWait))
            Fail("marker lost: a message, the receiver or a lock was lost");
    }
    std::vector<std::string> seen = cb.TakeEvents();
    for (std::string& event : seen)  // field contents are checked by the unit tests
        event = strchr("TPX", event[0]) ? event.substr(0, 1) : event;
    if (seen != model.lines)
        Fail("notifications differ from the protocol's");
    const auto faults = cb.Locked([&] { return cb.faults; });
    if (!faults.empty())
        Fail("a result object broke its contract:", faults[0]);

    // A command behind whatever the API asked for by itself: once it is out, so is the rest.
    // Not after a QUIT with the service stopped: no 1028 can reach the ended receiver, so the
    // sender rightly drops the command; the harness is remade below.
    if (model.quit && model.stopped) {
        syslog_capture::Clear();
        RestartHarness();
        return 0;
    }
    if (h.api->QueryProxyState() != 0)
        Fail("a command was refused while connected");
    if (!h.fake->WaitFor(
            [&] {
                return h.fake->sentIds.size() > sentBefore &&
                       h.fake->sentIds.back() == COMM_MSG_PROXY_STATE_QUERY;
            },
            kMarkerWait))
        Fail("a command was lost on its way to the channel");
    const std::vector<uint32_t> ids = h.fake->Locked([&] {
        std::vector<uint32_t> out(h.fake->sentIds.begin() + sentBefore, h.fake->sentIds.end() - 1);
        h.fake->sentIds.clear();
        h.fake->sentData.clear();
        return out;
    });
    for (size_t i = 0; i < ids.size(); ++i) {
        const bool known =
            ids[i] == COMM_MSG_TOWERS_REQUEST_INFO || ids[i] == COMM_MSG_DCT_SETTINGS_REQUEST;
        const bool inPlace =
            ids[i] == (i % 2 == 0 ? COMM_MSG_TOWERS_REQUEST_INFO : COMM_MSG_DCT_SETTINGS_REQUEST);
        if (model.requestsExact ? !inPlace : !known)
            Fail("unexpected request id", std::to_string(ids[i]));
    }
    if (model.requestsExact ? ids.size() != model.requests : ids.size() > model.requests)
        Fail("requests after a change answer:",
             std::to_string(ids.size()) + " of " + std::to_string(model.requests));

    if (!model.lastError.empty()) {
        const std::string error =
            ReadText([&](char* b, uint32_t& l) { return h.api->GetLastErrorString(b, l); });
        if (error != model.lastError)
            Fail("last error", error + " instead of " + model.lastError);
    }
    syslog_capture::Clear();  // the records of this input are not needed, and would pile up
    if (model.quit)
        RestartHarness();
    return 0;
}
