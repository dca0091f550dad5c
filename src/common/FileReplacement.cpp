#include "common/FileReplacement.h"

#include <ctype.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>
#ifdef __linux__
#include <sys/xattr.h>
#endif

#include <atomic>
#include <set>

#include "common/Mutex.h"

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

const char kTemporaryInfix[] = ".new-";

// Temporary files are named <target>.new-<pid>-<counter>.
std::string NextTemporaryName(const std::string& target) {
    static std::atomic<unsigned> counter{0};
    return target + kTemporaryInfix + std::to_string(getpid()) + "-" + std::to_string(++counter);
}

// The temporary files this process has reserved and not yet moved or removed, so that the
// clean-up of leftovers never takes a file that another thread is writing.
struct LiveTemporaries {
    CMutex mutex;
    std::set<std::string> names GUARDED_BY(mutex);
};

LiveTemporaries& TheLiveTemporaries() {
    static LiveTemporaries live;
    return live;
}

void Reserve(const std::string& name) {
    LiveTemporaries& live = TheLiveTemporaries();
    CMutexLock lock(live.mutex);
    live.names.insert(name);
}

void Release(const std::string& name) {
    LiveTemporaries& live = TheLiveTemporaries();
    CMutexLock lock(live.mutex);
    live.names.erase(name);
}

// Reads `digits` as a positive decimal number up to INT_MAX; false for anything else.
bool ParseNumber(const std::string& digits, long& value) {
    if (digits.empty() || digits.size() > 10)
        return false;
    for (const char c : digits) {
        if (!isdigit(static_cast<unsigned char>(c)))
            return false;
    }
    value = strtol(digits.c_str(), nullptr, 10);
    return value > 0 && value <= INT_MAX;
}

// Removes the temporary files of `target` that a save left behind when its process ended
// between creating and moving them (a crash, a kill). A file whose process still runs is left
// alone, since that process may be saving now; in this process only the names reserved above
// are live, so a leftover of an earlier process with the same id goes too.
void RemoveLeftovers(const std::string& target) {
    const size_t slash = target.rfind('/');
    const std::string folder = slash == std::string::npos ? "."
                               : slash == 0               ? "/"
                                                          : target.substr(0, slash);
    const std::string prefix =
        (slash == std::string::npos ? target : target.substr(slash + 1)) + kTemporaryInfix;
    DIR* const dir = opendir(folder.c_str());
    if (dir == nullptr)
        return;
    const pid_t self = getpid();
    while (const dirent* entry = readdir(dir)) {
        const std::string name = entry->d_name;
        if (name.compare(0, prefix.size(), prefix) != 0)
            continue;
        const std::string rest = name.substr(prefix.size());
        const size_t dash = rest.find('-');
        long pid = 0;
        long counter = 0;
        if (dash == std::string::npos || !ParseNumber(rest.substr(0, dash), pid) ||
            !ParseNumber(rest.substr(dash + 1), counter))
            continue;
        if (pid == self) {
            LiveTemporaries& live = TheLiveTemporaries();
            CMutexLock lock(live.mutex);
            if (live.names.count(target + kTemporaryInfix + rest) != 0)
                continue;
        } else if (kill(static_cast<pid_t>(pid), 0) == 0 || errno != ESRCH) {
            continue;  // running, or not ours to ask about: alive either way
        }
        unlinkat(dirfd(dir), name.c_str(), 0);
    }
    closedir(dir);
}

// True when the file carries an access control list beyond its mode bits. A new file could not
// take the list over faithfully (dropping it may even give the owning group the mask's rights),
// so such a file is written in place.
bool HasAccessList(int fd) {
#ifdef __linux__
    return fgetxattr(fd, "system.posix_acl_access", nullptr, 0) > 0;
#else
    (void)fd;
    return false;
#endif
}

// Gives the new file the old one's owner, group and mode; false when it could not take all of
// them (an unprivileged writer cannot give a file away), since the replacement would then let
// other people change the profile than before.
bool TakeOwnerAndMode(int fd, const struct stat& old) {
    // The owner first: changing it may clear the set-id bits, which the mode then restores.
    if (fchown(fd, old.st_uid, old.st_gid) != 0 || fchmod(fd, old.st_mode & 07777) != 0)
        return false;
    struct stat made;
    return fstat(fd, &made) == 0 && made.st_uid == old.st_uid && made.st_gid == old.st_gid &&
           (made.st_mode & 07777) == (old.st_mode & 07777);
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
    if (exists && !S_ISREG(old.st_mode))
        return OpenInPlace();
    if (exists) {
        // The old file is opened for writing as it stands, untruncated: a save may replace only
        // a file that its writer could have overwritten, and fails with the error that opening
        // it gives. The descriptor is held until the rename.
        // A file removed since the stat is made anew below.
        m_TargetFd = open(m_Target.c_str(), O_WRONLY | O_NOCTTY | O_CLOEXEC);
        if (m_TargetFd < 0 && errno != ENOENT)
            return nullptr;
        if (m_TargetFd >= 0 &&
            (fstat(m_TargetFd, &old) != 0 || !S_ISREG(old.st_mode) || HasAccessList(m_TargetFd)))
            return OpenInPlace();
    }
    RemoveLeftovers(m_Target);
    FILE* const stream = OpenTemporary(m_TargetFd >= 0 ? &old : nullptr);
    return stream != nullptr ? stream : OpenInPlace();
}

FILE* CFileReplacement::OpenTemporary(const struct stat* old) {
    for (int attempt = 0; attempt < 8; ++attempt) {
        const std::string name = NextTemporaryName(m_Target);
        Reserve(name);
        // 0666 under the umask, as a plain fopen would create it.
        const int fd = open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (fd < 0) {
            const int error = errno;
            Release(name);
            if (error == EEXIST)
                continue;
            errno = error;
            return nullptr;
        }
        FILE* const stream =
            old == nullptr || TakeOwnerAndMode(fd, *old) ? fdopen(fd, "wb") : nullptr;
        if (stream == nullptr) {
            close(fd);
            unlink(name.c_str());
            Release(name);
            return nullptr;
        }
        m_Temporary = name;
        m_pStream = stream;
        return stream;
    }
    return nullptr;
}

FILE* CFileReplacement::OpenInPlace() {
    if (m_TargetFd < 0) {
        m_pStream = fopen(m_Target.c_str(), "wb");
        return m_pStream;
    }
    // Through the descriptor already opened: truncated as "wb" would (a device or a pipe
    // refuses that with EINVAL, and has nothing to truncate).
    if (ftruncate(m_TargetFd, 0) != 0 && errno != EINVAL)
        return nullptr;
    m_pStream = fdopen(m_TargetFd, "wb");
    if (m_pStream != nullptr)
        m_TargetFd = -1;  // the stream owns it now
    return m_pStream;
}

bool CFileReplacement::MoveIntoPlace() {
    if (m_TargetFd < 0) {
        // A new file goes in only while its name is still free: a file that appeared meanwhile
        // has not been checked and is not replaced.
#ifdef RENAME_NOREPLACE
        if (renameat2(AT_FDCWD, m_Temporary.c_str(), AT_FDCWD, m_Target.c_str(),
                      RENAME_NOREPLACE) == 0)
            return true;
        if (errno != EINVAL && errno != ENOSYS)
            return false;
#endif
        return rename(m_Temporary.c_str(), m_Target.c_str()) == 0;
    }
    // The name must still lead to the file that was opened for writing; the descriptor held
    // since keeps that file's inode from being reused by another.
    struct stat checked;
    struct stat now;
    if (fstat(m_TargetFd, &checked) != 0 || stat(m_Target.c_str(), &now) != 0)
        return false;
    if (checked.st_dev != now.st_dev || checked.st_ino != now.st_ino) {
        errno = EAGAIN;
        return false;
    }
    return rename(m_Temporary.c_str(), m_Target.c_str()) == 0;
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
    const bool moved = written && closed && MoveIntoPlace();
    const int error = errno;
    if (!moved)
        unlink(m_Temporary.c_str());
    Release(m_Temporary);
    m_Temporary.clear();
    if (m_TargetFd >= 0) {
        close(m_TargetFd);
        m_TargetFd = -1;
    }
    errno = error;
    return moved;
}

void CFileReplacement::Discard() {
    if (m_pStream != nullptr) {
        fclose(m_pStream);
        m_pStream = nullptr;
    }
    if (!m_Temporary.empty()) {
        unlink(m_Temporary.c_str());
        Release(m_Temporary);
        m_Temporary.clear();
    }
    if (m_TargetFd >= 0) {
        close(m_TargetFd);
        m_TargetFd = -1;
    }
}
