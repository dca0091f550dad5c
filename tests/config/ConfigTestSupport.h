// Helpers of the configuration tests: files, obfuscated profiles, shell runs, an app-data root.
#ifndef TIDEWAY_TESTS_CONFIG_CONFIGTESTSUPPORT_H_
#define TIDEWAY_TESTS_CONFIG_CONFIGTESTSUPPORT_H_

#include <pwd.h>
#include <signal.h>
#include <stdio.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include <gmock/gmock.h>

#include "SyslogCapture.h"
#include "TestEnv.h"
#include "common/OpenSSLCrypt.h"
#include "common/VNTrace.h"
#include "config/ConfigKeys.h"
#include "config/DnConfigFile.h"

namespace config_test {

inline void InitTrace() {
    g_Trace.InitTrace(kTraceIdent, "/tmp", "TidewayAPI.log", 2, kDefaultTraceMask, false, true, 10,
                      10000, 100, 1, 0, 60);
    g_Trace.SetLevelMask(kDefaultTraceMask);
}

inline std::string Write(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
    return path;
}

// A file's bytes, or "<absent>".
inline std::string Bytes(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::error_code ec;
    return std::filesystem::is_regular_file(path, ec)
               ? std::string(std::istreambuf_iterator<char>(file), {})
               : "<absent>";
}

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
    ASSERT_EQ(COpenSSLCrypt::ObfuscateStringToFile(data.data(), data.size(), path.c_str(), nullptr),
              0)
        << path;
}

// The decoded text of an obfuscated file, marker included; "<undecodable>" on failure.
inline std::string Decode(const std::string& path) {
    std::string text;
    return COpenSSLCrypt::DeObfuscateFiletoStr(path.c_str(), text, EVP_aes_128_cbc(), nullptr) == 0
               ? text
               : "<undecodable>";
}

// Everything left in `stream`.
inline std::string ReadAll(FILE* stream) {
    std::string text;
    char buffer[512];
    for (size_t n; stream != nullptr && (n = fread(buffer, 1, sizeof(buffer), stream)) > 0;)
        text.append(buffer, n);
    return text;
}

// Runs `script` with sh in `dir`: its exit status, and its output and errors in `out` if given.
inline int Shell(const std::string& dir, const std::string& script, std::string* out = nullptr) {
    FILE* pipe = popen(("cd '" + dir + "' && (" + script + "\n) 2>&1").c_str(), "r");
    std::string text = ReadAll(pipe);
    const int status = pipe != nullptr ? pclose(pipe) : -1;
    if (out != nullptr)
        *out = text;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// The permission bits of `path`, or -1 when it has none to read.
inline int Mode(const std::string& path) {
    struct stat info {};
    return stat(path.c_str(), &info) == 0 ? int(info.st_mode & 07777) : -1;
}

// Regular files in `folder`.
inline size_t FilesIn(const std::string& folder) {
    const std::filesystem::directory_iterator files(folder);
    return std::count_if(begin(files), end(files), [](auto& f) { return f.is_regular_file(); });
}

// The items of `list` with `separator` after each but the last.
template <typename List>
std::string Join(const List& list, const std::string& separator = "|") {
    std::string text;
    for (const auto& item : list)
        text += item + separator;
    return text.substr(0, text.size() - (text.empty() ? 0 : separator.size()));
}

// `text` as a store writes it back after loading it.
inline std::string Rewritten(const std::string& text) {
    CXMLReadWrite store;
    std::string xml;
    EXPECT_EQ(store.LoadFromString(text, true), kConfigOk);
    store.GetXML(xml);
    return xml;
}

// How many log records say exactly `text`.
inline size_t Logged(const std::string& text) {
    return syslog_capture::Count(text + "\n");
}

// A temporary app-data root with the profile folders, the plug-in's role and a cleared log.
class ChainRoot : public TempRoot {
  public:
    ChainRoot() {
        InitTrace();
        syslog_capture::Clear();
        std::filesystem::create_directories(Path("tarvex/brenlo/tideway/config"));
        CDnConfigFile::SetConfigRoleForTesting(kConfigRolePlugin);
    }
    ~ChainRoot() { CDnConfigFile::SetConfigRoleForTesting(kConfigRolePlugin); }

    std::string Path(const std::string& name) const { return path() + "/" + name; }
    std::string Current() const { return Path(kFolder + "config/Tideway.config"); }
    std::string Update() const { return Path(kFolder + "Tideway_ServiceProfile.wso"); }
    std::string Backup() const { return Path(kFolder + "config/Tideway_config.backup"); }
    const std::string kFolder = "tarvex/brenlo/tideway/";
};

// A configuration object initialised (false, false) from a current file holding `parameters`.
inline std::unique_ptr<CDnConfigFile> LoadParameters(const ChainRoot& root,
                                                     const std::string& parameters) {
    WriteObfuscated(root.Current(), Profile(parameters));
    auto config = std::make_unique<CDnConfigFile>();
    EXPECT_TRUE(config->InitializeConfig(false, false)) << parameters;
    return config;
}

// Runs `save` in a forked child (as `user` if given; files capped at 1 KiB if `fullDisk`):
// "true" or "false", then "|" and each log record.
inline std::string SaveInChild(const passwd* user, const std::function<bool()>& save,
                               bool fullDisk = false) {
    int out[2];
    if (pipe(out) != 0)
        return "<no pipe>";
    const pid_t child = fork();
    if (child == 0) {
        close(out[0]);
        if (user != nullptr && (setgid(user->pw_gid) != 0 || setuid(user->pw_uid) != 0))
            _exit(2);
        const rlimit limit{1024, 1024};
        if (fullDisk && (signal(SIGXFSZ, SIG_IGN) == SIG_ERR || setrlimit(RLIMIT_FSIZE, &limit)))
            _exit(4);
        syslog_capture::Clear();
        std::string report = save() ? "true" : "false";
        for (const std::string& text : syslog_capture::Texts())
            report += "|" + text;
        _exit(write(out[1], report.data(), report.size()) == ssize_t(report.size()) ? 0 : 3);
    }
    close(out[1]);
    FILE* stream = fdopen(out[0], "r");
    const std::string report = ReadAll(stream);
    if (stream != nullptr)
        fclose(stream);
    int status = -1;
    waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? report : "<child failed>";
}

}  // namespace config_test

#endif  // TIDEWAY_TESTS_CONFIG_CONFIGTESTSUPPORT_H_
