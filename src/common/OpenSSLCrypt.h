// COpenSSLCrypt: the obfuscated files shared with the service agent. A file is one AES-128-CBC
// ciphertext (PKCS#7 padding, no salt, no header) under a key and IV derived from a pass phrase
// with EVP_BytesToKey (SHA-1, one round). Its plaintext starts with the marker "OBFUSCATED".
//
// The functions keep no state and may run on any thread at once; whoever shares a file
// serialises access to it. Failures are logged at ERR (ObfuscateFile prints to standard output
// instead) and give -1; nothing throws.
#ifndef TIDEWAY_COMMON_OPENSSLCRYPT_H_
#define TIDEWAY_COMMON_OPENSSLCRYPT_H_

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

#include <openssl/dsa.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>

// The marker at the head of every obfuscated plaintext, and its length.
constexpr const char* kObfuscatedMarker = "OBFUSCATED";
constexpr size_t kObfuscatedMarkerLength = 10;

// The result of RSACrypt. The holder frees `data` with delete[] and the record with delete.
struct ENCRYPT_CHAR_BUFFER {
    unsigned char* data;  // the RSA output, or its hexadecimal text
    uint32_t size;        // capacity of the work buffer, always 8096
    uint32_t length;      // bytes in `data` (for hexadecimal text, the text's length)
};

class COpenSSLCrypt {
  public:
    virtual ~COpenSSLCrypt();

    // Size of the reader's work buffer and of the blocks it reads.
    static constexpr size_t kWorkBufferSize = 11346;
    static constexpr int kBlockSize = 8192;
    // The RC4 variant of the reader takes only this much of the pass phrase.
    static constexpr size_t kRc4PassPhraseLength = 128;

    // Deciphers the file at `path` and appends the plaintext, marker included, to `output`, cut
    // at its first NUL. `cipher` is EVP_aes_128_cbc() (EVP_rc4() is accepted too); `passPhrase`
    // null means the built-in one. `output` is touched only on success. 0 or -1.
    static int DeObfuscateFiletoStr(const char* path, std::string& output, const EVP_CIPHER* cipher,
                                    const char* passPhrase);
    // Writes `length` bytes of `data` enciphered to the file `path`, creating or replacing it.
    // The old file is replaced only once the new one is wholly written, so on -1 it is as it
    // was. The caller puts the marker at the head of `data`. 0 or -1.
    static int ObfuscateStringToFile(const char* data, uint32_t length, const char* path,
                                     const char* passPhrase);
    // File to file, for maintenance tools. `encrypt` non-zero: the plain file `inputPath`
    // becomes the obfuscated `outputPath`, marker added. Zero: the obfuscated `inputPath` is
    // deciphered and written without its first 10 characters. Reports to standard output.
    // 0 or -1; a de-obfuscated text that cannot be written is reported and still gives 0.
    static int ObfuscateFile(const char* inputPath, const char* outputPath, const char* passPhrase,
                             int encrypt);

    // ---- Trust bundles and the key, digest and encoding helpers ----
    // The signed trust bundle, the obfuscated root certificate, the client certificate, and the
    // suffix of files that come signed.
    static constexpr const char* kTrustBundleFileName = "tarvex_core.p7b";
    static constexpr const char* kRootCertificateFileName = "TarvexRootCA.cfg";
    static constexpr const char* kClientCertificateFileName = "TidewayCert.cfg";
    static constexpr const char* kSignedFileSuffix = ".signed";
    // Capacity of RSACrypt's work buffer.
    static constexpr uint32_t kRsaWorkBufferSize = 8096;
    // Entries of DigestText's output vector.
    static constexpr size_t kDigestVectorSize = 64;

    // Checks the DER bundle at `bundlePath` (CMS SignedData) against the one certificate in the
    // obfuscated file `rootCertificatePath`, without building a chain, and assigns the PEM text
    // of the certificates carried in the signed content (a PKCS#7 certificate list), in order,
    // to `output`. `output` is written only on success and only when that text isn't empty.
    // Changes OpenSSL's global set-up, so callers serialise it with other OpenSSL work. 0 or -1.
    static int32_t VerifyTrustBundle(const char* bundlePath, const char* rootCertificatePath,
                                     std::string& output);

    // *key receives an 8-byte random DES key with odd parity, not weak, from malloc (the caller
    // frees it), or null. 0 or -1.
    static int GenerateDESKey(unsigned char** key);
    // *key receives a new public RSA key of the hexadecimal modulus and exponent. 0, or a
    // non-zero code: 1 no key object, 2 no numbers, 3 bad modulus, 4 bad exponent, 5 other.
    static int CreateRSAKey(const char* modulusHex, const char* exponentHex, RSA** key);
    // *key receives the public key of the PEM certificate in `certificate` (the caller frees
    // it with EVP_PKEY_free). 0 or -1.
    static int GetPublicKeyFromCertificate(const std::string& certificate, EVP_PKEY** key);
    // Public-key encryption or private-key decryption of `length` bytes with `padding`. On 0,
    // *output is a new record; with `encrypt` and `hexEncode` its data is hexadecimal text.
    static int RSACrypt(const unsigned char* input, int length, RSA* key, int padding,
                        ENCRYPT_CHAR_BUFFER** output, bool encrypt, bool hexEncode);
    // Three-key triple DES (ECB) of the record's bytes under the 24-byte `key`, as upper-case
    // hexadecimal text from new[] (the caller frees it with delete[]), or null.
    static char* EncryptSessionData(const ENCRYPT_CHAR_BUFFER* input, const unsigned char* key);
    // Appends the base64 text of `length` bytes (lines of 64, each ended by a newline) to
    // `output`. 0, -2 for a null pointer or a length below 1, -1 on other failures.
    static int Base64Encode(const unsigned char* data, int length, std::string& output);
    // The bytes of base64 `text` (lines ended by newlines) in a buffer from new[] (the caller
    // frees it with delete[]), their count in *decodedLength; null when nothing decodes.
    static unsigned char* Base64Decode(const char* text, int length, int* decodedLength);
    // *key receives the PEM key of the file `path`, or null if none can be read (still 0).
    // -3 when the file cannot be opened.
    static int ReadPrivateKey(const char* path, EVP_PKEY** key);
    static int ReadPublicKey(const char* path, EVP_PKEY** key);
    // RSA_size of `key`, or -2 for a null key.
    static int GetKeySize(const RSA* key);
    // The digest named `digestName` (for example "SHA256") of the text up to its NUL, in the
    // first *digestLength entries of `digest`, which is made 64 entries long. True on success.
    static bool DigestText(const char* text, const char* digestName,
                           std::vector<unsigned char>& digest, unsigned int* digestLength);
    // DSA check of `signature` (DER) over `digest`. 1 valid, 0 wrong, -1 failure; *status
    // receives the OpenSSL error code, or -1 for a null argument.
    static int VerifyDSASignature(const unsigned char* digest, int digestLength,
                                  const unsigned char* signature, int signatureLength, DSA* key,
                                  int* status);
};

#endif  // TIDEWAY_COMMON_OPENSSLCRYPT_H_
