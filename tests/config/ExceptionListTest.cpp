// Exception and inclusion lists: names, IPv4 and IPv6 subnets, the three kinds of refusal, and
// the sorted, de-duplicated order in which entries come out.
#include <string.h>

#include <list>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ConfigTestSupport.h"
#include "SyslogCapture.h"
#include "config/DnConfigFile.h"

namespace {

using config_test::ChainRoot;
using config_test::LoadParameters;

struct Parsed {
    std::list<std::string> names;
    std::vector<ExceptionAddress> addrs;
};

Parsed Parse(CDnConfigFile& config, const char* key) {
    Parsed parsed;
    config.ParseExceptions(key, parsed.names, parsed.addrs);
    return parsed;
}

std::string Warning(const std::string& entry, const std::string& why) {
    return "Config : Exception = " + entry + " is invalid. " + why;
}

TEST(ExceptionListTest, NamesAndIPv4Subnets) {
    ChainRoot root;
    auto config = LoadParameters(
        root,
        "<host_exceptions> b.example ; 10.1.2.3/24;a.example;10.0.0.1;b.example;;"
        " 0.0.0.0/0 ;10.9.0.0/8x;172.16.5.4/12/99;192.168.1.1/32;10.1.2.3/24</host_exceptions>");
    const Parsed parsed = Parse(*config, "host_exceptions");
    // Sorted by the entries' text, repeats once, blanks trimmed, a bare address is a name.
    EXPECT_EQ(parsed.names, (std::list<std::string>{"10.0.0.1", "a.example", "b.example"}));
    ASSERT_EQ(parsed.addrs.size(), 5u);
    const struct {
        uint32_t address;
        uint32_t mask;
    } expected[] = {
        {0x00000000u, 0x00000000u},  // 0.0.0.0/0
        {0x0A010200u, 0xFFFFFF00u},  // 10.1.2.3/24, masked
        {0x0A000000u, 0xFF000000u},  // 10.9.0.0/8x: trailing text unnoticed
        {0xAC100000u, 0xFFF00000u},  // 172.16.5.4/12/99
        {0xC0A80101u, 0xFFFFFFFFu},  // 192.168.1.1/32
    };
    for (size_t i = 0; i < parsed.addrs.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(parsed.addrs[i].family, kExceptionFamilyIPv4);
        EXPECT_EQ(parsed.addrs[i].address, expected[i].address);
        EXPECT_EQ(parsed.addrs[i].mask, expected[i].mask);
        const uint8_t zero[16] = {};
        EXPECT_EQ(memcmp(parsed.addrs[i].address6, zero, 16), 0);
    }
    // The lists the load itself made are the same, and counted together.
    std::list<std::string> names;
    std::vector<ExceptionAddress> addrs;
    config->GetHostExceptions(names, addrs);
    EXPECT_EQ(names, parsed.names);
    EXPECT_EQ(addrs.size(), 5u);
    EXPECT_EQ(config->GetExceptionCount(1), 8);
    EXPECT_EQ(config->GetExceptionCount(2), 0);
}

TEST(ExceptionListTest, EachKindOfRefusalCostsOneWarningAndSkipsOnlyItsEntry) {
    ChainRoot root;
    auto config =
        LoadParameters(root,
                       "<proxy_exceptions>0.0.0.0/00;10.0.0.0/33;10.0.0.0/;10.0.0.0/abc;example/24;"
                       "255.255.255.255/32;/8;10.0.0.0/-1;10.0.0.0/4294967304;2001:db8::/129;"
                       "10.5.0.0/16</proxy_exceptions>");
    syslog_capture::Clear();
    const Parsed parsed = Parse(*config, "proxy_exceptions");
    EXPECT_TRUE(parsed.names.empty());
    ASSERT_EQ(parsed.addrs.size(), 1u);
    EXPECT_EQ(parsed.addrs[0].address, 0x0A050000u);
    EXPECT_EQ(parsed.addrs[0].mask, 0xFFFF0000u);

    const std::vector<std::string> expected = {
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
    };
    EXPECT_EQ(config_test::LoggedTexts(), expected);
    EXPECT_EQ(config->GetExceptionCount(2), 1);
}

TEST(ExceptionListTest, IPv6SubnetsAreStoredUnmasked) {
    ChainRoot root;
    auto config =
        LoadParameters(root,
                       "<host_inclusions>2001:db8::1/128;fe80::1:2%eth0/64;::/0;2001:DB8::1/128"
                       "</host_inclusions>");
    syslog_capture::Clear();
    const Parsed parsed = Parse(*config, "host_inclusions");
    EXPECT_TRUE(parsed.names.empty());
    ASSERT_EQ(parsed.addrs.size(), 4u);  // two spellings of one address are two entries
    // "2001:DB8::1/128" sorts before "2001:db8::1/128", both before "::/0" and "fe80...".
    const uint8_t doc[16] = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    const uint8_t link[16] = {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 2};
    const uint8_t any[16] = {};
    const struct {
        const uint8_t* bytes;
        uint32_t prefix;
    } expected[] = {{doc, 128}, {doc, 128}, {any, 0}, {link, 64}};
    for (size_t i = 0; i < 4; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(parsed.addrs[i].family, kExceptionFamilyIPv6);
        EXPECT_EQ(parsed.addrs[i].address, 0u);
        EXPECT_EQ(parsed.addrs[i].mask, expected[i].prefix);
        EXPECT_EQ(memcmp(parsed.addrs[i].address6, expected[i].bytes, 16), 0);
    }
    EXPECT_EQ(config_test::Logged("Config : IPv6 exception: "
                                  "2001:0db8:0000:0000:0000:0000:0000:0001 mask:128"),
              2u);
    EXPECT_EQ(config_test::Logged("Config : IPv6 exception: "
                                  "fe80:0000:0000:0000:0000:0000:0001:0002 mask:64"),
              1u);
    EXPECT_TRUE(config->HasHostInclusions());
    // Inclusions are not exceptions.
    EXPECT_EQ(config->GetExceptionCount(1), 0);
}

TEST(ExceptionListTest, EmptyOrAbsentListsLeaveEmptyContainersAndNoLog) {
    ChainRoot root;
    auto config = LoadParameters(root,
                                 "<host_exceptions></host_exceptions>"
                                 "<proxy_exceptions>;;</proxy_exceptions>"
                                 "<static_exceptions>a; ;b</static_exceptions>"
                                 "<host_inclusions>a</host_inclusions>");
    Parsed parsed;
    parsed.names.push_back("stale");
    parsed.addrs.resize(2);
    syslog_capture::Clear();
    for (const char* key : {"host_exceptions", "proxy_exceptions", "absent_key"}) {
        config->ParseExceptions(key, parsed.names, parsed.addrs);
        EXPECT_TRUE(parsed.names.empty()) << key;
        EXPECT_TRUE(parsed.addrs.empty()) << key;
    }
    EXPECT_TRUE(config_test::LoggedTexts().empty());
    EXPECT_TRUE(config->HasHostInclusions());
    // An entry of blanks alone is not empty to the tokenizer, whose trim leaves such a text as
    // it is: it comes out as a name.
    config->ParseExceptions("static_exceptions", parsed.names, parsed.addrs);
    EXPECT_EQ(parsed.names, (std::list<std::string>{" ", "a", "b"}));

    // A reload of a profile without inclusions clears the flag and the lists.
    config_test::WriteObfuscated(root.Current(), config_test::Profile("<ipc_port>1</ipc_port>"));
    ASSERT_TRUE(config->Reload());
    EXPECT_FALSE(config->HasHostInclusions());
    config->GetHostInclusions(parsed.names, parsed.addrs);
    EXPECT_TRUE(parsed.names.empty());
}

}  // namespace
