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

#define FUZZ_CHECK(cond) \
    ((cond) ? (void)0 : (fprintf(stderr, "check failed: %s %d\n", #cond, __LINE__), abort()))

inline std::string AsText(const uint8_t* data, size_t size) {
    return std::string(reinterpret_cast<const char*>(data), size);
}

inline uint32_t ReadLE32(const uint8_t* p) {
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

// A file's bytes, or "<absent>".
inline std::string ReadFileBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return in ? std::string(std::istreambuf_iterator<char>(in), {}) : "<absent>";
}

inline void WriteFileBytes(const std::string& path, const uint8_t* data, size_t size) {
    std::ofstream out(path, std::ios::binary);
    FUZZ_CHECK(out.write(reinterpret_cast<const char*>(data), size).flush());
}

// Writes `plain` obfuscated to `path`; the file's bytes.
inline std::string ObfuscateTo(const std::string& path, const std::string& plain) {
    FUZZ_CHECK(COpenSSLCrypt::ObfuscateStringToFile(
                   plain.data(), static_cast<uint32_t>(plain.size()), path.c_str(), nullptr) == 0);
    return ReadFileBytes(path);
}

// /tmp/<prefix>-XXXXXX as the app-data root, with its profile `folder`, trace off; removed.
struct ScratchRoot {
    std::string path, folder;
    explicit ScratchRoot(const char* prefix) : path(std::string("/tmp/") + prefix + "-XXXXXX") {
        g_Trace.SetLevelMask(0);  // bad inputs would spend the run on log prefixes
        FUZZ_CHECK(mkdtemp(&path[0]) != nullptr);
        folder = path + "/tarvex/brenlo/tideway";
        std::filesystem::create_directories(folder + "/config");
        SetAllUsersAppDataPathForTesting(path);
    }
    ~ScratchRoot() { std::filesystem::remove_all(path, ignored); }
    std::error_code ignored;  // a folder left over at the end is not worth an abort
};

#ifdef TIDEWAY_TESTS_SUPPORT_FAKEIPCCLIENT_H_  // with FakeIPCClient.h and VantoriaApi.h first
// Every trace level on (each statement formats its arguments); `api` connected, its peer up.
inline std::shared_ptr<FakeIPCClient::State> ConnectApi(CVantoriaApi& api) {
    g_Trace.InitTrace(kTraceIdent, "/tmp", "TidewayAPI.log", 2, kDefaultTraceMask, false, true, 10,
                      10000, 100, 1, 0, 60);
    g_Trace.SetLevelMask(0xFFFFFFFF);
    auto fake = std::make_shared<FakeIPCClient::State>();
    g_pVantoriaApi = &api;
    FUZZ_CHECK(api.Initialize(5003, FakeIPCClient::Factory(fake)) && api.StartCommunicator() &&
               fake->WaitFor([&] { return fake->connects >= 1; }));
    fake->PeerState(8, 1, 2);
    return fake;
}

// Waits until `id` is sent at index `from` or later; its index.
inline size_t WaitSent(FakeIPCClient::State& fake, uint32_t id, size_t from) {
    size_t at = 0;
    auto sent = [&] {
        at = std::find(fake.sentIds.begin() + from, fake.sentIds.end(), id) - fake.sentIds.begin();
        return at < fake.sentIds.size();
    };
    FUZZ_CHECK(fake.WaitFor(sent, std::chrono::seconds(60)));
    return at;
}
#endif

#endif  // TIDEWAY_TESTS_FUZZ_FUZZSUPPORT_H_
