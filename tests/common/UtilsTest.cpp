#include "common/Utils.h"

#include <stdlib.h>
#include <string.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <regex>
#include <set>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <boost/filesystem.hpp>

#include "SyslogCapture.h"
#include "common/VNTrace.h"

namespace fs = boost::filesystem;

namespace {

// A fresh directory under the system's temporary directory, removed with its contents.
class ScratchDir {
  public:
    ScratchDir() {
        path_ = fs::temp_directory_path() / fs::unique_path("tideway-utils-%%%%-%%%%-%%%%");
        fs::create_directories(path_);
    }
    ~ScratchDir() {
        boost::system::error_code ignored;
        fs::remove_all(path_, ignored);
    }
    std::string Path(const std::string& name) const { return (path_ / name).string(); }
    std::string Root() const { return path_.string(); }

  private:
    fs::path path_;
};

void WriteFile(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary);
    out << content;
}

TEST(UtilsStrings, CompareNoCaseFoldsOnlyAsciiLetters) {
    EXPECT_EQ(CompareNoCase("Tower", "tOWER"), 0);
    EXPECT_EQ(CompareNoCase("Tower", "Towers"), -1);
    EXPECT_EQ(CompareNoCase("Towers", "Tower"), -1);
    EXPECT_EQ(CompareNoCase("", ""), 0);
    EXPECT_EQ(CompareNoCase("", "a"), -1);
    // Bytes 32 apart that are not A-Z must not fold: '[' and '{', '@' and '`', Latin-1 A-umlaut
    // and a-umlaut.
    EXPECT_EQ(CompareNoCase("[", "{"), -1);
    EXPECT_EQ(CompareNoCase("@", "`"), -1);
    EXPECT_EQ(CompareNoCase("\xC4", "\xE4"), -1);
    // An embedded NUL is a byte like any other.
    EXPECT_EQ(CompareNoCase(std::string("a\0b", 3), std::string("A\0B", 3)), 0);
    EXPECT_EQ(CompareNoCase(std::string("a\0b", 3), std::string("a\0c", 3)), -1);
}

TEST(UtilsStrings, TrimKeepsTextsMadeOfTrimmedBytesAlone) {
    std::string text = "   ";
    Trim(text, " ");
    EXPECT_EQ(text, "   ");
    text = " \t value with  inner blanks\r\n";
    Trim(text, kWhitespace);
    EXPECT_EQ(text, "value with  inner blanks");
    text = "  x  ";
    Trim(text, "");
    EXPECT_EQ(text, "  x  ");
    text = ";;;";
    TrimLeft(text, ";");
    EXPECT_EQ(text, ";;;");
}

TEST(UtilsCopies, BoundsAndUntouchedDestination) {
    char destination[8];
    memset(destination, '#', sizeof(destination));
    // Eight characters need nine bytes: refused, and nothing written.
    EXPECT_EQ(strcpy_s(destination, 8, "12345678"), 34);
    EXPECT_EQ(std::string(destination, 8), "########");
    EXPECT_EQ(strcpy_s(destination, 8, "1234567"), 0);
    EXPECT_STREQ(destination, "1234567");
    EXPECT_EQ(strcpy_s(destination, 0, "x"), 34);
    EXPECT_EQ(strcpy_s(nullptr, 8, "x"), 22);
    EXPECT_EQ(strcpy_s(destination, 8, nullptr), 22);

    unsigned char buffer[4] = {1, 2, 3, 4};
    const unsigned char source[5] = {9, 9, 9, 9, 9};
    EXPECT_EQ(memcpy_s(buffer, 4, source, 5), 34);
    EXPECT_EQ(buffer[3], 4);
    EXPECT_EQ(memcpy_s(buffer, 4, source, 4), 0);
    EXPECT_EQ(buffer[3], 9);
}

TEST(UtilsPaths, ConcatPathCases) {
    EXPECT_EQ(ConcatPath("/opt", "/x", "/"), "/opt/x");
    EXPECT_EQ(ConcatPath("/opt", "x", "/"), "/opt/x");
    EXPECT_EQ(ConcatPath("a/b/", "c", "/"), "a/b//c");  // only a two-character first part counts
    EXPECT_EQ(ConcatPath("a/", "b", "/"), "a/b");
    EXPECT_EQ(ConcatPath("", "x", "/"), "");
    EXPECT_EQ(ConcatPath("x", "", "/"), "x");
    EXPECT_EQ(ConcatPath("a", "/", "/"), "a");  // "a/" loses its separator
    EXPECT_EQ(ConcatPath("/opt/tarvex/brenlo/tideway", "config/Tideway.config", "/"),
              "/opt/tarvex/brenlo/tideway/config/Tideway.config");
}

TEST(UtilsPaths, AppDataRootMovesForTestsAndReadsAreNeverTorn) {
    std::string path;
    EXPECT_TRUE(GetAllUsersAppDataPath(path));
    EXPECT_EQ(path, "/opt");
    const std::string root = "/tmp/tideway-appdata-root-for-a-test-with-a-long-name";
    SetAllUsersAppDataPathForTesting(root);
    EXPECT_TRUE(GetAllUsersAppDataPath(path));
    EXPECT_EQ(path, root);

    // Readers see one of the two values and never a mixture while a writer swaps them.
    std::atomic<bool> stop{false};
    std::atomic<int> ready{0};
    std::atomic<int> bad{0};
    std::vector<std::thread> readers;
    for (int i = 0; i < 2; ++i) {
        readers.emplace_back([&] {
            ready.fetch_add(1);
            std::string seen;
            while (!stop.load()) {
                GetAllUsersAppDataPath(seen);
                if (seen != "/opt" && seen != root)
                    bad.fetch_add(1);
            }
        });
    }
    while (ready.load() < 2)
        std::this_thread::yield();
    for (int i = 0; i < 2000; ++i)
        SetAllUsersAppDataPathForTesting(i % 2 == 0 ? "" : root);
    stop.store(true);
    for (std::thread& t : readers)
        t.join();
    EXPECT_EQ(bad.load(), 0);

    SetAllUsersAppDataPathForTesting("");
    EXPECT_TRUE(GetAllUsersAppDataPath(path));
    EXPECT_EQ(path, "/opt");
}

TEST(UtilsPaths, InitialDirectoryIsWhereTheProcessStarted) {
    char startDir[4096];
    ASSERT_NE(getcwd(startDir, sizeof(startDir)), nullptr);
    ScratchDir scratch;
    ASSERT_EQ(chdir(scratch.Root().c_str()), 0);
    const std::string initial = GetInitialDirectory();
    ASSERT_EQ(chdir(startDir), 0);
    EXPECT_EQ(initial, startDir);
}

TEST(UtilsFiles, TempFileNamesAreFreshAndDistinct) {
    const char* tmpdir = getenv("TMPDIR");  // tempnam prefers it when it names a directory
    std::set<std::string> names;
    for (int i = 0; i < 100; ++i) {
        const std::string name = GetTempFileName();
        const fs::path path(name);
        EXPECT_EQ(path.filename().string().compare(0, 3, "VNA"), 0) << name;
        EXPECT_TRUE(path.parent_path() == "/tmp" ||
                    (tmpdir != nullptr && fs::equivalent(path.parent_path(), tmpdir)))
            << name;
        EXPECT_FALSE(FileExists(name)) << name;
        names.insert(name);
    }
    EXPECT_EQ(names.size(), 100u);
}

TEST(UtilsFiles, LocalTimeStampFormatAndBounds) {
    char buffer[64];
    GetLocalTimeStamp(buffer, sizeof(buffer));
    EXPECT_TRUE(std::regex_match(buffer, std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d)")))
        << buffer;

    // A short buffer holds the start of the stamp and a NUL in its last byte, and nothing past it
    // is written.
    char small[8];
    memset(small, '#', sizeof(small));
    GetLocalTimeStamp(small, 5);
    EXPECT_EQ(strlen(small), 4u);
    EXPECT_TRUE(std::regex_match(small, std::regex(R"(\d{4})"))) << small;
    EXPECT_EQ(small[5], '#');

    memset(small, '#', sizeof(small));
    GetLocalTimeStamp(small, 0);
    EXPECT_EQ(small[0], '#');
    GetLocalTimeStamp(nullptr, 16);  // must not crash
}

class UtilsFilesLogged : public ::testing::Test {
  protected:
    void SetUp() override {
        g_Trace.InitTrace(kTraceIdent, "/tmp", "TidewayAPI.log", 2, kDefaultTraceMask, false, true,
                          10, 10000, 100, 1, 0, 60);
        savedMask_ = g_Trace.GetLevelMask();
        g_Trace.SetLevelMask(kDefaultTraceMask);
        syslog_capture::Clear();
    }
    void TearDown() override { g_Trace.SetLevelMask(savedMask_); }
    uint32_t savedMask_ = 0;
};

TEST_F(UtilsFilesLogged, FileExistsAndDeleteIfExists) {
    ScratchDir scratch;
    const std::string file = scratch.Path("profile.config");
    WriteFile(file, "<Tideway/>");
    EXPECT_TRUE(FileExists(file));
    EXPECT_TRUE(FileExists(scratch.Root()));
    EXPECT_FALSE(FileExists(scratch.Path("missing")));
    EXPECT_FALSE(FileExists(file + "/below-a-file"));
    EXPECT_FALSE(FileExists(""));
    ASSERT_EQ(symlink(scratch.Path("nowhere").c_str(), scratch.Path("dangling").c_str()), 0);
    EXPECT_FALSE(FileExists(scratch.Path("dangling")));  // status follows the link

    EXPECT_TRUE(DeleteIfExists(file));
    EXPECT_FALSE(FileExists(file));
    EXPECT_TRUE(DeleteIfExists(file));  // nothing there is not an error
    EXPECT_TRUE(syslog_capture::Records().empty());

    // A directory with contents cannot be removed, by root either.
    const std::string busy = scratch.Path("busy");
    fs::create_directory(busy);
    WriteFile(busy + "/inside", "x");
    EXPECT_FALSE(DeleteIfExists(busy));
    EXPECT_TRUE(FileExists(busy + "/inside"));
    const auto records = syslog_capture::Records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].text,
              "DeleteIfExists: Failed to remove '" + busy + "': Directory not empty\n");
    EXPECT_EQ(records[0].priority, LOG_ERR);
}

TEST(UtilsAddresses, ParseIPv4WithShortFormsAndAllOnesRefused) {
    uint32_t address = 0;
    EXPECT_TRUE(ParseIPv4("192.168.1.20", address));
    EXPECT_EQ(address, 0xC0A80114u);
    EXPECT_TRUE(ParseIPv4("10.1", address));
    EXPECT_EQ(address, 0x0A000001u);
    EXPECT_TRUE(ParseIPv4("10.1.2", address));
    EXPECT_EQ(address, 0x0A010002u);
    EXPECT_TRUE(ParseIPv4("0x7f.1", address));
    EXPECT_EQ(address, 0x7F000001u);
    EXPECT_TRUE(ParseIPv4("255.255.255.254", address));
    EXPECT_EQ(address, 0xFFFFFFFEu);

    for (const char* bad : {"255.255.255.255", "1.2.3.256", "host.example", "", "1.2.3.4.5"}) {
        address = 0x12345678;
        EXPECT_FALSE(ParseIPv4(bad, address)) << bad;
        EXPECT_EQ(address, 0u) << bad;
    }
}

TEST(UtilsAddresses, ParseIPv6WithAndWithoutScope) {
    uint8_t bytes[16];
    const uint8_t linkLocal[16] = {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x01};
    memset(bytes, 0xAA, sizeof(bytes));
    EXPECT_TRUE(ParseIPv6("fe80::1%eth0", bytes));
    EXPECT_EQ(memcmp(bytes, linkLocal, 16), 0);
    memset(bytes, 0xAA, sizeof(bytes));
    EXPECT_TRUE(ParseIPv6("FE80:0000:0000:0000:0000:0000:0000:0001", bytes));
    EXPECT_EQ(memcmp(bytes, linkLocal, 16), 0);

    const uint8_t mapped[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff, 10, 0, 0, 1};
    EXPECT_TRUE(ParseIPv6("::ffff:10.0.0.1", bytes));
    EXPECT_EQ(memcmp(bytes, mapped, 16), 0);

    for (const char* bad :
         {"1.2.3.4", "", "1::2::3", "gggg::1", "::1::", "%eth0", "fe80::1 %eth0", "12345::1"}) {
        EXPECT_FALSE(ParseIPv6(bad, bytes)) << bad;
    }
    // The address before the scope is limited to 63 characters.
    EXPECT_FALSE(ParseIPv6(std::string(64, '0') + "::1%eth0", bytes));
}

TEST(UtilsHex, EncodeDecodeRoundTripAndErrors) {
    const unsigned char pair[2] = {0x0A, 0xFF};
    char* text = HexEncode(pair, 2);
    ASSERT_NE(text, nullptr);
    EXPECT_STREQ(text, "0AFF");
    delete[] text;
    EXPECT_EQ(HexEncode(nullptr, 2), nullptr);
    for (int length : {0, -1}) {
        text = HexEncode(pair, length);
        ASSERT_NE(text, nullptr);
        EXPECT_STREQ(text, "");
        delete[] text;
    }

    std::vector<unsigned char> all(256);
    for (int i = 0; i < 256; ++i)
        all[i] = static_cast<unsigned char>(i);
    text = HexEncode(all.data(), 256);
    ASSERT_NE(text, nullptr);
    ASSERT_EQ(strlen(text), 512u);
    std::vector<unsigned char> decoded;
    std::string error = "stale";
    EXPECT_TRUE(HexDecode(text, 512, decoded, error));
    EXPECT_EQ(error, "");
    EXPECT_EQ(decoded, all);
    delete[] text;

    // Either case; an odd trailing character is not decoded; the length given is what counts.
    EXPECT_TRUE(HexDecode("aBc", 3, decoded, error));
    EXPECT_EQ(decoded, (std::vector<unsigned char>{0xAB}));
    EXPECT_TRUE(HexDecode("ABCD", 2, decoded, error));
    EXPECT_EQ(decoded, (std::vector<unsigned char>{0xAB}));
    for (int length : {1, 0, -4}) {
        EXPECT_TRUE(HexDecode("A", length, decoded, error)) << length;
        EXPECT_TRUE(decoded.empty()) << length;
    }

    EXPECT_FALSE(HexDecode(nullptr, 4, decoded, error));
    EXPECT_EQ(error, "Input buffer was NULL");
    EXPECT_FALSE(HexDecode("0AG1", 4, decoded, error));
    EXPECT_EQ(error, "Input string contains invalid hexadecimal character (G)");
    EXPECT_TRUE(decoded.empty());
    EXPECT_TRUE(HexDecode("00", 2, decoded, error));
    EXPECT_EQ(error, "");  // cleared by the next call
}

}  // namespace
