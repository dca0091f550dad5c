// Base64Decode fed arbitrary text, Base64Encode the same bytes; both must round-trip.
#include "FuzzSupport.h"

// Decodes `text`; false when nothing decodes (the length then 0), else 1 to 3n/4 + 3 bytes.
static bool Decode(const std::string& text, std::string& bytes) {
    int length = -1;
    const std::unique_ptr<unsigned char[]> decoded(
        COpenSSLCrypt::Base64Decode(text.data(), static_cast<int>(text.size()), &length));
    FUZZ_CHECK(decoded ? length > 0 && static_cast<size_t>(length) <= text.size() * 3 / 4 + 3
                       : length == 0);
    if (decoded)
        bytes.assign(reinterpret_cast<const char*>(decoded.get()), static_cast<size_t>(length));
    return decoded != nullptr;
}

static std::string Encode(const std::string& bytes) {
    std::string text;
    FUZZ_CHECK(COpenSSLCrypt::Base64Encode(reinterpret_cast<const unsigned char*>(bytes.data()),
                                           static_cast<int>(bytes.size()), text) == 0);
    return text;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    g_Trace.SetLevelMask(0);
    const std::string input = AsText(data, size);
    std::string bytes, again, back;
    FUZZ_CHECK(!Decode(input, bytes) || (Decode(Encode(bytes), again) && again == bytes));
    FUZZ_CHECK(input.empty() || (Decode(Encode(input), back) && back == input));
    return 0;
}
