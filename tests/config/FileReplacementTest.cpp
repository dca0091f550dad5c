// Saving a profile must never leave it half written: a full disk (here a file-size limit in a
// forked child) fails the save and leaves the old bytes and no stray file behind.
#include "common/FileReplacement.h"

#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <iterator>
#include <string>

#include <gtest/gtest.h>

#include "ConfigTestSupport.h"

namespace {

using config_test::Bytes;
using config_test::Write;

size_t FilesIn(const std::string& folder) {
    const std::filesystem::directory_iterator files(folder);
    return static_cast<size_t>(std::distance(begin(files), end(files)));
}

// Runs `save` in a child whose files may not grow past 1 KiB; true when the save reported
// failure there.
bool FailsWhenTheDiskIsFull(const std::function<bool()>& save) {
    const pid_t child = fork();
    if (child == 0) {
        signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{1024, 1024};
        setrlimit(RLIMIT_FSIZE, &limit);
        _exit(save() ? 1 : 0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

TEST(FileReplacementTest, FullDiskOrAnAbandonedWriteLeavesTheOldFileWholeAndNoStrayFile) {
    TempRoot folder;
    const std::string old = "OBFUSCATED<old profile/>";
    const std::string big(64 * 1024, 'x');
    const std::string obfuscated = Write(folder.path() + "/obfuscated.xml", old);
    const std::string plain = Write(folder.path() + "/plain.xml", old);
    EXPECT_TRUE(FailsWhenTheDiskIsFull([&] {
        return COpenSSLCrypt::ObfuscateStringToFile(big.data(), big.size(), obfuscated.c_str(),
                                                    nullptr) == 0;
    }));
    // 2 KiB stays in the stream's buffer, so here the disk fills up in Commit's flush.
    for (const size_t size : {big.size(), size_t(2048)}) {
        EXPECT_TRUE(FailsWhenTheDiskIsFull([&] {
            CFileReplacement replacement(plain);
            FILE* stream = replacement.Open();
            return stream != nullptr && fwrite(big.data(), 1, size, stream) == size &&
                   replacement.Commit();
        }));
    }
    {
        CFileReplacement abandoned(plain);
        FILE* stream = abandoned.Open();
        ASSERT_NE(stream, nullptr);
        fputs("half", stream);
    }
    EXPECT_EQ(Bytes(obfuscated), old);
    EXPECT_EQ(Bytes(plain), old);
    EXPECT_EQ(FilesIn(folder.path()), 2u) << "a temporary file was left behind";
}

TEST(FileReplacementTest, ReplacementKeepsModeAndLinksAndWritesTheNewBytes) {
    TempRoot folder;
    const std::string target = Write(folder.path() + "/profile.xml", "old");
    const std::string link = folder.path() + "/link.xml";
    ASSERT_EQ(chmod(target.c_str(), 0640), 0);
    ASSERT_EQ(symlink(target.c_str(), link.c_str()), 0);
    config_test::WriteObfuscated(link, "<Tideway/>");
    EXPECT_EQ(config_test::Decode(target), "OBFUSCATED<Tideway/>");
    struct stat status;
    ASSERT_EQ(lstat(link.c_str(), &status), 0);
    EXPECT_TRUE(S_ISLNK(status.st_mode)) << "the link was replaced by a file";
    ASSERT_EQ(stat(target.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640u);
    EXPECT_EQ(FilesIn(folder.path()), 2u);

    // A new file is created; a device is written in place rather than replaced.
    CFileReplacement fresh(folder.path() + "/new.xml");
    FILE* stream = fresh.Open();
    ASSERT_NE(stream, nullptr);
    fputs("<new/>", stream);
    ASSERT_TRUE(fresh.Commit());
    EXPECT_EQ(Bytes(folder.path() + "/new.xml"), "<new/>");
    CFileReplacement device("/dev/null");
    ASSERT_NE(device.Open(), nullptr);
    EXPECT_TRUE(device.Commit());
}

}  // namespace
