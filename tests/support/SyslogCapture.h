// Captures the system log: SyslogCapture.cpp defines openlog and vsyslog, which test executables
// export, so the module's records (also from dlopen) land here. Thread-safe.
#ifndef TIDEWAY_TESTS_SUPPORT_SYSLOGCAPTURE_H_
#define TIDEWAY_TESTS_SUPPORT_SYSLOGCAPTURE_H_

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

namespace syslog_capture {

struct Record {
    int priority;
    std::string text;  // the fully formatted record, exactly as the module wrote it
};

struct OpenCall {
    std::string ident;
    int option;
    int facility;
};

struct State {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<Record> records;
    std::vector<OpenCall> opens;

    // Records equal to `text`, or containing it unless `whole`; called under the lock.
    size_t CountLocked(const std::string& text, bool whole) const {
        return std::count_if(records.begin(), records.end(), [&](const Record& r) {
            return whole ? r.text == text : r.text.find(text) != std::string::npos;
        });
    }
};

inline State& TheState() {
    static State* state = new State;  // never destroyed: threads may log during exit
    return *state;
}
template <typename F>
auto Locked(F read) {
    std::lock_guard<std::mutex> lock(TheState().mutex);
    return read(TheState());
}

inline void Clear() {
    Locked([](State& s) { s.records.clear(), s.opens.clear(); });
}
inline std::vector<Record> Records() {
    return Locked([](State& s) { return s.records; });
}
inline std::vector<std::string> Texts() {
    std::vector<std::string> texts;
    for (const Record& r : Records())
        texts.push_back(r.text);
    return texts;
}
inline std::vector<OpenCall> OpenCalls() {
    return Locked([](State& s) { return s.opens; });
}
inline size_t Count(const std::string& text) {
    return Locked([&](State& s) { return s.CountLocked(text, true); });
}
inline size_t CountContaining(const std::string& fragment) {
    return Locked([&](State& s) { return s.CountLocked(fragment, false); });
}
// False when `timeout` runs out before `count` records equal `text`.
inline bool WaitFor(const std::string& text, std::chrono::milliseconds timeout, size_t count = 1) {
    State& s = TheState();
    std::unique_lock<std::mutex> lock(s.mutex);
    return s.changed.wait_for(lock, timeout, [&] { return s.CountLocked(text, true) >= count; });
}

}  // namespace syslog_capture

#endif  // TIDEWAY_TESTS_SUPPORT_SYSLOGCAPTURE_H_
