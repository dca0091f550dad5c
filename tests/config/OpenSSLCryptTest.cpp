#include "common/OpenSSLCrypt.h"

#include <stdlib.h>
#include <sys/wait.h>

#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <openssl/sha.h>

#include "ConfigTestSupport.h"
#include "SyslogCapture.h"
#include "TidewayPassPhrase.h"
#include "config/XMLReadWrite.h"

namespace {

using config_test::ReadFile;
using config_test::TempDir;

const std::string kMarker = "OBFUSCATED";
const std::string kXml =
    "<Tideway><ConfigurationParameters><ipc_port>5003</ipc_port>"
    "</ConfigurationParameters></Tideway>";

int RunCommand(const std::string& command) {
    const int status = system((command + " >/dev/null 2>&1").c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// AES-128-CBC of `plain` under the key rule written out by hand: D1 = SHA-1(phrase),
// D2 = SHA-1(D1 + phrase), key = D1[0..16), IV = D1[16..20) + D2[0..12).
std::string EncryptByTheRule(const std::string& plain, const std::string& phrase) {
    unsigned char d1[SHA_DIGEST_LENGTH];
    unsigned char d2[SHA_DIGEST_LENGTH];
    SHA1(reinterpret_cast<const unsigned char*>(phrase.data()), phrase.size(), d1);
    const std::string second = std::string(reinterpret_cast<char*>(d1), sizeof(d1)) + phrase;
    SHA1(reinterpret_cast<const unsigned char*>(second.data()), second.size(), d2);
    unsigned char iv[16];
    memcpy(iv, d1 + 16, 4);
    memcpy(iv + 4, d2, 12);
    std::vector<unsigned char> out(plain.size() + 16);
    int n = 0;
    int tail = 0;
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    EVP_EncryptInit_ex(ctx, EVP_aes_128_cbc(), nullptr, d1, iv);
    EVP_EncryptUpdate(ctx, out.data(), &n, reinterpret_cast<const unsigned char*>(plain.data()),
                      static_cast<int>(plain.size()));
    EVP_EncryptFinal_ex(ctx, out.data() + n, &tail);
    EVP_CIPHER_CTX_free(ctx);
    return std::string(reinterpret_cast<char*>(out.data()), static_cast<size_t>(n + tail));
}

class OpenSSLCryptTest : public ::testing::Test {
  protected:
    void SetUp() override {
        config_test::InitTrace();
        syslog_capture::Clear();
    }
    std::string Obfuscate(const std::string& name, const std::string& plain,
                          const char* phrase = nullptr) {
        const std::string path = dir.Path(name);
        EXPECT_EQ(COpenSSLCrypt::ObfuscateStringToFile(
                      plain.data(), static_cast<uint32_t>(plain.size()), path.c_str(), phrase),
                  0);
        return path;
    }
    int Read(const std::string& path, std::string& out, const EVP_CIPHER* cipher = nullptr,
             const char* phrase = nullptr) {
        return COpenSSLCrypt::DeObfuscateFiletoStr(
            path.c_str(), out, cipher != nullptr ? cipher : EVP_aes_128_cbc(), phrase);
    }
    TempDir dir;
};

TEST_F(OpenSSLCryptTest, FileIsTheCiphertextOfTheKeyRuleAndReadsBackAppended) {
    const std::string plain = kMarker + kXml;
    const std::string path = Obfuscate("profile", plain);
    const std::string bytes = ReadFile(path);
    EXPECT_EQ(bytes.size(), (plain.size() / 16 + 1) * 16);
    EXPECT_EQ(bytes, EncryptByTheRule(plain, kBuiltInPassPhrase));
    std::string out = "kept:";
    ASSERT_EQ(Read(path, out), 0);
    EXPECT_EQ(out, "kept:" + plain);

    // A caller's pass phrase is used whole, as text.
    const std::string other = Obfuscate("other", plain, "00FF");
    EXPECT_EQ(ReadFile(other), EncryptByTheRule(plain, "00FF"));
    out.clear();
    ASSERT_EQ(Read(other, out, nullptr, "00FF"), 0);
    EXPECT_EQ(out, plain);
    EXPECT_TRUE(syslog_capture::Records().empty());
}

TEST_F(OpenSSLCryptTest, InteroperatesWithTheOpensslCommandLineTool) {
    const std::string phraseFile = dir.Write("phrase", kBuiltInPassPhrase);
    const std::string options = " -aes-128-cbc -md sha1 -nosalt -pass file:" + phraseFile;
    const std::string plain = kMarker + kXml;
    const std::string ours = Obfuscate("ours", plain);
    ASSERT_EQ(
        RunCommand("openssl enc -d" + options + " -in " + ours + " -out " + dir.Path("ours.txt")),
        0);
    EXPECT_EQ(ReadFile(dir.Path("ours.txt")), plain);

    const std::string theirsPlain = dir.Write("theirs.txt", kMarker + "<a>from the tool</a>");
    ASSERT_EQ(RunCommand("openssl enc -e" + options + " -in " + theirsPlain + " -out " +
                         dir.Path("theirs")),
              0);
    std::string out;
    ASSERT_EQ(Read(dir.Path("theirs"), out), 0);
    EXPECT_EQ(out, kMarker + "<a>from the tool</a>");
}

TEST_F(OpenSSLCryptTest, BadFilesFailWithTheirLineAndStayAsTheyWere) {
    const std::string good = ReadFile(Obfuscate("good", kMarker + kXml));
    struct Case {
        const char* name;
        std::string bytes;
        const char* line;
    };
    const std::vector<Case> cases = {
        {"empty", "", "DeObfuscateFiletoStr: bad de-obfuscate\n"},
        {"plain xml", kXml, "DeObfuscateFiletoStr: bad de-obfuscate\n"},
        {"cut by a byte", good.substr(0, good.size() - 1),
         "DeObfuscateFiletoStr: bad de-obfuscate\n"},
        {"other phrase", ReadFile(Obfuscate("x", kMarker + kXml, "another phrase")),
         "DeObfuscateFiletoStr: bad de-obfuscate\n"},
        {"empty plaintext", ReadFile(Obfuscate("y", "")),
         "DeObfuscateFiletoStr: error getting data from mem BIO\n"},
    };
    for (const Case& c : cases) {
        syslog_capture::Clear();
        const std::string path = dir.Write("bad", c.bytes);
        std::string out = "untouched";
        EXPECT_EQ(Read(path, out), -1) << c.name;
        EXPECT_EQ(out, "untouched") << c.name;
        EXPECT_EQ(syslog_capture::Texts(), std::vector<std::string>{c.line}) << c.name;
        EXPECT_EQ(ReadFile(path), c.bytes) << c.name;
    }
    // Nothing to open: -1 without a line.
    syslog_capture::Clear();
    std::string out;
    EXPECT_EQ(Read(dir.Path("missing"), out), -1);
    EXPECT_EQ(COpenSSLCrypt::DeObfuscateFiletoStr(nullptr, out, EVP_aes_128_cbc(), nullptr), -1);
    EXPECT_EQ(COpenSSLCrypt::DeObfuscateFiletoStr(dir.Path("good").c_str(), out, nullptr, nullptr),
              -1);
    EXPECT_TRUE(syslog_capture::Records().empty());
    EXPECT_EQ(Read(dir.Path(""), out), -1);  // a folder
    EXPECT_EQ(out, "");
}

TEST_F(OpenSSLCryptTest, DecodedTextIsCutAtNulAndOnlyTheParserRejectsGarble) {
    std::string out;
    ASSERT_EQ(Read(Obfuscate("nul", kMarker + "<a>1</a>" + std::string(1, '\0') + "rest"), out), 0);
    EXPECT_EQ(out, kMarker + "<a>1</a>");

    // A block altered in the middle decodes without complaint; the XML parse then fails and
    // the store keeps what it had.
    std::string bytes = ReadFile(Obfuscate("garbled", kMarker + kXml + kXml));
    bytes[20] ^= 0x5A;
    out.clear();
    ASSERT_EQ(Read(dir.Write("garbled", bytes), out), 0);
    CXMLReadWrite store;
    ASSERT_EQ(store.LoadFromString(kXml, true), kConfigOk);
    EXPECT_EQ(store.LoadFromString(out.substr(kMarker.size()), true), kConfigFail);
    EXPECT_TRUE(store.NodeExists("Tideway/ConfigurationParameters/ipc_port"));
}

TEST_F(OpenSSLCryptTest, WriterFailuresAreReportedAndTouchNoOtherFile) {
    const std::string inMissingDir = dir.Path("no/such/dir/file");
    EXPECT_EQ(COpenSSLCrypt::ObfuscateStringToFile("x", 1, inMissingDir.c_str(), nullptr), -1);
    EXPECT_EQ(
        syslog_capture::Count("ObfuscateStringToFile Failed to write file: " + inMissingDir + "\n"),
        1u);
    const std::string existing = dir.Write("existing", "precious");
    EXPECT_EQ(COpenSSLCrypt::ObfuscateStringToFile(nullptr, 5, existing.c_str(), nullptr), -1);
    EXPECT_EQ(ReadFile(existing), "precious");
    EXPECT_EQ(syslog_capture::Count("ObfuscateStringToFile: error writing output file\n"), 1u);

    // A full disk: a small text fails when the last block is flushed, a large one at the write.
    syslog_capture::Clear();
    EXPECT_EQ(COpenSSLCrypt::ObfuscateStringToFile("x", 1, "/dev/full", nullptr), -1);
    const std::string large(1 << 16, 'x');
    EXPECT_EQ(
        COpenSSLCrypt::ObfuscateStringToFile(large.data(), large.size(), "/dev/full", nullptr), -1);
    EXPECT_EQ(syslog_capture::Texts(),
              (std::vector<std::string>{"ObfuscateStringToFile: bad de-obfuscate\n",
                                        "ObfuscateStringToFile: error writing output file\n"}));
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
    EXPECT_EQ(Read(dir.Write("garbage", garbage), out), -1);
    EXPECT_TRUE(out.empty());
}

TEST_F(OpenSSLCryptTest, Rc4VariantTakesTheFirst128Characters) {
    const std::string plain = kMarker + kXml;
    const std::string plainFile = dir.Write("plain", plain);
    const std::string rc4 = " -rc4 -md sha1 -nosalt -provider legacy -provider default";
    const std::string first128 = std::string(kBuiltInPassPhrase, 128);
    if (RunCommand("openssl enc -e" + rc4 + " -pass pass:" + first128 + " -in " + plainFile +
                   " -out " + dir.Path("short")) != 0) {
        GTEST_SKIP() << "the openssl tool cannot use RC4 here (no legacy provider)";
    }
    ASSERT_EQ(RunCommand("openssl enc -e" + rc4 + " -pass pass:" + kBuiltInPassPhrase + " -in " +
                         plainFile + " -out " + dir.Path("whole")),
              0);
    std::string out;
    ASSERT_EQ(Read(dir.Path("short"), out, EVP_rc4()), 0);
    EXPECT_EQ(out, plain);
    out.clear();
    Read(dir.Path("whole"), out, EVP_rc4());
    EXPECT_NE(out, plain);
}

TEST_F(OpenSSLCryptTest, ObfuscateFileAndTheToolConvertBothWays) {
    const std::string plainFile = dir.Write("plain.xml", kXml);
    testing::internal::CaptureStdout();
    ASSERT_EQ(COpenSSLCrypt::ObfuscateFile(plainFile.c_str(), dir.Path("enc").c_str(), nullptr, 1),
              0);
    ASSERT_EQ(
        COpenSSLCrypt::ObfuscateFile(dir.Path("enc").c_str(), dir.Path("dec").c_str(), nullptr, 0),
        0);
    // Refused: the same file both ways, undecodable input; an unopenable output is only told.
    EXPECT_EQ(COpenSSLCrypt::ObfuscateFile(plainFile.c_str(), plainFile.c_str(), nullptr, 1), -1);
    EXPECT_EQ(COpenSSLCrypt::ObfuscateFile(plainFile.c_str(), dir.Path("x").c_str(), nullptr, 0),
              -1);
    EXPECT_EQ(COpenSSLCrypt::ObfuscateFile(dir.Path("enc").c_str(), dir.Path("no/dir").c_str(),
                                           nullptr, 0),
              0);
    const std::string printed = testing::internal::GetCapturedStdout();
    const size_t encoded = (kMarker.size() + kXml.size()) / 16 * 16 + 16;
    char expected[512];
    snprintf(expected, sizeof(expected),
             "bytes read   : %8zu\nbytes written: %8zu (obfuscated)\n"
             "bytes written: %8zu (de-obfuscated)\nInput and output are the same file: %s\n"
             "Error when writing de-obfuscated string\n",
             kXml.size(), encoded, kXml.size(), plainFile.c_str());
    EXPECT_EQ(printed, expected);
    EXPECT_EQ(ReadFile(dir.Path("dec")), kXml);
    EXPECT_EQ(ReadFile(plainFile), kXml);
    std::string out;
    ASSERT_EQ(Read(dir.Path("enc"), out), 0);
    EXPECT_EQ(out, kMarker + kXml);

    const std::string tool = TIDEWAY_OBFUSCATE_TOOL;
    EXPECT_EQ(RunCommand(tool + " -e -d " + plainFile + " " + dir.Path("t")), 2);
    EXPECT_EQ(RunCommand(tool + " --decode " + plainFile + " " + dir.Path("t")), 1);
    const std::string phrase = dir.Write("phrase", "custom phrase\n");
    ASSERT_EQ(RunCommand(tool + " -p " + phrase + " -e " + plainFile + " " + dir.Path("t.enc")), 0);
    EXPECT_EQ(RunCommand(tool + " -d " + dir.Path("t.enc") + " " + dir.Path("t.dec")), 1);
    ASSERT_EQ(
        RunCommand(tool + " -p " + phrase + " -d " + dir.Path("t.enc") + " " + dir.Path("t.dec")),
        0);
    EXPECT_EQ(ReadFile(dir.Path("t.dec")), kXml);
    EXPECT_EQ(RunCommand(tool + " -d " + dir.Path("enc") + " " + dir.Path("no/dir")), 1);
}

}  // namespace
