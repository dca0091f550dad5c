#include "SyslogCapture.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>

using syslog_capture::Locked;
using syslog_capture::State;

extern "C" __attribute__((visibility("default"))) void openlog(const char* ident, int option,
                                                               int facility) {
    Locked([&](State& s) { s.opens.push_back({ident != nullptr ? ident : "", option, facility}); });
}

extern "C" __attribute__((visibility("default"))) void vsyslog(int priority, const char* format,
                                                               va_list args) {
    char* text = nullptr;
    const int size = vasprintf(&text, format, args);
    Locked([&](State& s) {
        s.records.push_back({priority, size > 0 ? std::string(text, size) : std::string()});
        s.changed.notify_all();
    });
    free(text);
}
