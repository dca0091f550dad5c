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

#include <openssl/evp.h>

// The marker at the head of every obfuscated plaintext, and its length.
constexpr const char* kObfuscatedMarker = "OBFUSCATED";
constexpr size_t kObfuscatedMarkerLength = 10;

class COpenSSLCrypt {
  public:
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
};

#endif  // TIDEWAY_COMMON_OPENSSLCRYPT_H_
