// COpenSSLCrypt::VerifyTrustBundle: the signature check of the trust bundle against the root
// certificate alone, and the certificates that the bundle carries, as PEM text.
#include <stdlib.h>

#include <string>

#include <openssl/bio.h>
#include <openssl/buffer.h>
#include <openssl/cms.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/objects.h>
#include <openssl/pem.h>
#include <openssl/pkcs7.h>
#include <openssl/x509.h>

#include "common/OpenSSLCrypt.h"
#include "common/VNTrace.h"

namespace {

// CMS_NOINTERN | CMS_NO_SIGNER_CERT_VERIFY: the signer is looked for only among the given
// certificates, and no chain is built, so neither expiry nor revocation comes into it.
constexpr unsigned int kVerifyFlags = CMS_NOINTERN | CMS_NO_SIGNER_CERT_VERIFY;
static_assert(kVerifyFlags == 48, "the verification flags");

// OpenSSL's allocation goes through the C library, as set for this operation.
void* CryptoMalloc(size_t size, const char*, int) {
    return malloc(size);
}
void* CryptoRealloc(void* pointer, size_t size, const char*, int) {
    return realloc(pointer, size);
}
void CryptoFree(void* pointer, const char*, int) {
    free(pointer);
}

// The reason of the oldest queued error, then the code of the one after it: the two values
// that the failure lines carry. Taken in this order before the line is written.
struct QueuedError {
    const char* reason;
    unsigned long code;
    QueuedError() {
        const char* text = ERR_reason_error_string(ERR_get_error());
        reason = text != nullptr ? text : "(null)";
        code = ERR_get_error();
    }
    // The same for a failure whose first error has been taken already.
    explicit QueuedError(unsigned long first) {
        const char* text = ERR_reason_error_string(first);
        reason = text != nullptr ? text : "(null)";
        code = ERR_get_error();
    }
};

// Owns the objects of one verification and frees them on every exit.
struct TrustBundleObjects {
    STACK_OF(X509) * stack = nullptr;
    BIO* file = nullptr;
    BIO* bundle = nullptr;    // the re-encoded bundle
    BIO* content = nullptr;   // the verified content
    BIO* pem = nullptr;       // the PEM output
    BIO* rootText = nullptr;  // the root certificate's text
    PKCS7* outer = nullptr;
    PKCS7* inner = nullptr;
    CMS_ContentInfo* cms = nullptr;
    X509* root = nullptr;  // owned by `stack` once pushed

    TrustBundleObjects() = default;
    TrustBundleObjects(const TrustBundleObjects&) = delete;
    TrustBundleObjects& operator=(const TrustBundleObjects&) = delete;
    ~TrustBundleObjects() {
        FreeStackAndText();
        X509_free(root);
        PKCS7_free(outer);
        PKCS7_free(inner);
        CMS_ContentInfo_free(cms);
        BIO_free(file);
        BIO_free(bundle);
        BIO_free(content);
        BIO_free(pem);
    }
    void FreeStackAndText() {
        if (stack != nullptr)
            sk_X509_pop_free(stack, X509_free);
        stack = nullptr;
        BIO_free(rootText);
        rootText = nullptr;
    }
};

const char kBioMemoryMessage[] = "OpenSSLCrypt: Failed to allocate enough memory for bio";

}  // namespace

int32_t COpenSSLCrypt::VerifyTrustBundle(const char* bundlePath, const char* rootCertificatePath,
                                         std::string& output) {
    TrustBundleObjects objects;
    objects.stack = sk_X509_new_null();
    objects.file = BIO_new(BIO_s_file());
    objects.bundle = BIO_new(BIO_s_mem());
    objects.content = BIO_new(BIO_s_mem());
    objects.pem = BIO_new(BIO_s_mem());
    if (objects.file == nullptr || objects.bundle == nullptr || objects.content == nullptr ||
        objects.pem == nullptr) {
        VNTRACE(TL_ERR, "%s", kBioMemoryMessage);
        return -1;
    }

    // Library set-up. Once OpenSSL has allocated anything the allocator can no longer be
    // changed and the call does nothing; the strings and algorithm tables load once.
    CRYPTO_set_mem_functions(CryptoMalloc, CryptoRealloc, CryptoFree);
    OPENSSL_init_crypto(OPENSSL_INIT_LOAD_CRYPTO_STRINGS | OPENSSL_INIT_ADD_ALL_CIPHERS |
                            OPENSSL_INIT_ADD_ALL_DIGESTS,
                        nullptr);
    // Errors left by earlier work of this thread would otherwise count against this bundle.
    ERR_clear_error();

    if (bundlePath == nullptr || BIO_read_filename(objects.file, bundlePath) <= 0) {
        VNTRACE(TL_ERR, "OpenSSLCrypt: Reading trusted bundle file failed");
        return -1;
    }
    objects.outer = d2i_PKCS7_bio(objects.file, nullptr);
    if (objects.outer == nullptr) {
        VNTRACE(TL_ERR, "OpenSSLCrypt: d2i_PKCS7_bio conversion failed");
        return -1;
    }

    std::string rootText;
    if (rootCertificatePath == nullptr ||
        DeObfuscateFiletoStr(rootCertificatePath, rootText, EVP_aes_128_cbc(), nullptr) != 0) {
        VNTRACE(TL_ERR, "Error in reading RootCA.cfg");
        return -1;
    }
    if (rootText.empty()) {
        VNTRACE(TL_ERR, "OpenSSLCrypt: RootCA string is empty");
        return -1;
    }
    if (rootText.compare(0, kObfuscatedMarkerLength, kObfuscatedMarker) != 0) {
        VNTRACE(TL_ERR, "RootCA.cfg file is corrupted");
        return -1;
    }
    rootText.erase(0, kObfuscatedMarkerLength);

    objects.rootText = BIO_new(BIO_s_mem());
    if (objects.rootText == nullptr) {
        VNTRACE(TL_ERR, "%s", kBioMemoryMessage);
        return -1;
    }
    ERR_clear_error();
    BIO_puts(objects.rootText, rootText.c_str());
    objects.root = PEM_read_bio_X509(objects.rootText, nullptr, nullptr, nullptr);
    const bool rootRead = objects.root != nullptr;
    const int reencoded = i2d_PKCS7_bio(objects.bundle, objects.outer);
    if (objects.stack != nullptr && rootRead && sk_X509_push(objects.stack, objects.root) > 0)
        objects.root = nullptr;  // the stack owns it now
    const unsigned long queued = ERR_get_error();
    // A certificate that didn't read never goes on to the verification, even with no error
    // queued; a missing stack is reported by the next step.
    if (reencoded != 1 || queued != 0 || !rootRead ||
        (objects.stack != nullptr && objects.root != nullptr)) {
        const QueuedError error(queued);
        VNTRACE(TL_ERR, "OpenSSLCrypt: Conversion from (pem to bio)/(pkcs7 to bio) failed %s %lu",
                error.reason, error.code);
        return -1;
    }

    objects.cms = d2i_CMS_bio(objects.bundle, nullptr);
    if (objects.stack == nullptr || objects.cms == nullptr) {
        VNTRACE(TL_ERR, "OpenSSLCrypt: Conversion from bio to cms failed");
        return -1;
    }

    const int verified =
        CMS_verify(objects.cms, objects.stack, nullptr, nullptr, objects.content, kVerifyFlags);
    objects.FreeStackAndText();
    if (verified != 1) {
        const QueuedError error;
        VNTRACE(TL_ERR, "OpenSSLCrypt: CMS verification failed %d %s %lu", verified, error.reason,
                error.code);
        return -1;
    }

    objects.inner = d2i_PKCS7_bio(objects.content, nullptr);
    if (objects.inner == nullptr) {
        const QueuedError error;
        VNTRACE(TL_ERR, "OpenSSLCrypt: d2i_PKCS7_bio conversion failed %s %lu", error.reason,
                error.code);
        return -1;
    }

    // Both kinds carry the certificate list in the same place; each is read through its own
    // view of the structure. A structure parsed without its body has no list.
    STACK_OF(X509)* certificates = nullptr;
    switch (OBJ_obj2nid(objects.inner->type)) {
        case NID_pkcs7_signed:
            certificates = objects.inner->d.sign != nullptr ? objects.inner->d.sign->cert : nullptr;
            break;
        case NID_pkcs7_signedAndEnveloped:
            certificates = objects.inner->d.signed_and_enveloped != nullptr
                               ? objects.inner->d.signed_and_enveloped->cert
                               : nullptr;
            break;
        default:
            VNTRACE(TL_ERR, "OpenSSLCrypt: PKCS7 stucture is not signed");
            return -1;
    }

    for (int i = 0; i < sk_X509_num(certificates); ++i) {
        if (PEM_write_bio_X509(objects.pem, sk_X509_value(certificates, i)) != 1) {
            const QueuedError error;
            VNTRACE(TL_ERR, "OpenSSLCrypt: PEM_write_bio_X509 conversion failed %s %lu",
                    error.reason, error.code);
            return -1;
        }
    }

    BUF_MEM* memory = nullptr;
    BIO_get_mem_ptr(objects.pem, &memory);
    if (memory != nullptr && memory->data != nullptr && memory->length > 0)
        output.assign(memory->data, memory->length);
    return 0;
}
