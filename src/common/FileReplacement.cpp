#include "common/FileReplacement.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>

namespace {

// The file a path finally names: a symbolic link is followed so that the link is kept and its
// target replaced. A path that does not resolve (a new file) is taken as it stands.
std::string ResolveTarget(const std::string& path) {
    struct stat status;
    if (lstat(path.c_str(), &status) != 0 || !S_ISLNK(status.st_mode))
        return path;
    char resolved[PATH_MAX];
    if (realpath(path.c_str(), resolved) == nullptr)
        return path;
    return resolved;
}

std::string NextTemporaryName(const std::string& target) {
    static std::atomic<unsigned> counter{0};
    return target + ".new-" + std::to_string(getpid()) + "-" + std::to_string(++counter);
}

}  // namespace

CFileReplacement::CFileReplacement(const std::string& path) : m_Target(ResolveTarget(path)) {}

CFileReplacement::~CFileReplacement() {
    Discard();
}

FILE* CFileReplacement::Open() {
    Discard();
    struct stat old;
    const bool exists = stat(m_Target.c_str(), &old) == 0;
    // Only a regular file is replaced; anything else (a device, a pipe) is written as it is.
    for (int attempt = 0; (!exists || S_ISREG(old.st_mode)) && attempt < 8; ++attempt) {
        const std::string name = NextTemporaryName(m_Target);
        // 0666 under the umask, as a plain fopen would create it.
        const int fd = open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (fd < 0) {
            if (errno == EEXIST)
                continue;
            break;
        }
        if (exists) {
            // Keep the old file's owner and mode; an unprivileged writer keeps its own owner.
            if (fchown(fd, old.st_uid, old.st_gid) != 0)
                errno = 0;
            if (fchmod(fd, old.st_mode & 07777) != 0)
                errno = 0;
        }
        m_pStream = fdopen(fd, "wb");
        if (m_pStream == nullptr) {
            close(fd);
            unlink(name.c_str());
            return nullptr;
        }
        m_Temporary = name;
        return m_pStream;
    }
    // Not a regular file, or nothing can be created beside it (a read-only directory, say):
    // write in place.
    m_pStream = fopen(m_Target.c_str(), "wb");
    return m_pStream;
}

bool CFileReplacement::Commit() {
    if (m_pStream == nullptr)
        return false;
    bool written = fflush(m_pStream) == 0 && !ferror(m_pStream);
    // A device or pipe written in place may not support fsync (EINVAL); that is no failure.
    if (written && fsync(fileno(m_pStream)) != 0 && errno != EINVAL)
        written = false;
    const bool closed = fclose(m_pStream) == 0;
    m_pStream = nullptr;
    if (m_Temporary.empty())
        return written && closed;
    if (!written || !closed || rename(m_Temporary.c_str(), m_Target.c_str()) != 0) {
        const int error = errno;
        unlink(m_Temporary.c_str());
        m_Temporary.clear();
        errno = error;
        return false;
    }
    m_Temporary.clear();
    return true;
}

void CFileReplacement::Discard() {
    if (m_pStream != nullptr) {
        fclose(m_pStream);
        m_pStream = nullptr;
    }
    if (!m_Temporary.empty()) {
        unlink(m_Temporary.c_str());
        m_Temporary.clear();
    }
}
