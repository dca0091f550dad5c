// An IVantoriaApiCB that records every notification, for tests that drive the API and wait for
// what the agent's answers turn into. Thread-safe: notifications come on the module's threads.
#ifndef TIDEWAY_TESTS_SUPPORT_RECORDINGCALLBACK_H_
#define TIDEWAY_TESTS_SUPPORT_RECORDINGCALLBACK_H_

#include <stdint.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "IVantoriaApiCB.h"

struct RecordedTowerList {
    std::vector<std::string> names;
    int64_t activeIndex = -2;
    int32_t countResult = 0;
};

struct RecordedDct {
    bool activeTowerChanged = false;
    std::string tower;
    uint32_t mode = 0, detectClosest = 0, gui = 0;
};

struct RecordedProxy {
    std::string host, port, authType, realm;
};

struct RecordedStatistics {
    uint64_t filtered = 0, bypassed = 0, other = 0;
    uint64_t totalFiltered = 0, totalBypassed = 0, totalOther = 0;
    std::string activeTower;
};

struct RecordedInfo {
    uint64_t type = 0;
    std::string text;
};

// Reads a text getter by the two-call protocol.
template <typename Getter>
std::string ReadText(Getter get) {
    uint32_t length = 0;
    if (get(nullptr, length) != -3)
        return "<protocol broken>";
    std::string text(length, '\0');
    if (get(&text[0], length) != 0)
        return "<copy failed>";
    text.resize(length - 1);
    return text;
}

class RecordingCallback : public IVantoriaApiCB {
  public:
    using Clock = std::chrono::steady_clock;

    int32_t OnTowerList(IVantoriaTowerList* list) override {
        RecordedTowerList r;
        uint64_t count = 0;
        r.countResult = list->GetCount(count);
        for (uint64_t i = 0; i < count; ++i) {
            r.names.push_back(ReadText([&](char* b, uint32_t& l) { return list->GetAt(i, b, l); }));
        }
        list->GetActiveIndex(r.activeIndex);
        Record([&] { towerLists.push_back(r); });
        return 0;
    }
    int32_t OnStatus(IVantoriaStatus* status) override {
        uint64_t code = 0;
        status->GetStatus(code);
        if (statusHook)
            statusHook(code);
        Record([&] { statuses.push_back(code); });
        return 0;
    }
    int32_t OnDCTSettings(IVantoriaDCT* dct) override {
        RecordedDct r;
        dct->ActiveTowerChanged(r.activeTowerChanged);
        dct->GetMode(r.mode);
        dct->GetDetectClosest(r.detectClosest);
        dct->GetGUI(r.gui);
        r.tower = ReadText([&](char* b, uint32_t& l) { return dct->GetActivatedTower(b, l); });
        Record([&] { dcts.push_back(r); });
        return 0;
    }
    int32_t OnProxyCredRequest(std::string& host, std::string& port, std::string& authType,
                               std::string& realm) override {
        Record([&] { proxies.push_back({host, port, authType, realm}); });
        return 0;
    }
    int32_t OnStatistics(IVantoriaStatistics* s) override {
        RecordedStatistics r;
        s->GetConnectionCounts(r.filtered, r.bypassed, r.other);
        s->GetTotalCounts(r.totalFiltered, r.totalBypassed, r.totalOther);
        r.activeTower = ReadText([&](char* b, uint32_t& l) { return s->GetActiveTowerName(b, l); });
        Record([&] { statistics.push_back(r); });
        return 0;
    }
    int32_t OnInfoMessage(IVantoriaInfoMessage* m) override {
        RecordedInfo r;
        m->GetMessageType(r.type);
        r.text = ReadText([&](char* b, uint32_t& l) { return m->GetMessageText(b, l); });
        Record([&] { infos.push_back(r); });
        return 0;
    }

    // Waits until `done` holds (evaluated under the lock); false on time-out.
    bool WaitUntil(const std::function<bool()>& done,
                   std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, timeout, done);
    }
    bool WaitForStatus(uint64_t code, size_t occurrences = 1,
                       std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        return WaitUntil(
            [&] {
                size_t n = 0;
                for (uint64_t s : statuses)
                    n += s == code ? 1 : 0;
                return n >= occurrences;
            },
            timeout);
    }
    template <typename T>
    T Locked(const std::function<T()>& read) {
        std::lock_guard<std::mutex> lock(mutex);
        return read();
    }
    std::vector<uint64_t> Statuses() {
        std::lock_guard<std::mutex> lock(mutex);
        return statuses;
    }

    // Called on the notifying thread before a status is recorded (to hold a thread up).
    std::function<void(uint64_t)> statusHook;

    std::mutex mutex;
    std::condition_variable changed;
    std::vector<uint64_t> statuses;
    std::vector<RecordedTowerList> towerLists;
    std::vector<RecordedDct> dcts;
    std::vector<RecordedProxy> proxies;
    std::vector<RecordedStatistics> statistics;
    std::vector<RecordedInfo> infos;

  private:
    void Record(const std::function<void()>& write) {
        {
            std::lock_guard<std::mutex> lock(mutex);
            write();
        }
        changed.notify_all();
    }
};

#endif  // TIDEWAY_TESTS_SUPPORT_RECORDINGCALLBACK_H_
