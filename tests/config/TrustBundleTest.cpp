// The trust-bundle check and the key, digest and encoding helpers, against the openssl tool.
#include <string.h>

#include <openssl/pem.h>

#include "ConfigTestSupport.h"
#include "common/Utils.h"

#pragma GCC diagnostic ignored "-Wdeprecated-declarations"  // the helpers take RSA and DSA keys

namespace {

using config_test::Write;

class OpenSSLToolTest : public ::testing::Test {
  protected:
    void SetUp() override { config_test::InitTrace(), syslog_capture::Clear(); }
    std::string Path(const std::string& name) const { return root.path() + "/" + name; }
    std::string File(const std::string& name) const { return config_test::Bytes(Path(name)); }
    void Run(const std::string& script) {
        std::string out;
        ASSERT_EQ(config_test::Shell(root.path(), "set -e\n" + script, &out), 0) << out;
    }
    TempRoot root;
};

// ca NAME: a certificate authority NAME.pem with NAME.key; leaf NAME CA: NAME.pem signed by CA;
// sign IN SIGNER OUT: a DER bundle OUT signed by SIGNER with IN inside.
const std::string kMakers = R"(
ca() { openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout $1.key \
  -out $1.pem -subj /CN=$1 -days 2; }
leaf() { openssl req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout $1.key \
  -out $1.csr -subj /CN=$1 && openssl x509 -req -in $1.csr -CA $2.pem -CAkey $2.key \
  -set_serial 7 -days 2 -out $1.pem; }
sign() { openssl cms -sign -binary -nodetach -in $1 -signer $2.pem -inkey $2.key -outform DER \
  -out $3; }
obf() { )" TIDEWAY_OBFUSCATE_TOOL R"( --encode $1 $2; }
)";

TEST_F(OpenSSLToolTest, TrustBundleVerifiesOnlyAgainstTheRootAndYieldsItsCertificates) {
    Run(kMakers + R"(ca root; ca foreign; leaf leaf1 root; leaf leaf2 root
openssl crl2pkcs7 -nocrl -certfile leaf1.pem -certfile leaf2.pem -outform DER -out inner.der
openssl crl2pkcs7 -nocrl -outform DER -out empty.der; printf 'not a structure' > text.bin
openssl cms -data_create -in text.bin -outform DER -out data.der
sign inner.der root good.p7b; sign inner.der foreign foreign.p7b
sign empty.der root empty.p7b; sign text.bin root text.p7b; sign data.der root data.p7b
cat foreign.pem root.pem > two.pem; obf root.pem root.cfg; obf two.pem two.cfg; obf text.bin junk.cfg
)");
    const std::string good = File("good.p7b");
    config_test::WriteObfuscated(Path("nomarker.cfg"), File("root.pem"), false);
    std::string flipped = good;  // a flipped byte in the signed content
    const size_t at = good.find(File("inner.der").substr(40, 16));
    ASSERT_NE(at, std::string::npos);
    flipped[at] ^= 0x01;
    Write(Path("flipped.p7b"), flipped);
    Write(Path("cut.p7b"), good.substr(0, good.size() - 20));
    const auto verify = [&](const char* bundle, const char* rootFile, std::string& output) {
        syslog_capture::Clear();
        return COpenSSLCrypt::VerifyTrustBundle(Path(bundle).c_str(), Path(rootFile).c_str(),
                                                output);
    };

    std::string output;
    ASSERT_EQ(verify("good.p7b", "root.cfg", output), 0)
        << ::testing::PrintToString(syslog_capture::Texts());
    EXPECT_EQ(output, File("leaf1.pem") + File("leaf2.pem"));
    EXPECT_TRUE(syslog_capture::Texts().empty());
    output = "kept";  // an empty certificate list verifies and writes nothing
    EXPECT_EQ(verify("empty.p7b", "root.cfg", output), 0);
    EXPECT_EQ(output, "kept");

    const std::string cms = "OpenSSLCrypt: CMS verification failed 0 ",
                      d2i = "OpenSSLCrypt: d2i_PKCS7_bio conversion failed";
    // Bundle, root file, and the start of the last ERR line.
    const std::tuple<const char*, const char*, std::string> cases[] = {
        {"foreign.p7b", "root.cfg", cms},
        {"flipped.p7b", "root.cfg", cms},
        {"good.p7b", "two.cfg", cms},  // only the first certificate is taken
        {"cut.p7b", "root.cfg", d2i + "\n"},
        {"text.p7b", "root.cfg", d2i + " "},
        {"missing.p7b", "root.cfg", "OpenSSLCrypt: Reading trusted bundle file failed\n"},
        {"good.p7b", "root.pem", "Error in reading RootCA.cfg\n"},  // plain, not obfuscated
        {"good.p7b", "nomarker.cfg", "RootCA.cfg file is corrupted\n"},
        {"good.p7b", "junk.cfg",
         "OpenSSLCrypt: Conversion from (pem to bio)/(pkcs7 to bio) failed no start line "},
        {"data.p7b", "root.cfg", "OpenSSLCrypt: PKCS7 stucture is not signed\n"},
    };
    for (const auto& [bundle, rootFile, line] : cases) {
        SCOPED_TRACE(std::string(bundle) + " " + rootFile);
        std::string kept = "kept";
        EXPECT_EQ(verify(bundle, rootFile, kept), -1);
        EXPECT_EQ(kept, "kept");
        const std::vector<std::string> texts = syslog_capture::Texts();
        EXPECT_EQ(texts.empty() ? "" : texts.back().substr(0, line.size()), line);
    }
}

const unsigned char* U(const std::string& s) {
    return reinterpret_cast<const unsigned char*>(s.data());
}

std::string FromHex(const std::string& hex) {
    std::vector<unsigned char> bytes;
    std::string error;
    EXPECT_TRUE(HexDecode(hex.data(), static_cast<int>(hex.size()), bytes, error)) << error;
    return std::string(bytes.begin(), bytes.end());
}

TEST_F(OpenSSLToolTest, DigestsAndBase64MatchPublishedVectors) {
    const std::string two = "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq";
    const std::tuple<const char*, std::string, std::string> digests[] = {
        {"SHA1", "abc", "A9993E364706816ABA3E25717850C26C9CD0D89D"},
        {"sha256", two, "248D6A61D20638B8E5C026930C3E6039A33CE45964FF2167F6ECEDD419DB06C1"},
        {"NOSUCH", "abc", ""},
    };
    for (const auto& [name, text, hex] : digests) {
        std::vector<unsigned char> digest(3, 0xEE);
        unsigned int length = 7;
        EXPECT_EQ(COpenSSLCrypt::DigestText(text.c_str(), name, digest, &length), !hex.empty());
        EXPECT_EQ(std::string(digest.begin(), digest.begin() + length), FromHex(hex)) << name;
        EXPECT_EQ(digest.size(), 64u);
    }
    EXPECT_EQ(config_test::Logged("Error : Unknown message digest [NOSUCH]"), 1u);

    // The vectors of the base64 standard, then 100 bytes: lines of 64 characters, and back.
    std::string bytes(100, '\0');
    for (size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<char>(i * 37);
    const std::pair<std::string, std::string> vectors[] = {
        {"f", "Zg=="},         {"fo", "Zm8="},         {"foo", "Zm9v"}, {"foob", "Zm9vYg=="},
        {"fooba", "Zm9vYmE="}, {"foobar", "Zm9vYmFy"}, {bytes, ""},
    };
    for (const auto& [plain, base64] : vectors) {
        std::string encoded = ">";
        ASSERT_EQ(COpenSSLCrypt::Base64Encode(U(plain), int(plain.size()), encoded), 0);
        if (base64.empty())
            EXPECT_EQ(encoded.find('\n'), 65u);
        else
            EXPECT_EQ(encoded, ">" + base64 + "\n");
        for (std::string text :
             {encoded.substr(1), encoded.substr(1, encoded.size() - 2) + "\r\n"}) {
            int length = -1;
            std::unique_ptr<unsigned char[]> decoded(
                COpenSSLCrypt::Base64Decode(text.c_str(), int(text.size()), &length));
            ASSERT_NE(decoded, nullptr) << text;
            EXPECT_EQ(std::string(reinterpret_cast<char*>(decoded.get()), length), plain);
        }
    }
    std::string encoded;
    EXPECT_EQ(COpenSSLCrypt::Base64Encode(nullptr, 3, encoded), -2);
    EXPECT_EQ(COpenSSLCrypt::Base64Encode(U("x"), 0, encoded), -2);
    syslog_capture::Clear();
    int length = 0;
    EXPECT_EQ(COpenSSLCrypt::Base64Decode("!!!!\n", 5, &length), nullptr);
    EXPECT_THAT(syslog_capture::Texts(),
                testing::ElementsAre(testing::StartsWith("OpenSSLCrypt : Failed in BIO_read. ")));
}

// RSACrypt's output with OAEP padding as bytes (hexadecimal only when encrypting), its buffer
// freed; "<failed>" on failure.
std::string RsaCrypt(const std::string& in, RSA* key, bool encrypt, bool hex) {
    ENCRYPT_CHAR_BUFFER* out = nullptr;
    if (COpenSSLCrypt::RSACrypt(U(in), int(in.size()), key, RSA_PKCS1_OAEP_PADDING, &out, encrypt,
                                hex) != 0)
        return out == nullptr ? "<failed>" : "<failed, output set>";
    const std::string bytes(reinterpret_cast<char*>(out->data), out->length);
    EXPECT_EQ(out->size, 8096u);
    delete[] out->data;
    delete out;
    return hex && encrypt ? FromHex(bytes) : bytes;
}

TEST_F(OpenSSLToolTest, KeysRoundTripWithTheTool) {
    Run(kMakers + R"(ca ca; printf 'session secret' > msg
openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out rsa.pem
openssl pkey -in rsa.pem -pubout -out rsapub.pem
openssl pkeyutl -encrypt -pubin -inkey rsapub.pem -pkeyopt rsa_padding_mode:oaep -in msg -out msg.rsa
openssl genpkey -genparam -algorithm DSA -pkeyopt dsa_paramgen_bits:1024 -out dsap.pem
openssl genpkey -paramfile dsap.pem -out dsa.pem; openssl dgst -sha1 -binary -out msg.sha1 msg
openssl pkeyutl -sign -inkey dsa.pem -in msg.sha1 -out msg.sig
)");
    EVP_PKEY *privateKey = nullptr, *publicKey = nullptr, *dsaKey = nullptr, *caKey = nullptr,
             *fromCertificate = nullptr, *none = nullptr;
    ASSERT_EQ(COpenSSLCrypt::ReadPrivateKey(Path("rsa.pem").c_str(), &privateKey), 0);
    ASSERT_EQ(COpenSSLCrypt::ReadPublicKey(Path("rsapub.pem").c_str(), &publicKey), 0);
    ASSERT_EQ(COpenSSLCrypt::ReadPrivateKey(Path("dsa.pem").c_str(), &dsaKey), 0);
    ASSERT_EQ(COpenSSLCrypt::ReadPrivateKey(Path("ca.key").c_str(), &caKey), 0);
    EXPECT_EQ(COpenSSLCrypt::ReadPublicKey(Path("none.pem").c_str(), &none), -3);
    RSA* rsaPrivate = EVP_PKEY_get1_RSA(privateKey);
    RSA* rsaPublic = EVP_PKEY_get1_RSA(publicKey);

    // The tool's ciphertext opens; ours, from the key read and from one built of its numbers,
    // in hexadecimal or not, opens with the private key.
    const std::string message = "session secret";
    EXPECT_EQ(RsaCrypt(File("msg.rsa"), rsaPrivate, false, true), message);
    char* modulus = BN_bn2hex(RSA_get0_n(rsaPublic));
    RSA* built = nullptr;
    ASSERT_EQ(COpenSSLCrypt::CreateRSAKey(modulus, "010001", &built), 0);
    OPENSSL_free(modulus);
    for (RSA* key : {rsaPublic, built}) {
        for (const bool hex : {true, false}) {
            const std::string sealed = RsaCrypt(message, key, true, hex);
            EXPECT_EQ(sealed.size(), 256u);
            EXPECT_EQ(RsaCrypt(sealed, rsaPrivate, false, false), message);
        }
    }
    EXPECT_EQ(RsaCrypt("xx", rsaPrivate, false, false), "<failed>");
    RSA_free(built);
    EXPECT_EQ(COpenSSLCrypt::CreateRSAKey("zz", "010001", &built), 3);
    EXPECT_EQ(built, nullptr);
    EXPECT_EQ(syslog_capture::CountContaining("OpenSSLCrypt: RSA_private_decrypt failed. Error : "),
              1u);
    EXPECT_EQ(syslog_capture::CountContaining("OpenSSLCrypt: Failed in BN_hex2bn for modulus."),
              1u);

    // The tool's DSA signature: valid, then a changed digest, a damaged signature, no digest.
    DSA* dsa = EVP_PKEY_get1_DSA(dsaKey);
    std::string digest = File("msg.sha1");
    const auto verify = [&](const std::string& s, int* status) {
        syslog_capture::Clear();
        return COpenSSLCrypt::VerifyDSASignature(U(digest), int(digest.size()), U(s), int(s.size()),
                                                 dsa, status);
    };
    int status = 7;
    EXPECT_EQ(verify(File("msg.sig"), &status), 1);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(verify("garbage", &status), -1);
    EXPECT_THAT(syslog_capture::Texts(),
                testing::ElementsAre(
                    "Error : Failed in DSA_verify. Code: " + std::to_string(status) + "\n"));
    digest[0] ^= 1;
    EXPECT_EQ(verify(File("msg.sig"), &status), 0);
    EXPECT_EQ(config_test::Logged("Error : Incorrect signature"), 1u);
    EXPECT_EQ(COpenSSLCrypt::VerifyDSASignature(nullptr, 20, nullptr, 0, dsa, &status), -1);
    EXPECT_EQ(status, -1);

    // A certificate's public key is the CA's key; text that is no certificate is refused.
    ASSERT_EQ(COpenSSLCrypt::GetPublicKeyFromCertificate(File("ca.pem"), &fromCertificate), 0);
    EXPECT_EQ(EVP_PKEY_eq(fromCertificate, caKey), 1);
    EVP_PKEY_free(fromCertificate);
    EXPECT_EQ(COpenSSLCrypt::GetPublicKeyFromCertificate("no pem", &fromCertificate), -1);

    // Session data: a DES key with odd parity; triple DES that the tool deciphers.
    unsigned char* desKey = nullptr;
    ASSERT_EQ(COpenSSLCrypt::GenerateDESKey(&desKey), 0);
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(__builtin_popcount(desKey[i]) % 2, 1);
    free(desKey);
    const unsigned char key[24] = {1,  2,  3,  4,  5,  6,  7,  8,  9,  10, 11, 12,
                                   13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24};
    std::string data = "a session of twenty-one";
    ENCRYPT_CHAR_BUFFER record{reinterpret_cast<unsigned char*>(&data[0]), 8096, 23};
    char* hex = COpenSSLCrypt::EncryptSessionData(&record, key);
    ASSERT_NE(hex, nullptr);
    EXPECT_EQ(strlen(hex), 48u);  // 23 bytes padded to 24
    Write(Path("session.bin"), FromHex(hex));
    delete[] hex;
    Run("openssl enc -d -des-ede3 -K 0102030405060708090A0B0C0D0E0F101112131415161718"
        " -in session.bin -out session.txt");
    EXPECT_EQ(File("session.txt"), data);

    RSA_free(rsaPrivate);
    RSA_free(rsaPublic);
    DSA_free(dsa);
    for (EVP_PKEY* k : {privateKey, publicKey, dsaKey, caKey, fromCertificate})
        EVP_PKEY_free(k);
}

}  // namespace
