// Drives VerifyTrustBundle with arbitrary bundle bytes against a fixed root certificate (an
// obfuscated file written once). Checked: the result is 0 or -1; on -1 the output is as it was;
// on 0 it is as it was or a run of PEM certificates that read back, and nothing else.
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include "FuzzSupport.h"
#include "common/OpenSSLCrypt.h"
#include "common/VNTrace.h"

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

// The scratch files of this process, removed at exit.
struct Scratch {
    std::string bundle = "/tmp/fuzz_trust_bundle." + std::to_string(getpid()) + ".p7b";
    std::string root = "/tmp/fuzz_trust_bundle." + std::to_string(getpid()) + ".cfg";
    Scratch() {
        g_Trace.SetLevelMask(0);
        const std::string plain = std::string(kObfuscatedMarker) + kRootPem;
        FUZZ_CHECK(COpenSSLCrypt::ObfuscateStringToFile(plain.data(),
                                                        static_cast<uint32_t>(plain.size()),
                                                        root.c_str(), nullptr) == 0);
    }
    ~Scratch() {
        unlink(bundle.c_str());
        unlink(root.c_str());
    }
};

Scratch& Files() {
    static Scratch scratch;
    return scratch;
}

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
    Scratch& files = Files();
    FILE* file = fopen(files.bundle.c_str(), "wb");
    FUZZ_CHECK(file != nullptr);
    FUZZ_CHECK(fwrite(data, 1, size, file) == size);
    FUZZ_CHECK(fclose(file) == 0);

    const std::string before = "before";
    std::string output = before;
    const int32_t result =
        COpenSSLCrypt::VerifyTrustBundle(files.bundle.c_str(), files.root.c_str(), output);
    FUZZ_CHECK(result == 0 || result == -1);
    if (result != 0 || output == before)
        FUZZ_CHECK(output == before);
    else
        FUZZ_CHECK(CountCertificates(output) > 0);
    ERR_clear_error();
    return 0;
}
