// Drives the exception-list parser with arbitrary text as the three list keys of a loaded
// configuration (set in memory, so no file per input), and checks the result against a plain
// re-reading of the text: every entry without "/" is a name, sorted and once; every subnet is
// well-formed (IPv4 masked by a contiguous mask, IPv6 unmasked with a prefix up to 128); the
// counts agree.
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <filesystem>
#include <list>
#include <set>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "common/Utils.h"
#include "common/VNTrace.h"
#include "config/DnConfigFile.h"

namespace {

// One configuration for the whole run, loaded from the default profile.
CDnConfigFile& Config() {
    static CDnConfigFile* config = [] {
        const std::string root = MakeScratchRoot("fuzz-exceptions");
        CDnConfigFile* made_config = new CDnConfigFile;
        FUZZ_CHECK(made_config->InitializeConfig(false, false));
        SetAllUsersAppDataPathForTesting("");
        std::error_code ignored;
        std::filesystem::remove_all(root, ignored);
        return made_config;
    }();
    return *config;
}

// The entries of a list value as the parser is to visit them: the value up to its first NUL,
// trimmed of blanks, CR, LF and TAB as a whole, cut at ";", each piece trimmed of blanks (a
// piece of blanks alone stays as it is), empty pieces dropped, sorted, repeats once.
std::set<std::string> ReferenceEntries(const std::string& raw) {
    std::string value(raw.c_str());
    const char* const ws = " \r\n\t";
    const size_t first = value.find_first_not_of(ws);
    if (first != std::string::npos)
        value = value.substr(first, value.find_last_not_of(ws) - first + 1);
    std::set<std::string> entries;
    for (size_t start = 0, end = 0; end != std::string::npos; start = end + 1) {
        end = value.find(';', start);
        std::string piece = value.substr(start, end == std::string::npos ? end : end - start);
        const size_t a = piece.find_first_not_of(' ');
        if (a != std::string::npos)
            piece = piece.substr(a, piece.find_last_not_of(' ') - a + 1);
        if (!piece.empty())
            entries.insert(piece);
    }
    return entries;
}

void CheckLists(const std::string& text, const std::list<std::string>& names,
                const std::vector<ExceptionAddress>& addrs) {
    const std::set<std::string> entries = ReferenceEntries(text);
    std::list<std::string> expectedNames;
    size_t withSlash = 0;
    for (const std::string& entry : entries) {
        if (entry.find('/') == std::string::npos)
            expectedNames.push_back(entry);
        else
            ++withSlash;
    }
    FUZZ_CHECK(names == expectedNames);
    FUZZ_CHECK(addrs.size() <= withSlash);
    const uint8_t zero[16] = {};
    for (const ExceptionAddress& a : addrs) {
        if (a.family == kExceptionFamilyIPv4) {
            // A contiguous mask from the top, and nothing of the address outside it.
            FUZZ_CHECK((~a.mask & (~a.mask + 1)) == 0);
            FUZZ_CHECK((a.address & ~a.mask) == 0);
            FUZZ_CHECK(memcmp(a.address6, zero, 16) == 0);
        } else {
            FUZZ_CHECK(a.family == kExceptionFamilyIPv6);
            FUZZ_CHECK(a.address == 0);
            FUZZ_CHECK(a.mask <= 128);
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CDnConfigFile& config = Config();
    const std::string text(reinterpret_cast<const char*>(data), size);
    const std::string value(text.c_str());  // the key's text ends at the first NUL

    for (const char* key : {"host_exceptions", "proxy_exceptions", "host_inclusions"})
        FUZZ_CHECK(config.UpdateConfigKey(key, value.c_str(), false));
    config.LoadHostExceptions();
    config.LoadProxyExceptions();
    config.LoadHostInclusions();

    std::list<std::string> names;
    std::vector<ExceptionAddress> addrs;
    config.GetHostExceptions(names, addrs);
    CheckLists(value, names, addrs);
    FUZZ_CHECK(config.GetExceptionCount(1) == static_cast<int>(names.size() + addrs.size()));
    FUZZ_CHECK(config.GetExceptionCount(2) == config.GetExceptionCount(1));
    std::list<std::string> inclusionNames;
    std::vector<ExceptionAddress> inclusionAddrs;
    config.GetHostInclusions(inclusionNames, inclusionAddrs);
    FUZZ_CHECK(inclusionNames == names && inclusionAddrs.size() == addrs.size());
    FUZZ_CHECK(config.HasHostInclusions() == (!names.empty() || !addrs.empty()));
    return 0;
}
