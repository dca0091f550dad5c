// A save never leaves a profile half written, nor changes a file its writer may not write.
#include "common/FileReplacement.h"

#include <sys/xattr.h>

#include <iostream>

#include "ConfigTestSupport.h"

namespace {

using namespace config_test;

TEST(FileReplacementTest, FullDiskOrAnAbandonedWriteLeavesTheOldFileWholeAndNoStrayFile) {
    TempRoot folder;
    const std::string old = "OBFUSCATED<old profile/>";
    const std::string big(64 * 1024, 'x');
    const std::string obfuscated = Write(folder.path() + "/obfuscated.xml", old);
    const std::string plain = Write(folder.path() + "/plain.xml", old);
    const auto fails = [](const std::function<bool()>& save) {
        return SaveInChild(nullptr, save, true).compare(0, 5, "false") == 0;
    };
    EXPECT_TRUE(fails([&] {
        return COpenSSLCrypt::ObfuscateStringToFile(big.data(), big.size(), obfuscated.c_str(),
                                                    nullptr) == 0;
    }));
    // 2 KiB stays in the stream's buffer, so here the disk fills up in Commit's flush.
    for (const size_t size : {big.size(), size_t(2048)}) {
        EXPECT_TRUE(fails([&] {
            CFileReplacement replacement(plain);
            FILE* stream = replacement.Open();
            return stream != nullptr && fwrite(big.data(), 1, size, stream) == size &&
                   replacement.Commit();
        }));
    }
    fputs("half", CFileReplacement(plain).Open());  // abandoned
    EXPECT_EQ(Bytes(obfuscated) + Bytes(plain), old + old);
    EXPECT_EQ(FilesIn(folder.path()), 2u) << "a temporary file was left behind";
}

TEST(FileReplacementTest, ReplacementKeepsModeAndLinksAndWritesTheNewBytes) {
    TempRoot folder;
    const std::string target = Write(folder.path() + "/profile.xml", "old");
    const std::string link = folder.path() + "/link.xml";
    ASSERT_EQ(chmod(target.c_str(), 0640), 0);
    ASSERT_EQ(symlink(target.c_str(), link.c_str()), 0);
    struct stat status;
    ASSERT_EQ(stat(target.c_str(), &status), 0);
    const ino_t before = status.st_ino;
    WriteObfuscated(link, "<Tideway/>");
    EXPECT_EQ(Decode(target), "OBFUSCATED<Tideway/>");
    EXPECT_TRUE(std::filesystem::is_symlink(link)) << "the link was replaced by a file";
    ASSERT_EQ(stat(target.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640u);
    EXPECT_NE(status.st_ino, before) << "written in place, not replaced";
    EXPECT_EQ(FilesIn(folder.path()), 2u);

    // A new file is created; a device is written in place rather than replaced.
    CFileReplacement fresh(folder.path() + "/new.xml"), device("/dev/null");
    FILE* stream = fresh.Open();
    ASSERT_TRUE(stream != nullptr && fputs("<new/>", stream) >= 0 && fresh.Commit());
    EXPECT_EQ(Bytes(folder.path() + "/new.xml"), "<new/>");
    EXPECT_TRUE(device.Open() != nullptr && device.Commit());
}

// Gives `path` an access list in the kernel's form: its owner and `user` may write, its group
// only read.
bool GiveAccessList(const std::string& path, uid_t user) {
    struct Entry {
        uint16_t tag, perm;
        uint32_t id;
    };
    const uint32_t version = 2;
    const Entry entries[] = {
        {0x01, 6, ~0u}, {0x02, 6, user}, {0x04, 4, ~0u}, {0x10, 6, ~0u}, {0x20, 4, ~0u}};
    std::string value(reinterpret_cast<const char*>(&version), sizeof(version));
    value.append(reinterpret_cast<const char*>(entries), sizeof(entries));
    return setxattr(path.c_str(), "system.posix_acl_access", value.data(), value.size(), 0) == 0;
}

// A loaded profile whose current file sits in a folder that everybody may write (no sticky bit),
// so that only the file's own owner and mode stand between another user and the profile.
struct OpenFolder {
    OpenFolder() : nobody(getpwnam("nobody")) {
        config = LoadParameters(root, "<ipc_port>1001</ipc_port>");
        original = Bytes(root.Current());
        chmod(root.path().c_str(), 0755);
        chmod(Folder().c_str(), 0777);
        xml = Rewritten(Profile("<ipc_port>1001</ipc_port>"));
    }
    std::string Folder() const { return root.Path("tarvex/brenlo/tideway/config"); }

    ChainRoot root;
    const passwd* nobody;
    std::unique_ptr<CDnConfigFile> config;
    std::string original, xml;
};

TEST(FileReplacementTest, ASaveNeverReplacesAFileItsWriterCouldNotOpenForWriting) {
    if (geteuid() != 0 || getpwnam("nobody") == nullptr)
        GTEST_SKIP() << "needs root and a 'nobody' user";
    OpenFolder folder;
    const passwd* nobody = folder.nobody;
    const std::string path = folder.root.Current();
    const std::string refusedPlain = "true|Config : Failed to open config file.\n";
    const std::string refusedObfuscated =
        "false|ObfuscateStringToFile Failed to write file: " + path +
        "\n|Config : ObfuscateStringToFile failed\n";
    // Nobody owns the file (else root), its mode, nobody saves (else root), the type, what
    // CommitConfig gave and logged ("true" alone: saved), an access list.
    const std::tuple<bool, mode_t, bool, uint32_t, std::string, bool> rows[] = {
        {false, 0644, true, kConfigFilePlainXml, refusedPlain, false},
        {false, 0644, true, kConfigFileObfuscated, refusedObfuscated, false},
        {true, 0444, true, kConfigFilePlainXml, refusedPlain, false},
        {true, 0444, true, kConfigFileObfuscated, refusedObfuscated, false},
        {true, 0644, true, kConfigFileObfuscated, "true", false},
        {true, 0444, false, kConfigFileObfuscated, "true", false},  // root may open it for writing
        {true, 0600, false, kConfigFilePlainXml, "true", false},
        // Saved, but in place: nobody cannot give a new file to root, nor a copy take the list.
        {false, 0666, true, kConfigFileObfuscated, "true", false},
        {false, 0664, false, kConfigFileObfuscated, "true", true},
    };
    for (const auto& [nobodyOwns, mode, nobodySaves, type, report, accessList] : rows) {
        SCOPED_TRACE(std::to_string(mode) + report);
        const uid_t owner = nobodyOwns ? nobody->pw_uid : 0;
        Write(path, folder.original);
        ASSERT_EQ(chown(path.c_str(), owner, nobodyOwns ? nobody->pw_gid : 0), 0);
        ASSERT_EQ(chmod(path.c_str(), mode), 0);
        if (accessList && !GiveAccessList(path, nobody->pw_uid)) {
            std::cerr << "no access lists on this file system: row skipped\n";
            continue;
        }
        CDnConfigFile::m_ConfigFileType = type;
        EXPECT_EQ(SaveInChild(nobodySaves ? nobody : nullptr,
                              [&] { return folder.config->CommitConfig(); }),
                  report);
        if (report != "true")
            EXPECT_TRUE(Bytes(path) == folder.original) << "the refused save changed the file";
        else if (type == kConfigFilePlainXml)
            EXPECT_EQ(Bytes(path), folder.xml);
        else
            EXPECT_EQ(Decode(path), "OBFUSCATED" + folder.xml);
        struct stat status;
        ASSERT_EQ(stat(path.c_str(), &status), 0);
        EXPECT_EQ(status.st_uid, owner);
        EXPECT_EQ(status.st_mode & 07777, mode);
        EXPECT_EQ(getxattr(path.c_str(), "system.posix_acl_access", nullptr, 0) > 0, accessList);
        EXPECT_EQ(FilesIn(folder.Folder()), 1u) << "a temporary file was left behind";
    }
}

TEST(FileReplacementTest, ASaveRemovesWhatAnEarlierSaveOfThatFileLeftBehind) {
    OpenFolder folder;
    const std::string path = folder.root.Current();
    const pid_t dead = fork();  // a process that has ended
    if (dead == 0)
        _exit(0);
    waitpid(dead, nullptr, 0);
    const std::pair<std::string, bool> files[] = {
        // a half-written file, and whether it stays
        {path + ".new-" + std::to_string(dead) + "-3", false},
        {path + ".new-" + std::to_string(getpid()) + "-99999", false},  // an earlier run's pid
        {path + ".new-1-3", true},  // its process still runs, and may be saving now
        {folder.Folder() + "/Other.config.new-" + std::to_string(dead) + "-3", true},
        {path + ".new-" + std::to_string(dead) + "-x", true},
    };
    for (const auto& [name, kept] : files)
        Write(name, "half");
    CDnConfigFile::m_ConfigFileType = kConfigFileObfuscated;
    ASSERT_TRUE(folder.config->CommitConfig());
    for (const auto& [name, kept] : files)
        EXPECT_EQ(Bytes(name), kept ? "half" : "<absent>") << name;
    EXPECT_EQ(Decode(path), "OBFUSCATED" + folder.xml);
}

}  // namespace
