#include "config/HostedConfigFile.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include <boost/filesystem.hpp>

#include "common/FileReplacement.h"
#include "common/Mutex.h"
#include "common/Utils.h"
#include "common/VNTrace.h"
#include "config/ConfigKeys.h"
#include "config/ProfileFiles.h"

namespace {

using Guard = CRecursiveLock;

// Creates `path` for writing only if no file or link of that name exists: the name comes from
// a shared folder, where a link planted under it must not redirect the write.
FILE* CreateExclusive(const std::string& path) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0)
        return nullptr;
    FILE* file = fdopen(fd, "wb");
    if (file == nullptr)
        close(fd);
    return file;
}

// Copies the file at `from` over `to` so that `to` holds either its old bytes or all of the new
// ones, keeping its owner and mode. False with errno set on failure.
bool ReplaceWithCopy(const std::string& from, const std::string& to) {
    FILE* source = fopen(from.c_str(), "rb");
    if (source == nullptr)
        return false;
    CFileReplacement replacement(to);
    FILE* target = replacement.Open();
    bool ok = target != nullptr;
    char buffer[64 * 1024];
    while (ok) {
        const size_t n = fread(buffer, 1, sizeof(buffer), source);
        if (n > 0 && fwrite(buffer, 1, n, target) != n)
            ok = false;
        if (n < sizeof(buffer)) {
            if (ferror(source)) {
                errno = EIO;
                ok = false;
            }
            break;
        }
    }
    const int error = errno;
    fclose(source);
    if (ok && replacement.Commit())
        return true;
    errno = error != 0 ? error : EIO;
    return false;
}

}  // namespace

bool CConfig::IsHostedConfigNew(const std::string& hosted) {
    Guard lock(m_Lock);
    const std::string update = GetUpdateFileName();
    if (!FileExists(update)) {
        VNTRACE(TL_WARN, "Config : Update file '%s' doesn't exist. Code :%ld", update.c_str(),
                kConfigFileMissing);
        return true;
    }
    std::string bytes;
    if (!profile_files::ReadWholeFile(update, bytes))
        return true;
    VNTRACE(TL_LIC, "UseHostedConfig : updateLength=%d hostedLength=%d",
            static_cast<int>(bytes.size()), static_cast<int>(hosted.size()));
    return bytes != hosted;
}

bool CConfig::UseHostedConfig(const std::string& hosted) {
    Guard lock(m_Lock);
    if (!IsHostedConfigNew(hosted))
        return false;

    // The download goes to a file of its own first: only a file that probes as an obfuscated
    // profile may become the update file.
    const std::string temporary = GetTempFileName();
    FILE* file = CreateExclusive(temporary);
    if (file == nullptr) {
        VNTRACE(TL_ERR, "UseHostedConfig : Failed to open config file");
        return false;
    }
    const size_t written = fwrite(hosted.data(), 1, hosted.size(), file);
    // What the stream says after the write: a failure that only the close would meet (a full
    // disk under a small, still buffered download) is not seen here, and the type probe below
    // refuses the short file.
    if (written != hosted.size() || ferror(file) != 0) {
        VNTRACE(TL_ERR, "UseHostedConfig : Failed to write to config file. Code : 0x%x",
                static_cast<unsigned>(ferror(file)));
    } else {
        VNTRACE(TL_LIC, "UseHostedConfig : Wrote %d bytes", static_cast<int>(written));
    }
    fclose(file);

    ConfigFileType type = kConfigFileUnknown;
    const long code = profile_files::ProbeFileType(temporary, type);
    if (code != 0) {
        VNTRACE(TL_ERR,
                "UseHostedConfig : Getting downloaded config type failed: Config Type : %d. "
                "Code :%ld",
                static_cast<int>(type), code);
    }
    if (type != kConfigFileObfuscated) {
        // The rejected download stays in the temporary folder for whoever examines it.
        VNTRACE(TL_ERR, "UseHostedConfig : Downoaded config was wrong type %d",
                static_cast<int>(type));
        return false;
    }

    bool installed = false;
    std::string root;
    if (!GetAllUsersAppDataPath(root)) {
        VNTRACE(TL_ERR, "UseHostedConfig: GetAllUsersAppDataPath failed");
    } else {
        // Written beside the update file and renamed over it: a full disk or a crash leaves the
        // old update file whole, and the file keeps its owner and mode.
        const std::string update = GetUpdateFileName();
        if (ReplaceWithCopy(temporary, update)) {
            VNTRACE(TL_LIC, "UseHostedConfig : Loaded and copied hosted config to update config");
            installed = true;
        } else {
            const int error = errno;
            VNTRACE(TL_ERR, "UseHostedConfig: copy_file failed: %s", strerror(error));
        }
    }
    boost::filesystem::remove(temporary);
    return installed;
}

bool CHostedConfigFile::Reload() {
    return true;
}

bool CHostedConfigFile::LoadHostedProfile() {
    Guard lock(m_Lock);
    // No adoption, default or backup here: the files are only read.
    if (!EnsureStore())
        return false;
    if (IsUpdateAvailable()) {
        if (LoadConfigFile(true) == 0)
            return true;
        VNTRACE(TL_ERR, "ERROR : Failed to load Update Configuration file");
        DropStore();
    }
    if (!EnsureStore())
        return false;
    if (LoadConfigFile(false) == 0)
        return true;
    VNTRACE(TL_ERR, "ERROR : Failed to load Configuration file");
    DropStore();
    return false;
}
