// UseHostedConfig fed arbitrary bytes as a downloaded profile. Input: [mode][bytes]; bit 0: the
// bytes are the plaintext of an obfuscated file (bit 1: without the marker); bit 2: an update file
// exists beforehand; bit 3: it holds these very bytes.
#include "FuzzSupport.h"
#include "config/DnConfigFile.h"
#include "config/HostedConfigFile.h"

namespace {

namespace fs = std::filesystem;

// The app-data root, with a folder for the downloads' temporary files (refused ones stay there).
struct Root : ScratchRoot {
    std::string folder = path + "/tarvex/brenlo/tideway",
                update = folder + "/Tideway_ServiceProfile.wso", temporary = path + "/tmp";
    std::string oldProfile;
    Root() : ScratchRoot("fuzz-hosted") {
        fs::create_directories(temporary);
        setenv("TMPDIR", temporary.c_str(), 1);
        oldProfile = Obfuscate(
            "OBFUSCATED<Tideway><ConfigurationParameters><ipc_port>1</ipc_port>"
            "</ConfigurationParameters></Tideway>");
    }
    std::string Obfuscate(const std::string& plain) const {
        FUZZ_CHECK(ObfuscateTo(path + "/made", plain));
        const std::string bytes = ReadFileBytes(path + "/made");
        fs::remove(path + "/made");
        return bytes;
    }
};

size_t FilesIn(const std::string& folder) {
    return std::count_if(fs::directory_iterator(folder), fs::directory_iterator(),
                         [](const fs::directory_entry& entry) { return entry.is_regular_file(); });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1)
        return 0;
    static Root root;
    const uint8_t mode = data[0];
    const std::string bytes = AsText(data + 1, size - 1);
    const std::string hosted =
        (mode & 1) ? root.Obfuscate(((mode & 2) ? "" : std::string(kObfuscatedMarker)) + bytes)
                   : bytes;

    std::error_code ignored;
    fs::remove_all(root.temporary, ignored);
    fs::create_directories(root.temporary);
    fs::remove(root.update, ignored);
    if (mode & 4)
        std::ofstream(root.update, std::ios::binary) << ((mode & 8) ? hosted : root.oldProfile);
    // Whether the file exists is asked apart: "<absent>" may be the download itself.
    const bool existed = fs::exists(root.update);
    const std::string before = ReadFileBytes(root.update);
    const bool notNew = existed && before == hosted;

    CDnConfigFile config;
    const bool installed = config.UseHostedConfig(hosted);
    const std::string after = ReadFileBytes(root.update);
    if (notNew)  // nothing written
        FUZZ_CHECK(!installed && FilesIn(root.temporary) == 0);
    if (installed) {
        FUZZ_CHECK(after == hosted && FilesIn(root.temporary) == 0);
        ConfigFileType type = kConfigFileUnknown;
        FUZZ_CHECK(config.GetConfigFileType(root.update, type) == 0 &&
                   type == kConfigFileObfuscated);
        // With no backup and no current file the reader takes the update: it must load.
        CHostedConfigFile reader;
        std::string label;
        FUZZ_CHECK(reader.LoadHostedProfile() && reader.GetProfileLabel(label));
    } else {
        // The update file as it was; a refused download that was new stays alone in temporary.
        FUZZ_CHECK(after == before && FilesIn(root.temporary) == (notNew ? 0u : 1u));
    }
    FUZZ_CHECK(FilesIn(root.folder) == (fs::exists(root.update) ? 1u : 0u));
    return 0;
}
