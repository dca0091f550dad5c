// Captures the system log: SyslogCapture.cpp defines openlog and vsyslog, which test executables
// export, so the module's records (also from dlopen) land here. Thread-safe.
#ifndef TIDEWAY_TESTS_SUPPORT_SYSLOGCAPTURE_H_
#define TIDEWAY_TESTS_SUPPORT_SYSLOGCAPTURE_H_

#include <chrono>
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

void Clear();
std::vector<Record> Records();
std::vector<std::string> Texts();
std::vector<OpenCall> OpenCalls();
// Number of records whose text equals `text` exactly.
size_t Count(const std::string& text);
// Number of records containing `fragment`.
size_t CountContaining(const std::string& fragment);
// Waits until at least `count` records equal `text`; false when `timeout` runs out first.
bool WaitFor(const std::string& text, std::chrono::milliseconds timeout, size_t count = 1);

}  // namespace syslog_capture

#endif  // TIDEWAY_TESTS_SUPPORT_SYSLOGCAPTURE_H_
