// Helpers of the configuration tests: the trace set up so that ERR and WARN lines reach the
// captured system log, a temporary folder removed with everything in it, and whole-file I/O.
#ifndef TIDEWAY_TESTS_CONFIG_CONFIGTESTSUPPORT_H_
#define TIDEWAY_TESTS_CONFIG_CONFIGTESTSUPPORT_H_

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <gtest/gtest.h>

#include "common/VNTrace.h"

namespace config_test {

inline void InitTrace() {
    g_Trace.InitTrace(kTraceIdent, "/tmp", "TidewayAPI.log", 2, kDefaultTraceMask, false, true, 10,
                      10000, 100, 1, 0, 60);
    g_Trace.SetLevelMask(kDefaultTraceMask);
}

class TempDir {
  public:
    TempDir() {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "tideway-config-XXXXXX").string();
        if (mkdtemp(&pattern[0]) == nullptr)
            ADD_FAILURE() << "mkdtemp failed";
        m_Path = pattern;
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(m_Path, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    std::string Path(const std::string& name) const { return m_Path + "/" + name; }
    // Writes `bytes` to the file `name` in the folder and returns its path.
    std::string Write(const std::string& name, const std::string& bytes) const {
        const std::string path = Path(name);
        std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
        return path;
    }

  private:
    std::string m_Path;
};

inline std::string ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

}  // namespace config_test

#endif  // TIDEWAY_TESTS_CONFIG_CONFIGTESTSUPPORT_H_
