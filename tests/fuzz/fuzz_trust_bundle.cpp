// VerifyTrustBundle fed arbitrary bundle bytes against a fixed root certificate.
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include "FuzzSupport.h"

namespace {

// A self-signed P-256 certificate; the seeds in corpus/fuzz_trust_bundle are signed by its key,
// which is not kept.
const char kRootPem[] =
    "-----BEGIN CERTIFICATE-----\n"
    "MIIBfjCCASOgAwIBAgIUXYuxPx1k0jAzYyRAxBkW+g3W+L8wCgYIKoZIzj0EAwIw\n"
    "EzERMA8GA1UEAwwIRnV6elJvb3QwIBcNMjYxMTIzMjMzNTMzWhgPMjEyNjEwMzAy\n"
    "MzM1MzNaMBMxETAPBgNVBAMMCEZ1enpSb290MFkwEwYHKoZIzj0CAQYIKoZIzj0D\n"
    "AQcDQgAE8jWXtq/6y8vCh7MM1a5amIgeB9+FJRv0mmJK7KPdD/nfgJEid0s9UDVS\n"
    "QpiGyzSKCBhSmPBCtzdDKLJZVf/ok6NTMFEwHQYDVR0OBBYEFGweUb7VzxJ7ve3f\n"
    "NJNOM5sPTcqaMB8GA1UdIwQYMBaAFGweUb7VzxJ7ve3fNJNOM5sPTcqaMA8GA1Ud\n"
    "EwEB/wQFMAMBAf8wCgYIKoZIzj0EAwIDSQAwRgIhAJDChPfO4RPmFhQ207mYmQL+\n"
    "lSpeHeySIHjHrmjeP23uAiEAhRwOCkNO9lApuxCzk6g33Wkv2wMrPMmB/Gvz30q9\n"
    "e7I=\n"
    "-----END CERTIFICATE-----\n";

// The number of certificates in `pem` when it is nothing but PEM certificates, else -1.
int CountCertificates(const std::string& pem) {
    BIO* bio = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
    FUZZ_CHECK(bio != nullptr);
    int count = 0;
    while (X509* certificate = PEM_read_bio_X509(bio, nullptr, nullptr, nullptr)) {
        X509_free(certificate);
        ++count;
    }
    const bool allRead = BIO_pending(bio) == 0;
    BIO_free(bio);
    return allRead ? count : -1;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static ScratchFile bundle("fuzz_trust_bundle", ".p7b"), root("fuzz_trust_bundle", ".cfg");
    static const bool made =
        (QuietTrace(), ObfuscateTo(root.path, kObfuscatedMarker + std::string(kRootPem)));
    FUZZ_CHECK(made);
    WriteFileBytes(bundle.path, data, size);
    std::string output = "before";
    const int32_t result =
        COpenSSLCrypt::VerifyTrustBundle(bundle.path.c_str(), root.path.c_str(), output);
    FUZZ_CHECK(result == 0 || result == -1);
    // Untouched, or on success a run of PEM certificates that reads back whole.
    FUZZ_CHECK(output == "before" || (result == 0 && CountCertificates(output) > 0));
    ERR_clear_error();
    return 0;
}
