// VerifyTrustBundle fed arbitrary bundle bytes against a fixed root certificate.
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include "FuzzSupport.h"

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

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static ScratchRoot dir("fuzz-trust");
    static const std::string bundle = dir.path + "/bundle.p7b", root = dir.path + "/root.cfg";
    static const std::string made = ObfuscateTo(root, kObfuscatedMarker + std::string(kRootPem));
    WriteFileBytes(bundle, data, size);
    std::string output = "before";
    const int32_t result = COpenSSLCrypt::VerifyTrustBundle(bundle.c_str(), root.c_str(), output);
    // 0 or -1; the output untouched, or on success a run of PEM certificates that reads back whole.
    FUZZ_CHECK(result == 0 || (result == -1 && output == "before"));
    if (result == 0 && output != "before") {
        BIO* bio = BIO_new_mem_buf(output.data(), static_cast<int>(output.size()));
        int count = 0;
        for (X509* read; bio && (read = PEM_read_bio_X509(bio, nullptr, nullptr, nullptr)); ++count)
            X509_free(read);
        FUZZ_CHECK(count > 0 && BIO_pending(bio) == 0);
        BIO_free(bio);
    }
    ERR_clear_error();
    return 0;
}
