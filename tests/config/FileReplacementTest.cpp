// Saving a profile must never leave it half written: a full disk (here a file-size limit in a
// forked child) fails the save and leaves the old bytes and no stray file behind.
#include <dirent.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <openssl/evp.h>
#include "common/FileReplacement.h"

#include "common/OpenSSLCrypt.h"

namespace {

class Folder {
  public:
    Folder() {
        char pattern[] = "/tmp/tideway-replace-XXXXXX";
        path_ = mkdtemp(pattern) != nullptr ? pattern : "";
    }
    ~Folder() {
        if (!path_.empty() && system(("rm -rf '" + path_ + "'").c_str()) != 0)
            ADD_FAILURE() << "cannot remove " << path_;
    }
    std::string Path(const std::string& name) const { return path_ + "/" + name; }
    std::string Write(const std::string& name, const std::string& bytes) const {
        std::ofstream(Path(name), std::ios::binary | std::ios::trunc) << bytes;
        return Path(name);
    }
    std::vector<std::string> Names() const {
        std::vector<std::string> names;
        if (DIR* dir = opendir(path_.c_str())) {
            while (dirent* entry = readdir(dir))
                if (entry->d_name[0] != '.')
                    names.push_back(entry->d_name);
            closedir(dir);
        }
        return names;
    }

  private:
    std::string path_;
};

std::string Read(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

// Runs `save` in a child whose files may not grow past 4 KiB; true when the save reported
// failure there (exit code 0).
bool FailsWhenTheDiskIsFull(const std::function<bool()>& save) {
    const pid_t child = fork();
    if (child == 0) {
        signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{4096, 4096};
        setrlimit(RLIMIT_FSIZE, &limit);
        _exit(save() ? 1 : 0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

TEST(FileReplacementTest, FullDiskLeavesTheOldFileWholeAndNoStrayFile) {
    Folder folder;
    const std::string old = "OBFUSCATED<old profile/>";
    const std::string big(64 * 1024, 'x');
    const std::string obfuscated = folder.Write("obfuscated.xml", old);
    const std::string plain = folder.Write("plain.xml", old);

    EXPECT_TRUE(FailsWhenTheDiskIsFull([&] {
        return COpenSSLCrypt::ObfuscateStringToFile(big.data(), big.size(), obfuscated.c_str(),
                                                    nullptr) == 0;
    }));
    EXPECT_TRUE(FailsWhenTheDiskIsFull([&] {
        CFileReplacement replacement(plain);
        FILE* stream = replacement.Open();
        return stream != nullptr && fwrite(big.data(), 1, big.size(), stream) == big.size() &&
               replacement.Commit();
    }));
    EXPECT_EQ(Read(obfuscated), old);
    EXPECT_EQ(Read(plain), old);
    EXPECT_EQ(folder.Names().size(), 2u) << "a temporary file was left behind";

    // A writer that gives up leaves the old file too.
    {
        CFileReplacement abandoned(plain);
        FILE* stream = abandoned.Open();
        ASSERT_NE(stream, nullptr);
        fputs("half", stream);
    }
    EXPECT_EQ(Read(plain), old);
    EXPECT_EQ(folder.Names().size(), 2u);
}

TEST(FileReplacementTest, ReplacementKeepsModeAndLinksAndWritesTheNewBytes) {
    Folder folder;
    const std::string target = folder.Write("profile.xml", "old");
    ASSERT_EQ(chmod(target.c_str(), 0640), 0);
    ASSERT_EQ(symlink(target.c_str(), folder.Path("link.xml").c_str()), 0);

    const std::string text = "OBFUSCATED<Tideway/>";
    ASSERT_EQ(COpenSSLCrypt::ObfuscateStringToFile(text.data(), text.size(),
                                                   folder.Path("link.xml").c_str(), nullptr),
              0);
    std::string back;
    ASSERT_EQ(COpenSSLCrypt::DeObfuscateFiletoStr(target.c_str(), back, EVP_aes_128_cbc(), nullptr),
              0);
    EXPECT_EQ(back, text);
    struct stat status;
    ASSERT_EQ(lstat(folder.Path("link.xml").c_str(), &status), 0);
    EXPECT_TRUE(S_ISLNK(status.st_mode)) << "the link was replaced by a file";
    ASSERT_EQ(stat(target.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640u);
    EXPECT_EQ(folder.Names().size(), 2u);

    // A new file is created; a device is written in place rather than replaced.
    CFileReplacement fresh(folder.Path("new.xml"));
    FILE* stream = fresh.Open();
    ASSERT_NE(stream, nullptr);
    fputs("<new/>", stream);
    ASSERT_TRUE(fresh.Commit());
    EXPECT_EQ(Read(folder.Path("new.xml")), "<new/>");
    CFileReplacement device("/dev/null");
    ASSERT_NE(device.Open(), nullptr);
    EXPECT_TRUE(device.Commit());
}

}  // namespace
