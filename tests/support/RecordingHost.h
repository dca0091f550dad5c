// A UI host for the presentation plug-in in tests: records every notice and NotifyStopped in
// order (with client id and delivering thread), can run a hook inside DeliverXml, and translates
// key k as "text k", or answers wrongly with `translatorFault`. `mutex` guards the records.
#ifndef TIDEWAY_TESTS_SUPPORT_RECORDINGHOST_H_
#define TIDEWAY_TESTS_SUPPORT_RECORDINGHOST_H_

#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "IPresentationHost.h"
#include "ITranslator.h"

struct RecordingHost final : IPresentationHost, ITranslator {
    enum Fault { kNone, kSizeAnswer0, kSizeZero, kHugeSize, kNoTerminator, kFillFails };

    int32_t DeliverXml(uint32_t clientId, const char* xml) override {
        Record(clientId, xml);
        if (deliverHook)
            deliverHook(xml);
        return 0;
    }
    int32_t NotifyStopped(uint32_t clientId) override { return Record(clientId, "<stopped>"); }
    int32_t TranslateText(uint32_t key, char* buffer, uint32_t& size) override {
        const std::string text = Text(key);
        if (buffer == nullptr) {
            size = translatorFault == kSizeZero   ? 0
                   : translatorFault == kHugeSize ? 0xFFFFFFFFu
                                                  : uint32_t(text.size() + 1);
            return translatorFault == kSizeAnswer0 ? 0 : -3;
        }
        if (translatorFault == kFillFails)
            return -10;
        if (translatorFault == kNoTerminator)  // fills the whole buffer, no NUL
            return memset(buffer, 'x', size), 0;
        if (size < text.size() + 1)
            return -3;
        memcpy(buffer, text.c_str(), text.size() + 1);
        return 0;
    }
    static std::string Text(uint32_t key) { return "text " + std::to_string(key); }

    std::vector<std::string> Notices() {
        std::lock_guard<std::mutex> lock(mutex);
        return notices;
    }
    // Returns the notices so far and forgets them.
    std::vector<std::string> Take() {
        std::lock_guard<std::mutex> lock(mutex);
        ids.clear();
        deliverers.clear();
        return std::move(notices);
    }
    // The notices the calling thread delivered, without those of the module's threads.
    std::vector<std::string> NoticesOfThisThread() {
        std::lock_guard<std::mutex> lock(mutex);
        std::vector<std::string> own;
        for (size_t i = 0; i < notices.size(); ++i)
            if (deliverers[i] == std::this_thread::get_id())
                own.push_back(notices[i]);
        return own;
    }
    bool WaitForCount(size_t n, std::chrono::seconds limit = std::chrono::seconds(10)) {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, limit, [&] { return notices.size() >= n; });
    }
    bool WaitForNotice(const std::string& part) {  // one holding `part`, within ten seconds
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, std::chrono::seconds(10), [&] {
            return std::any_of(notices.begin(), notices.end(),
                               [&](const std::string& n) { return n.find(part) != n.npos; });
        });
    }

    Fault translatorFault = kNone;
    std::function<void(const char*)> deliverHook;
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::string> notices;
    std::vector<uint32_t> ids;
    std::vector<std::thread::id> deliverers;

    int32_t Record(uint32_t clientId, const char* text) {
        std::lock_guard<std::mutex> lock(mutex);
        notices.push_back(text);
        ids.push_back(clientId);
        deliverers.push_back(std::this_thread::get_id());
        changed.notify_all();
        return 0;
    }
};

#endif  // TIDEWAY_TESTS_SUPPORT_RECORDINGHOST_H_
