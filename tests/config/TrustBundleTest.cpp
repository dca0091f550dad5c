// The trust-bundle check and the key, digest and encoding helpers, against the openssl tool:
// certificates, bundles, keys and signatures are made by the tool at test time.
#include <stdlib.h>
#include <sys/wait.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <openssl/pem.h>

#include "ConfigTestSupport.h"
#include "common/OpenSSLCrypt.h"
#include "common/Utils.h"

#pragma GCC diagnostic ignored "-Wdeprecated-declarations"  // the helpers take RSA and DSA keys

namespace {

using config_test::Bytes;
using config_test::Write;

class OpenSSLToolTest : public ::testing::Test {
  protected:
    void SetUp() override {
        config_test::InitTrace();
        syslog_capture::Clear();
    }
    std::string Path(const std::string& name) const { return root.path() + "/" + name; }
    // Runs a shell command in the scratch directory; fails the test on a non-zero exit.
    void Run(const std::string& command) {
        const int status =
            system(("cd " + root.path() + " && (" + command + ") >tool.log 2>&1").c_str());
        ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << command << "\n"
                                                                   << Bytes(Path("tool.log"));
    }
    static std::vector<std::string> ErrTexts() { return syslog_capture::Texts(); }
    TempRoot root;
};

// A certificate authority with its key: NAME.key, NAME.pem.
std::string MakeCa(const std::string& name) {
    return "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout " + name +
           ".key -out " + name + ".pem -subj /CN=" + name + " -days 2";
}
// A leaf NAME.pem signed by CA.
std::string MakeLeaf(const std::string& name, const std::string& ca) {
    return "openssl req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout " + name +
           ".key -out " + name + ".csr -subj /CN=" + name + " && openssl x509 -req -in " + name +
           ".csr -CA " + ca + ".pem -CAkey " + ca + ".key -set_serial 7 -days 2 -out " + name +
           ".pem";
}
// CONTENT signed by SIGNER, as a DER bundle OUT with the content inside.
std::string Sign(const std::string& content, const std::string& signer, const std::string& out) {
    return "openssl cms -sign -binary -nodetach -in " + content + " -signer " + signer +
           ".pem -inkey " + signer + ".key -outform DER -out " + out;
}

TEST_F(OpenSSLToolTest, TrustBundleVerifiesOnlyAgainstTheRootAndYieldsItsCertificates) {
    Run(MakeCa("root") + " && " + MakeCa("foreign") + " && " + MakeLeaf("leaf1", "root") + " && " +
        MakeLeaf("leaf2", "root") +
        " && openssl crl2pkcs7 -nocrl -certfile leaf1.pem -certfile leaf2.pem -outform DER"
        " -out inner.der && openssl crl2pkcs7 -nocrl -outform DER -out empty.der"
        " && printf 'not a structure' > text.bin"
        " && openssl cms -data_create -in text.bin -outform DER -out data.der && " +
        Sign("inner.der", "root", "good.p7b") + " && " +
        Sign("inner.der", "foreign", "foreign.p7b") + " && " +
        Sign("inner.der", "leaf1", "byleaf.p7b") + " && " + Sign("empty.der", "root", "empty.p7b") +
        " && " + Sign("text.bin", "root", "text.p7b") + " && " +
        Sign("data.der", "root", "data.p7b") + " && cat foreign.pem root.pem > two.pem" +
        " && " TIDEWAY_OBFUSCATE_TOOL " --encode root.pem root.cfg && " TIDEWAY_OBFUSCATE_TOOL
        " --encode two.pem two.cfg && " TIDEWAY_OBFUSCATE_TOOL " --encode text.bin junk.cfg");
    const std::string rootPem = Bytes(Path("root.pem"));
    ASSERT_EQ(COpenSSLCrypt::ObfuscateStringToFile(rootPem.data(), rootPem.size(),
                                                   Path("nomarker.cfg").c_str(), nullptr),
              0);

    std::string output;
    ASSERT_EQ(COpenSSLCrypt::VerifyTrustBundle(Path("good.p7b").c_str(), Path("root.cfg").c_str(),
                                               output),
              0)
        << ::testing::PrintToString(ErrTexts());
    EXPECT_EQ(output, Bytes(Path("leaf1.pem")) + Bytes(Path("leaf2.pem")));
    EXPECT_TRUE(ErrTexts().empty());

    // A flipped byte in the signed content, and a bundle cut short.
    std::string good = Bytes(Path("good.p7b"));
    const size_t at = good.find(Bytes(Path("inner.der")).substr(40, 16));
    ASSERT_NE(at, std::string::npos);
    std::string flipped = good;
    flipped[at] ^= 0x01;
    Write(Path("flipped.p7b"), flipped);
    Write(Path("cut.p7b"), good.substr(0, good.size() - 20));

    const std::string cmsFailed = "OpenSSLCrypt: CMS verification failed 0 ";
    const struct {
        const char* bundle;
        const char* rootFile;
        std::string line;  // the start of the one ERR line
    } cases[] = {
        {"foreign.p7b", "root.cfg", cmsFailed},
        {"byleaf.p7b", "root.cfg", cmsFailed},  // chains to the root, still not the root
        {"flipped.p7b", "root.cfg", cmsFailed},
        {"cut.p7b", "root.cfg", "OpenSSLCrypt: d2i_PKCS7_bio conversion failed\n"},
        {"missing.p7b", "root.cfg", "OpenSSLCrypt: Reading trusted bundle file failed\n"},
        {"root.cfg", "root.cfg", "OpenSSLCrypt: d2i_PKCS7_bio conversion failed\n"},
        {"good.p7b", "root.pem", "Error in reading RootCA.cfg\n"},  // after the reader's line
        {"good.p7b", "missing.cfg", "Error in reading RootCA.cfg\n"},
        {"good.p7b", "nomarker.cfg", "RootCA.cfg file is corrupted\n"},
        {"good.p7b", "junk.cfg",
         "OpenSSLCrypt: Conversion from (pem to bio)/(pkcs7 to bio) "
         "failed no start line "},
        {"good.p7b", "two.cfg", cmsFailed},  // only the first certificate is taken
        {"text.p7b", "root.cfg", "OpenSSLCrypt: d2i_PKCS7_bio conversion failed "},
        {"data.p7b", "root.cfg", "OpenSSLCrypt: PKCS7 stucture is not signed\n"},
    };
    for (const auto& c : cases) {
        syslog_capture::Clear();
        std::string kept = "kept";
        EXPECT_EQ(COpenSSLCrypt::VerifyTrustBundle(Path(c.bundle).c_str(), Path(c.rootFile).c_str(),
                                                   kept),
                  -1)
            << c.bundle << " " << c.rootFile;
        EXPECT_EQ(kept, "kept") << c.bundle;
        const std::vector<std::string> texts = ErrTexts();
        ASSERT_FALSE(texts.empty()) << c.bundle << " " << c.rootFile;
        EXPECT_EQ(texts.back().substr(0, c.line.size()), c.line) << c.bundle << " " << c.rootFile;
    }
    // An empty certificate list verifies and leaves the output as it was.
    std::string kept = "kept";
    EXPECT_EQ(
        COpenSSLCrypt::VerifyTrustBundle(Path("empty.p7b").c_str(), Path("root.cfg").c_str(), kept),
        0);
    EXPECT_EQ(kept, "kept");
}

std::string Hex(const std::vector<unsigned char>& bytes, size_t length) {
    char* text = HexEncode(bytes.data(), static_cast<int>(length));
    const std::string hex(text);
    delete[] text;
    return hex;
}

TEST_F(OpenSSLToolTest, DigestsAndBase64MatchPublishedVectors) {
    const std::string two = "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq";
    const struct {
        const char* name;
        std::string text, hex;
    } digests[] = {
        {"SHA1", "abc", "A9993E364706816ABA3E25717850C26C9CD0D89D"},
        {"SHA1", two, "84983E441C3BD26EBAAE4AA1F95129E5E54670F1"},
        {"SHA256", "abc", "BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD"},
        {"sha256", two, "248D6A61D20638B8E5C026930C3E6039A33CE45964FF2167F6ECEDD419DB06C1"},
    };
    for (const auto& d : digests) {
        std::vector<unsigned char> digest(3, 0xEE);
        unsigned int length = 0;
        ASSERT_TRUE(COpenSSLCrypt::DigestText(d.text.c_str(), d.name, digest, &length)) << d.name;
        EXPECT_EQ(digest.size(), 64u);
        EXPECT_EQ(Hex(digest, length), d.hex) << d.name << " " << d.text;
    }
    std::vector<unsigned char> digest;
    unsigned int length = 99;
    EXPECT_FALSE(COpenSSLCrypt::DigestText("abc", "NOSUCH", digest, &length));
    EXPECT_EQ(config_test::Logged("Error : Unknown message digest [NOSUCH]"), 1u);

    const std::pair<std::string, std::string> vectors[] = {
        {"f", "Zg=="},        {"fo", "Zm8="},        {"foo", "Zm9v"},
        {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="}, {"foobar", "Zm9vYmFy"},
    };
    for (const auto& v : vectors) {
        std::string encoded = ">";
        ASSERT_EQ(
            COpenSSLCrypt::Base64Encode(reinterpret_cast<const unsigned char*>(v.first.data()),
                                        static_cast<int>(v.first.size()), encoded),
            0);
        EXPECT_EQ(encoded, ">" + v.second + "\n");
        for (const std::string& text : {v.second + "\n", v.second + "\r\n"}) {
            int decodedLength = -1;
            unsigned char* decoded = COpenSSLCrypt::Base64Decode(
                text.c_str(), static_cast<int>(text.size()), &decodedLength);
            ASSERT_NE(decoded, nullptr) << text;
            EXPECT_EQ(std::string(reinterpret_cast<char*>(decoded), decodedLength), v.first);
            delete[] decoded;
        }
    }
    // Long input: lines of 64 characters, and back.
    std::string bytes(100, '\0');
    for (size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<char>(i * 37);
    std::string encoded;
    ASSERT_EQ(COpenSSLCrypt::Base64Encode(reinterpret_cast<const unsigned char*>(bytes.data()), 100,
                                          encoded),
              0);
    EXPECT_EQ(encoded.find('\n'), 64u);
    int decodedLength = 0;
    unsigned char* decoded = COpenSSLCrypt::Base64Decode(
        encoded.c_str(), static_cast<int>(encoded.size()), &decodedLength);
    ASSERT_NE(decoded, nullptr);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(decoded), decodedLength), bytes);
    delete[] decoded;
    // Bad arguments and undecodable text.
    EXPECT_EQ(COpenSSLCrypt::Base64Encode(nullptr, 3, encoded), -2);
    EXPECT_EQ(COpenSSLCrypt::Base64Encode(reinterpret_cast<const unsigned char*>("x"), 0, encoded),
              -2);
    syslog_capture::Clear();
    EXPECT_EQ(COpenSSLCrypt::Base64Decode("!!!!\n", 5, &decodedLength), nullptr);
    ASSERT_EQ(ErrTexts().size(), 1u);
    EXPECT_EQ(ErrTexts()[0].rfind("OpenSSLCrypt : Failed in BIO_read. Error : ", 0), 0u);
}

TEST_F(OpenSSLToolTest, KeysRoundTripWithTheTool) {
    Run("openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out rsa.pem"
        " && openssl pkey -in rsa.pem -pubout -out rsapub.pem && printf 'session secret' > msg"
        " && openssl pkeyutl -encrypt -pubin -inkey rsapub.pem -pkeyopt rsa_padding_mode:oaep"
        " -in msg -out msg.rsa"
        " && openssl genpkey -genparam -algorithm DSA -pkeyopt dsa_paramgen_bits:1024 -out dsap.pem"
        " && openssl genpkey -paramfile dsap.pem -out dsa.pem"
        " && openssl dgst -sha1 -binary -out msg.sha1 msg"
        " && openssl pkeyutl -sign -inkey dsa.pem -in msg.sha1 -out msg.sig" +
        std::string(" && ") + MakeCa("ca"));
    EVP_PKEY* privateKey = nullptr;
    EVP_PKEY* publicKey = nullptr;
    EVP_PKEY* dsaKey = nullptr;
    ASSERT_EQ(COpenSSLCrypt::ReadPrivateKey(Path("rsa.pem").c_str(), &privateKey), 0);
    ASSERT_EQ(COpenSSLCrypt::ReadPublicKey(Path("rsapub.pem").c_str(), &publicKey), 0);
    ASSERT_EQ(COpenSSLCrypt::ReadPrivateKey(Path("dsa.pem").c_str(), &dsaKey), 0);
    ASSERT_TRUE(privateKey && publicKey && dsaKey);
    RSA* rsaPrivate = EVP_PKEY_get1_RSA(privateKey);
    RSA* rsaPublic = EVP_PKEY_get1_RSA(publicKey);
    EXPECT_EQ(COpenSSLCrypt::GetKeySize(rsaPublic), 256);
    EXPECT_EQ(COpenSSLCrypt::GetKeySize(nullptr), -2);

    // The tool's ciphertext decrypts; ours, hexadecimal or not, decrypts back.
    const std::string message = "session secret", sealed = Bytes(Path("msg.rsa"));
    ENCRYPT_CHAR_BUFFER* out = nullptr;
    ASSERT_EQ(COpenSSLCrypt::RSACrypt(reinterpret_cast<const unsigned char*>(sealed.data()),
                                      static_cast<int>(sealed.size()), rsaPrivate,
                                      RSA_PKCS1_OAEP_PADDING, &out, false, true),
              0);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(out->data), out->length), message);
    EXPECT_EQ(out->size, 8096u);
    delete[] out->data;
    delete out;
    // A key built from the public numbers encrypts to text that the private key opens.
    char* modulus = BN_bn2hex(RSA_get0_n(rsaPublic));
    RSA* built = nullptr;
    ASSERT_EQ(COpenSSLCrypt::CreateRSAKey(modulus, "010001", &built), 0);
    OPENSSL_free(modulus);
    for (RSA* key : {rsaPublic, built}) {
        ASSERT_EQ(COpenSSLCrypt::RSACrypt(reinterpret_cast<const unsigned char*>(message.data()),
                                          static_cast<int>(message.size()), key,
                                          RSA_PKCS1_OAEP_PADDING, &out, true, true),
                  0);
        ASSERT_EQ(out->length, 512u);
        std::vector<unsigned char> cipher;
        std::string error;
        ASSERT_TRUE(HexDecode(reinterpret_cast<char*>(out->data), 512, cipher, error));
        delete[] out->data;
        delete out;
        ASSERT_EQ(COpenSSLCrypt::RSACrypt(cipher.data(), 256, rsaPrivate, RSA_PKCS1_OAEP_PADDING,
                                          &out, false, false),
                  0);
        EXPECT_EQ(std::string(reinterpret_cast<char*>(out->data), out->length), message);
        delete[] out->data;
        delete out;
    }
    syslog_capture::Clear();
    EXPECT_EQ(COpenSSLCrypt::RSACrypt(reinterpret_cast<const unsigned char*>("xx"), 2, rsaPrivate,
                                      RSA_PKCS1_OAEP_PADDING, &out, false, false),
              -1);
    EXPECT_EQ(out, nullptr);
    RSA_free(built);
    EXPECT_EQ(COpenSSLCrypt::CreateRSAKey("zz", "010001", &built), 3);
    EXPECT_EQ(built, nullptr);
    ASSERT_EQ(ErrTexts().size(), 2u);
    EXPECT_EQ(ErrTexts()[0].rfind("OpenSSLCrypt: RSA_private_decrypt failed. Error : error:", 0),
              0u);
    EXPECT_EQ(ErrTexts()[1].rfind("OpenSSLCrypt: Failed in BN_hex2bn for modulus. Error : ", 0),
              0u);

    // The tool's DSA signature: valid, then a changed digest, a damaged signature, no digest.
    DSA* dsa = EVP_PKEY_get1_DSA(dsaKey);
    std::string digest = Bytes(Path("msg.sha1"));
    const std::string signature = Bytes(Path("msg.sig"));
    const auto verify = [&](const std::string& d, const std::string& s, int* status) {
        return COpenSSLCrypt::VerifyDSASignature(reinterpret_cast<const unsigned char*>(d.data()),
                                                 static_cast<int>(d.size()),
                                                 reinterpret_cast<const unsigned char*>(s.data()),
                                                 static_cast<int>(s.size()), dsa, status);
    };
    int status = 7;
    syslog_capture::Clear();
    EXPECT_EQ(verify(digest, signature, &status), 1);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(ErrTexts(), std::vector<std::string>{
                              "Valid signature.  Digest and signature verification succeeded.\n"});
    digest[0] ^= 1;
    EXPECT_EQ(verify(digest, signature, &status), 0);
    EXPECT_EQ(config_test::Logged("Error : Incorrect signature"), 1u);
    syslog_capture::Clear();
    EXPECT_EQ(verify(Bytes(Path("msg.sha1")), "garbage", &status), -1);
    ASSERT_EQ(ErrTexts().size(), 1u);
    EXPECT_EQ(ErrTexts()[0],
              "Error : Failed in DSA_verify. Code: " + std::to_string(status) + "\n");
    EXPECT_EQ(COpenSSLCrypt::VerifyDSASignature(nullptr, 20, nullptr, 0, dsa, &status), -1);
    EXPECT_EQ(status, -1);
    EXPECT_EQ(config_test::Logged("Error : Digest buffer poiner is NULL"), 1u);

    // The public key of a certificate is the CA's key; text that is no certificate is refused.
    EVP_PKEY* fromCertificate = nullptr;
    EVP_PKEY* caKey = nullptr;
    ASSERT_EQ(COpenSSLCrypt::ReadPrivateKey(Path("ca.key").c_str(), &caKey), 0);
    ASSERT_EQ(COpenSSLCrypt::GetPublicKeyFromCertificate(Bytes(Path("ca.pem")), &fromCertificate),
              0);
    EXPECT_EQ(EVP_PKEY_eq(fromCertificate, caKey), 1);
    EVP_PKEY_free(fromCertificate);
    EXPECT_EQ(COpenSSLCrypt::GetPublicKeyFromCertificate("no pem", &fromCertificate), -1);
    EXPECT_EQ(config_test::Logged("Error reading the certificate"), 1u);
    EVP_PKEY* none = nullptr;
    EXPECT_EQ(COpenSSLCrypt::ReadPublicKey(Path("none.pem").c_str(), &none), -3);
    EXPECT_EQ(none, nullptr);

    // Session data: a DES key with odd parity; triple DES that the tool deciphers.
    unsigned char* desKey = nullptr;
    ASSERT_EQ(COpenSSLCrypt::GenerateDESKey(&desKey), 0);
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(__builtin_popcount(desKey[i]) % 2, 1);
    free(desKey);
    const unsigned char key[24] = {1,  2,  3,  4,  5,  6,  7,  8,  9,  10, 11, 12,
                                   13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24};
    std::string data = "a session of twenty-one";
    ENCRYPT_CHAR_BUFFER record{reinterpret_cast<unsigned char*>(&data[0]), 8096,
                               static_cast<uint32_t>(data.size())};
    char* hex = COpenSSLCrypt::EncryptSessionData(&record, key);
    ASSERT_NE(hex, nullptr);
    EXPECT_EQ(strlen(hex), 48u);  // 23 bytes padded to 24
    std::vector<unsigned char> sessionCipher;
    std::string error;
    ASSERT_TRUE(HexDecode(hex, static_cast<int>(strlen(hex)), sessionCipher, error));
    delete[] hex;
    Write(Path("session.bin"),
          std::string(reinterpret_cast<char*>(sessionCipher.data()), sessionCipher.size()));
    Run("openssl enc -d -des-ede3 -K 0102030405060708090A0B0C0D0E0F101112131415161718"
        " -in session.bin -out session.txt");
    EXPECT_EQ(Bytes(Path("session.txt")), data);

    RSA_free(rsaPrivate);
    RSA_free(rsaPublic);
    DSA_free(dsa);
    EVP_PKEY_free(privateKey);
    EVP_PKEY_free(publicKey);
    EVP_PKEY_free(dsaKey);
    EVP_PKEY_free(caKey);
    EVP_PKEY_free(fromCertificate);
}

}  // namespace
