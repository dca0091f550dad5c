// Shared by the fuzz targets: includes, a check that aborts (libFuzzer keeps the input), helpers.
#ifndef TIDEWAY_TESTS_FUZZ_FUZZSUPPORT_H_
#define TIDEWAY_TESTS_FUZZ_FUZZSUPPORT_H_

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "common/OpenSSLCrypt.h"
#include "common/Utils.h"
#include "common/VNTrace.h"

#define FUZZ_CHECK(condition) \
    ((condition) ? (void)0 : FuzzFail("check failed: " #condition, std::to_string(__LINE__)))

[[noreturn]] inline void FuzzFail(const char* what, const std::string& detail = "") {
    fprintf(stderr, "%s %s\n", what, detail.c_str());
    abort();
}

inline std::string AsText(const uint8_t* data, size_t size) {
    return std::string(reinterpret_cast<const char*>(data), size);
}

inline uint32_t ReadLE32(const uint8_t* p) {
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

// A file's bytes, or "<absent>".
inline std::string ReadFileBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return in ? std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>())
              : "<absent>";
}

inline void WriteFileBytes(const std::string& path, const uint8_t* data, size_t size) {
    FILE* file = fopen(path.c_str(), "wb");
    FUZZ_CHECK(file != nullptr);
    FUZZ_CHECK(fwrite(data, 1, size, file) == size);
    FUZZ_CHECK(fclose(file) == 0);
}

inline bool ObfuscateTo(const std::string& path, const std::string& plain) {
    return COpenSSLCrypt::ObfuscateStringToFile(plain.data(), static_cast<uint32_t>(plain.size()),
                                                path.c_str(), nullptr) == 0;
}

// The trace off (bad inputs would spend the run on log prefixes), once.
inline void QuietTrace() {
    [[maybe_unused]] static const bool quiet = (g_Trace.SetLevelMask(0), true);
}

// /tmp/<name>.<pid><suffix>, removed at exit.
struct ScratchFile {
    explicit ScratchFile(const char* name, const char* suffix = "")
        : path(std::string("/tmp/") + name + "." + std::to_string(getpid()) + suffix) {}
    ~ScratchFile() { unlink(path.c_str()); }
    std::string path;
};

// /tmp/<prefix>-XXXXXX with the profile folder as the app-data root, trace off; removed at the end.
struct ScratchRoot {
    std::string path;
    explicit ScratchRoot(const char* prefix) : path(std::string("/tmp/") + prefix + "-XXXXXX") {
        QuietTrace();
        FUZZ_CHECK(mkdtemp(&path[0]) != nullptr);
        std::filesystem::create_directories(path + "/tarvex/brenlo/tideway/config");
        SetAllUsersAppDataPathForTesting(path);
    }
    ~ScratchRoot() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
};

#ifdef TIDEWAY_TESTS_SUPPORT_FAKEIPCCLIENT_H_  // with FakeIPCClient.h and VantoriaApi.h first
// Every trace level on (each statement formats its arguments); `api` connected, its peer up.
inline std::shared_ptr<FakeIPCClient::State> ConnectApi(CVantoriaApi& api) {
    g_Trace.InitTrace(kTraceIdent, "/tmp", "TidewayAPI.log", 2, kDefaultTraceMask, false, true, 10,
                      10000, 100, 1, 0, 60);
    g_Trace.SetLevelMask(0xFFFFFFFF);
    auto fake = std::make_shared<FakeIPCClient::State>();
    g_pVantoriaApi = &api;
    if (!api.Initialize(5003, FakeIPCClient::Factory(fake)) || !api.StartCommunicator() ||
        !fake->WaitFor([&] { return fake->connects >= 1; }))
        FuzzFail("the communicator never connected");
    fake->PeerState(8, 1, 2);
    return fake;
}

// Waits until `id` is sent at index `from` or later; the index just past it.
inline size_t WaitSent(FakeIPCClient::State& fake, uint32_t id, size_t from) {
    size_t end = 0;
    auto sent = [&] {
        end = std::find(fake.sentIds.begin() + from, fake.sentIds.end(), id) - fake.sentIds.begin();
        return ++end <= fake.sentIds.size();
    };
    if (!fake.WaitFor(sent, std::chrono::seconds(60)))
        FuzzFail("never sent:", std::to_string(id));
    return end;
}
#endif

#endif  // TIDEWAY_TESTS_FUZZ_FUZZSUPPORT_H_
