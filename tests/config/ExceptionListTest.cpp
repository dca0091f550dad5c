// Exception and inclusion lists: names, IPv4 and IPv6 subnets, refusals, sorted order.

#include "ConfigTestSupport.h"

namespace {

using config_test::ChainRoot;
using config_test::LoadParameters;

// "v4 address/mask" in hex, or "v6 bytes/prefix"; "!" marks a field of the other family set.
std::vector<std::string> Format(const std::vector<ExceptionAddress>& addrs) {
    std::vector<std::string> out;
    for (const ExceptionAddress& a : addrs) {
        char text[80];
        bool stray = false;
        if (a.family == kExceptionFamilyIPv4) {
            snprintf(text, sizeof(text), "v4 %08X/%08X", a.address, a.mask);
            for (uint8_t byte : a.address6)
                stray = stray || byte != 0;
        } else {
            int n = snprintf(text, sizeof(text), "v%d ", a.family == kExceptionFamilyIPv6 ? 6 : 0);
            for (uint8_t byte : a.address6)
                n += snprintf(text + n, sizeof(text) - n, "%02x", byte);
            snprintf(text + n, sizeof(text) - n, "/%u", a.mask);
            stray = a.address != 0;
        }
        out.push_back(std::string(text) + (stray ? "!" : ""));
    }
    return out;
}

std::string Warning(const std::string& entry, const std::string& why) {
    return "Config : Exception = " + entry + " is invalid. " + why + "\n";
}

TEST(ExceptionListTest, EntriesAreSortedDeduplicatedCheckedAndClearedByAReload) {
    ChainRoot root;
    auto config = LoadParameters(
        root,
        "<host_exceptions> b.example ; 10.1.2.3/24;a.example;10.0.0.1;b.example;;"
        " 0.0.0.0/0 ;10.9.0.0/8x;172.16.5.4/12/99;192.168.1.1/32;10.1.2.3/24</host_exceptions>"
        "<proxy_exceptions>0.0.0.0/00;10.0.0.0/33;10.0.0.0/;10.0.0.0/abc;example/24;"
        "255.255.255.255/32;/8;10.0.0.0/-1;10.0.0.0/4294967304;2001:db8::/129;"
        "10.5.0.0/16</proxy_exceptions>"
        "<host_inclusions>2001:db8::1/128;fe80::1:2%eth0/64;::/0;2001:DB8::1/128"
        "</host_inclusions>");
    // Hosts: blanks trimmed, repeats once, a bare address is a name, subnets masked.
    std::list<std::string> names;
    std::vector<ExceptionAddress> addrs;
    config->GetHostExceptions(names, addrs);
    EXPECT_EQ(names, (std::list<std::string>{"10.0.0.1", "a.example", "b.example"}));
    EXPECT_EQ(Format(addrs),
              (std::vector<std::string>{"v4 00000000/00000000", "v4 0A010200/FFFFFF00",
                                        "v4 0A000000/FF000000", "v4 AC100000/FFF00000",
                                        "v4 C0A80101/FFFFFFFF"}));
    EXPECT_EQ(config->GetExceptionCount(1), 8);

    // Proxies: each refusal costs one warning and skips only its entry.
    syslog_capture::Clear();
    config->ParseExceptions("proxy_exceptions", names, addrs);
    EXPECT_TRUE(names.empty());
    EXPECT_EQ(Format(addrs), std::vector<std::string>{"v4 0A050000/FFFF0000"});
    EXPECT_EQ(syslog_capture::Texts(), (std::vector<std::string>{
                                           Warning("/8", "Address part incorrect"),
                                           Warning("0.0.0.0/00", "Subnet part incorrect"),
                                           Warning("10.0.0.0/", "Subnet part not specified"),
                                           Warning("10.0.0.0/-1", "Subnet part incorrect"),
                                           Warning("10.0.0.0/33", "Subnet part incorrect"),
                                           Warning("10.0.0.0/4294967304", "Subnet part incorrect"),
                                           Warning("10.0.0.0/abc", "Subnet part incorrect"),
                                           Warning("2001:db8::/129", "Subnet part incorrect"),
                                           Warning("255.255.255.255/32", "Address part incorrect"),
                                           Warning("example/24", "Address part incorrect"),
                                       }));
    EXPECT_EQ(config->GetExceptionCount(2), 1);

    // Inclusions: IPv6 stored unmasked with its prefix; two spellings of one address are two.
    config->ParseExceptions("host_inclusions", names, addrs);
    EXPECT_TRUE(names.empty());
    const std::string doc = "v6 20010db8000000000000000000000001/128";
    EXPECT_EQ(Format(addrs),
              (std::vector<std::string>{doc, doc, "v6 00000000000000000000000000000000/0",
                                        "v6 fe800000000000000000000000010002/64"}));
    EXPECT_TRUE(config->HasHostInclusions());

    // A reload of a profile without inclusions clears the flag and the lists; empty or absent
    // lists leave empty containers and no log.
    config_test::WriteObfuscated(
        root.Current(), config_test::Profile("<host_exceptions></host_exceptions><proxy_exceptions>"
                                             ";;</proxy_exceptions><static_exceptions>a; ;b"
                                             "</static_exceptions>"));
    ASSERT_TRUE(config->Reload());
    EXPECT_FALSE(config->HasHostInclusions());
    config->GetHostInclusions(names, addrs);  // holding the inclusions parsed above
    EXPECT_TRUE(names.empty() && addrs.empty());
    names = {"stale"};
    addrs.resize(2);
    syslog_capture::Clear();
    for (const char* key : {"host_exceptions", "proxy_exceptions", "absent_key"}) {
        config->ParseExceptions(key, names, addrs);
        EXPECT_TRUE(names.empty() && addrs.empty()) << key;
    }
    EXPECT_TRUE(syslog_capture::Records().empty());
    config->ParseExceptions("static_exceptions", names, addrs);  // blanks alone stay as they are
    EXPECT_EQ(names, (std::list<std::string>{" ", "a", "b"}));
}

}  // namespace
