// Shared by the configuration fuzz targets: a check that aborts (libFuzzer keeps the input), and
// a scratch app-data root with the profile folder, used for the whole run.
#ifndef TIDEWAY_TESTS_FUZZ_FUZZSUPPORT_H_
#define TIDEWAY_TESTS_FUZZ_FUZZSUPPORT_H_

#include <stdio.h>
#include <stdlib.h>

#include <filesystem>
#include <string>

#include "common/Utils.h"
#include "common/VNTrace.h"

#define FUZZ_CHECK(condition)                                                      \
    do {                                                                           \
        if (!(condition)) {                                                        \
            fprintf(stderr, "check failed: %s (line %d)\n", #condition, __LINE__); \
            abort();                                                               \
        }                                                                          \
    } while (0)

// Makes /tmp/<prefix>-XXXXXX with the profile folder, points the app-data root at it and turns
// the trace off (bad inputs would spend the run on log prefixes). Returns its path.
inline std::string MakeScratchRoot(const char* prefix) {
    g_Trace.SetLevelMask(0);
    std::string pattern = std::string("/tmp/") + prefix + "-XXXXXX";
    FUZZ_CHECK(mkdtemp(&pattern[0]) != nullptr);
    std::filesystem::create_directories(pattern + "/tarvex/brenlo/tideway/config");
    SetAllUsersAppDataPathForTesting(pattern);
    return pattern;
}

#endif  // TIDEWAY_TESTS_FUZZ_FUZZSUPPORT_H_
