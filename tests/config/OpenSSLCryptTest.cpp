#include <random>

#include "ConfigTestSupport.h"
#include "TidewayPassPhrase.h"

namespace {

using config_test::Bytes;
using config_test::Shell;
using config_test::Write;

const std::string kMarker = "OBFUSCATED";
const std::string kXml =
    "<Tideway><ConfigurationParameters><ipc_port>5003</ipc_port>"
    "</ConfigurationParameters></Tideway>";

class OpenSSLCryptTest : public ::testing::Test {
  protected:
    void SetUp() override { config_test::InitTrace(), syslog_capture::Clear(); }
    std::string Path(const std::string& name) const { return root.path() + "/" + name; }
    std::string Obfuscate(const std::string& name, const std::string& plain,
                          const char* phrase = nullptr) {
        EXPECT_EQ(COpenSSLCrypt::ObfuscateStringToFile(plain.data(), plain.size(),
                                                       Path(name).c_str(), phrase),
                  0);
        return Path(name);
    }
    int Read(const std::string& path, std::string& out, const EVP_CIPHER* cipher = nullptr,
             const char* phrase = nullptr) {
        return COpenSSLCrypt::DeObfuscateFiletoStr(
            path.c_str(), out, cipher != nullptr ? cipher : EVP_aes_128_cbc(), phrase);
    }
    TempRoot root;
};

// The key rule is the openssl tool's "enc -md sha1 -nosalt": the tool's ciphertext of the same
// text is the file byte for byte, under the built-in phrase and under a caller's, used whole.
TEST_F(OpenSSLCryptTest, FileIsTheToolsCiphertextInBothCiphersAndReadsBackAppended) {
    const std::string plain = kMarker + kXml;
    for (const char* phrase : {static_cast<const char*>(nullptr), "00FF"}) {
        const std::string ours = Obfuscate("ours", plain, phrase);
        Write(Path("phrase"), phrase ? phrase : kBuiltInPassPhrase);
        Write(Path("plain"), plain);
        ASSERT_EQ(Shell(root.path(),
                        "openssl enc -e -aes-128-cbc -md sha1 -nosalt -pass "
                        "file:phrase -in plain -out theirs"),
                  0);
        EXPECT_EQ(Bytes(ours), Bytes(Path("theirs")));
        std::string out = "kept:";
        ASSERT_EQ(Read(ours, out, nullptr, phrase), 0);
        EXPECT_EQ(out, "kept:" + plain);
    }
    std::string out;  // the decoded text ends at a NUL
    ASSERT_EQ(Read(Obfuscate("nul", kMarker + "<a>1</a>" + std::string(1, '\0') + "rest"), out), 0);
    EXPECT_EQ(out, kMarker + "<a>1</a>");
    EXPECT_TRUE(syslog_capture::Records().empty());

    // The RC4 variant takes the first 128 characters of the phrase.
    const std::string rc4 =
        "openssl enc -e -rc4 -md sha1 -nosalt -provider legacy -provider default -in plain -pass "
        "pass:";
    if (Shell(root.path(), rc4 + std::string(kBuiltInPassPhrase, 128) + " -out short") != 0)
        GTEST_SKIP() << "the openssl tool cannot use RC4 here (no legacy provider)";
    ASSERT_EQ(Shell(root.path(), rc4 + kBuiltInPassPhrase + " -out whole"), 0);
    out.clear();
    ASSERT_EQ(Read(Path("short"), out, EVP_rc4()), 0);
    EXPECT_EQ(out, plain);
    out.clear();
    Read(Path("whole"), out, EVP_rc4());
    EXPECT_NE(out, plain);
}

TEST_F(OpenSSLCryptTest, BadFilesFailWithTheirLineAndStayAsTheyWere) {
    const std::string good = Bytes(Obfuscate("good", kMarker + kXml));
    const std::string bad = "DeObfuscateFiletoStr: bad de-obfuscate\n";
    const std::tuple<const char*, std::string, std::string> cases[] = {
        {"empty", "", bad},
        {"plain xml", kXml, bad},
        {"cut by a byte", good.substr(0, good.size() - 1), bad},
        {"other phrase", Bytes(Obfuscate("x", kMarker + kXml, "another phrase")), bad},
        {"empty plaintext", Bytes(Obfuscate("y", "")),
         "DeObfuscateFiletoStr: error getting data from mem BIO\n"},
    };
    for (const auto& [name, bytes, line] : cases) {
        SCOPED_TRACE(name);
        syslog_capture::Clear();
        const std::string path = Write(Path("bad"), bytes);
        std::string out = "untouched";
        EXPECT_EQ(Read(path, out), -1);
        EXPECT_EQ(out, "untouched");
        EXPECT_THAT(syslog_capture::Texts(), testing::ElementsAre(line));
        EXPECT_EQ(Bytes(path), bytes);
    }
    // Nothing to open, no path, no cipher, a folder: -1 and nothing delivered.
    std::string out;
    EXPECT_EQ(Read(Path("missing"), out), -1);
    EXPECT_EQ(COpenSSLCrypt::DeObfuscateFiletoStr(nullptr, out, EVP_aes_128_cbc(), nullptr), -1);
    EXPECT_EQ(COpenSSLCrypt::DeObfuscateFiletoStr(Path("good").c_str(), out, nullptr, nullptr), -1);
    EXPECT_EQ(Read(root.path(), out), -1);
    EXPECT_EQ(out, "");

    // The writer: a missing folder, or no text, fails with its line and touches no file.
    const std::string inMissingDir = Path("no/such/dir/file");
    EXPECT_EQ(COpenSSLCrypt::ObfuscateStringToFile("x", 1, inMissingDir.c_str(), nullptr), -1);
    EXPECT_EQ(config_test::Logged("ObfuscateStringToFile Failed to write file: " + inMissingDir),
              1u);
    EXPECT_EQ(COpenSSLCrypt::ObfuscateStringToFile(nullptr, 5, Path("good").c_str(), nullptr), -1);
    EXPECT_EQ(Bytes(Path("good")), good);
    EXPECT_EQ(config_test::Logged("ObfuscateStringToFile: error writing output file"), 1u);
}

TEST_F(OpenSSLCryptTest, FiftyMegabytesRoundTripAndGarbageOfThatSizeIsRefused) {
    std::string plain = kMarker;
    std::mt19937 random(7);
    while (plain.size() < (50u << 20))
        plain += "<Tower><HostName>h" + std::to_string(random()) + "</HostName></Tower>\n";
    std::string out;
    ASSERT_EQ(Read(Obfuscate("large", plain), out), 0);
    EXPECT_TRUE(out == plain);  // not EXPECT_EQ: a failure must not print 50 MB
    std::string garbage(50u << 20, '\0');
    for (char& c : garbage)
        c = static_cast<char>(random());
    out.clear();
    EXPECT_EQ(Read(Write(Path("garbage"), garbage), out), -1);
    EXPECT_TRUE(out.empty());
}

TEST_F(OpenSSLCryptTest, ObfuscateFileAndTheToolConvertBothWays) {
    const std::string plain = Write(Path("plain.xml"), kXml);
    const std::string enc = Path("enc");
    testing::internal::CaptureStdout();  // the converter reports its byte counts there
    ASSERT_EQ(COpenSSLCrypt::ObfuscateFile(plain.c_str(), enc.c_str(), nullptr, 1), 0);
    ASSERT_EQ(COpenSSLCrypt::ObfuscateFile(enc.c_str(), Path("dec").c_str(), nullptr, 0), 0);
    // Refused: the same file both ways, undecodable input; an unopenable output is only told.
    EXPECT_EQ(COpenSSLCrypt::ObfuscateFile(plain.c_str(), plain.c_str(), nullptr, 1), -1);
    EXPECT_EQ(COpenSSLCrypt::ObfuscateFile(plain.c_str(), Path("x").c_str(), nullptr, 0), -1);
    EXPECT_EQ(COpenSSLCrypt::ObfuscateFile(enc.c_str(), Path("no/dir").c_str(), nullptr, 0), 0);
    const std::string told = testing::internal::GetCapturedStdout();
    EXPECT_EQ(told.substr(told.rfind('\n')), "\nError when writing de-obfuscated string") << told;
    EXPECT_EQ(Bytes(Path("dec")) + Bytes(plain) + Bytes(Path("x")), kXml + kXml + "<absent>");
    std::string out;
    ASSERT_EQ(Read(enc, out), 0);
    EXPECT_EQ(out, kMarker + kXml);

    // The maintenance tool: each exit status, then the command line that gives it.
    Write(Path("phrase"), "custom phrase\n");
    for (const std::string run :
         {"2 -e -d plain.xml t", "1 --decode plain.xml t", "0 -p phrase -e plain.xml t.enc",
          "1 -d t.enc t.dec", "0 -p phrase -d t.enc t.dec", "1 -d enc no/dir"})
        EXPECT_EQ(Shell(root.path(), TIDEWAY_OBFUSCATE_TOOL + run.substr(1)), run[0] - '0') << run;
    EXPECT_EQ(Bytes(Path("t.dec")), kXml);
}

}  // namespace
