// Records each notification as one line in `events` and checks every getter of each result
// object while it lives (broken contracts go to `faults`). `mutex` guards the recorded members.
#ifndef TIDEWAY_TESTS_SUPPORT_RECORDINGCALLBACK_H_
#define TIDEWAY_TESTS_SUPPORT_RECORDINGCALLBACK_H_

#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "IVantoriaApiCB.h"

// Reads a text getter by the two-call protocol (size, then copy); false with `text` naming the
// fault when the size is not exact, a byte is written past it or one byte less is taken.
template <typename Getter>
bool ReadTextChecked(Getter get, std::string& text) {
    uint32_t length = 0;
    if (get(nullptr, length) != -3 || length == 0)
        return text = "size protocol broken", false;
    std::vector<char> buffer(length + 1, '#');
    uint32_t given = length, shorter = length - 1;
    if (get(buffer.data(), given) != 0)
        return text = "asked size refused", false;
    if (buffer[length - 1] != '\0' || buffer[length] != '#' || strlen(buffer.data()) != length - 1)
        return text = "wrong size or written past it", false;
    if (length > 1 && (get(buffer.data(), shorter) != -3 || shorter != length))
        return text = "took a buffer one byte short", false;
    text.assign(buffer.data(), length - 1);
    return true;
}
template <typename Getter>
std::string ReadText(Getter get) {
    std::string text;
    return ReadTextChecked(get, text) ? text : "<" + text + ">";
}

class RecordingCallback final : public IVantoriaApiCB {
  public:
    // "T:name,name@active"
    int32_t OnTowerList(IVantoriaTowerList* list) override {
        uint64_t count = 0;
        int64_t active = -2;
        if (list->GetCount(count) != (count == 0 ? -1 : 0))
            Fault("tower list count result");
        std::string line = "T:";
        for (uint64_t i = 0; i < count; ++i) {
            const std::string name =
                Text([&](char* b, uint32_t& l) { return list->GetAt(i, b, l); });
            if (name.find(',') != std::string::npos)
                Fault("tower name with a separator: " + name);
            line += (i ? "," : "") + name;
        }
        char probe[4];
        uint32_t probeLength = sizeof(probe);
        if (list->GetAt(count, probe, probeLength) != -4)
            Fault("tower index past the end accepted");
        list->GetActiveIndex(active);
        if (active < -1 || active >= static_cast<int64_t>(count))
            Fault("active index out of range");
        Record(line + "@" + std::to_string(active));
        return 0;
    }
    // "S<code>"
    int32_t OnStatus(IVantoriaStatus* status) override {
        uint64_t code = ~0ull;
        status->GetStatus(code);
        if (statusHook)
            statusHook(code);
        Record("S" + std::to_string(code), &code);
        return 0;
    }
    // "A:tower" for an activated tower, else "D:mode,detect,gui"
    int32_t OnDCTSettings(IVantoriaDCT* dct) override {
        bool changed = false;
        uint32_t mode = 0, detect = 0, gui = 0;
        dct->ActiveTowerChanged(changed);
        dct->GetMode(mode);
        dct->GetDetectClosest(detect);
        dct->GetGUI(gui);
        const std::string tower =
            Text([&](char* b, uint32_t& l) { return dct->GetActivatedTower(b, l); });
        if (changed == tower.empty())
            Fault("ActiveTowerChanged disagrees with the tower");
        Record(changed ? "A:" + tower
                       : "D:" + std::to_string(mode) + "," + std::to_string(detect) + "," +
                             std::to_string(gui));
        return 0;
    }
    // "P:host|port|auth|realm"
    int32_t OnProxyCredRequest(std::string& host, std::string& port, std::string& authType,
                               std::string& realm) override {
        Record("P:" + host + "|" + port + "|" + authType + "|" + realm);
        return 0;
    }
    // "X:tower|enabled|since|filtered|totalFiltered|mode"
    int32_t OnStatistics(IVantoriaStatistics* s) override {
        uint64_t n[6] = {}, mode = 0, unused = 0;
        s->GetConnectionCounts(n[0], n[1], n[2]);
        s->GetTotalCounts(n[3], n[4], n[5]);
        s->GetServiceStatus(unused);
        s->GetReserved(unused);
        s->GetLanState(unused, unused);
        s->GetSelectionMode(mode);
        Record(
            "X:" + Text([&](char* b, uint32_t& l) { return s->GetActiveTowerName(b, l); }) + "|" +
            Text([&](char* b, uint32_t& l) { return s->GetTimeServiceEnabled(b, l); }) + "|" +
            Text([&](char* b, uint32_t& l) { return s->GetTimeSinceLastTowerSelect(b, l); }) + "|" +
            std::to_string(n[0]) + "|" + std::to_string(n[3]) + "|" + std::to_string(mode));
        return 0;
    }
    // "I:type#text"
    int32_t OnInfoMessage(IVantoriaInfoMessage* m) override {
        uint64_t type = 0;
        m->GetMessageType(type);
        Record("I:" + std::to_string(type) + "#" +
               Text([&](char* b, uint32_t& l) { return m->GetMessageText(b, l); }));
        return 0;
    }

    // Waits until `done` holds (evaluated under the lock); false on time-out.
    bool WaitUntil(const std::function<bool()>& done,
                   std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, timeout, done);
    }
    // Waits until status `code` has come `occurrences` times in all (for a new one: Count + 1).
    bool WaitForStatus(uint64_t code, size_t occurrences = 1,
                       std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        return WaitUntil([&] { return CountLocked(code) >= occurrences; }, timeout);
    }
    bool WaitForLast(const std::string& event) {
        return WaitUntil([&] { return !events.empty() && events.back() == event; });
    }
    template <typename F>
    auto Locked(F read) {
        std::lock_guard<std::mutex> lock(mutex);
        return read();
    }
    size_t Count(uint64_t code) {
        return Locked([&] { return CountLocked(code); });
    }
    std::vector<uint64_t> Statuses() {
        return Locked([&] { return statuses; });
    }
    std::vector<std::string> Events() {
        return Locked([&] { return events; });
    }
    // Also forgets the statuses.
    std::vector<std::string> TakeEvents() {
        return Locked([&] { return statuses.clear(), std::exchange(events, {}); });
    }

    // Called on the notifying thread before a status is recorded (to hold a thread up).
    std::function<void(uint64_t)> statusHook;

    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::string> events, faults;
    std::vector<uint64_t> statuses;

  private:
    size_t CountLocked(uint64_t code) const {
        return static_cast<size_t>(std::count(statuses.begin(), statuses.end(), code));
    }
    template <typename Getter>
    std::string Text(Getter get) {
        std::string text;
        if (!ReadTextChecked(get, text))
            Fault("text getter: " + text);
        return text;
    }
    void Fault(const std::string& what) {
        Locked([&] { faults.push_back(what); });
    }
    void Record(const std::string& event, const uint64_t* status = nullptr) {
        Locked([&] {
            events.push_back(event);
            if (status != nullptr)
                statuses.push_back(*status);
        });
        changed.notify_all();
    }
};

#endif  // TIDEWAY_TESTS_SUPPORT_RECORDINGCALLBACK_H_
