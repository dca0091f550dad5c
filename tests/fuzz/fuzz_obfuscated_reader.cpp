// Drives the obfuscated-file reader with arbitrary file bytes and hands what decodes to the
// profile loader (load, walk, tower edits, GetXML), as the configuration does with a file found
// on disk. Input: [mode][bytes...]; mode bit 0 clear: the bytes are the file (bit 1: read with
// RC4); set: the bytes are a plaintext written with the marker and read back, which must give the
// marker and the bytes up to their first NUL. Bit 2: trim element text; bit 3: report every key.
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "common/OpenSSLCrypt.h"
#include "common/Utils.h"
#include "common/VNTrace.h"
#include "config/XMLReadWrite.h"

namespace {

// One scratch file per process, rewritten for every input and removed at exit.
struct Scratch {
    std::string path = "/tmp/fuzz_obfuscated_reader." + std::to_string(getpid());
    ~Scratch() { unlink(path.c_str()); }
} g_Scratch;

const std::string& ScratchPath() {
    return g_Scratch.path;
}

bool WriteScratch(const uint8_t* data, size_t size) {
    FILE* file = fopen(ScratchPath().c_str(), "wb");
    if (file == nullptr)
        return false;
    const bool ok = fwrite(data, 1, size, file) == size;
    return fclose(file) == 0 && ok;
}

struct Seen {
    std::vector<TowerInfo> towers;
    size_t values = 0;
};

// Touches every byte it is handed, so that a value of a shorter life or another type than its
// key says shows up under the sanitizers.
void OnValue(void* context, const char* key, const void* value) {
    Seen& seen = *static_cast<Seen*>(context);
    if (key == nullptr || value == nullptr)
        abort();
    if (CompareNoCase(key, "Tower") == 0) {
        seen.towers.push_back(*static_cast<const TowerInfo*>(value));
    } else if (CompareNoCase(key, "DetectClosestTower") == 0) {
        const DctSetting& setting = *static_cast<const DctSetting*>(value);
        seen.values += setting.first.size() + setting.second.size();
    } else {
        seen.values += strlen(key) + strlen(static_cast<const char*>(value));
    }
}

void LoadProfile(const std::string& decoded, bool trim, bool reportAll) {
    std::string text = decoded;
    if (text.compare(0, kObfuscatedMarkerLength, kObfuscatedMarker) == 0)
        text.erase(0, kObfuscatedMarkerLength);
    CXMLReadWriteConfig store;
    if (store.LoadFromString(text, trim) != kConfigOk)
        return;
    Seen seen;
    if (store.EnumConfig(&seen, OnValue, reportAll) != kConfigOk)
        return;
    std::string value;
    store.GetValue("Tideway/ConfigurationParameters/ipc_port", value);

    // Rewritten towers are all found again, and what the store writes, it reads back.
    store.DeleteConfigNode("Towers");
    store.AddTowersToConfig(seen.towers);
    Seen again;
    std::string xml;
    CXMLReadWrite reread;
    if (store.EnumConfig(&again, OnValue, reportAll) != kConfigOk ||
        again.towers.size() < seen.towers.size() || store.GetXML(xml) != kConfigOk ||
        reread.LoadFromString(xml, false) != kConfigOk)
        abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const int quiet = (g_Trace.SetLevelMask(0), 0);  // no log traffic from the loop
    (void)quiet;
    if (size < 1)
        return 0;
    const uint8_t mode = data[0];
    const uint8_t* body = data + 1;
    const size_t length = size - 1;
    const bool trim = (mode & 4) != 0;
    const bool reportAll = (mode & 8) != 0;

    std::string decoded;
    if ((mode & 1) == 0) {
        if (!WriteScratch(body, length))
            abort();
        const EVP_CIPHER* const cipher = (mode & 2) != 0 ? EVP_rc4() : EVP_aes_128_cbc();
        if (COpenSSLCrypt::DeObfuscateFiletoStr(ScratchPath().c_str(), decoded, cipher, nullptr) !=
            0) {
            if (!decoded.empty())
                abort();  // a failed read delivers nothing
            return 0;
        }
        // A block cipher's plaintext is shorter than the file; RC4's is as long.
        if (decoded.size() > length)
            abort();
    } else {
        std::string plain(kObfuscatedMarker);
        plain.append(reinterpret_cast<const char*>(body), length);
        if (COpenSSLCrypt::ObfuscateStringToFile(plain.data(), static_cast<uint32_t>(plain.size()),
                                                 ScratchPath().c_str(), nullptr) != 0 ||
            COpenSSLCrypt::DeObfuscateFiletoStr(ScratchPath().c_str(), decoded, EVP_aes_128_cbc(),
                                                nullptr) != 0 ||
            decoded != std::string(plain.c_str())) {
            abort();
        }
    }
    LoadProfile(decoded, trim, reportAll);
    return 0;
}
