#include "common/Utils.h"

#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <memory>
#include <numeric>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "ApiTrace.h"
#include "SyslogCapture.h"
#include "TestEnv.h"

namespace {

TEST(Utils, StringEdgesCompareTrimAndBoundedCopies) {
    // Only A-Z fold: bytes 32 apart like '[' and '{' or Latin-1 umlauts do not; NUL is a byte.
    EXPECT_EQ(CompareNoCase("Tower", "tOWER"), 0);
    const std::pair<std::string, std::string> lower[] = {
        {"Towers", "Tower"}, {"[", "{"}, {"\xC4", "\xE4"}, {{"a\0b", 3}, {"a\0c", 3}}};
    for (const auto& [a, b] : lower)
        EXPECT_EQ(CompareNoCase(a, b), -1) << a << " / " << b;

    // A text made only of trimmed bytes is left alone.
    const struct {
        std::string text, set, trimmed;
        bool leftOnly;
    } trims[] = {
        {"   ", " ", "   ", false},
        {" \t value with  inner blanks\r\n", kWhitespace, "value with  inner blanks", false},
        {"  x  ", "", "  x  ", false},
        {";;;", ";", ";;;", true}};
    for (auto c : trims) {
        c.leftOnly ? TrimLeft(c.text, c.set) : Trim(c.text, c.set);
        EXPECT_EQ(c.text, c.trimmed);
    }

    // Too long (eight characters need nine bytes) is refused with nothing written.
    char destination[8] = {'#', '#', '#', '#', '#', '#', '#', '#'};
    EXPECT_EQ(strcpy_s(destination, 8, "12345678"), 34);
    EXPECT_EQ(std::string(destination, 8), "########");
    EXPECT_EQ(strcpy_s(destination, 8, "1234567"), 0);
    EXPECT_EQ(std::string(destination, 8), std::string("1234567", 8));
    EXPECT_EQ(strcpy_s(nullptr, 8, "x"), 22);
    EXPECT_EQ(strcpy_s(destination, 8, nullptr), 22);
    unsigned char buffer[4] = {1, 2, 3, 4};
    const unsigned char source[5] = {9, 9, 9, 9, 9};
    EXPECT_EQ(memcpy_s(buffer, 4, source, 5), 34);
    EXPECT_EQ(buffer[3], 4);
    EXPECT_EQ(memcpy_s(buffer, 4, source, 4), 0);
    EXPECT_EQ(buffer[3], 9);
}

TEST(Utils, ConcatPathCases) {
    const struct {
        const char *first, *second, *joined;
    } cases[] = {
        {"/opt", "/x", "/opt/x"}, {"/opt", "x", "/opt/x"},
        {"a/b/", "c", "a/b//c"},  // only a two-character first part has its separator looked at
        {"a/", "b", "a/b"},       {"", "x", ""},
        {"x", "", "x"},           {"a", "/", "a"}};  // "a/" loses its separator
    for (const auto& c : cases)
        EXPECT_EQ(ConcatPath(c.first, c.second, "/"), c.joined) << c.first << " + " << c.second;
}

TEST(Utils, AppDataRootMovesForTestsAndReadsAreNeverTorn) {
    const std::string root = "/tmp/tideway-appdata-root-for-a-test-with-a-long-name";
    std::atomic<bool> stop{false};
    std::atomic<int> bad{0}, reads{0};
    std::thread reader([&] {
        for (std::string seen; !stop.load(); ++reads) {
            GetAllUsersAppDataPath(seen);
            bad += seen != "/opt" && seen != root;
        }
    });
    for (int i = 0; i < 2000 || reads.load() < 2000; ++i)  // until the reads overlap the moves
        SetAllUsersAppDataPathForTesting(i % 2 == 0 ? root : "");
    stop.store(true);
    reader.join();
    EXPECT_EQ(bad.load(), 0);
    SetAllUsersAppDataPathForTesting("");
    std::string path;
    EXPECT_TRUE(GetAllUsersAppDataPath(path));
    EXPECT_EQ(path, "/opt");  // the empty root restores the product's place
}

TEST(Utils, FileExistsAndDeleteIfExistsWithItsLogLine) {
    ApiTraceOn trace;
    TempRoot root;
    const std::string dir = root.path(), file = dir + "/profile.config", busy = dir + "/busy";
    ASSERT_EQ(mkdir(busy.c_str(), 0755), 0);
    std::ofstream(file) << "<Tideway/>";
    std::ofstream(busy + "/inside") << "x";
    ASSERT_EQ(symlink((dir + "/nowhere").c_str(), (dir + "/dangling").c_str()), 0);

    EXPECT_TRUE(FileExists(file));
    EXPECT_TRUE(FileExists(dir));
    for (const std::string& missing : {file + "/below", dir + "/dangling", std::string()})
        EXPECT_FALSE(FileExists(missing)) << missing;
    EXPECT_TRUE(DeleteIfExists(file));
    EXPECT_FALSE(FileExists(file));
    EXPECT_TRUE(DeleteIfExists(file));  // nothing there is not an error
    EXPECT_TRUE(syslog_capture::Records().empty());

    // A directory with contents cannot be removed, by root either.
    EXPECT_FALSE(DeleteIfExists(busy));
    EXPECT_TRUE(FileExists(busy + "/inside"));
    EXPECT_EQ(syslog_capture::Texts(),
              std::vector<std::string>{"DeleteIfExists: Failed to remove '" + busy +
                                       "': Directory not empty\n"});
}

TEST(Utils, ParseIPv4RefusalZeroesTheResult) {
    // Accepted forms and IPv6 are checked by config_exceptions_test; all-ones is refused.
    for (const char* bad : {"255.255.255.255", "1.2.3.256", ""}) {
        uint32_t address = 0x12345678;
        EXPECT_FALSE(ParseIPv4(bad, address)) << bad;
        EXPECT_EQ(address, 0u) << bad;
    }
}

TEST(Utils, HexEncodeDecodeRoundTripAndErrors) {
    std::vector<unsigned char> all(256);
    std::iota(all.begin(), all.end(), 0);
    std::unique_ptr<char[]> text(HexEncode(all.data(), 256));
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(std::string(text.get() + 506), "FDFEFF");
    std::vector<unsigned char> decoded;
    std::string error = "stale";
    EXPECT_TRUE(HexDecode(text.get(), 512, decoded, error));
    EXPECT_EQ(error, "");
    EXPECT_EQ(decoded, all);
    EXPECT_EQ(HexEncode(nullptr, 2), nullptr);
    text.reset(HexEncode(all.data(), -1));
    EXPECT_STREQ(text.get(), "");

    // Either case; an odd trailing character is not decoded; the length given is what counts.
    const struct {
        const char* text;
        int length;
        std::vector<unsigned char> bytes;
    } decodes[] = {{"aBc", 3, {0xAB}}, {"ABCD", 2, {0xAB}}, {"A", 1, {}}, {"A", -4, {}}};
    for (const auto& c : decodes) {
        EXPECT_TRUE(HexDecode(c.text, c.length, decoded, error)) << c.text << c.length;
        EXPECT_EQ(decoded, c.bytes) << c.text << c.length;
    }
    EXPECT_FALSE(HexDecode(nullptr, 4, decoded, error));
    EXPECT_EQ(error, "Input buffer was NULL");
    EXPECT_FALSE(HexDecode("0AG1", 4, decoded, error));
    EXPECT_EQ(error, "Input string contains invalid hexadecimal character (G)");
    EXPECT_TRUE(decoded.empty());
}

}  // namespace
