#include "SyslogCapture.h"

#include <stdarg.h>
#include <stdio.h>

#include <condition_variable>
#include <mutex>

namespace {

struct State {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<syslog_capture::Record> records;
    std::vector<syslog_capture::OpenCall> opens;
};

State& TheState() {
    static State* state = new State;  // never destroyed: threads may log during exit
    return *state;
}

size_t CountLocked(const State& s, const std::string& text, bool whole) {
    size_t n = 0;
    for (const syslog_capture::Record& r : s.records)
        n += (whole ? r.text == text : r.text.find(text) != std::string::npos) ? 1 : 0;
    return n;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) void openlog(const char* ident, int option,
                                                               int facility) {
    State& s = TheState();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.opens.push_back({ident != nullptr ? ident : "", option, facility});
}

extern "C" __attribute__((visibility("default"))) void vsyslog(int priority, const char* format,
                                                               va_list args) {
    va_list copy;
    va_copy(copy, args);
    const int size = vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    std::string text(size > 0 ? static_cast<size_t>(size) : 0, '\0');
    if (size > 0)
        vsnprintf(&text[0], text.size() + 1, format, args);
    State& s = TheState();
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        s.records.push_back({priority, text});
    }
    s.changed.notify_all();
}

namespace syslog_capture {

template <typename F>
static auto Locked(F read) {
    State& s = TheState();
    std::lock_guard<std::mutex> lock(s.mutex);
    return read(s);
}

void Clear() {
    Locked([](State& s) { s.records.clear(), s.opens.clear(); });
}
std::vector<Record> Records() {
    return Locked([](State& s) { return s.records; });
}
std::vector<std::string> Texts() {
    std::vector<std::string> texts;
    for (const Record& r : Records())
        texts.push_back(r.text);
    return texts;
}
std::vector<OpenCall> OpenCalls() {
    return Locked([](State& s) { return s.opens; });
}
size_t Count(const std::string& text) {
    return Locked([&](State& s) { return CountLocked(s, text, true); });
}
size_t CountContaining(const std::string& fragment) {
    return Locked([&](State& s) { return CountLocked(s, fragment, false); });
}
bool WaitFor(const std::string& text, std::chrono::milliseconds timeout, size_t count) {
    State& s = TheState();
    std::unique_lock<std::mutex> lock(s.mutex);
    return s.changed.wait_for(lock, timeout, [&] { return CountLocked(s, text, true) >= count; });
}

}  // namespace syslog_capture
