// The key, digest and encoding helpers of COpenSSLCrypt: thin wrappers over OpenSSL with fixed
// results and log lines. The RSA and DSA ones take the low-level key objects that the agent's
// side hands over, so they use OpenSSL's RSA_* and DSA_* calls, kept behind a local warning
// suppression; everything else uses the OpenSSL 3 interfaces.
#include <stdlib.h>
#include <string.h>

#include <new>
#include <string>
#include <vector>

#include <openssl/bio.h>
#include <openssl/buffer.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>

#include "common/OpenSSLCrypt.h"
#include "common/Utils.h"
#include "common/VNTrace.h"

namespace {

// The text of the oldest queued error, as ERR_error_string gives it, without its shared buffer.
struct ErrorText {
    char text[256];
    ErrorText() { ERR_error_string_n(ERR_get_error(), text, sizeof(text)); }
};

// The weak and semi-weak DES keys (odd parity), which a session key must not be.
const unsigned char kWeakDesKeys[16][8] = {
    {0x01, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01},
    {0xFE, 0xFE, 0xFE, 0xFE, 0xFE, 0xFE, 0xFE, 0xFE},
    {0x1F, 0x1F, 0x1F, 0x1F, 0x0E, 0x0E, 0x0E, 0x0E},
    {0xE0, 0xE0, 0xE0, 0xE0, 0xF1, 0xF1, 0xF1, 0xF1},
    {0x01, 0xFE, 0x01, 0xFE, 0x01, 0xFE, 0x01, 0xFE},
    {0xFE, 0x01, 0xFE, 0x01, 0xFE, 0x01, 0xFE, 0x01},
    {0x1F, 0xE0, 0x1F, 0xE0, 0x0E, 0xF1, 0x0E, 0xF1},
    {0xE0, 0x1F, 0xE0, 0x1F, 0xF1, 0x0E, 0xF1, 0x0E},
    {0x01, 0xE0, 0x01, 0xE0, 0x01, 0xF1, 0x01, 0xF1},
    {0xE0, 0x01, 0xE0, 0x01, 0xF1, 0x01, 0xF1, 0x01},
    {0x1F, 0xFE, 0x1F, 0xFE, 0x0E, 0xFE, 0x0E, 0xFE},
    {0xFE, 0x1F, 0xFE, 0x1F, 0xFE, 0x0E, 0xFE, 0x0E},
    {0x01, 0x1F, 0x01, 0x1F, 0x01, 0x0E, 0x01, 0x0E},
    {0x1F, 0x01, 0x1F, 0x01, 0x0E, 0x01, 0x0E, 0x01},
    {0xE0, 0xFE, 0xE0, 0xFE, 0xF1, 0xFE, 0xF1, 0xFE},
    {0xFE, 0xE0, 0xFE, 0xE0, 0xFE, 0xF1, 0xFE, 0xF1},
};

// Sets the low bit of each byte so that it has an odd number of one bits.
void SetOddParity(unsigned char* key) {
    for (int i = 0; i < 8; ++i) {
        unsigned char high = key[i] & 0xFE;
        int ones = 0;
        for (unsigned char b = high; b != 0; b &= static_cast<unsigned char>(b - 1))
            ++ones;
        key[i] = static_cast<unsigned char>(high | ((ones & 1) == 0 ? 1 : 0));
    }
}

bool IsWeakDesKey(const unsigned char* key) {
    for (const auto& weak : kWeakDesKeys) {
        if (memcmp(weak, key, 8) == 0)
            return true;
    }
    return false;
}

// Frees a BIO chain on every exit.
struct BioChain {
    BIO* head = nullptr;
    explicit BioChain(BIO* bio = nullptr) : head(bio) {}
    BioChain(const BioChain&) = delete;
    BioChain& operator=(const BioChain&) = delete;
    ~BioChain() { BIO_free_all(head); }
};

}  // namespace

COpenSSLCrypt::~COpenSSLCrypt() {}

int COpenSSLCrypt::GenerateDESKey(unsigned char** key) {
    if (key == nullptr)
        return -1;
    *key = static_cast<unsigned char*>(malloc(8));
    if (*key == nullptr) {
        VNTRACE(TL_ERR, "OpenSSLCrypt: Failed to allocate enough memory for DES session key");
        return -1;
    }
    // A random key with odd parity that is not one of the weak keys, drawn again until so.
    do {
        if (RAND_priv_bytes(*key, 8) != 1) {
            const ErrorText error;
            VNTRACE(TL_ERR,
                    "OpenSSLCrypt: Failed to generate DES random key 1. PRNG initialised (see "
                    "rand(3))? Error : %s",
                    error.text);
            free(*key);
            *key = nullptr;
            return -1;
        }
        SetOddParity(*key);
    } while (IsWeakDesKey(*key));
    return 0;
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

int COpenSSLCrypt::CreateRSAKey(const char* modulusHex, const char* exponentHex, RSA** key) {
    if (key == nullptr) {
        VNTRACE(TL_ERR, "OpenSSLCrypt: Unknown error occurred");
        return 5;
    }
    *key = nullptr;
    RSA* rsa = RSA_new();
    if (rsa == nullptr) {
        const ErrorText error;
        VNTRACE(TL_ERR, "OpenSSLCrypt: Failed to create new RSA key. Error : %s", error.text);
        return 1;
    }
    BIGNUM* modulus = BN_new();
    BIGNUM* exponent = BN_new();
    int code = 0;
    if (modulus == nullptr || exponent == nullptr) {
        const ErrorText error;
        VNTRACE(TL_ERR, "OpenSSLCrypt: Failed to initialise BIGNUMs for RSA key. Error : %s",
                error.text);
        code = 2;
    } else if (BN_hex2bn(&modulus, modulusHex) == 0) {
        const ErrorText error;
        VNTRACE(TL_ERR, "OpenSSLCrypt: Failed in BN_hex2bn for modulus. Error : %s", error.text);
        code = 3;
    } else if (BN_hex2bn(&exponent, exponentHex) == 0) {
        const ErrorText error;
        VNTRACE(TL_ERR, "OpenSSLCrypt: Failed in BN_hex2bn for exponent. Error : %s", error.text);
        code = 4;
    } else if (RSA_set0_key(rsa, modulus, exponent, nullptr) != 1) {
        VNTRACE(TL_ERR, "OpenSSLCrypt: Unknown error occurred");
        code = 5;
    } else {
        *key = rsa;  // the key owns both numbers now
        return 0;
    }
    BN_free(modulus);
    BN_free(exponent);
    RSA_free(rsa);
    return code;
}

int COpenSSLCrypt::RSACrypt(const unsigned char* input, int length, RSA* key, int padding,
                            ENCRYPT_CHAR_BUFFER** output, bool encrypt, bool hexEncode) {
    if (output == nullptr)
        return -1;
    *output = nullptr;
    unsigned char* work = new (std::nothrow) unsigned char[kRsaWorkBufferSize];
    if (work == nullptr) {
        VNTRACE(TL_ERR, "Could not allocate buffer");
        return -1;
    }
    // RSA writes a whole modulus: a key wider than the work buffer is refused, not run.
    const bool usable = input != nullptr && length >= 0 && key != nullptr && RSA_size(key) > 0 &&
                        static_cast<uint32_t>(RSA_size(key)) <= kRsaWorkBufferSize;
    int result = -1;
    if (usable) {
        result = encrypt ? RSA_public_encrypt(length, input, work, key, padding)
                         : RSA_private_decrypt(length, input, work, key, padding);
    }
    if (result < 0) {
        const ErrorText error;
        if (encrypt)
            VNTRACE(TL_ERR, "OpenSSLCrypt: RSA_public_encrypt failed. Error : %s", error.text);
        else
            VNTRACE(TL_ERR, "OpenSSLCrypt: RSA_private_decrypt failed. Error : %s", error.text);
        delete[] work;
        return -1;
    }
    ENCRYPT_CHAR_BUFFER* record = new (std::nothrow) ENCRYPT_CHAR_BUFFER;
    if (record == nullptr) {
        VNTRACE(TL_ERR, "OpenSSLCrypt: Could not allocate ENCRYPT_CHAR_BUFFER");
        delete[] work;
        return -1;
    }
    record->size = kRsaWorkBufferSize;
    if (encrypt && hexEncode) {
        char* text = HexEncode(work, result);
        delete[] work;
        if (text == nullptr) {
            VNTRACE(TL_ERR, "OpenSSLCrypt: HexEncode returned NULL");
            delete record;
            return -1;
        }
        record->data = reinterpret_cast<unsigned char*>(text);
        record->length = static_cast<uint32_t>(strlen(text));
    } else {
        record->data = work;
        record->length = static_cast<uint32_t>(result);
    }
    *output = record;
    return 0;
}

int COpenSSLCrypt::GetKeySize(const RSA* key) {
    return key != nullptr ? RSA_size(key) : -2;
}

int COpenSSLCrypt::VerifyDSASignature(const unsigned char* digest, int digestLength,
                                      const unsigned char* signature, int signatureLength, DSA* key,
                                      int* status) {
    ERR_clear_error();
    int ignored = 0;
    int& out = status != nullptr ? *status : ignored;
    out = 0;
    const char* missing = nullptr;
    if (digest == nullptr)
        missing = "Error : Digest buffer poiner is NULL";
    else if (signature == nullptr)
        missing = "Error : signed digest buffer poiner is NULL";
    else if (key == nullptr)
        missing = "Error : DSA structure poiner is NULL";
    if (missing != nullptr) {
        VNTRACE(TL_ERR, "%s", missing);
        out = -1;
        return -1;
    }
    const int result = DSA_verify(0, digest, digestLength, signature, signatureLength, key);
    out = static_cast<int>(ERR_get_error());
    switch (result) {
        case 1:
            VNTRACE(TL_TRACE, "Valid signature.  Digest and signature verification succeeded.");
            return 1;
        case 0:
            VNTRACE(TL_ERR, "Error : Incorrect signature");
            return 0;
        case -1:
            VNTRACE(TL_ERR, "Error : Failed in DSA_verify. Code: %d", out);
            return -1;
        default:
            VNTRACE(TL_ERR, "Error : Unknown return val. Return: %d Error: %d", result, out);
            return result;
    }
}

#pragma GCC diagnostic pop

int COpenSSLCrypt::GetPublicKeyFromCertificate(const std::string& certificate, EVP_PKEY** key) {
    if (key == nullptr)
        return -1;
    *key = nullptr;
    BioChain text(BIO_new_mem_buf(certificate.data(), static_cast<int>(certificate.size())));
    X509* x509 = certificate.size() > INT32_MAX || text.head == nullptr
                     ? nullptr
                     : PEM_read_bio_X509(text.head, nullptr, nullptr, nullptr);
    if (x509 == nullptr) {
        VNTRACE(TL_ERR, "Error reading the certificate");
        return -1;
    }
    *key = X509_get_pubkey(x509);
    X509_free(x509);
    if (*key == nullptr) {
        VNTRACE(TL_ERR, "Error reading the public key");
        return -1;
    }
    return 0;
}

char* COpenSSLCrypt::EncryptSessionData(const ENCRYPT_CHAR_BUFFER* input,
                                        const unsigned char* key) {
    if (input == nullptr || key == nullptr || (input->data == nullptr && input->length > 0) ||
        input->length > INT32_MAX)
        return nullptr;
    unsigned char iv[8];
    if (RAND_bytes(iv, sizeof(iv)) != 1) {
        const ErrorText error;
        VNTRACE(TL_ERR, "OpenSSLCrypt : Failed in RAND_bytes. Error : %s", error.text);
        return nullptr;
    }
    BIO* memory = BIO_new(BIO_s_mem());
    if (memory == nullptr) {
        const ErrorText error;
        VNTRACE(TL_ERR, "OpenSSLCrypt : Failed in BIO_new for mbio. Error : %s", error.text);
        return nullptr;
    }
    BioChain chain(memory);
    BIO* cipher = BIO_new(BIO_f_cipher());
    if (cipher == nullptr) {
        const ErrorText error;
        VNTRACE(TL_ERR, "OpenSSLCrypt : Failed in BIO_new for cbio. Error : %s", error.text);
        return nullptr;
    }
    if (BIO_set_cipher(cipher, EVP_des_ede3_ecb(), key, iv, 1) != 1) {
        BIO_free(cipher);
        const ErrorText error;
        VNTRACE(TL_ERR, "OpenSSLCrypt : Failed in BIO_new for cbio. Error : %s", error.text);
        return nullptr;
    }
    chain.head = BIO_push(cipher, memory);
    const int length = static_cast<int>(input->length);
    if (length > 0 && BIO_write(chain.head, input->data, length) != length) {
        const ErrorText error;
        VNTRACE(TL_ERR, "OpenSSLCrypt : Failed in BIO_write. Error : %s", error.text);
        return nullptr;
    }
    (void)BIO_flush(chain.head);
    BUF_MEM* buffer = nullptr;
    BIO_get_mem_ptr(memory, &buffer);
    const size_t size = buffer != nullptr ? buffer->length : 0;
    char* copy = size <= INT32_MAX ? new (std::nothrow) char[size + 1] : nullptr;
    if (copy == nullptr) {
        VNTRACE(TL_ERR, "OpenSSLCrypt : Failed to create output buffer");
        return nullptr;
    }
    if (size > 0)
        memcpy(copy, buffer->data, size);
    copy[size] = '\0';
    char* text = HexEncode(reinterpret_cast<const unsigned char*>(copy), static_cast<int>(size));
    delete[] copy;
    return text;
}

int COpenSSLCrypt::Base64Encode(const unsigned char* data, int length, std::string& output) {
    if (data == nullptr || length < 1)
        return -2;
    BIO* filter = BIO_new(BIO_f_base64());
    if (filter == nullptr) {
        const ErrorText error;
        VNTRACE(TL_ERR, "OpenSSLCrypt : Failed to create base64 filter. Error : %s", error.text);
        return -1;
    }
    BioChain chain(filter);
    BIO* memory = BIO_new(BIO_s_mem());
    if (memory == nullptr) {
        const ErrorText error;
        VNTRACE(TL_ERR, "OpenSSLCrypt : Failed to create mem buffer. Error : %s", error.text);
        return -1;
    }
    BIO_push(filter, memory);
    if (BIO_write(filter, data, length) != length) {
        const ErrorText error;
        VNTRACE(TL_ERR, "OpenSSLCrypt : Failed in BIO_write. Error : %s", error.text);
        return -1;
    }
    (void)BIO_flush(filter);
    BUF_MEM* buffer = nullptr;
    BIO_get_mem_ptr(memory, &buffer);
    if (buffer != nullptr && buffer->data != nullptr)
        output.append(buffer->data, buffer->length);
    return 0;
}

unsigned char* COpenSSLCrypt::Base64Decode(const char* text, int length, int* decodedLength) {
    if (decodedLength != nullptr)
        *decodedLength = 0;
    // A negative length would make the memory BIO measure the text itself: refused.
    if (text == nullptr || length < 1)
        return nullptr;
    unsigned char* bytes = new (std::nothrow) unsigned char[static_cast<size_t>(length)]();
    if (bytes == nullptr) {
        VNTRACE(TL_ERR, "OpenSSLCrypt : Failed to allocate memory, System Out Of Memory!!!");
        return nullptr;
    }
    BIO* filter = BIO_new(BIO_f_base64());
    BIO* memory = filter != nullptr ? BIO_new_mem_buf(text, length) : nullptr;
    if (filter == nullptr || memory == nullptr) {
        const ErrorText error;
        VNTRACE(TL_ERR, "OpenSSLCrypt : Failed to create base64 filter. Error : %s", error.text);
        BIO_free(filter);
        delete[] bytes;
        return nullptr;
    }
    BioChain chain(BIO_push(filter, memory));
    const int read = BIO_read(chain.head, bytes, length);
    if (read < 1) {
        const ErrorText error;
        VNTRACE(TL_ERR, "OpenSSLCrypt : Failed in BIO_read. Error : %s", error.text);
        delete[] bytes;
        return nullptr;
    }
    if (decodedLength != nullptr)
        *decodedLength = read;
    return bytes;
}

namespace {

int ReadKey(const char* path, EVP_PKEY** key, bool privateKey) {
    if (key != nullptr)
        *key = nullptr;
    if (path == nullptr || key == nullptr)
        return -3;
    BioChain file(BIO_new(BIO_s_file()));
    if (file.head == nullptr || BIO_read_filename(file.head, path) <= 0)
        return -3;
    *key = privateKey ? PEM_read_bio_PrivateKey(file.head, nullptr, nullptr, nullptr)
                      : PEM_read_bio_PUBKEY(file.head, nullptr, nullptr, nullptr);
    if (*key == nullptr) {
        const ErrorText error;
        if (privateKey)
            VNTRACE(TL_ERR, "Error : Failed to read private key. Error : %s", error.text);
        else
            VNTRACE(TL_ERR, "Error : Failed to read public key. Error : %s", error.text);
    }
    return 0;
}

}  // namespace

int COpenSSLCrypt::ReadPrivateKey(const char* path, EVP_PKEY** key) {
    return ReadKey(path, key, true);
}

int COpenSSLCrypt::ReadPublicKey(const char* path, EVP_PKEY** key) {
    return ReadKey(path, key, false);
}

bool COpenSSLCrypt::DigestText(const char* text, const char* digestName,
                               std::vector<unsigned char>& digest, unsigned int* digestLength) {
    digest.resize(kDigestVectorSize);
    unsigned int length = 0;
    if (digestLength != nullptr)
        *digestLength = 0;
    OPENSSL_init_crypto(OPENSSL_INIT_ADD_ALL_DIGESTS, nullptr);
    const EVP_MD* md = digestName != nullptr ? EVP_get_digestbyname(digestName) : nullptr;
    if (md == nullptr) {
        VNTRACE(TL_ERR, "Error : Unknown message digest [%s]",
                digestName != nullptr ? digestName : "(null)");
        return false;
    }
    EVP_MD_CTX* context = EVP_MD_CTX_new();
    // A digest wider than the vector (none of the fixed-size ones is) is not computed.
    const bool done = context != nullptr && text != nullptr && EVP_MD_get_size(md) > 0 &&
                      static_cast<size_t>(EVP_MD_get_size(md)) <= kDigestVectorSize &&
                      EVP_DigestInit_ex(context, md, nullptr) == 1 &&
                      EVP_DigestUpdate(context, text, strlen(text)) == 1 &&
                      EVP_DigestFinal_ex(context, digest.data(), &length) == 1 && length > 0;
    EVP_MD_CTX_free(context);
    if (!done) {
        VNTRACE(TL_ERR, "Error : Failed to generate [%s] digest", digestName);
        return false;
    }
    if (digestLength != nullptr)
        *digestLength = length;
    return true;
}
