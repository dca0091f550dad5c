// Drives Base64Decode with arbitrary text, and Base64Encode with arbitrary bytes. Checked: a
// decoding is never longer than its text allows and encodes back to text that decodes to the
// same bytes; any bytes encode, and their text decodes back to them exactly.
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <string>

#include "FuzzSupport.h"
#include "common/OpenSSLCrypt.h"
#include "common/VNTrace.h"

namespace {

// Decodes `text`; the bytes, or false when nothing decodes.
bool Decode(const std::string& text, std::string& bytes) {
    int length = -1;
    unsigned char* decoded =
        COpenSSLCrypt::Base64Decode(text.data(), static_cast<int>(text.size()), &length);
    if (decoded == nullptr) {
        FUZZ_CHECK(length == 0);
        return false;
    }
    FUZZ_CHECK(length > 0 && static_cast<size_t>(length) <= text.size() * 3 / 4 + 3);
    bytes.assign(reinterpret_cast<const char*>(decoded), static_cast<size_t>(length));
    delete[] decoded;
    return true;
}

std::string Encode(const std::string& bytes) {
    std::string text;
    FUZZ_CHECK(COpenSSLCrypt::Base64Encode(reinterpret_cast<const unsigned char*>(bytes.data()),
                                           static_cast<int>(bytes.size()), text) == 0);
    return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool quiet = (g_Trace.SetLevelMask(0), true);
    (void)quiet;
    const std::string input(reinterpret_cast<const char*>(data), size);

    std::string bytes;
    if (Decode(input, bytes)) {
        std::string again;
        FUZZ_CHECK(Decode(Encode(bytes), again));
        FUZZ_CHECK(again == bytes);
    }
    if (!input.empty()) {
        std::string back;
        FUZZ_CHECK(Decode(Encode(input), back));
        FUZZ_CHECK(back == input);
    }
    return 0;
}
