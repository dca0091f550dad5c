// The file chain on real files in a temporary app-data root: which file becomes the running
// profile, and what each of the three files holds afterwards, compared byte for byte.
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "ConfigTestSupport.h"

namespace {

using namespace config_test;
namespace fs = std::filesystem;

const std::string kCurrentProfile = Profile(
    "<ipc_port>1001</ipc_port><enterprise_domains>corp</enterprise_domains>"
    "<authenticated_user>alice</authenticated_user>"
    "<authenticated_groups>staff,dev</authenticated_groups>",
    "current");
const std::string kUpdateProfile = Profile(
    "<ipc_port>2002</ipc_port><enterprise_domains>corp</enterprise_domains>"
    "<host_exceptions>a.example;10.0.0.0/8</host_exceptions>",
    "update");
const std::string kBackupProfile = Profile("<ipc_port>3003</ipc_port>", "backup");

uint16_t RunningPort(CDnConfigFile& config) {
    ConfigParams params;
    config.GetConfigParams(params);
    return params.ipcPort;
}

// A value of the profile that the current file holds now.
std::string CurrentFileValue(const ChainRoot& root, const std::string& key) {
    const std::string decoded = Decode(root.Current());
    EXPECT_EQ(decoded.compare(0, 10, "OBFUSCATED"), 0) << decoded;
    CXMLReadWrite written;
    EXPECT_EQ(written.LoadFromString(decoded.substr(10), true), kConfigOk);
    std::string value;
    written.GetValue("Tideway/ConfigurationParameters/" + key, value);
    return value;
}

TEST(ConfigFileChainTest, WhatBecomesOfEachFile) {
    // Expected file states: "kept" (bytes as before), "absent", "update" (the update's bytes),
    // "default" (the built-in profile, obfuscated with the marker). Port 0: the load fails.
    const struct {
        const char* name;
        const char* current;  // "good", "garbage", "plain" or "none"
        const char* update;   // "good", "bad", "empty" or "none"
        const char* backup;   // "other", "update", "empty" or "none"
        bool checkUpdate, updateOnly;
        const char *currentAfter, *updateAfter, *backupAfter;
        uint16_t port;
        const char* line;  // a log record the situation must leave, or ""
    } rows[] = {
        {"no file, backup left over", "none", "none", "other", false, false, "default", "absent",
         "absent", 5003, ""},
        {"no file, checkUpdate", "none", "none", "other", true, false, "default", "absent",
         "absent", 5003, ""},
        {"update alone, no checkUpdate", "none", "good", "other", false, false, "absent", "kept",
         "kept", 2002, ""},
        {"update differs from backup", "good", "good", "other", true, false, "update", "kept",
         "update", 2002, "CONFIG : Loaded and copied update config to current config"},
        {"update equals backup", "good", "good", "update", true, false, "kept", "kept", "kept",
         1001, ""},
        {"empty update equals empty backup", "good", "empty", "empty", true, false, "kept", "kept",
         "kept", 1001, ""},
        {"update equals backup, current gone", "none", "good", "update", true, false, "update",
         "kept", "kept", 2002, ""},
        {"update fails to load", "good", "bad", "other", true, false, "kept", "kept", "kept", 1001,
         "ERROR : Failed to load Update Configuration file"},
        {"update only", "good", "good", "other", true, true, "kept", "kept", "kept", 2002, ""},
        {"current undecodable, update present", "garbage", "good", "update", true, false, "update",
         "kept", "kept", 2002, "Config : deleting the file"},
        {"current undecodable, no update", "garbage", "none", "other", true, false, "default",
         "absent", "absent", 5003, "Config : deleting the file"},
        {"current undecodable, no checkUpdate", "garbage", "good", "update", false, false, "kept",
         "kept", "kept", 0, "ERROR : Failed to load Configuration file"},
        {"plain XML in the current place", "plain", "none", "none", false, false, "kept", "absent",
         "absent", 0, "Config : The service only loads an obfuscated configuration file"},
    };
    CXMLReadWrite builtIn;
    ASSERT_EQ(builtIn.LoadFromString(kDefaultConfigXml, true), kConfigOk);
    std::string defaultXml;
    builtIn.GetXML(defaultXml);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ChainRoot root;
        const std::string current = row.current;
        if (current == "good")
            WriteObfuscated(root.Current(), kCurrentProfile);
        else if (current == "garbage")
            std::ofstream(root.Current(), std::ios::binary) << std::string(64, 'x');
        else if (current == "plain")
            std::ofstream(root.Current(), std::ios::binary) << kCurrentProfile;
        const std::string update = row.update;
        if (update == "good")
            WriteObfuscated(root.Update(), kUpdateProfile);
        else if (update != "none")
            std::ofstream(root.Update(), std::ios::binary) << (update == "bad" ? "junk" : "");
        const std::string backup = row.backup;
        if (backup == "other")
            WriteObfuscated(root.Backup(), kBackupProfile);
        else if (backup == "update")
            fs::copy_file(root.Update(), root.Backup());
        else if (backup == "empty")
            std::ofstream(root.Backup(), std::ios::binary);
        const std::string before[] = {Snapshot(root.Current()), Snapshot(root.Update()),
                                      Snapshot(root.Backup())};
        syslog_capture::Clear();

        CDnConfigFile config;
        EXPECT_EQ(config.InitializeConfig(row.checkUpdate, row.updateOnly), row.port != 0);
        const std::string paths[] = {root.Current(), root.Update(), root.Backup()};
        const char* expected[] = {row.currentAfter, row.updateAfter, row.backupAfter};
        for (int i = 0; i < 3; ++i) {
            const std::string want = expected[i];
            const std::string now = Snapshot(paths[i]);
            SCOPED_TRACE(paths[i]);
            if (want == "kept")
                EXPECT_EQ(now, before[i]);
            else if (want == "absent")
                EXPECT_EQ(now, "<absent>");
            else if (want == "update")
                EXPECT_EQ(now, before[1]);
            else
                EXPECT_EQ(Decode(paths[i]), "OBFUSCATED" + defaultXml);
        }
        if (row.port != 0) {
            EXPECT_EQ(RunningPort(config), row.port);
            // The finishing steps ran on the update too.
            EXPECT_EQ(config.GetExceptionCount(1), row.port == 2002 ? 2 : 0);
        } else {
            std::string label;
            EXPECT_FALSE(config.GetProfileLabel(label));  // a failed load leaves no store
        }
        if (*row.line != '\0') {
            EXPECT_EQ(Logged(row.line), 1u);
        }
    }
}

TEST(ConfigFileChainTest, UserAndGroupsSurviveAnAdoptedUpdateOnlyWhileTheDomainsStay) {
    const struct {
        const char* name;
        int role;
        bool withCurrent;
        const char* updateParams;
        const char *user, *groups;  // in memory and, for the owner, in the committed file
    } cases[] = {
        {"plug-in: kept in memory only", kConfigRolePlugin, true,
         "<enterprise_domains>corp</enterprise_domains>", "alice", "staff,dev"},
        {"owner: committed", kConfigRoleOwner, true,
         "<enterprise_domains>corp</enterprise_domains>", "alice", "staff,dev"},
        {"owner: domains changed", kConfigRoleOwner, true,
         "<enterprise_domains>other</enterprise_domains><authenticated_user>bob"
         "</authenticated_user>",
         "bob", ""},
        {"owner: no current file", kConfigRoleOwner, false,
         "<enterprise_domains>corp</enterprise_domains><authenticated_user>bob"
         "</authenticated_user>",
         "bob", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ChainRoot root;
        CDnConfigFile::SetConfigRoleForTesting(c.role);
        if (c.withCurrent)
            WriteObfuscated(root.Current(), kCurrentProfile);
        WriteObfuscated(root.Update(),
                        Profile("<ipc_port>2002</ipc_port>" + std::string(c.updateParams)));
        const std::string update = Snapshot(root.Update());
        CDnConfigFile config;
        ASSERT_TRUE(config.InitializeConfig(true, false));
        EXPECT_EQ(RunningPort(config), 2002);
        std::string user, groups;
        config.GetAuthenticatedIdentity(user, groups);
        EXPECT_EQ(user, c.user);
        EXPECT_EQ(groups, c.groups);
        EXPECT_EQ(Snapshot(root.Backup()), update);
        if (c.role == kConfigRolePlugin) {
            EXPECT_EQ(Snapshot(root.Current()), update);  // a plain copy: nothing committed
        } else {
            EXPECT_EQ(CurrentFileValue(root, "ipc_port"), "2002");
            EXPECT_EQ(CurrentFileValue(root, "authenticated_user"), c.user);
            EXPECT_EQ(CurrentFileValue(root, "authenticated_groups"), c.groups);
        }
    }
}

TEST(ConfigFileChainTest, FailedCopiesOfTheUpdate) {
    ChainRoot root;
    // The current place is a folder that cannot be removed: the update stays loaded, the
    // initialisation fails, and no file changes.
    fs::create_directories(root.Current() + "/inner");
    WriteObfuscated(root.Update(), kUpdateProfile);
    const std::string update = Snapshot(root.Update());
    {
        CDnConfigFile config;
        EXPECT_FALSE(config.InitializeConfig(true, false));
        EXPECT_EQ(syslog_capture::CountContaining(
                      "CONFIG : Failed to copy update config to current config: "),
                  1u);
        EXPECT_EQ(RunningPort(config), 2002);
        EXPECT_EQ(Snapshot(root.Update()), update);
        EXPECT_EQ(Snapshot(root.Backup()), "<absent>");
        EXPECT_TRUE(fs::is_directory(root.Current() + "/inner"));
    }
    fs::remove_all(root.Current());
    // The backup place is a folder: the adoption stands, the failed backup copy is reported.
    fs::create_directories(root.Backup());
    CDnConfigFile config;
    ASSERT_TRUE(config.InitializeConfig(true, false));
    EXPECT_EQ(Logged("CONFIG : Failed to copy update config to backup config"), 1u);
    EXPECT_EQ(Snapshot(root.Current()), update);
}

TEST(ConfigFileChainTest, IsUpdateAvailableComparesUpdateAndBackupBytes) {
    ChainRoot root;
    CDnConfigFile config;
    EXPECT_FALSE(config.IsUpdateAvailable());
    EXPECT_EQ(Logged("Config : Update file '" + root.Update() + "' doesn't exist. Code :2"), 1u);

    WriteObfuscated(root.Current(), kCurrentProfile);
    WriteObfuscated(root.Update(), kUpdateProfile);
    fs::copy_file(root.Update(), root.Backup());
    EXPECT_FALSE(config.IsUpdateAvailable());
    std::ofstream(root.Backup(), std::ios::binary | std::ios::app) << 'x';  // one byte more
    EXPECT_TRUE(config.IsUpdateAvailable());
    fs::copy_file(root.Update(), root.Backup(), fs::copy_options::overwrite_existing);

    // A corrupt or missing current file, or a missing backup, makes the update worth adopting.
    std::ofstream(root.Current(), std::ios::binary | std::ios::trunc) << "junk";
    EXPECT_TRUE(config.IsUpdateAvailable());
    EXPECT_EQ(Logged("Config : '" + root.Current() + "' is corrupt: Result: 22"), 1u);
    fs::remove(root.Current());
    EXPECT_TRUE(config.IsUpdateAvailable());
    EXPECT_EQ(Logged("Config : Config file '" + root.Current() + "' doesn't exist. Code :2"), 1u);
    fs::remove(root.Backup());
    EXPECT_TRUE(config.IsUpdateAvailable());
    EXPECT_EQ(Logged("Config : Backup file '" + root.Backup() + "' doesn't exist. Code :2"), 1u);
}

TEST(ConfigFileChainTest, FileTypesReadingAndTheMarker) {
    ChainRoot root;
    WriteObfuscated(root.Scratch("marked"), kCurrentProfile);
    WriteObfuscated(root.Scratch("bare"), kCurrentProfile, false);
    WriteObfuscated(root.Scratch("notxml"), "no xml here");
    std::ofstream(root.Scratch("junk"), std::ios::binary) << std::string(32, '\x01');
    std::ofstream(root.Scratch("bom"), std::ios::binary)
        << "\xEF\xBB\xBF \r\n\t" << kCurrentProfile;
    std::ofstream(root.Scratch("text"), std::ios::binary) << "  x" << kCurrentProfile;
    const struct {
        const char* name;
        long code;
        ConfigFileType type;
    } cases[] = {
        {"missing", 22, kConfigFileUnknown},  {"junk", 22, kConfigFileUnknown},
        {"text", 22, kConfigFileUnknown},     {"notxml", kConfigFail, kConfigFileBadXml},
        {"marked", 0, kConfigFileObfuscated}, {"bare", 0, kConfigFileObfuscated},
        {"bom", 0, kConfigFilePlainXml},
    };
    CDnConfigFile config;
    for (const auto& c : cases) {
        ConfigFileType type = 99;
        EXPECT_EQ(config.GetConfigFileType(root.Scratch(c.name), type), c.code) << c.name;
        EXPECT_EQ(type, c.type) << c.name;
    }
    EXPECT_EQ(Logged("The config file is corrupted. Cannot load: \"no xml here\""), 1u);

    std::string text;
    EXPECT_EQ(config.ReadObfuscatedFile(root.Scratch("marked"), text, false), 0);
    EXPECT_EQ(text, "OBFUSCATED" + kCurrentProfile);
    EXPECT_EQ(config.ReadObfuscatedFile(root.Scratch("marked"), text, true), 0);
    EXPECT_EQ(text, kCurrentProfile);
    EXPECT_EQ(config.ReadObfuscatedFile(root.Scratch("bare"), text, true), 0);
    EXPECT_EQ(text, kCurrentProfile);
    EXPECT_EQ(config.ReadObfuscatedFile(root.Scratch("junk"), text, true), 22);
    // Plain XML in the current place is refused with 22 and stays as it is.
    fs::copy_file(root.Scratch("bom"), root.Current());
    EXPECT_EQ(config.LoadConfigFile(false), 22);
    EXPECT_EQ(Snapshot(root.Current()), Snapshot(root.Scratch("bom")));
    fs::remove(root.Current());
    // A current file whose plaintext lacks the marker loads all the same.
    fs::copy_file(root.Scratch("bare"), root.Current());
    ASSERT_TRUE(config.InitializeConfig(false, false));
    EXPECT_EQ(RunningPort(config), 1001);
}

TEST(ConfigFileChainTest, GroupListLineFeedsBecomeCommasInMemoryOnly) {
    ChainRoot root;
    WriteObfuscated(root.Current(), Profile("<authenticated_groups>g1\ng2\ng3"
                                            "</authenticated_groups>"));
    const std::string file = Snapshot(root.Current());
    CDnConfigFile config;
    ASSERT_TRUE(config.InitializeConfig(false, false));
    EXPECT_EQ(config.GetString("authenticated_groups"), "g1,g2,g3");
    EXPECT_EQ(config.GetXmlValue("authenticated_groups"), "g1,g2,g3");
    EXPECT_EQ(Snapshot(root.Current()), file);
    // Without line feeds the value is the parser's.
    WriteObfuscated(root.Current(),
                    Profile("<authenticated_groups>  a,  b </authenticated_groups>"));
    ASSERT_TRUE(config.InitializeConfig(false, false));
    EXPECT_EQ(config.GetValues().at("authenticated_groups"), "a, b");
    // An opening without its closing text costs a warning; the parse stands on its own merits.
    WriteObfuscated(root.Current(), Profile("<note>authenticated_groups></note><ipc_port>7"
                                            "</ipc_port>"));
    ASSERT_TRUE(config.InitializeConfig(false, false));
    EXPECT_EQ(RunningPort(config), 7);
    EXPECT_EQ(Logged("Config : Malformed XML. Closing auth groups tag not found."), 1u);
}

TEST(ConfigFileChainTest, CommitWritesTheTypeOfTheLastProbe) {
    ChainRoot root;
    CDnConfigFile::SetConfigRoleForTesting(kConfigRoleOwner);
    WriteObfuscated(root.Current(), kCurrentProfile);
    CDnConfigFile config;
    ASSERT_TRUE(config.InitializeConfig(false, false));

    // Obfuscated road: the marker goes in front of the store's text, and the reload runs it.
    ASSERT_TRUE(config.UpdateConfigKey("ipc_port", "4444", true));
    EXPECT_EQ(RunningPort(config), 4444);
    CXMLReadWrite expected;
    ASSERT_EQ(expected.LoadFromString(kCurrentProfile, true), kConfigOk);
    expected.PutValue("Tideway/ConfigurationParameters/ipc_port", "4444");
    std::string xml;
    expected.GetXML(xml);
    EXPECT_EQ(Decode(root.Current()), "OBFUSCATED" + xml);

    // Plain road: the text alone; failures of the file are logged and count as done.
    CDnConfigFile::m_ConfigFileType = kConfigFilePlainXml;
    ASSERT_TRUE(config.CommitConfig());
    EXPECT_EQ(Snapshot(root.Current()), xml);
    fs::remove(root.Current());
    fs::create_symlink("/dev/full", root.Current());  // opens, but every write fails
    EXPECT_TRUE(config.CommitConfig());
    EXPECT_EQ(Logged("Config : Failed to write to config file. Code : 0x0"), 1u);
    fs::remove(root.Current());
    if (geteuid() != 0) {  // a read-only file stops only a user without override rights
        std::ofstream(root.Current(), std::ios::binary) << "saved";
        chmod(root.Current().c_str(), 0444);
        EXPECT_TRUE(config.CommitConfig());
        EXPECT_EQ(Snapshot(root.Current()), "saved");
        fs::remove(root.Current());
    } else {
        fs::create_directory(root.Current());  // cannot be opened for writing, even by root
        EXPECT_TRUE(config.CommitConfig());
    }
    EXPECT_EQ(Logged("Config : Failed to open config file."), 1u);

    // Obfuscated road into a place that cannot be written: the commit fails.
    CDnConfigFile::m_ConfigFileType = kConfigFileObfuscated;
    fs::create_directories(root.Current());
    EXPECT_FALSE(config.UpdateConfigKey("ipc_port", "5555", true));
    EXPECT_EQ(Logged("Config : ObfuscateStringToFile failed"), 1u);
    EXPECT_EQ(Logged("UpdateData : Failed to commit changes to config"), 1u);
}

TEST(ConfigFileChainTest, ChangesStayInMemoryOutsideTheOwnerAndBadArgumentsAreRefused) {
    ChainRoot root;
    auto config = LoadParameters(root, "<ipc_port>1001</ipc_port>");
    const std::string file = Snapshot(root.Current());
    EXPECT_TRUE(config->UpdateConfigKey("ipc_port", "4444", true));
    EXPECT_TRUE(config->UpdateConfigKey("brand_new", "x", true));
    EXPECT_EQ(RunningPort(*config), 4444);
    EXPECT_EQ(config->GetString("brand_new"), "x");
    EXPECT_EQ(Snapshot(root.Current()), file);
    EXPECT_TRUE(config->Reload());  // reads the file again: the change is gone
    EXPECT_EQ(RunningPort(*config), 1001);
    EXPECT_EQ(config->GetString("brand_new"), "");

    syslog_capture::Clear();
    EXPECT_FALSE(config->UpdateConfigKey(nullptr, "x", true));
    EXPECT_FALSE(config->UpdateConfigKey("", "x", true));
    EXPECT_FALSE(config->UpdateData(nullptr, "k", "v", false));
    boost::property_tree::ptree tree;
    EXPECT_FALSE(config->GetXmlSubtree("", tree));
    EXPECT_EQ(
        syslog_capture::Texts(),
        (std::vector<std::string>{
            "XMLParser : Empty path passed in\n", "Config : Failed to update config key <=x>.\n",
            "UpdateData : Bad parameter\n", "XMLParser : Empty xpath passed in\n"}));

    // Without a store every operation refuses with its own line.
    CDnConfigFile empty;
    syslog_capture::Clear();
    std::string label;
    EXPECT_FALSE(empty.SetXmlValue("ipc_port", "1"));
    EXPECT_EQ(empty.GetXmlValue("ipc_port"), "");
    EXPECT_FALSE(empty.GetXmlSubtree("Logging", tree));
    EXPECT_FALSE(empty.GetProfileLabel(label));
    EXPECT_FALSE(empty.KeyExists(""));
    EXPECT_EQ(empty.LoadConfigKeys(), 1);
    EXPECT_FALSE(empty.CommitConfig());
    EXPECT_EQ(syslog_capture::Texts(),
              (std::vector<std::string>{
                  "XMLParser : Not initialized.\n", "XMLParser : Config has not been initialized\n",
                  "XMLParser : Config has not been initialized\n",
                  "GetProfileLabel : NULL pointer.\n", "CConfig : Bad parameter\n",
                  "Config : Not initialized.\n", "Config : XMLReadWrite not initialized.\n"}));
}

TEST(ConfigFileChainTest, ResetFileAttributesIsSilentForMissingFiles) {
    ChainRoot root;
    WriteObfuscated(root.Current(), kCurrentProfile);
    chmod(root.Current().c_str(), 0600);
    std::ofstream(root.Scratch("plainfile"), std::ios::binary) << "x";
    CDnConfigFile config;
    syslog_capture::Clear();
    config.ResetFileAttributes({root.Current(), root.Scratch("absent"),
                                root.Scratch("plainfile") + "/below", root.Update()});
    struct stat info {};
    ASSERT_EQ(stat(root.Current().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0644u);
    // Only the path through a file (not a folder) is an error worth a line.
    EXPECT_EQ(syslog_capture::Texts(),
              std::vector<std::string>{"CONFIG : Failed to change attributes for '" +
                                       root.Scratch("plainfile") + "/below' to NORMAL (err 20)\n"});
}

TEST(ConfigFileChainTest, ReadFileValueAndGetInstanceKeepOneStateForTheProcess) {
    ChainRoot root;
    WriteObfuscated(root.Scratch("one"), Profile("<ipc_port>11</ipc_port>"));
    std::ofstream(root.Scratch("two"), std::ios::binary) << Profile("<ipc_port>22</ipc_port>");
    const std::string key = "Tideway/ConfigurationParameters/ipc_port";
    std::string out;
    EXPECT_EQ(CDnConfigFile::ReadFileValue(root.Scratch("one"), key, true, out), 0);
    EXPECT_EQ(out, "11");
    // Without reload the cached document answers, whatever the path says.
    EXPECT_EQ(CDnConfigFile::ReadFileValue(root.Scratch("two"), key, false, out), 0);
    EXPECT_EQ(out, "11");
    EXPECT_EQ(CDnConfigFile::ReadFileValue(root.Scratch("two"), key, true, out), 0);
    EXPECT_EQ(out, "22");  // a plain file is read as it stands
    EXPECT_EQ(CDnConfigFile::ReadFileValue(root.Scratch("absent"), key, true, out), kConfigFail);
    EXPECT_EQ(Logged("XML has not been loaded."), 1u);

    // The instance initialises once, and again after any object was constructed.
    WriteObfuscated(root.Current(), Profile("<ipc_port>1001</ipc_port>"));
    CDnConfigFile& instance = CDnConfigFile::GetInstance(false);
    EXPECT_EQ(RunningPort(instance), 1001);
    WriteObfuscated(root.Current(), Profile("<ipc_port>1002</ipc_port>"));
    EXPECT_EQ(&CDnConfigFile::GetInstance(false), &instance);
    EXPECT_EQ(RunningPort(instance), 1001);
    { CDnConfigFile temporary; }
    EXPECT_EQ(RunningPort(CDnConfigFile::GetInstance(false)), 1002);
}

}  // namespace
