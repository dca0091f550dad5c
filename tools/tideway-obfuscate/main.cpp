// tideway-obfuscate: the maintenance tool over COpenSSLCrypt::ObfuscateFile. Encodes a plain
// profile (or any text) into the obfuscated form the client and the service agent share, or
// decodes one back to plain text. With --check it reads an obfuscated profile the way the
// module does and prints its label, towers, active tower and closest-tower settings.
#include <errno.h>
#include <libgen.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>
#include <vector>

#include "common/OpenSSLCrypt.h"
#include "common/Utils.h"
#include "config/ConfigKeys.h"
#include "config/DnConfigFile.h"

namespace {

const char kUsage[] =
    "Usage: tideway-obfuscate [--phrase-file FILE] --encode PLAIN OBFUSCATED\n"
    "       tideway-obfuscate [--phrase-file FILE] --decode OBFUSCATED PLAIN\n"
    "       tideway-obfuscate --check FILE\n"
    "       tideway-obfuscate --help\n"
    "\n"
    "Converts a profile between plain text and the obfuscated form that the client module\n"
    "and the service agent read (for instance config/Tideway.config).\n"
    "\n"
    "  -e, --encode       read the plain file PLAIN and write OBFUSCATED: the marker\n"
    "                     \"OBFUSCATED\" followed by the file, enciphered as a whole\n"
    "  -d, --decode       read OBFUSCATED and write its text to PLAIN without the first\n"
    "                     10 characters (the marker); the text ends at its first NUL byte\n"
    "  -c, --check        say whether FILE is a valid obfuscated profile (built-in pass\n"
    "                     phrase) and print its label, towers, active tower and\n"
    "                     closest-tower settings, read by the module's own loader\n"
    "  -p, --phrase-file  take the pass phrase from FILE (one trailing line end is ignored)\n"
    "                     instead of the one built into this program; both sides of a file\n"
    "                     must use the same phrase\n"
    "  -h, --help         show this text\n"
    "\n"
    "The output file is created or overwritten; it must not be the input file.\n"
    "Nothing in an obfuscated file checks its integrity: a wrong pass phrase or a damaged\n"
    "file is usually refused (\"bad de-obfuscate\"), but a file damaged in the middle\n"
    "decodes to garbled text.\n"
    "\n"
    "Exit status: 0 on success (with --check: a valid profile), 1 on failure, 2 on a\n"
    "usage error.\n";

int UsageError(const char* message) {
    fprintf(stderr, "tideway-obfuscate: %s\n%s", message, kUsage);
    return 2;
}

// The pass phrase from `path`: the file's bytes without one trailing LF or CR LF.
bool ReadPassPhrase(const char* path, std::string& phrase) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        fprintf(stderr, "tideway-obfuscate: cannot read the pass phrase file %s\n", path);
        return false;
    }
    phrase.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    if (!phrase.empty() && phrase.back() == '\n')
        phrase.pop_back();
    if (!phrase.empty() && phrase.back() == '\r')
        phrase.pop_back();
    if (phrase.empty() || phrase.find('\0') != std::string::npos) {
        fprintf(stderr, "tideway-obfuscate: %s holds no usable pass phrase\n", path);
        return false;
    }
    return true;
}

// Whether `path` can be written: an existing file writable, or a new one in a writable folder.
bool CanWrite(const char* path) {
    if (access(path, F_OK) == 0)
        return access(path, W_OK) == 0;
    std::vector<char> copy(path, path + strlen(path) + 1);
    return access(dirname(copy.data()), W_OK | X_OK) == 0;
}

// A scratch app-data root holding one profile as its current file, removed on destruction.
class ScratchRoot {
  public:
    ScratchRoot() {
        char pattern[] = "/tmp/tideway-check-XXXXXX";
        if (mkdtemp(pattern) != nullptr)
            m_Path = pattern;
    }
    ~ScratchRoot() {
        SetAllUsersAppDataPathForTesting("");
        std::error_code ignored;
        if (!m_Path.empty())
            std::filesystem::remove_all(m_Path, ignored);
    }
    ScratchRoot(const ScratchRoot&) = delete;
    ScratchRoot& operator=(const ScratchRoot&) = delete;

    // Copies `profile` to where the loader looks for the current file and points the loader
    // at this root.
    bool Install(const char* profile) {
        if (m_Path.empty())
            return false;
        const std::string folder = m_Path + kProductDirectory + kConfigDirectory;
        std::error_code error;
        std::filesystem::create_directories(folder, error);
        if (error)
            return false;
        std::filesystem::copy_file(profile, folder + "/" + kConfigFileLeaf, error);
        if (error)
            return false;
        SetAllUsersAppDataPathForTesting(m_Path);
        return true;
    }

  private:
    std::string m_Path;
};

// --check: the file's kind by the loader's own probe, then, for an obfuscated profile, a load
// through the file chain from a scratch copy (the file itself is never written) and a report.
int CheckProfile(const char* path) {
    if (access(path, R_OK) != 0) {
        fprintf(stderr, "tideway-obfuscate: cannot read %s: %s\n", path, strerror(errno));
        return 1;
    }
    std::error_code sizeError;
    if (std::filesystem::file_size(path, sizeError) == 0 && !sizeError) {
        printf("%s: invalid: empty file\n", path);
        return 1;
    }
    ConfigFileType type = kConfigFileUnknown;
    {
        CDnConfigFile probe;
        probe.GetConfigFileType(path, type);
    }
    if (type == kConfigFilePlainXml) {
        printf("%s: invalid: plain XML, not an obfuscated profile\n", path);
        return 1;
    }
    if (type != kConfigFileObfuscated) {
        printf("%s: invalid: %s\n", path,
               type == kConfigFileBadXml ? "decodes, but not to valid XML"
                                         : "not an obfuscated file (or another pass phrase)");
        return 1;
    }
    ScratchRoot root;
    if (!root.Install(path)) {
        fprintf(stderr, "tideway-obfuscate: cannot make a scratch copy of %s\n", path);
        return 1;
    }
    CDnConfigFile config;
    if (!config.InitializeConfig(false, false)) {
        printf("%s: invalid: the profile does not load\n", path);
        return 1;
    }
    printf("%s: valid obfuscated profile\n", path);
    std::string label;
    config.GetProfileLabel(label);
    printf("label: %s\n", label.c_str());
    const auto towers = config.GetTowers();
    printf("towers: %zu\n", towers.size());
    for (const auto& tower : towers) {
        printf("tower: %s host=%s ssl=%s plain=%s active=%s\n", tower.second.DisplayName.c_str(),
               tower.second.HostName.c_str(), tower.second.SSLPort.c_str(),
               tower.second.PlainPort.c_str(), tower.second.Active.c_str());
    }
    // The tower the module would use: the stored choice, repaired in memory only if stale.
    if (towers.empty()) {
        printf("active: none\n");
    } else {
        TowerInfo active;
        config.GetActiveTower(active);
        printf("active: %s host=%s\n", active.DisplayName.c_str(), active.HostName.c_str());
    }
    // Every closest-tower setting as stored, then the typed record the module reads.
    std::string settings;
    for (const auto& setting : config.GetDctSettings())
        settings += " " + setting.first + "=" + setting.second;
    printf("dct:%s\n", settings.empty() ? " none" : settings.c_str());
    DctParams dct;
    config.GetDctParams(dct);
    printf("dct params: Mode=%s NumberReadings=%d connect_timeout=%llu\n", dct.mode.c_str(),
           dct.numberReadings, static_cast<unsigned long long>(dct.connectTimeout));
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    int mode = -1;  // 1 encode, 0 decode, 2 check
    const char* phraseFile = nullptr;
    std::vector<const char*> paths;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "-h" || arg == "--help") {
            fputs(kUsage, stdout);
            return 0;
        } else if (arg == "-e" || arg == "--encode" || arg == "-d" || arg == "--decode") {
            const int wanted = (arg == "-e" || arg == "--encode") ? 1 : 0;
            if (mode != -1 && mode != wanted)
                return UsageError("choose one of --encode and --decode");
            mode = wanted;
        } else if (arg == "-c" || arg == "--check") {
            if (mode != -1 && mode != 2)
                return UsageError("--check goes alone");
            mode = 2;
        } else if (arg == "-p" || arg == "--phrase-file") {
            if (i + 1 >= argc)
                return UsageError("--phrase-file needs a file name");
            phraseFile = argv[++i];
        } else if (arg.size() > 1 && arg[0] == '-') {
            return UsageError(("unknown option " + arg).c_str());
        } else {
            paths.push_back(argv[i]);
        }
    }
    if (mode == -1)
        return UsageError("choose --encode or --decode");
    if (mode == 2) {
        if (paths.size() != 1)
            return UsageError("--check takes one file");
        if (phraseFile != nullptr)
            return UsageError("--check reads with the built-in pass phrase only");
        return CheckProfile(paths[0]);
    }
    if (paths.size() != 2)
        return UsageError("give an input file and an output file");

    std::string phrase;
    if (phraseFile != nullptr && !ReadPassPhrase(phraseFile, phrase))
        return 1;
    const char* const passPhrase = phraseFile != nullptr ? phrase.c_str() : nullptr;

    // The decoder reports an output it cannot open and still succeeds; ask first instead.
    if (!CanWrite(paths[1])) {
        fprintf(stderr, "tideway-obfuscate: cannot write %s: %s\n", paths[1], strerror(errno));
        return 1;
    }
    const int status = COpenSSLCrypt::ObfuscateFile(paths[0], paths[1], passPhrase, mode);
    if (status != 0) {
        if (mode == 0) {
            fprintf(stderr,
                    "tideway-obfuscate: cannot decode %s: not an obfuscated file, a damaged one, "
                    "or another pass phrase\n",
                    paths[0]);
        } else {
            fprintf(stderr, "tideway-obfuscate: cannot encode %s into %s\n", paths[0], paths[1]);
        }
        return 1;
    }
    return 0;
}
