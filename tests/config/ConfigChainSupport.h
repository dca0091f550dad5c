// Helpers of the tests of the configuration object: a temporary app-data root holding the
// product's folders, obfuscated profile files written and read back, and profiles built from
// the text of their ConfigurationParameters.
#ifndef TIDEWAY_TESTS_CONFIG_CONFIGCHAINSUPPORT_H_
#define TIDEWAY_TESTS_CONFIG_CONFIGCHAINSUPPORT_H_

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ConfigTestSupport.h"
#include "SyslogCapture.h"
#include "common/OpenSSLCrypt.h"
#include "common/Utils.h"
#include "config/DnConfigFile.h"

namespace config_test {

// A profile document around `parameters`, the inner text of ConfigurationParameters.
inline std::string Profile(const std::string& parameters, const std::string& label = "") {
    return "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<Tideway>\n"
           "<SchemaVersion>3.0</SchemaVersion>\n" +
           (label.empty() ? std::string() : "<ProfileLabel>" + label + "</ProfileLabel>\n") +
           "<ConfigurationParameters>\n" + parameters +
           "\n</ConfigurationParameters>\n</Tideway>\n";
}

// Writes `plain` obfuscated to `path`, with the marker in front unless `marker` is false.
inline void WriteObfuscated(const std::string& path, const std::string& plain, bool marker = true) {
    const std::string data = (marker ? std::string(kObfuscatedMarker) : std::string()) + plain;
    ASSERT_EQ(COpenSSLCrypt::ObfuscateStringToFile(data.data(), static_cast<uint32_t>(data.size()),
                                                   path.c_str(), nullptr),
              0)
        << path;
}

// The decoded text of an obfuscated file, marker included; "<undecodable>" on failure.
inline std::string Decode(const std::string& path) {
    std::string text;
    if (COpenSSLCrypt::DeObfuscateFiletoStr(path.c_str(), text, EVP_aes_128_cbc(), nullptr) != 0)
        return "<undecodable>";
    return text;
}

// The state of one file: absent, or its bytes.
inline std::string Snapshot(const std::string& path) {
    std::error_code ec;
    if (!std::filesystem::exists(path, ec))
        return "<absent>";
    if (std::filesystem::is_directory(path, ec))
        return "<directory>";
    return ReadFile(path);
}

// How many log records say exactly `text` (each record ends in a line feed).
inline size_t Logged(const std::string& text) {
    return syslog_capture::Count(text + "\n");
}

// The texts of the log records, without their line feeds.
inline std::vector<std::string> LoggedTexts() {
    std::vector<std::string> texts = syslog_capture::Texts();
    for (std::string& text : texts) {
        if (!text.empty() && text.back() == '\n')
            text.pop_back();
    }
    return texts;
}

// A temporary app-data root with the product's folders, set as the root for the life of the
// object; the trace is set up and the captured log cleared.
class ChainRoot {
  public:
    ChainRoot() {
        InitTrace();
        syslog_capture::Clear();
        SetAllUsersAppDataPathForTesting(m_Dir.Path("root"));
        std::filesystem::create_directories(m_Dir.Path("root/tarvex/brenlo/tideway/config"));
        CDnConfigFile::SetConfigRoleForTesting(kConfigRolePlugin);
    }
    ~ChainRoot() {
        CDnConfigFile::SetConfigRoleForTesting(kConfigRolePlugin);
        SetAllUsersAppDataPathForTesting("");
    }
    ChainRoot(const ChainRoot&) = delete;
    ChainRoot& operator=(const ChainRoot&) = delete;

    std::string Current() const {
        return m_Dir.Path("root/tarvex/brenlo/tideway/config/Tideway.config");
    }
    std::string Update() const {
        return m_Dir.Path("root/tarvex/brenlo/tideway/Tideway_ServiceProfile.wso");
    }
    std::string Backup() const {
        return m_Dir.Path("root/tarvex/brenlo/tideway/config/Tideway_config.backup");
    }
    std::string Scratch(const std::string& name) const { return m_Dir.Path(name); }

  private:
    TempDir m_Dir;
};

// A configuration object initialised (false, false) from a current file holding `parameters`.
inline std::unique_ptr<CDnConfigFile> LoadParameters(const ChainRoot& root,
                                                     const std::string& parameters) {
    WriteObfuscated(root.Current(), Profile(parameters));
    auto config = std::make_unique<CDnConfigFile>();
    EXPECT_TRUE(config->InitializeConfig(false, false)) << parameters;
    return config;
}

}  // namespace config_test

#endif  // TIDEWAY_TESTS_CONFIG_CONFIGCHAINSUPPORT_H_
