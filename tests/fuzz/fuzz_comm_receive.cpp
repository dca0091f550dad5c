// Arbitrary packets into a connected client API through the fake IPC client, checked against a
// model of the protocol (README.md describes the input).
#include "FakeIPCClient.h"
#include "RecordingCallback.h"
#include "SyslogCapture.h"
#include "api/VantoriaApi.h"

#include "FuzzSupport.h"

static std::string FieldText(const uint8_t* field, size_t size) {
    return AsText(field, strnlen(reinterpret_cast<const char*>(field), size));
}

// The protocol's tables: the callback events in order, the API's own requests, the last error.
struct Model {
    std::vector<std::string> lines;
    size_t requests = 0;                 // GetTowerList + GetDCTSettings after statuses 10 to 13
    bool requestsExact = true;           // false once a service stop may make the sender drop some
    bool stopped = false, quit = false;  // quit: the receiver has ended
    std::string lastError;

    void Status(uint32_t code) {
        lines.push_back("S" + std::to_string(code));
        requests += code >= 10 && code <= 13 ? 2 : 0;
    }
    void ResultByte(uint8_t byte, uint32_t ok, uint32_t failed, const char* failure) {
        lastError = byte == 0 ? failure : lastError;
        Status(byte != 0 ? ok : failed);
    }
    void Message(uint32_t id, const uint8_t* data, uint32_t length) {
        if (quit || (stopped ? id != COMM_MSG_SRVC_STARTED && id != COMM_MSG_QUIT
                             : id < COMM_MSG_START_SERVICE || id > COMM_MSG_INFO_MESSAGE))
            return;
        const std::string text = length != 0 ? FieldText(data, length) : "";
        if (id == COMM_MSG_QUIT) {
            quit = true;
        } else if (id == COMM_MSG_SRVC_STARTED || id == COMM_MSG_SRVC_START_FAILED ||
                   id == COMM_MSG_SRVC_STOPPED) {
            stopped = id != COMM_MSG_SRVC_STARTED;
            requestsExact = requestsExact && (!stopped || requests == 0);
            Status(stopped ? 1 : 9);
        } else if (id == COMM_MSG_SERVICE_STATS) {  // always reported, a short one read as zeros
            lines.push_back("X");
        } else if (length == 0) {                      // nothing else reports an empty packet
        } else if (id == COMM_MSG_ICON_APLUS_STATE) {  // the highest-priority bit decides
            const uint8_t order[] = {0x08, 0x40, 0x02, 0x04, 0x10, 0x20, 0x01, 0x80};
            const std::vector<uint32_t> statuses[] = {{6, 0, 6}, {17},      {3}, {4}, {5},
                                                      {16},      {2, 0, 2}, {},  {0}};  // none: 0
            size_t i = 0;
            while (i < 8 && (data[0] & order[i]) == 0)
                ++i;
            for (uint32_t code : statuses[i])
                Status(code);
        } else if (id == COMM_MSG_TOWERS_RESPONSE_INFO) {
            lines.push_back("T");
        } else if (id == COMM_MSG_CHANGE_ACTIVE_TOWER_STATUS) {
            ResultByte(data[0], 11, 10, "Tower change failed");
        } else if (id == COMM_MSG_DCT_SETTINGS_UPDATED) {
            ResultByte(data[0], 13, 12, "Detect Closest Tower change failed");
        } else if (id == COMM_MSG_SERVICE_STATS_START_RESULT) {
            ResultByte(data[0], 15, 14, "Start collecting Statistics failed");
        } else if (id == COMM_MSG_DCT_SETTINGS_RESPONSE && length <= sizeof(DCTSettings)) {
            DCTSettings s = {};
            memcpy(&s, data, length);
            lines.push_back("D:" + std::to_string(s.nMode) + "," +
                            std::to_string(s.nDetectClosest) + "," + std::to_string(s.nGUI));
        } else if (id == COMM_MSG_DCT_TOWER_ACTIVATED) {  // an empty name reads as zero settings
            lines.push_back(text.empty() ? "D:0,0,0" : "A:" + text);
        } else if (id == COMM_MSG_PROXY_CRED_REQUEST && length >= sizeof(ProxyCredRequest) &&
                   FieldText(data + offsetof(ProxyCredRequest, szAuthType),
                             sizeof(ProxyCredRequest::szAuthType)) == "Basic") {
            lines.push_back("P");  // whole and "Basic", else dropped
        } else if (id == COMM_MSG_INFO_MESSAGE && text.find('#') != std::string::npos) {
            const size_t hash = text.find('#');
            lines.push_back("I:" + std::to_string(uint32_t(atoi(text.substr(0, hash).c_str()))) +
                            "#" + text.substr(hash + 1));
        }  // commands, internal ids and ids the client does not handle: nothing
    }
};

// Ids outside the protocol's range, for built packets (saved inputs depend on this table).
const uint32_t kOddIds[] = {0,          1,          1024,       1066,       1067,       2048,
                            0x00010401, 0x00010424, 0x80000401, 0xFFFFFFFF, 0x7FFFFFFF, 0x0400,
                            0x0401,     0x0441,     65535,      65536,      1023,       100000,
                            0x04040404, 0x41414141, 0x0000FFFF, 0x00FF0000, 0xDEADBEEF};
static_assert(sizeof(kOddIds) / sizeof(kOddIds[0]) == 23, "bits 0-5 cover 41 ids and 23 odd");

struct Harness {
    RecordingCallback callback;  // outlives the API's threads
    std::unique_ptr<CVantoriaApi> api{new CVantoriaApi};
    std::shared_ptr<FakeIPCClient::State> fake = ConnectApi(*api);
    uint64_t serial = 0;
    Harness() {
        FUZZ_CHECK(api->Register(&callback) == 0);
        fake->Deliver(COMM_MSG_SRVC_STARTED);
        FUZZ_CHECK(callback.WaitForStatus(9));
        callback.TakeEvents();
    }
    ~Harness() { g_pVantoriaApi = nullptr; }  // then the API's whole stop sequence
};

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // Made on the first input, after the trace object, so that it ends first.
    static std::unique_ptr<Harness> harness(new Harness);
    Harness& h = *harness;
    RecordingCallback& cb = h.callback;
    Model model;
    const size_t sentBefore = h.fake->Locked([&] { return h.fake->sentIds.size(); });
    // The input split into at most 64 packets, each delivered to the API and to the model.
    size_t at = 0;
    auto take = [&](size_t n) {  // up to n bytes, as many as are left
        n = std::min(n, size - at);
        at += n;
        return AsText(data + at - n, n);
    };
    auto takeSize = [&] {
        const std::string b = take(2) + std::string(2, '\0');
        return size_t(uint8_t(b[0])) | size_t(uint8_t(b[1])) << 8;
    };
    auto le32 = [](uint32_t v) { return std::string(reinterpret_cast<const char*>(&v), 4); };
    for (int count = 0; at < size && count < 64; ++count) {
        const uint8_t mode = data[at++];
        std::string bytes;
        if (mode & 0x80) {
            bytes = take(takeSize());
        } else {  // magic, version 1.0, start tag, length field, id, data
            const uint32_t pick = mode & 0x3F;
            const std::string promised = take(mode & 0x40 ? 4 : 0) + std::string(4, '\0');
            const std::string body = take(takeSize());
            bytes = le32(0xDEADBEEF) + std::string("\1\0\0\0STARTMSG", 12) +
                    ((mode & 0x40) ? promised.substr(0, 4) : le32(uint32_t(body.size()))) +
                    le32(pick < 41 ? COMM_MSG_START + pick : kOddIds[pick - 41]) + body;
        }
        std::vector<uint8_t> packet(bytes.begin(), bytes.end());  // exact size: over-reads show
        h.fake->DeliverRaw(packet.data(), static_cast<uint32_t>(packet.size()));
        if (bytes.size() < 24)  // no header and id: the model drops it
            continue;
        // The model takes the data only when all that the length field promises is there.
        const uint32_t promised = ReadLE32(packet.data() + 16);
        const bool whole = promised != 0 && bytes.size() - 24 >= promised;
        model.Message(ReadLE32(packet.data() + 20), whole ? packet.data() + 24 : nullptr,
                      whole ? promised : 0);
    }

    if (model.quit) {
        // The receiver's end is the marker.
        FUZZ_CHECK(syslog_capture::WaitFor("ClientComm : Receiver thread exits\n",
                                           std::chrono::seconds(60)));
    } else {
        // Marker: service started (lets it past a stop), then an info text of this input's own.
        const std::string text = "77#fuzz-marker " + std::to_string(++h.serial);
        h.fake->Deliver(COMM_MSG_SRVC_STARTED);
        h.fake->Deliver(COMM_MSG_INFO_MESSAGE, text.c_str(),
                        static_cast<uint32_t>(text.size() + 1));
        model.Message(COMM_MSG_SRVC_STARTED, nullptr, 0);
        const std::string marker = "I:" + text;
        model.lines.push_back(marker);
        const auto markers = std::count(model.lines.begin(), model.lines.end(), marker);
        // Lost: a message, the receiver or a lock.
        FUZZ_CHECK(cb.WaitUntil(
            [&] {
                return !cb.events.empty() && cb.events.back() == marker &&
                       std::count(cb.events.begin(), cb.events.end(), marker) >= markers;
            },
            std::chrono::seconds(60)));
    }
    std::vector<std::string> seen = cb.TakeEvents();
    for (std::string& event : seen)  // field contents are checked by the unit tests
        event = strchr("TPX", event[0]) ? event.substr(0, 1) : event;
    FUZZ_CHECK(seen == model.lines);  // the notifications the protocol's tables give
    FUZZ_CHECK(cb.Locked([&] { return cb.faults.empty(); }));  // no result broke its contract

    // A command behind the API's own requests; not after a QUIT with the service stopped, where
    // the sender rightly drops it (no 1028 can reach the ended receiver).
    if (!model.quit || !model.stopped) {
        FUZZ_CHECK(h.api->QueryProxyState() == 0);  // accepted while connected
        const size_t end = WaitSent(*h.fake, COMM_MSG_PROXY_STATE_QUERY, sentBefore);
        const std::vector<uint32_t> sent = h.fake->Locked([&] {
            h.fake->sentData.clear();
            return std::exchange(h.fake->sentIds, {});
        });
        const std::vector<uint32_t> ids(sent.begin() + sentBefore, sent.begin() + end);
        // In pairs, as many as modelled; after a stop, either of the two and no more.
        const uint32_t pair[] = {COMM_MSG_TOWERS_REQUEST_INFO, COMM_MSG_DCT_SETTINGS_REQUEST};
        for (size_t i = 0; i < ids.size(); ++i)
            FUZZ_CHECK(ids[i] == pair[i % 2] ||
                       (!model.requestsExact && ids[i] == pair[1 - i % 2]));
        FUZZ_CHECK(model.requestsExact ? ids.size() == model.requests
                                       : ids.size() <= model.requests);
        FUZZ_CHECK(model.lastError.empty() || ReadText([&](char* b, uint32_t& l) {
                                                  return h.api->GetLastErrorString(b, l);
                                              }) == model.lastError);
    }
    syslog_capture::Clear();  // this input's records are not needed, and would pile up
    if (model.quit) {         // the receiver has ended: a fresh connected API
        harness.reset();
        harness.reset(new Harness);
    }
    return 0;
}
