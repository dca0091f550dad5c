// Start-up cost of the configuration: InitializeConfig(false, false) of an obfuscated current
// file in a scratch app-data root, beside a bare boost::property_tree::read_xml of the same
// decoded text in the same run, for the built-in default profile and for a profile with 1,000
// towers. The decoding alone is measured too, since the chain reads the file twice. At the end
// the ratio of the whole load to the bare parse is printed (of the medians when run with
// --benchmark_repetitions).
#include <stdio.h>
#include <stdlib.h>

#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include <boost/property_tree/ptree.hpp>
#include <boost/property_tree/xml_parser.hpp>
#include "BenchSupport.h"

#include "common/OpenSSLCrypt.h"
#include "common/Utils.h"
#include "config/ConfigKeys.h"
#include "config/DnConfigFile.h"

namespace {

// A profile like the default one, with `towers` towers added.
std::string ProfileWithTowers(int towers) {
    std::string text =
        "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<Tideway>\n"
        "    <SchemaVersion>3.0</SchemaVersion>\n    <ConfigurationParameters>\n"
        "        <kdf_listen_port>5001</kdf_listen_port>\n        <ipc_port>5003</ipc_port>\n"
        "        <kdf_port_included>80,8080,3128</kdf_port_included>\n"
        "        <Logging>\n            <debug_level>FFFFFFFF</debug_level>\n"
        "        </Logging>\n        <Towers>\n";
    char tower[512];
    for (int i = 0; i < towers; ++i) {
        snprintf(tower, sizeof(tower),
                 "            <Tower>\n"
                 "                <DisplayName>Tower %04d</DisplayName>\n"
                 "                <Active>%d</Active>\n"
                 "                <HostName>tower%04d.example.net</HostName>\n"
                 "                <SSLPort>443</SSLPort>\n"
                 "                <PlainPort>80</PlainPort>\n"
                 "            </Tower>\n",
                 i, i == 0 ? 1 : 0, i);
        text += tower;
    }
    text += "        </Towers>\n    </ConfigurationParameters>\n</Tideway>\n";
    return text;
}

// A scratch root holding one current file, and that file's decoded text.
struct Profile {
    std::string root;
    std::string decoded;  // marker stripped: what both the chain and the bare parse read
    size_t fileBytes = 0;
};

std::map<int, Profile>& Profiles() {
    static std::map<int, Profile> profiles;
    return profiles;
}

const Profile& TheProfile(int towers) {
    std::map<int, Profile>& profiles = Profiles();
    auto found = profiles.find(towers);
    if (found != profiles.end())
        return found->second;
    Profile profile;
    std::string pattern = "/tmp/bench-config-XXXXXX";
    if (mkdtemp(&pattern[0]) == nullptr)
        abort();
    profile.root = pattern;
    std::filesystem::create_directories(profile.root + "/tarvex/brenlo/tideway/config");
    SetAllUsersAppDataPathForTesting(profile.root);
    const std::string current = profile.root + "/tarvex/brenlo/tideway/config/Tideway.config";
    if (towers == 0) {
        // The chain writes the built-in default itself when no file exists.
        CDnConfigFile config;
        if (!config.InitializeConfig(false, false))
            abort();
    } else {
        const std::string plain = std::string(kObfuscatedMarker) + ProfileWithTowers(towers);
        if (COpenSSLCrypt::ObfuscateStringToFile(plain.data(), static_cast<uint32_t>(plain.size()),
                                                 current.c_str(), nullptr) != 0)
            abort();
    }
    if (COpenSSLCrypt::DeObfuscateFiletoStr(current.c_str(), profile.decoded, EVP_aes_128_cbc(),
                                            nullptr) != 0)
        abort();
    profile.decoded.erase(0, kObfuscatedMarkerLength);
    profile.fileBytes = std::filesystem::file_size(current);
    return profiles.emplace(towers, profile).first->second;
}

void BM_InitializeConfig(benchmark::State& state) {
    const Profile& profile = TheProfile(static_cast<int>(state.range(0)));
    SetAllUsersAppDataPathForTesting(profile.root);
    size_t towers = 0;
    for (auto _ : state) {
        CDnConfigFile config;
        if (!config.InitializeConfig(false, false)) {
            state.SkipWithError("InitializeConfig failed");
            break;
        }
        towers = config.GetTowers().size();
        benchmark::DoNotOptimize(towers);
    }
    if (towers != static_cast<size_t>(state.range(0)))
        state.SkipWithError("wrong number of towers loaded");
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(profile.decoded.size()));
    state.counters["file_bytes"] = static_cast<double>(profile.fileBytes);
}

void BM_ReadXml(benchmark::State& state) {
    const Profile& profile = TheProfile(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        std::istringstream stream(profile.decoded);
        boost::property_tree::ptree tree;
        // The flags the store parses with: no comments, trimmed text.
        boost::property_tree::read_xml(stream, tree, 6);
        benchmark::DoNotOptimize(tree);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(profile.decoded.size()));
}

void BM_DecodeFile(benchmark::State& state) {
    const Profile& profile = TheProfile(static_cast<int>(state.range(0)));
    const std::string current = profile.root + "/tarvex/brenlo/tideway/config/Tideway.config";
    for (auto _ : state) {
        std::string text;
        if (COpenSSLCrypt::DeObfuscateFiletoStr(current.c_str(), text, EVP_aes_128_cbc(),
                                                nullptr) != 0) {
            state.SkipWithError("decode failed");
            break;
        }
        benchmark::DoNotOptimize(text);
    }
}

BENCHMARK(BM_InitializeConfig)->Arg(0)->Arg(1000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ReadXml)->Arg(0)->Arg(1000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_DecodeFile)->Arg(0)->Arg(1000)->Unit(benchmark::kMicrosecond);

// Keeps the time per iteration of every run, to print the ratios at the end.
class RatioReporter : public bench_support::TimeKeepingReporter {
  public:
    void PrintRatios() const {
        for (const char* towers : {"0", "1000"}) {
            const std::string load = std::string("BM_InitializeConfig/") + towers;
            const std::string parse = std::string("BM_ReadXml/") + towers;
            if (m_Nanos.count(load) == 0 || m_Nanos.count(parse) == 0)
                continue;
            printf("%s towers: InitializeConfig %.1f us, bare read_xml %.1f us = %.2fx (%s 2x)\n",
                   towers, m_Nanos.at(load) / 1000, m_Nanos.at(parse) / 1000,
                   m_Nanos.at(load) / m_Nanos.at(parse),
                   m_Nanos.at(load) <= 2 * m_Nanos.at(parse) ? "within" : "above");
        }
    }
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.PrintRatios();
    benchmark::Shutdown();
    // The scratch roots go with the process.
    SetAllUsersAppDataPathForTesting("");
    for (const auto& profile : Profiles()) {
        std::error_code ignored;
        std::filesystem::remove_all(profile.second.root, ignored);
    }
    return 0;
}
