// The obfuscated-file reader fed arbitrary bytes, and what decodes loaded as a profile. Input:
// [mode][bytes]; bit 0 clear: the bytes are the file (bit 1: RC4), set: a plaintext written with
// the marker and read back; bit 2: trim element text; bit 3: report every key.
#include "FuzzSupport.h"
#include "config/XMLReadWrite.h"

static size_t g_Touched = 0;

// Collects the towers into `context` and touches every other value, so that a value of a
// shorter life or a wrong type shows under ASan.
static void OnValue(void* context, const char* key, const void* value) {
    FUZZ_CHECK(key != nullptr && value != nullptr);
    if (CompareNoCase(key, "Tower") == 0) {
        static_cast<std::vector<TowerInfo>*>(context)->push_back(
            *static_cast<const TowerInfo*>(value));
    } else if (CompareNoCase(key, "DetectClosestTower") == 0) {
        const DctSetting& setting = *static_cast<const DctSetting*>(value);
        g_Touched += setting.first.size() + setting.second.size();
    } else {
        g_Touched += strlen(key) + strlen(static_cast<const char*>(value));
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static ScratchRoot scratch("fuzz-obfuscated");
    static const std::string path = scratch.path + "/file";  // rewritten for every input
    if (size < 1)
        return 0;
    const uint8_t mode = data[0];
    const std::string body = AsText(data + 1, size - 1);
    const std::string plain = kObfuscatedMarker + body;
    if (mode & 1)
        ObfuscateTo(path, plain);
    else
        WriteFileBytes(path, data + 1, size - 1);
    std::string decoded;
    const EVP_CIPHER* const cipher = (mode & 3) == 2 ? EVP_rc4() : EVP_aes_128_cbc();
    const bool read =
        COpenSSLCrypt::DeObfuscateFiletoStr(path.c_str(), decoded, cipher, nullptr) == 0;
    // The plaintext road gives the text back up to its first NUL. Else a failed read delivers
    // nothing, and RC4's plaintext is as long as the file, the others' shorter.
    FUZZ_CHECK((mode & 1) ? read && decoded == std::string(plain.c_str())
               : read     ? decoded.size() <= body.size()
                          : decoded.empty());
    if (!read)
        return 0;

    if (decoded.compare(0, kObfuscatedMarkerLength, kObfuscatedMarker) == 0)
        decoded.erase(0, kObfuscatedMarkerLength);
    CXMLReadWriteConfig store;
    std::vector<TowerInfo> towers, again;
    if (store.LoadFromString(decoded, (mode & 4) != 0) != kConfigOk ||
        store.EnumConfig(&towers, OnValue, (mode & 8) != 0) != kConfigOk)
        return 0;
    std::string value, xml;
    store.GetValue("Tideway/ConfigurationParameters/ipc_port", value);
    // Rewritten towers are all found again, and what the store writes, it reads back.
    store.DeleteConfigNode("Towers");
    store.AddTowersToConfig(towers);
    CXMLReadWrite reread;
    FUZZ_CHECK(store.EnumConfig(&again, OnValue, (mode & 8) != 0) == kConfigOk &&
               again.size() >= towers.size() && store.GetXML(xml) == kConfigOk &&
               reread.LoadFromString(xml, false) == kConfigOk);
    return 0;
}
