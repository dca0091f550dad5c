#include "WebFiles.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

struct FileType {
    const char* extension;
    const char* contentType;
};

constexpr FileType kTypes[] = {
    {".html", "text/html; charset=utf-8"},
    {".js", "text/javascript; charset=utf-8"},
    {".css", "text/css; charset=utf-8"},
    {".png", "image/png"},
    {".svg", "image/svg+xml"},
    {".ico", "image/x-icon"},
};

const FileType* TypeOf(const std::string& name) {
    for (const FileType& type : kTypes) {
        const std::string extension = type.extension;
        if (name.size() > extension.size() &&
            name.compare(name.size() - extension.size(), extension.size(), extension) == 0)
            return &type;
    }
    return nullptr;
}

}  // namespace

std::string ServableName(const std::string& target) {
    const std::string path = target.substr(0, target.find('?'));
    if (path == "/")
        return "index.html";
    if (path.size() < 2 || path[0] != '/' || path[1] == '.')
        return std::string();
    const std::string name = path.substr(1);
    for (const char c : name) {
        const bool plain = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
                           (c >= '0' && c <= '9') || c == '.' || c == '_' || c == '-';
        if (!plain)
            return std::string();
    }
    return TypeOf(name) != nullptr ? name : std::string();
}

const char* ContentTypeOf(const std::string& name) {
    const FileType* type = TypeOf(name);
    return type != nullptr ? type->contentType : "application/octet-stream";
}

bool ReadWebFile(const std::string& root, const std::string& name, std::string& body) {
    const std::string path = root + "/" + name;
    char resolved[PATH_MAX];
    if (realpath(path.c_str(), resolved) == nullptr)
        return false;
    // A link may point to another file of the root, never out of it.
    const std::string real = resolved;
    if (real.size() <= root.size() + 1 || real.compare(0, root.size(), root) != 0 ||
        real[root.size()] != '/')
        return false;
    const int fd = open(real.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0)
        return false;
    struct stat info;
    bool ok = fstat(fd, &info) == 0 && S_ISREG(info.st_mode) &&
              static_cast<size_t>(info.st_size) <= kMaxWebFileBytes;
    if (ok) {
        body.resize(static_cast<size_t>(info.st_size));
        size_t done = 0;
        while (ok && done < body.size()) {
            const ssize_t n = read(fd, &body[done], body.size() - done);
            if (n < 0 && errno == EINTR)
                continue;
            ok = n > 0;
            if (ok)
                done += static_cast<size_t>(n);
        }
    }
    close(fd);
    return ok;
}
