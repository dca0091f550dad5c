// The exception-list parsers fed arbitrary text as the three list keys, checked against a plain
// re-reading of the text.
#include <list>
#include <set>

#include "FuzzSupport.h"
#include "config/DnConfigFile.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static CDnConfigFile& config = []() -> CDnConfigFile& {
        ScratchRoot root("fuzz-exceptions");
        CDnConfigFile* made = new CDnConfigFile;
        FUZZ_CHECK(made->InitializeConfig(false, false));
        SetAllUsersAppDataPathForTesting("");
        return *made;
    }();
    std::string value(AsText(data, size).c_str());  // the key's text ends at the first NUL
    for (const char* key : {"host_exceptions", "proxy_exceptions", "host_inclusions"})
        FUZZ_CHECK(config.UpdateConfigKey(key, value.c_str(), false));
    config.LoadHostExceptions();
    config.LoadProxyExceptions();
    config.LoadHostInclusions();

    std::list<std::string> names, inclusionNames;
    std::vector<ExceptionAddress> addrs, inclusionAddrs;
    config.GetHostExceptions(names, addrs);
    // The entries as the parser is to visit them: the value trimmed of blanks, CR, LF and TAB as
    // a whole, cut at ";", each piece trimmed of blanks (a piece of blanks alone stays as it is),
    // empty pieces dropped, sorted, repeats once; those with a "/" are subnets.
    const size_t first = value.find_first_not_of(" \r\n\t");
    if (first != std::string::npos)
        value = value.substr(first, value.find_last_not_of(" \r\n\t") - first + 1);
    std::set<std::string> expected, subnets;
    for (size_t start = 0, end = 0; end != std::string::npos; start = end + 1) {
        end = value.find(';', start);
        std::string piece = value.substr(start, end - start);  // npos - start: to the end
        const size_t a = piece.find_first_not_of(' ');
        if (a != std::string::npos)
            piece = piece.substr(a, piece.find_last_not_of(' ') - a + 1);
        if (piece.find('/') != std::string::npos)
            subnets.insert(piece);
        else if (!piece.empty())
            expected.insert(piece);
    }
    FUZZ_CHECK(names == std::list<std::string>(expected.begin(), expected.end()) &&
               addrs.size() <= subnets.size());
    // IPv4: a contiguous mask from the top, nothing of the address outside it; IPv6: a prefix.
    for (const ExceptionAddress& a : addrs)
        FUZZ_CHECK(a.family == kExceptionFamilyIPv4
                       ? (~a.mask & (~a.mask + 1)) == 0 && (a.address & ~a.mask) == 0 &&
                             std::count(a.address6, a.address6 + 16, 0) == 16
                       : a.family == kExceptionFamilyIPv6 && a.address == 0 && a.mask <= 128);
    FUZZ_CHECK(config.GetExceptionCount(1) == static_cast<int>(names.size() + addrs.size()) &&
               config.GetExceptionCount(2) == config.GetExceptionCount(1));
    config.GetHostInclusions(inclusionNames, inclusionAddrs);
    FUZZ_CHECK(inclusionNames == names && inclusionAddrs.size() == addrs.size() &&
               config.HasHostInclusions() == (!names.empty() || !addrs.empty()));
    return 0;
}
