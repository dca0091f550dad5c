#include "common/OpenSSLCrypt.h"

#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include <new>

#include <openssl/bio.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/objects.h>
#include <openssl/provider.h>

#include "TidewayPassPhrase.h"
#include "common/FileReplacement.h"
#include "common/VNTrace.h"

namespace {

static_assert(sizeof(kBuiltInPassPhrase) == kBuiltInPassPhraseLength + 1,
              "the built-in pass phrase is 256 characters and a terminator");

// Key and IV of `cipher` from the pass phrase (the built-in one when null): EVP_BytesToKey with
// SHA-1, no salt, one round. AES-128-CBC uses 16 bytes of each; the buffers are sized for any
// cipher a caller might pass. The RC4 variant takes only the first 128 characters.
struct DerivedKey {
    unsigned char key[EVP_MAX_KEY_LENGTH];
    unsigned char iv[EVP_MAX_IV_LENGTH];

    DerivedKey() {
        memset(key, 0, sizeof(key));
        memset(iv, 0, sizeof(iv));
    }
    ~DerivedKey() {
        OPENSSL_cleanse(key, sizeof(key));
        OPENSSL_cleanse(iv, sizeof(iv));
    }
    DerivedKey(const DerivedKey&) = delete;
    DerivedKey& operator=(const DerivedKey&) = delete;

    bool Derive(const EVP_CIPHER* cipher, const char* passPhrase) {
        const char* phrase = passPhrase != nullptr ? passPhrase : kBuiltInPassPhrase;
        size_t length = strlen(phrase);
        if (cipher == EVP_rc4() && length > COpenSSLCrypt::kRc4PassPhraseLength)
            length = COpenSSLCrypt::kRc4PassPhraseLength;
        if (length > INT_MAX)
            return false;
        return EVP_BytesToKey(cipher, EVP_sha1(), nullptr,
                              reinterpret_cast<const unsigned char*>(phrase),
                              static_cast<int>(length), 1, key, iv) > 0;
    }
};

// RC4 lives in OpenSSL 3's legacy provider, which is not loaded by default. It is loaded the
// first time RC4 is asked for and the default set cannot supply it; the default provider stays
// available beside it. If the legacy provider cannot be loaded, RC4 stays unavailable and the
// cipher set-up fails with its usual message.
struct LegacyProvider {
    OSSL_PROVIDER* provider = nullptr;

    LegacyProvider() {
        EVP_CIPHER* fetched = EVP_CIPHER_fetch(nullptr, "RC4", nullptr);
        if (fetched != nullptr) {
            EVP_CIPHER_free(fetched);
            return;
        }
        ERR_clear_error();
        provider = OSSL_PROVIDER_try_load(nullptr, "legacy", 1);
        if (provider == nullptr) {
            ERR_clear_error();
            VNTRACE(TL_WARN, "OpenSSLCrypt: legacy provider not available, RC4 cannot be used");
        }
    }
    // Gives our reference back at exit. This object is built after OpenSSL has registered its
    // own clean-up, so it is destroyed before it, while the library is still whole.
    ~LegacyProvider() {
        if (provider != nullptr)
            OSSL_PROVIDER_unload(provider);
    }
    LegacyProvider(const LegacyProvider&) = delete;
    LegacyProvider& operator=(const LegacyProvider&) = delete;
};

void MakeCipherAvailable(const EVP_CIPHER* cipher) {
    if (cipher != EVP_rc4())
        return;
    static LegacyProvider legacy;  // thread-safe initialisation, once per process
    (void)legacy;
}

const char* CipherShortName(const EVP_CIPHER* cipher) {
    const char* name = OBJ_nid2sn(EVP_CIPHER_get_nid(cipher));
    return name != nullptr ? name : "UNDEF";
}

// The BIOs of one operation. Once `cipher` has been pushed in front of `sink`, freeing the
// chain from `cipher` frees both.
struct BioSet {
    BIO* source = nullptr;
    BIO* cipher = nullptr;
    BIO* sink = nullptr;
    bool chained = false;

    BioSet() = default;
    BioSet(const BioSet&) = delete;
    BioSet& operator=(const BioSet&) = delete;
    ~BioSet() {
        if (chained) {
            BIO_free_all(cipher);
        } else {
            BIO_free(cipher);
            BIO_free(sink);
        }
        BIO_free(source);
    }
    void Chain() {
        BIO_push(cipher, sink);
        chained = true;
    }
};

// True when both paths name the same existing file.
bool SameFile(const char* a, const char* b) {
    struct stat sa;
    struct stat sb;
    if (stat(a, &sa) != 0 || stat(b, &sb) != 0)
        return false;
    return sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}

int DeObfuscate(const char* path, std::string& output, const EVP_CIPHER* cipher,
                const char* passPhrase) {
    if (path == nullptr || cipher == nullptr)
        return -1;
    BioSet bios;
    bios.source = BIO_new(BIO_s_file());
    if (bios.source == nullptr || BIO_read_filename(bios.source, path) <= 0)
        return -1;
    bios.sink = BIO_new(BIO_s_mem());
    if (bios.sink == nullptr)
        return -1;

    MakeCipherAvailable(cipher);
    DerivedKey derived;
    if (!derived.Derive(cipher, passPhrase))
        return -1;
    bios.cipher = BIO_new(BIO_f_cipher());
    if (bios.cipher == nullptr)
        return -1;
    EVP_CIPHER_CTX* context = nullptr;
    BIO_get_cipher_ctx(bios.cipher, &context);
    if (context == nullptr ||
        !EVP_CipherInit_ex(context, cipher, nullptr, derived.key, derived.iv, 0)) {
        VNTRACE(TL_ERR, "DeObfuscateFiletoStr: Error setting cipher %s", CipherShortName(cipher));
        return -1;
    }
    bios.Chain();

    // The ciphertext is written into the chain, so the plaintext collects in the memory BIO.
    unsigned char* const buffer = new (std::nothrow) unsigned char[COpenSSLCrypt::kWorkBufferSize];
    if (buffer == nullptr) {
        VNTRACE(TL_ERR, "DeObfuscateFiletoStr: System Out Of Memory");
        return -1;
    }
    int status = 0;
    for (;;) {
        const int read = BIO_read(bios.source, buffer, COpenSSLCrypt::kBlockSize);
        if (read <= 0)
            break;
        if (BIO_write(bios.cipher, buffer, read) != read) {
            VNTRACE(TL_ERR, "DeObfuscateFiletoStr: error writing output file");
            status = -1;
            break;
        }
    }
    delete[] buffer;
    if (status != 0)
        return status;

    // The final block is unpadded here; a file that is not ciphertext under this key, or is
    // damaged at its end, fails now. The format has no other check.
    if (BIO_flush(bios.cipher) <= 0) {
        VNTRACE(TL_ERR, "DeObfuscateFiletoStr: bad de-obfuscate");
        return -1;
    }
    char* data = nullptr;
    const long length = BIO_get_mem_data(bios.sink, &data);
    if (length <= 0 || data == nullptr) {
        VNTRACE(TL_ERR, "DeObfuscateFiletoStr: error getting data from mem BIO");
        return -1;
    }
    const std::string plain(data, static_cast<size_t>(length));
    if (plain.length() != static_cast<size_t>(length)) {
        VNTRACE(TL_ERR, "DeObfuscateFiletoStr: Found NULL in data when not expected");
        return -1;
    }
    // The payload is text: it ends at its first NUL.
    output.append(plain.c_str());
    return 0;
}

int Obfuscate(const char* data, uint32_t length, const char* path, const char* passPhrase) {
    if ((data == nullptr && length > 0) || length > static_cast<uint32_t>(INT_MAX)) {
        VNTRACE(TL_ERR, "ObfuscateStringToFile: error writing output file");
        return -1;
    }
    if (path == nullptr) {
        VNTRACE(TL_ERR, "ObfuscateStringToFile Failed to write file: %s", "(null)");
        return -1;
    }
    const EVP_CIPHER* const cipher = EVP_aes_128_cbc();
    // The new text goes to a file beside the old one and replaces it only once all of it is
    // written, so a failure (a full disk, say) leaves the old file whole.
    CFileReplacement replacement(path);
    BioSet bios;
    bios.sink = BIO_new(BIO_s_file());
    if (bios.sink == nullptr) {
        VNTRACE(TL_ERR, "ObfuscateStringToFile : BIO_new returned NULL pointer.");
        return -1;
    }
    // The cipher is made ready before the file is opened, so that a failure here leaves an
    // existing file as it was.
    DerivedKey derived;
    bios.cipher = BIO_new(BIO_f_cipher());
    if (bios.cipher == nullptr || !derived.Derive(cipher, passPhrase)) {
        VNTRACE(TL_ERR, "ObfuscateStringToFile Failed to get cipher");
        return -1;
    }
    EVP_CIPHER_CTX* context = nullptr;
    BIO_get_cipher_ctx(bios.cipher, &context);
    if (context == nullptr ||
        !EVP_CipherInit_ex(context, cipher, nullptr, derived.key, derived.iv, 1)) {
        VNTRACE(TL_ERR, "ObfuscateStringToFile: Error setting cipher %s", CipherShortName(cipher));
        return -1;
    }
    FILE* const stream = replacement.Open();
    if (stream == nullptr) {
        VNTRACE(TL_ERR, "ObfuscateStringToFile Failed to write file: %s", path);
        return -1;
    }
    BIO_set_fp(bios.sink, stream, BIO_NOCLOSE);
    bios.Chain();
    if (length > 0 &&
        BIO_write(bios.cipher, data, static_cast<int>(length)) != static_cast<int>(length)) {
        VNTRACE(TL_ERR, "ObfuscateStringToFile: error writing output file");
        return -1;
    }
    // Emits the final padded block and flushes the file.
    if (BIO_flush(bios.cipher) <= 0) {
        VNTRACE(TL_ERR, "ObfuscateStringToFile: bad de-obfuscate");
        return -1;
    }
    if (!replacement.Commit()) {
        VNTRACE(TL_ERR, "ObfuscateStringToFile: error writing output file");
        return -1;
    }
    return 0;
}

int ObfuscateFileToFile(const char* inputPath, const char* outputPath, const char* passPhrase) {
    if (SameFile(inputPath, outputPath)) {
        printf("Input and output are the same file: %s\n", inputPath);
        return -1;
    }
    BioSet bios;
    bios.source = BIO_new(BIO_s_file());
    if (bios.source == nullptr || BIO_read_filename(bios.source, inputPath) <= 0) {
        printf("Error opening input file %s\n", inputPath);
        return -1;
    }
    bios.sink = BIO_new(BIO_s_file());
    if (bios.sink == nullptr || BIO_write_filename(bios.sink, const_cast<char*>(outputPath)) <= 0) {
        printf("Error opening output file %s\n", outputPath);
        return -1;
    }
    const EVP_CIPHER* const cipher = EVP_aes_128_cbc();
    DerivedKey derived;
    bios.cipher = BIO_new(BIO_f_cipher());
    EVP_CIPHER_CTX* context = nullptr;
    if (bios.cipher != nullptr)
        BIO_get_cipher_ctx(bios.cipher, &context);
    if (context == nullptr || !derived.Derive(cipher, passPhrase) ||
        !EVP_CipherInit_ex(context, cipher, nullptr, derived.key, derived.iv, 1)) {
        printf("Error setting cipher %s\n", CipherShortName(cipher));
        return -1;
    }
    bios.Chain();
    // The write and flush failures print their texts without a line feed; only the cipher
    // failure above ends its line.
    if (BIO_write(bios.cipher, kObfuscatedMarker, kObfuscatedMarkerLength) !=
        static_cast<int>(kObfuscatedMarkerLength)) {
        printf("error writing output file");
        return -1;
    }
    unsigned char buffer[COpenSSLCrypt::kBlockSize];
    for (;;) {
        const int read = BIO_read(bios.source, buffer, sizeof(buffer));
        if (read < 0) {
            printf("error reading input file\n");
            return -1;
        }
        if (read == 0)
            break;
        if (BIO_write(bios.cipher, buffer, read) != read) {
            printf("error writing output file");
            return -1;
        }
    }
    if (BIO_flush(bios.cipher) <= 0) {
        printf("bad de-obfuscate");
        return -1;
    }
    printf("bytes read   : %8ld\n", static_cast<long>(BIO_number_read(bios.source)));
    printf("bytes written: %8ld (obfuscated)\n", static_cast<long>(BIO_number_written(bios.sink)));
    return 0;
}

int DeObfuscateFileToFile(const char* inputPath, const char* outputPath, const char* passPhrase) {
    std::string text;
    if (DeObfuscate(inputPath, text, EVP_aes_128_cbc(), passPhrase) != 0)
        return -1;
    // The marker is dropped unread: the first 10 characters go whatever they are.
    text.erase(0, kObfuscatedMarkerLength);
    BIO* const out = BIO_new_file(outputPath, "w");
    if (out == nullptr) {
        printf("Error when writing de-obfuscated string");
        return 0;
    }
    const int written = BIO_printf(out, "%s", text.c_str());
    BIO_free(out);
    printf("bytes written: %8ld (de-obfuscated)\n", static_cast<long>(written));
    return 0;
}

}  // namespace

int COpenSSLCrypt::DeObfuscateFiletoStr(const char* path, std::string& output,
                                        const EVP_CIPHER* cipher, const char* passPhrase) {
    int status = -1;
    try {
        status = DeObfuscate(path, output, cipher, passPhrase);
    } catch (const std::bad_alloc&) {
        VNTRACE(TL_ERR, "DeObfuscateFiletoStr: System Out Of Memory");
        status = -1;
    }
    ERR_clear_error();
    return status;
}

int COpenSSLCrypt::ObfuscateStringToFile(const char* data, uint32_t length, const char* path,
                                         const char* passPhrase) {
    const int status = Obfuscate(data, length, path, passPhrase);
    ERR_clear_error();
    return status;
}

int COpenSSLCrypt::ObfuscateFile(const char* inputPath, const char* outputPath,
                                 const char* passPhrase, int encrypt) {
    if (inputPath == nullptr || outputPath == nullptr)
        return -1;
    int status = -1;
    try {
        status = encrypt != 0 ? ObfuscateFileToFile(inputPath, outputPath, passPhrase)
                              : DeObfuscateFileToFile(inputPath, outputPath, passPhrase);
    } catch (const std::bad_alloc&) {
        printf("System Out Of Memory\n");
        status = -1;
    }
    fflush(stdout);
    ERR_clear_error();
    return status;
}
