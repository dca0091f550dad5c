// The exception-list parsers fed arbitrary text as the three list keys, checked against a plain
// re-reading of the text.
#include <list>
#include <set>

#include "FuzzSupport.h"
#include "config/DnConfigFile.h"

namespace {

// One configuration for the whole run, loaded from the default profile.
CDnConfigFile& Config() {
    static CDnConfigFile* config = [] {
        ScratchRoot root("fuzz-exceptions");
        CDnConfigFile* made = new CDnConfigFile;
        FUZZ_CHECK(made->InitializeConfig(false, false));
        SetAllUsersAppDataPathForTesting("");
        return made;
    }();
    return *config;
}

// The entries of a list value as the parser is to visit them: the value up to its first NUL,
// trimmed of blanks, CR, LF and TAB as a whole, cut at ";", each piece trimmed of blanks (a
// piece of blanks alone stays as it is), empty pieces dropped, sorted, repeats once.
std::set<std::string> ReferenceEntries(std::string value) {
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
    std::list<std::string> expectedNames;
    size_t withSlash = 0;
    for (const std::string& entry : ReferenceEntries(text)) {
        if (entry.find('/') == std::string::npos)
            expectedNames.push_back(entry);
        else
            ++withSlash;
    }
    FUZZ_CHECK(names == expectedNames && addrs.size() <= withSlash);
    const uint8_t zero[16] = {};
    // IPv4: a contiguous mask from the top, nothing of the address outside it; IPv6: a prefix.
    for (const ExceptionAddress& a : addrs)
        FUZZ_CHECK(a.family == kExceptionFamilyIPv4
                       ? (~a.mask & (~a.mask + 1)) == 0 && (a.address & ~a.mask) == 0 &&
                             memcmp(a.address6, zero, 16) == 0
                       : a.family == kExceptionFamilyIPv6 && a.address == 0 && a.mask <= 128);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CDnConfigFile& config = Config();
    const std::string value(AsText(data, size).c_str());  // the key's text ends at the first NUL

    for (const char* key : {"host_exceptions", "proxy_exceptions", "host_inclusions"})
        FUZZ_CHECK(config.UpdateConfigKey(key, value.c_str(), false));
    config.LoadHostExceptions();
    config.LoadProxyExceptions();
    config.LoadHostInclusions();

    std::list<std::string> names;
    std::vector<ExceptionAddress> addrs;
    config.GetHostExceptions(names, addrs);
    CheckLists(value, names, addrs);
    FUZZ_CHECK(config.GetExceptionCount(1) == static_cast<int>(names.size() + addrs.size()) &&
               config.GetExceptionCount(2) == config.GetExceptionCount(1));
    std::list<std::string> inclusionNames;
    std::vector<ExceptionAddress> inclusionAddrs;
    config.GetHostInclusions(inclusionNames, inclusionAddrs);
    FUZZ_CHECK(inclusionNames == names && inclusionAddrs.size() == addrs.size() &&
               config.HasHostInclusions() == (!names.empty() || !addrs.empty()));
    return 0;
}
