#include "common/OpenSSLCrypt.h"

#include <stdlib.h>
#include <sys/wait.h>

#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ConfigTestSupport.h"
#include "TidewayPassPhrase.h"
#include "config/XMLReadWrite.h"

namespace {

using config_test::Bytes;
using config_test::Write;

const std::string kMarker = "OBFUSCATED";
const std::string kXml =
    "<Tideway><ConfigurationParameters><ipc_port>5003</ipc_port>"
    "</ConfigurationParameters></Tideway>";

int RunCommand(const std::string& command) {
    const int status = system((command + " >/dev/null 2>&1").c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class OpenSSLCryptTest : public ::testing::Test {
  protected:
    void SetUp() override {
        config_test::InitTrace();
        syslog_capture::Clear();
    }
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
TEST_F(OpenSSLCryptTest, FileIsTheToolsCiphertextAndReadsBackAppended) {
    const std::string plain = kMarker + kXml;
    for (const char* phrase : {static_cast<const char*>(nullptr), "00FF"}) {
        const std::string ours = Obfuscate("ours", plain, phrase);
        ASSERT_EQ(RunCommand("openssl enc -e -aes-128-cbc -md sha1 -nosalt -pass file:" +
                             Write(Path("phrase"), phrase ? phrase : kBuiltInPassPhrase) +
                             " -in " + Write(Path("plain"), plain) + " -out " + Path("theirs")),
                  0);
        EXPECT_EQ(Bytes(ours), Bytes(Path("theirs")));
        std::string out = "kept:";
        ASSERT_EQ(Read(ours, out, nullptr, phrase), 0);
        EXPECT_EQ(out, "kept:" + plain);
    }
    EXPECT_TRUE(syslog_capture::Records().empty());
}

TEST_F(OpenSSLCryptTest, BadFilesFailWithTheirLineAndStayAsTheyWere) {
    const std::string good = Bytes(Obfuscate("good", kMarker + kXml));
    const std::string bad = "DeObfuscateFiletoStr: bad de-obfuscate\n";
    const struct {
        const char* name;
        std::string bytes, line;
    } cases[] = {
        {"empty", "", bad},
        {"plain xml", kXml, bad},
        {"cut by a byte", good.substr(0, good.size() - 1), bad},
        {"other phrase", Bytes(Obfuscate("x", kMarker + kXml, "another phrase")), bad},
        {"empty plaintext", Bytes(Obfuscate("y", "")),
         "DeObfuscateFiletoStr: error getting data from mem BIO\n"},
    };
    for (const auto& c : cases) {
        syslog_capture::Clear();
        const std::string path = Write(Path("bad"), c.bytes);
        std::string out = "untouched";
        EXPECT_EQ(Read(path, out), -1) << c.name;
        EXPECT_EQ(out, "untouched") << c.name;
        EXPECT_EQ(syslog_capture::Texts(), std::vector<std::string>{c.line}) << c.name;
        EXPECT_EQ(Bytes(path), c.bytes) << c.name;
    }
    // Nothing to open, no path, no cipher, a folder: -1 and nothing delivered.
    std::string out;
    EXPECT_EQ(Read(Path("missing"), out), -1);
    EXPECT_EQ(COpenSSLCrypt::DeObfuscateFiletoStr(nullptr, out, EVP_aes_128_cbc(), nullptr), -1);
    EXPECT_EQ(COpenSSLCrypt::DeObfuscateFiletoStr(Path("good").c_str(), out, nullptr, nullptr), -1);
    EXPECT_EQ(Read(root.path(), out), -1);
    EXPECT_EQ(out, "");
}

TEST_F(OpenSSLCryptTest, DecodedTextIsCutAtNulAndOnlyTheParserRejectsGarble) {
    std::string out;
    ASSERT_EQ(Read(Obfuscate("nul", kMarker + "<a>1</a>" + std::string(1, '\0') + "rest"), out), 0);
    EXPECT_EQ(out, kMarker + "<a>1</a>");
    // A block altered in the middle decodes without complaint; the XML parse then fails and
    // the store keeps what it had.
    std::string bytes = Bytes(Obfuscate("garbled", kMarker + kXml + kXml));
    bytes[20] ^= 0x5A;
    out.clear();
    ASSERT_EQ(Read(Write(Path("garbled"), bytes), out), 0);
    CXMLReadWrite store;
    ASSERT_EQ(store.LoadFromString(kXml, true), kConfigOk);
    EXPECT_EQ(store.LoadFromString(out.substr(kMarker.size()), true), kConfigFail);
    EXPECT_TRUE(store.NodeExists("Tideway/ConfigurationParameters/ipc_port"));
}

TEST_F(OpenSSLCryptTest, WriterFailuresAreReportedAndTouchNoOtherFile) {
    const std::string inMissingDir = Path("no/such/dir/file");
    EXPECT_EQ(COpenSSLCrypt::ObfuscateStringToFile("x", 1, inMissingDir.c_str(), nullptr), -1);
    EXPECT_EQ(config_test::Logged("ObfuscateStringToFile Failed to write file: " + inMissingDir),
              1u);
    const std::string existing = Write(Path("existing"), "precious");
    EXPECT_EQ(COpenSSLCrypt::ObfuscateStringToFile(nullptr, 5, existing.c_str(), nullptr), -1);
    EXPECT_EQ(Bytes(existing), "precious");
    EXPECT_EQ(config_test::Logged("ObfuscateStringToFile: error writing output file"), 1u);
}

TEST_F(OpenSSLCryptTest, FiftyMegabytesRoundTripAndGarbageOfThatSizeIsRefused) {
    std::string plain = kMarker;
    plain.reserve(50u << 20);
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

TEST_F(OpenSSLCryptTest, Rc4VariantTakesTheFirst128Characters) {
    const std::string plain = Write(Path("plain"), kMarker + kXml);
    const std::string rc4 =
        "openssl enc -e -rc4 -md sha1 -nosalt -provider legacy "
        "-provider default -in " +
        plain + " -pass pass:";
    if (RunCommand(rc4 + std::string(kBuiltInPassPhrase, 128) + " -out " + Path("short")) != 0)
        GTEST_SKIP() << "the openssl tool cannot use RC4 here (no legacy provider)";
    ASSERT_EQ(RunCommand(rc4 + kBuiltInPassPhrase + " -out " + Path("whole")), 0);
    std::string out;
    ASSERT_EQ(Read(Path("short"), out, EVP_rc4()), 0);
    EXPECT_EQ(out, kMarker + kXml);
    out.clear();
    Read(Path("whole"), out, EVP_rc4());
    EXPECT_NE(out, kMarker + kXml);
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
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(Bytes(Path("dec")), kXml);
    EXPECT_EQ(Bytes(plain), kXml);
    EXPECT_EQ(Bytes(Path("x")), "<absent>");
    std::string out;
    ASSERT_EQ(Read(enc, out), 0);
    EXPECT_EQ(out, kMarker + kXml);

    const std::string tool = TIDEWAY_OBFUSCATE_TOOL;
    EXPECT_EQ(RunCommand(tool + " -e -d " + plain + " " + Path("t")), 2);
    EXPECT_EQ(RunCommand(tool + " --decode " + plain + " " + Path("t")), 1);
    const std::string phrase = Write(Path("phrase"), "custom phrase\n");
    ASSERT_EQ(RunCommand(tool + " -p " + phrase + " -e " + plain + " " + Path("t.enc")), 0);
    EXPECT_EQ(RunCommand(tool + " -d " + Path("t.enc") + " " + Path("t.dec")), 1);
    ASSERT_EQ(RunCommand(tool + " -p " + phrase + " -d " + Path("t.enc") + " " + Path("t.dec")), 0);
    EXPECT_EQ(Bytes(Path("t.dec")), kXml);
    EXPECT_EQ(RunCommand(tool + " -d " + enc + " " + Path("no/dir")), 1);
}

}  // namespace
