// UseHostedConfig fed arbitrary bytes as a downloaded profile. Input: [mode][bytes]; bit 0: the
// bytes are the plaintext of an obfuscated file (bit 1: without the marker); bit 2: an update file
// exists beforehand; bit 3: it holds these very bytes.
#include "FuzzSupport.h"
#include "config/DnConfigFile.h"
#include "config/HostedConfigFile.h"

namespace fs = std::filesystem;

static size_t FilesIn(const std::string& folder) {
    return std::count_if(fs::directory_iterator(folder), fs::directory_iterator(),
                         [](const fs::directory_entry& entry) { return entry.is_regular_file(); });
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1)
        return 0;
    static ScratchRoot root("fuzz-hosted");
    auto obfuscated = [](const std::string& plain) { return ObfuscateTo(root.path + "/x", plain); };
    // The downloads' temporary files go to a folder of their own (refused ones stay there).
    static const std::string update = root.folder + "/Tideway_ServiceProfile.wso",
                             temporary = root.path + "/tmp";
    static const std::string oldProfile =
        (setenv("TMPDIR", temporary.c_str(), 1),
         obfuscated("OBFUSCATED<Tideway><ConfigurationParameters><ipc_port>1</ipc_port>"
                    "</ConfigurationParameters></Tideway>"));
    const uint8_t mode = data[0];
    const std::string bytes = AsText(data + 1, size - 1);
    const std::string hosted =
        (mode & 1) ? obfuscated(((mode & 2) ? "" : std::string(kObfuscatedMarker)) + bytes) : bytes;

    fs::remove_all(temporary);
    fs::create_directories(temporary);
    unlink(update.c_str());
    if (mode & 4)
        std::ofstream(update, std::ios::binary) << ((mode & 8) ? hosted : oldProfile);
    // Whether the file exists is asked apart: "<absent>" may be the download itself.
    const std::string before = ReadFileBytes(update);
    const bool notNew = fs::exists(update) && before == hosted;

    CDnConfigFile config;
    const bool installed = config.UseHostedConfig(hosted);
    const std::string after = ReadFileBytes(update);
    FUZZ_CHECK(!notNew || (!installed && FilesIn(temporary) == 0));
    if (installed) {
        // With no backup and no current file the reader takes the update: it must load.
        ConfigFileType type = kConfigFileUnknown;
        CHostedConfigFile reader;
        std::string label;
        FUZZ_CHECK(after == hosted && FilesIn(temporary) == 0 &&
                   config.GetConfigFileType(update, type) == 0 && type == kConfigFileObfuscated &&
                   reader.LoadHostedProfile() && reader.GetProfileLabel(label));
    } else {
        // The update file as it was; a refused download that was new stays alone in temporary.
        FUZZ_CHECK(after == before && FilesIn(temporary) == (notNew ? 0u : 1u));
    }
    FUZZ_CHECK(FilesIn(root.folder) == (fs::exists(update) ? 1u : 0u));
    return 0;
}
