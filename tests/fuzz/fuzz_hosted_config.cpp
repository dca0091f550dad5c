// Hands arbitrary bytes to UseHostedConfig as a downloaded profile and checks that only bytes
// that decode to an XML profile ever become the update file, that the update file otherwise
// keeps its bytes, that nothing is left beside it, and that an installed profile loads.
// Input: [mode][bytes...]; mode bit 0: the bytes are the plaintext of an obfuscated file made
// here (with the marker unless bit 1), else the download itself; bit 2: an update file exists
// beforehand; bit 3: it already holds these very bytes.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "FuzzSupport.h"
#include "common/OpenSSLCrypt.h"
#include "config/DnConfigFile.h"
#include "config/HostedConfigFile.h"

namespace {

namespace fs = std::filesystem;

// A scratch app-data root for the whole run, with its own folder for the downloads' temporary
// files (the refused ones stay there until the next input).
struct Root {
    Root() : path(MakeScratchRoot("fuzz-hosted")) {
        folder = path + "/tarvex/brenlo/tideway";
        update = folder + "/Tideway_ServiceProfile.wso";
        temporary = path + "/tmp";
        fs::create_directories(temporary);
        setenv("TMPDIR", temporary.c_str(), 1);
        const std::string plain =
            "OBFUSCATED<Tideway><ConfigurationParameters><ipc_port>1</ipc_port>"
            "</ConfigurationParameters></Tideway>";
        oldProfile = Obfuscate(plain);
    }
    ~Root() {
        std::error_code ignored;
        fs::remove_all(path, ignored);
    }
    std::string Obfuscate(const std::string& plain) const {
        const std::string made = path + "/made";
        FUZZ_CHECK(COpenSSLCrypt::ObfuscateStringToFile(
                       plain.data(), static_cast<uint32_t>(plain.size()), made.c_str(), nullptr) ==
                   0);
        const std::string bytes = Read(made);
        fs::remove(made);
        return bytes;
    }
    static std::string Read(const std::string& file) {
        std::ifstream in(file, std::ios::binary);
        if (!in)
            return "<absent>";
        return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    std::string path, folder, update, temporary, oldProfile;
};

size_t FilesIn(const std::string& folder) {
    size_t n = 0;
    for (const auto& entry : fs::directory_iterator(folder))
        n += entry.is_regular_file() ? 1 : 0;
    return n;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1)
        return 0;
    static Root root;
    const uint8_t mode = data[0];
    const std::string bytes(reinterpret_cast<const char*>(data + 1), size - 1);
    std::string hosted = bytes;
    if ((mode & 1) != 0)
        hosted = root.Obfuscate(((mode & 2) == 0 ? std::string(kObfuscatedMarker) : "") + bytes);

    std::error_code ignored;
    fs::remove_all(root.temporary, ignored);
    fs::create_directories(root.temporary);
    fs::remove(root.update, ignored);
    if ((mode & 4) != 0) {
        std::ofstream(root.update, std::ios::binary) << ((mode & 8) != 0 ? hosted : root.oldProfile);
    }
    const std::string before = Root::Read(root.update);

    CDnConfigFile config;
    const bool installed = config.UseHostedConfig(hosted);
    const std::string after = Root::Read(root.update);
    if (before == hosted) {
        FUZZ_CHECK(!installed && FilesIn(root.temporary) == 0);  // not new: nothing written
    }
    if (installed) {
        FUZZ_CHECK(after == hosted);
        FUZZ_CHECK(FilesIn(root.temporary) == 0);
        ConfigFileType type = kConfigFileUnknown;
        FUZZ_CHECK(config.GetConfigFileType(root.update, type) == 0 &&
                   type == kConfigFileObfuscated);
        // With no backup and no current file the reader takes the update: it must load.
        CHostedConfigFile reader;
        FUZZ_CHECK(reader.LoadHostedProfile());
        std::string label;
        FUZZ_CHECK(reader.GetProfileLabel(label));
    } else {
        FUZZ_CHECK(after == before);
        // A refused download that was new stays in the temporary folder, alone.
        FUZZ_CHECK(FilesIn(root.temporary) == (before == hosted ? 0u : 1u));
    }
    FUZZ_CHECK(FilesIn(root.folder) == (after == "<absent>" ? 0u : 1u));
    return 0;
}
