// Base64Decode fed arbitrary text, Base64Encode the same bytes; both must round-trip.
#include "FuzzSupport.h"

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
    QuietTrace();
    const std::string input = AsText(data, size);
    std::string bytes, again, back;
    if (Decode(input, bytes))
        FUZZ_CHECK(Decode(Encode(bytes), again) && again == bytes);
    if (!input.empty())
        FUZZ_CHECK(Decode(Encode(input), back) && back == input);
    return 0;
}
