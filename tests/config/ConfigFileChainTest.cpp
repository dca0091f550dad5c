// The file chain on real files in a temporary app-data root: which file becomes the running
// profile, and what each of the three files holds afterwards, compared byte for byte.
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "ConfigChainSupport.h"
#include "SyslogCapture.h"
#include "config/DnConfigFile.h"

namespace {

using config_test::ChainRoot;
using config_test::Decode;
using config_test::Profile;
using config_test::Snapshot;
using config_test::WriteObfuscated;
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

// The ipc_port of a configuration, the quickest way to tell which file it runs.
uint16_t RunningPort(CDnConfigFile& config) {
    ConfigParams params;
    config.GetConfigParams(params);
    return params.ipcPort;
}

std::string Label(CDnConfigFile& config) {
    std::string label;
    config.GetProfileLabel(label);
    return label;
}

class ConfigFileChainTest : public ::testing::Test {
  protected:
    // Writes the files asked for and remembers their bytes.
    void Lay(bool current, bool update, bool backup) {
        if (current)
            WriteObfuscated(root.Current(), kCurrentProfile);
        if (update)
            WriteObfuscated(root.Update(), kUpdateProfile);
        if (backup)
            WriteObfuscated(root.Backup(), kBackupProfile);
        Remember();
        syslog_capture::Clear();
    }
    void Remember() {
        current0 = Snapshot(root.Current());
        update0 = Snapshot(root.Update());
        backup0 = Snapshot(root.Backup());
    }

    ChainRoot root;
    std::string current0, update0, backup0;
};

TEST_F(ConfigFileChainTest, NoFileAtAllWritesTheDefaultAndDeletesTheBackup) {
    WriteObfuscated(root.Backup(), kBackupProfile);
    for (bool checkUpdate : {false, true}) {
        SCOPED_TRACE(checkUpdate);
        fs::remove(root.Current());
        WriteObfuscated(root.Backup(), kBackupProfile);
        CDnConfigFile config;
        ASSERT_TRUE(config.InitializeConfig(checkUpdate, false));
        EXPECT_EQ(Snapshot(root.Backup()), "<absent>");
        EXPECT_EQ(Snapshot(root.Update()), "<absent>");
        // The new current file is the default, obfuscated with the marker in front.
        const std::string decoded = Decode(root.Current());
        ASSERT_EQ(decoded.compare(0, 10, "OBFUSCATED"), 0) << decoded;
        CXMLReadWrite written, builtIn;
        ASSERT_EQ(written.LoadFromString(decoded.substr(10), true), kConfigOk);
        ASSERT_EQ(builtIn.LoadFromString(kDefaultConfigXml, true), kConfigOk);
        std::string writtenXml, builtInXml;
        written.GetXML(writtenXml);
        builtIn.GetXML(builtInXml);
        EXPECT_EQ(writtenXml, builtInXml);
        // And it is what runs.
        ConfigParams params;
        config.GetConfigParams(params);
        EXPECT_EQ(params.ipcPort, 5003);
        EXPECT_EQ(params.kdfListenPort, 5001);
        EXPECT_EQ(params.kdfPortIncluded, "80,8080,3128");
        EXPECT_EQ(config.GetXmlValue("ConnectionFailure/Policy"), "FailClose");
        EXPECT_EQ(CDnConfigFile::m_ConfigFileType, kConfigFileObfuscated);
    }
}

TEST_F(ConfigFileChainTest, UpdateAloneRunsInPlaceWithoutCheckUpdate) {
    Lay(false, true, true);
    CDnConfigFile config;
    ASSERT_TRUE(config.InitializeConfig(false, false));
    EXPECT_EQ(RunningPort(config), 2002);
    EXPECT_EQ(Label(config), "update");
    EXPECT_EQ(Snapshot(root.Current()), "<absent>");
    EXPECT_EQ(Snapshot(root.Update()), update0);
    EXPECT_EQ(Snapshot(root.Backup()), backup0);
    // The finishing steps ran on the update.
    EXPECT_EQ(config.GetExceptionCount(1), 2);
}

TEST_F(ConfigFileChainTest, NewUpdateIsAdoptedAndKeepsUserAndGroupsInMemoryHere) {
    Lay(true, true, true);
    CDnConfigFile config;
    ASSERT_TRUE(config.InitializeConfig(true, false));
    EXPECT_EQ(RunningPort(config), 2002);
    EXPECT_EQ(Snapshot(root.Current()), update0);  // a plain copy: this process commits nothing
    EXPECT_EQ(Snapshot(root.Update()), update0);
    EXPECT_EQ(Snapshot(root.Backup()), update0);
    // Same enterprise domains: the old identity survives, in memory.
    std::string user, groups;
    config.GetAuthenticatedIdentity(user, groups);
    EXPECT_EQ(user, "alice");
    EXPECT_EQ(groups, "staff,dev");
    EXPECT_EQ(config.GetXmlValue("authenticated_user"), "alice");
    EXPECT_EQ(config_test::Logged("CONFIG : Loaded and copied update config to current config"),
              1u);
    EXPECT_EQ(config_test::Logged("CONFIG : Copied update config to backup config"), 1u);

    // Once adopted, the same update is not adopted again: the current file now runs.
    syslog_capture::Clear();
    CDnConfigFile again;
    ASSERT_TRUE(again.InitializeConfig(true, false));
    EXPECT_EQ(config_test::Logged("CONFIG : Loaded and copied update config to current config"),
              0u);
    EXPECT_EQ(Snapshot(root.Current()), update0);
}

TEST_F(ConfigFileChainTest, OwnerCommitsTheKeptIdentityIntoTheNewCurrentFile) {
    CDnConfigFile::SetConfigRoleForTesting(kConfigRoleOwner);
    Lay(true, true, false);
    CDnConfigFile config;
    ASSERT_TRUE(config.InitializeConfig(true, false));
    EXPECT_EQ(Snapshot(root.Update()), update0);
    EXPECT_EQ(Snapshot(root.Backup()), update0);
    // The current file is the update rewritten with the old user and groups.
    const std::string decoded = Decode(root.Current());
    ASSERT_EQ(decoded.compare(0, 10, "OBFUSCATED"), 0);
    CXMLReadWrite written;
    ASSERT_EQ(written.LoadFromString(decoded.substr(10), true), kConfigOk);
    std::string value;
    written.GetValue("Tideway/ConfigurationParameters/ipc_port", value);
    EXPECT_EQ(value, "2002");
    written.GetValue("Tideway/ConfigurationParameters/authenticated_user", value);
    EXPECT_EQ(value, "alice");
    written.GetValue("Tideway/ConfigurationParameters/authenticated_groups", value);
    EXPECT_EQ(value, "staff,dev");
    // The reload after the commit runs that file.
    EXPECT_EQ(RunningPort(config), 2002);
    std::string user, groups;
    config.GetAuthenticatedIdentity(user, groups);
    EXPECT_EQ(user, "alice");
    EXPECT_EQ(groups, "staff,dev");
}

TEST_F(ConfigFileChainTest, IdentityIsDroppedWhenTheDomainsChange) {
    CDnConfigFile::SetConfigRoleForTesting(kConfigRoleOwner);
    WriteObfuscated(root.Current(), kCurrentProfile);
    const std::string update = Profile(
        "<ipc_port>2002</ipc_port><enterprise_domains>other</enterprise_domains>"
        "<authenticated_user>bob</authenticated_user>");
    WriteObfuscated(root.Update(), update);
    Remember();
    CDnConfigFile config;
    ASSERT_TRUE(config.InitializeConfig(true, false));
    EXPECT_EQ(Snapshot(root.Current()), update0);  // nothing was committed over the copy
    std::string user, groups;
    config.GetAuthenticatedIdentity(user, groups);
    EXPECT_EQ(user, "bob");
    EXPECT_EQ(groups, "");
}

TEST_F(ConfigFileChainTest, WithoutCurrentFileTheUpdateKeepsItsOwnIdentity) {
    CDnConfigFile::SetConfigRoleForTesting(kConfigRoleOwner);
    const std::string update = Profile(
        "<ipc_port>2002</ipc_port><enterprise_domains>corp</enterprise_domains>"
        "<authenticated_user>bob</authenticated_user>");
    WriteObfuscated(root.Update(), update);
    Remember();
    CDnConfigFile config;
    ASSERT_TRUE(config.InitializeConfig(true, false));
    std::string user, groups;
    config.GetAuthenticatedIdentity(user, groups);
    EXPECT_EQ(user, "bob");
    EXPECT_EQ(Snapshot(root.Backup()), update0);
    // The temporary loaded the update itself and set bob on bob: the committed file says bob.
    CXMLReadWrite written;
    ASSERT_EQ(written.LoadFromString(Decode(root.Current()).substr(10), true), kConfigOk);
    std::string value;
    written.GetValue("Tideway/ConfigurationParameters/authenticated_user", value);
    EXPECT_EQ(value, "bob");
}

TEST_F(ConfigFileChainTest, UpdateEqualToBackupChangesNothing) {
    WriteObfuscated(root.Current(), kCurrentProfile);
    WriteObfuscated(root.Update(), kUpdateProfile);
    fs::copy_file(root.Update(), root.Backup());
    Remember();
    syslog_capture::Clear();
    CDnConfigFile config;
    ASSERT_TRUE(config.InitializeConfig(true, false));
    EXPECT_EQ(RunningPort(config), 1001);
    EXPECT_EQ(Snapshot(root.Current()), current0);
    EXPECT_EQ(Snapshot(root.Update()), update0);
    EXPECT_EQ(Snapshot(root.Backup()), backup0);
    EXPECT_EQ(syslog_capture::CountContaining("CONFIG :"), 0u);
}

TEST_F(ConfigFileChainTest, UpdateThatFailsToLoadFallsBackToTheCurrentFile) {
    WriteObfuscated(root.Current(), kCurrentProfile);
    for (const std::string& bad : {std::string("not obfuscated at all"), std::string()}) {
        std::ofstream(root.Update(), std::ios::binary | std::ios::trunc) << bad;
        Remember();
        syslog_capture::Clear();
        CDnConfigFile config;
        ASSERT_TRUE(config.InitializeConfig(true, false));
        EXPECT_EQ(RunningPort(config), 1001);
        EXPECT_EQ(Snapshot(root.Current()), current0);
        EXPECT_EQ(Snapshot(root.Update()), update0);
        EXPECT_EQ(Snapshot(root.Backup()), "<absent>");
        EXPECT_EQ(config_test::Logged("ERROR : Failed to load Update Configuration file"), 1u);
    }
    // An update that decodes to something that is not XML fails the same way.
    WriteObfuscated(root.Update(), "<Tideway><oops></Tideway>");
    Remember();
    syslog_capture::Clear();
    CDnConfigFile config;
    ASSERT_TRUE(config.InitializeConfig(true, false));
    EXPECT_EQ(RunningPort(config), 1001);
    EXPECT_EQ(Snapshot(root.Update()), update0);
    EXPECT_EQ(syslog_capture::CountContaining("The config file is corrupted. Cannot load: "), 1u);
    // Loading the update alone (updateOnly) fails outright and leaves no store.
    syslog_capture::Clear();
    CDnConfigFile only;
    EXPECT_FALSE(only.InitializeConfig(true, true));
    EXPECT_EQ(Snapshot(root.Current()), current0);
    std::string label;
    EXPECT_FALSE(only.GetProfileLabel(label));
}

TEST_F(ConfigFileChainTest, UpdateOnlyRunsTheUpdateAndTouchesNoFile) {
    Lay(true, true, true);
    CDnConfigFile config;
    ASSERT_TRUE(config.InitializeConfig(true, true));
    EXPECT_EQ(RunningPort(config), 2002);
    EXPECT_EQ(Snapshot(root.Current()), current0);
    EXPECT_EQ(Snapshot(root.Update()), update0);
    EXPECT_EQ(Snapshot(root.Backup()), backup0);
}

TEST_F(ConfigFileChainTest, UndecodableCurrentIsDeletedOnlyWithCheckUpdate) {
    const std::string garbage(64, 'x');
    // Without checkUpdate nothing is touched and nothing runs.
    std::ofstream(root.Current(), std::ios::binary) << garbage;
    WriteObfuscated(root.Update(), kUpdateProfile);
    WriteObfuscated(root.Backup(), kUpdateProfile);
    Remember();
    syslog_capture::Clear();
    {
        CDnConfigFile config;
        EXPECT_FALSE(config.InitializeConfig(false, false));
        EXPECT_EQ(Snapshot(root.Current()), current0);
        EXPECT_EQ(Snapshot(root.Update()), update0);
        EXPECT_EQ(Snapshot(root.Backup()), backup0);
        EXPECT_EQ(config_test::Logged("ERROR : Failed to load Configuration file"), 1u);
        std::string label;
        EXPECT_FALSE(config.GetProfileLabel(label));  // no store left behind
    }
    // With it, the file goes and the update (equal to the backup) is adopted all the same.
    syslog_capture::Clear();
    {
        CDnConfigFile config;
        ASSERT_TRUE(config.InitializeConfig(true, false));
        EXPECT_EQ(config_test::Logged("Config : '" + root.Current() + "' is corrupt: Result: 22"),
                  1u);
        EXPECT_EQ(config_test::Logged("Config : deleting the file"), 1u);
        EXPECT_EQ(RunningPort(config), 2002);
        EXPECT_EQ(Snapshot(root.Current()), update0);
        EXPECT_EQ(Snapshot(root.Update()), update0);
        EXPECT_EQ(Snapshot(root.Backup()), update0);
    }
    // Without an update it is rebuilt from the default, and the backup goes.
    std::ofstream(root.Current(), std::ios::binary | std::ios::trunc) << garbage;
    fs::remove(root.Update());
    {
        CDnConfigFile config;
        ASSERT_TRUE(config.InitializeConfig(true, false));
        EXPECT_EQ(RunningPort(config), 5003);
        EXPECT_EQ(Decode(root.Current()).compare(0, 10, "OBFUSCATED"), 0);
        EXPECT_EQ(Snapshot(root.Backup()), "<absent>");
    }
}

TEST_F(ConfigFileChainTest, PlainXmlInTheCurrentPlaceIsRefusedAndNotRewritten) {
    std::ofstream(root.Current(), std::ios::binary) << kCurrentProfile;
    Remember();
    syslog_capture::Clear();
    CDnConfigFile config;
    EXPECT_FALSE(config.InitializeConfig(false, false));
    EXPECT_EQ(Snapshot(root.Current()), current0);
    EXPECT_EQ(
        config_test::Logged("Config : The service only loads an obfuscated configuration file"),
        1u);
    EXPECT_EQ(CDnConfigFile::m_ConfigFileType, kConfigFilePlainXml);

    CDnConfigFile probe;
    EXPECT_EQ(probe.LoadConfigFile(false), 22);
    ConfigFileType type = 99;
    EXPECT_EQ(probe.GetConfigFileType(root.Current(), type), 0);
    EXPECT_EQ(type, kConfigFilePlainXml);
    EXPECT_EQ(Snapshot(root.Current()), current0);
}

TEST_F(ConfigFileChainTest, FileTypesAndTheMarker) {
    CDnConfigFile config;
    ConfigFileType type = 99;
    // Missing and undecodable files stay unknown with the decoder's code.
    EXPECT_EQ(config.GetConfigFileType(root.Scratch("missing"), type), 22);
    EXPECT_EQ(type, kConfigFileUnknown);
    std::ofstream(root.Scratch("junk"), std::ios::binary) << std::string(32, '\x01');
    EXPECT_EQ(config.GetConfigFileType(root.Scratch("junk"), type), 22);
    EXPECT_EQ(type, kConfigFileUnknown);
    // Decodes but is no XML.
    WriteObfuscated(root.Scratch("bad"), "no xml here");
    syslog_capture::Clear();
    EXPECT_EQ(config.GetConfigFileType(root.Scratch("bad"), type), kConfigFail);
    EXPECT_EQ(type, kConfigFileBadXml);
    EXPECT_EQ(config_test::Logged("The config file is corrupted. Cannot load: \"no xml here\""),
              1u);
    // Obfuscated XML, with or without the marker.
    WriteObfuscated(root.Scratch("marked"), kCurrentProfile);
    WriteObfuscated(root.Scratch("bare"), kCurrentProfile, false);
    for (const char* name : {"marked", "bare"}) {
        EXPECT_EQ(config.GetConfigFileType(root.Scratch(name), type), 0) << name;
        EXPECT_EQ(type, kConfigFileObfuscated) << name;
    }
    // Plain XML may open with a byte-order mark and any run of blanks and line ends.
    std::ofstream(root.Scratch("bom"), std::ios::binary)
        << "\xEF\xBB\xBF \r\n\t" << kCurrentProfile;
    std::ofstream(root.Scratch("blanks"), std::ios::binary)
        << std::string(700, ' ') << kCurrentProfile;
    std::ofstream(root.Scratch("text"), std::ios::binary) << "  x" << kCurrentProfile;
    for (const char* name : {"bom", "blanks"}) {
        EXPECT_EQ(config.GetConfigFileType(root.Scratch(name), type), 0) << name;
        EXPECT_EQ(type, kConfigFilePlainXml) << name;
    }
    EXPECT_EQ(config.GetConfigFileType(root.Scratch("text"), type), 22);
    EXPECT_EQ(type, kConfigFileUnknown);

    std::string text = "stale";
    EXPECT_EQ(config.ReadObfuscatedFile(root.Scratch("marked"), text, false), 0);
    EXPECT_EQ(text, "OBFUSCATED" + kCurrentProfile);
    EXPECT_EQ(config.ReadObfuscatedFile(root.Scratch("marked"), text, true), 0);
    EXPECT_EQ(text, kCurrentProfile);
    EXPECT_EQ(config.ReadObfuscatedFile(root.Scratch("bare"), text, true), 0);
    EXPECT_EQ(text, kCurrentProfile);
    EXPECT_EQ(config.ReadObfuscatedFile(root.Scratch("junk"), text, true), 22);

    // A current file whose plaintext lacks the marker loads all the same.
    fs::copy_file(root.Scratch("bare"), root.Current());
    CDnConfigFile bare;
    ASSERT_TRUE(bare.InitializeConfig(false, false));
    EXPECT_EQ(RunningPort(bare), 1001);
    EXPECT_EQ(Label(bare), "current");
}

TEST_F(ConfigFileChainTest, IsUpdateAvailableComparesUpdateAndBackupBytes) {
    CDnConfigFile config;
    syslog_capture::Clear();
    EXPECT_FALSE(config.IsUpdateAvailable());
    EXPECT_EQ(
        config_test::Logged("Config : Update file '" + root.Update() + "' doesn't exist. Code :2"),
        1u);

    // Empty update and empty backup are equal: nothing to adopt.
    WriteObfuscated(root.Current(), kCurrentProfile);
    std::ofstream(root.Update(), std::ios::binary);
    std::ofstream(root.Backup(), std::ios::binary);
    EXPECT_FALSE(config.IsUpdateAvailable());
    {
        // And the chain runs the current file without touching any.
        Remember();
        CDnConfigFile running;
        ASSERT_TRUE(running.InitializeConfig(true, false));
        EXPECT_EQ(RunningPort(running), 1001);
        EXPECT_EQ(Snapshot(root.Current()), current0);
        EXPECT_EQ(Snapshot(root.Update()), "");
        EXPECT_EQ(Snapshot(root.Backup()), "");
    }

    WriteObfuscated(root.Update(), kUpdateProfile);
    fs::copy_file(root.Update(), root.Backup(), fs::copy_options::overwrite_existing);
    EXPECT_FALSE(config.IsUpdateAvailable());
    // One byte more in the backup is a different file.
    std::ofstream(root.Backup(), std::ios::binary | std::ios::app) << 'x';
    EXPECT_TRUE(config.IsUpdateAvailable());
    fs::copy_file(root.Update(), root.Backup(), fs::copy_options::overwrite_existing);

    // A corrupt current file makes the update worth adopting even if it equals the backup.
    std::ofstream(root.Current(), std::ios::binary | std::ios::trunc) << "junk";
    syslog_capture::Clear();
    EXPECT_TRUE(config.IsUpdateAvailable());
    EXPECT_EQ(config_test::Logged("Config : '" + root.Current() + "' is corrupt: Result: 22"), 1u);

    // So does a missing current file, or a missing backup.
    fs::remove(root.Current());
    syslog_capture::Clear();
    EXPECT_TRUE(config.IsUpdateAvailable());
    EXPECT_EQ(
        config_test::Logged("Config : Config file '" + root.Current() + "' doesn't exist. Code :2"),
        1u);
    {
        // The identical update is adopted in place of the missing current file.
        Remember();
        CDnConfigFile running;
        ASSERT_TRUE(running.InitializeConfig(true, false));
        EXPECT_EQ(RunningPort(running), 2002);
        EXPECT_EQ(Snapshot(root.Current()), update0);
        EXPECT_EQ(Snapshot(root.Backup()), backup0);
    }
    fs::remove(root.Backup());
    syslog_capture::Clear();
    EXPECT_TRUE(config.IsUpdateAvailable());
    EXPECT_EQ(
        config_test::Logged("Config : Backup file '" + root.Backup() + "' doesn't exist. Code :2"),
        1u);
}

TEST_F(ConfigFileChainTest, FailedCopiesOfTheUpdate) {
    // The current place is taken by a folder that cannot be removed: the update stays loaded,
    // the initialisation fails, and no file changes.
    fs::create_directories(root.Current() + "/inner");
    WriteObfuscated(root.Update(), kUpdateProfile);
    Remember();
    syslog_capture::Clear();
    {
        CDnConfigFile config;
        EXPECT_FALSE(config.InitializeConfig(true, false));
        EXPECT_EQ(syslog_capture::CountContaining(
                      "CONFIG : Failed to copy update config to current config: "),
                  1u);
        EXPECT_EQ(RunningPort(config), 2002);
        EXPECT_EQ(Label(config), "update");
        EXPECT_EQ(Snapshot(root.Update()), update0);
        EXPECT_EQ(Snapshot(root.Backup()), "<absent>");
        EXPECT_TRUE(fs::is_directory(root.Current() + "/inner"));
    }
    fs::permissions(root.Current(), fs::perms::owner_all);
    fs::remove_all(root.Current());

    // The backup place is taken by a folder: the adoption stands, the backup copy is reported.
    fs::create_directories(root.Backup());
    syslog_capture::Clear();
    CDnConfigFile config;
    ASSERT_TRUE(config.InitializeConfig(true, false));
    EXPECT_EQ(config_test::Logged("CONFIG : Failed to copy update config to backup config"), 1u);
    EXPECT_EQ(Snapshot(root.Current()), update0);
    EXPECT_EQ(RunningPort(config), 2002);
}

TEST_F(ConfigFileChainTest, GroupListRepair) {
    ChainRoot& r = root;
    // Line feeds become commas in the store and the map; the file's text stays as it was.
    WriteObfuscated(r.Current(), Profile("<authenticated_groups>g1\ng2\ng3</authenticated_groups>"
                                         "<ipc_port>1</ipc_port>"));
    Remember();
    {
        CDnConfigFile config;
        ASSERT_TRUE(config.InitializeConfig(false, false));
        EXPECT_EQ(config.GetString("authenticated_groups"), "g1,g2,g3");
        EXPECT_EQ(config.GetXmlValue("authenticated_groups"), "g1,g2,g3");
        EXPECT_EQ(Snapshot(r.Current()), current0);
    }
    // Without line feeds the value is the parser's (which folds runs of blanks).
    WriteObfuscated(r.Current(), Profile("<authenticated_groups>  a,  b </authenticated_groups>"));
    {
        CDnConfigFile config;
        ASSERT_TRUE(config.InitializeConfig(false, false));
        EXPECT_EQ(config.GetValues().at("authenticated_groups"), "a, b");
    }
    // A single occurrence costs a warning; the parse then stands on its own merits.
    WriteObfuscated(r.Current(),
                    Profile("<note>authenticated_groups></note><ipc_port>7</ipc_port>"));
    syslog_capture::Clear();
    {
        CDnConfigFile config;
        ASSERT_TRUE(config.InitializeConfig(false, false));
        EXPECT_EQ(RunningPort(config), 7);
        EXPECT_EQ(config_test::Logged("Config : Malformed XML. Closing auth groups tag not found."),
                  1u);
    }
    // A document that does not parse is refused by the type probe before any repair.
    WriteObfuscated(r.Current(), Profile("<authenticated_groups>a\nb"));
    syslog_capture::Clear();
    {
        CDnConfigFile config;
        EXPECT_FALSE(config.InitializeConfig(false, false));
        EXPECT_EQ(syslog_capture::CountContaining("The config file is corrupted. Cannot load: "),
                  1u);
        EXPECT_EQ(syslog_capture::CountContaining("Closing auth groups tag not found"), 0u);
    }
}

TEST_F(ConfigFileChainTest, CommitWritesTheTypeOfTheLastProbe) {
    CDnConfigFile::SetConfigRoleForTesting(kConfigRoleOwner);
    WriteObfuscated(root.Current(), kCurrentProfile);
    CDnConfigFile config;
    ASSERT_TRUE(config.InitializeConfig(false, false));

    // Obfuscated road: the marker goes in front of the store's text.
    ASSERT_TRUE(config.UpdateConfigKey("ipc_port", "4444", true));
    EXPECT_EQ(RunningPort(config), 4444);  // reloaded from the file just written
    std::string xml;
    CXMLReadWrite expected;
    ASSERT_EQ(expected.LoadFromString(kCurrentProfile, true), kConfigOk);
    expected.PutValue("Tideway/ConfigurationParameters/ipc_port", "4444");
    expected.GetXML(xml);
    EXPECT_EQ(Decode(root.Current()), "OBFUSCATED" + xml);

    // Plain road: the text alone, and failures of the file count as done.
    CDnConfigFile::m_ConfigFileType = kConfigFilePlainXml;
    ASSERT_TRUE(config.CommitConfig());
    EXPECT_EQ(Snapshot(root.Current()), xml);

    const std::string saved = Snapshot(root.Current());
    fs::remove(root.Current());
    fs::create_directory(root.Current());  // cannot be opened for writing
    syslog_capture::Clear();
    EXPECT_TRUE(config.CommitConfig());
    EXPECT_EQ(config_test::Logged("Config : Failed to open config file."), 1u);
    fs::remove(root.Current());

    fs::create_symlink("/dev/full", root.Current());  // opens, but every write fails
    syslog_capture::Clear();
    EXPECT_TRUE(config.CommitConfig());
    EXPECT_EQ(config_test::Logged("Config : Failed to write to config file. Code : 0x0"), 1u);
    fs::remove(root.Current());

    if (geteuid() != 0) {  // a read-only file stops only a user without override rights
        std::ofstream(root.Current(), std::ios::binary) << saved;
        chmod(root.Current().c_str(), 0444);
        syslog_capture::Clear();
        EXPECT_TRUE(config.CommitConfig());
        EXPECT_EQ(config_test::Logged("Config : Failed to open config file."), 1u);
        EXPECT_EQ(Snapshot(root.Current()), saved);
    }

    // Obfuscated road into a place that cannot be written: the commit fails.
    CDnConfigFile::m_ConfigFileType = kConfigFileObfuscated;
    fs::create_directory(root.Current());
    syslog_capture::Clear();
    EXPECT_FALSE(config.CommitConfig());
    EXPECT_EQ(config_test::Logged("Config : ObfuscateStringToFile failed"), 1u);
    EXPECT_FALSE(config.UpdateConfigKey("ipc_port", "5555", true));
    EXPECT_EQ(config_test::Logged("UpdateData : Failed to commit changes to config"), 1u);
}

TEST_F(ConfigFileChainTest, ChangesStayInMemoryOutsideTheOwner) {
    Lay(true, false, false);
    CDnConfigFile config;
    ASSERT_TRUE(config.InitializeConfig(false, false));
    EXPECT_TRUE(config.UpdateConfigKey("ipc_port", "4444", true));
    EXPECT_TRUE(config.UpdateConfigKey("brand_new", "x", true));
    EXPECT_EQ(RunningPort(config), 4444);
    EXPECT_EQ(config.GetXmlValue("ipc_port"), "4444");
    EXPECT_EQ(config.GetString("brand_new"), "x");
    EXPECT_EQ(Snapshot(root.Current()), current0);
    // A reload reads the file again, so the change is gone.
    EXPECT_TRUE(config.Reload());
    EXPECT_EQ(RunningPort(config), 1001);
    EXPECT_EQ(config.GetString("brand_new"), "");

    syslog_capture::Clear();
    EXPECT_FALSE(config.UpdateConfigKey(nullptr, "x", true));
    EXPECT_FALSE(config.UpdateConfigKey("", "x", true));
    EXPECT_EQ(config_test::Logged("XMLParser : Empty path passed in"), 1u);
    EXPECT_EQ(config_test::Logged("Config : Failed to update config key <=x>."), 1u);
    EXPECT_FALSE(config.UpdateData(nullptr, "k", "v", false));
    EXPECT_EQ(config_test::Logged("UpdateData : Bad parameter"), 1u);
}

TEST_F(ConfigFileChainTest, ValueOperationsWithoutAStore) {
    CDnConfigFile config;
    syslog_capture::Clear();
    EXPECT_FALSE(config.SetXmlValue("ipc_port", "1"));
    EXPECT_EQ(config.GetXmlValue("ipc_port"), "");
    boost::property_tree::ptree tree;
    EXPECT_FALSE(config.GetXmlSubtree("Logging", tree));
    std::string label;
    EXPECT_FALSE(config.GetProfileLabel(label));
    EXPECT_FALSE(config.KeyExists(""));
    EXPECT_EQ(config.LoadConfigKeys(), 1);
    EXPECT_FALSE(config.CommitConfig());
    EXPECT_EQ(config_test::LoggedTexts(),
              (std::vector<std::string>{
                  "XMLParser : Not initialized.", "XMLParser : Config has not been initialized",
                  "XMLParser : Config has not been initialized", "GetProfileLabel : NULL pointer.",
                  "CConfig : Bad parameter", "Config : Not initialized.",
                  "Config : XMLReadWrite not initialized."}));
    EXPECT_EQ(config.GetExceptionCount(3), 0);
    EXPECT_EQ(config_test::Logged("Invalid Exception passed"), 1u);

    // With a store: sub-trees, existence and the label.
    Lay(true, false, false);
    ASSERT_TRUE(config.InitializeConfig(false, false));
    EXPECT_TRUE(config.KeyExists("enterprise_domains"));
    EXPECT_FALSE(config.KeyExists("nothing"));
    EXPECT_TRUE(config.GetXmlSubtree("authenticated_user", tree));
    EXPECT_EQ(tree.data(), "alice");
    syslog_capture::Clear();
    EXPECT_FALSE(config.GetXmlSubtree("", tree));
    EXPECT_EQ(config_test::Logged("XMLParser : Empty xpath passed in"), 1u);
    EXPECT_EQ(Label(config), "current");
    EXPECT_TRUE(config.SetXmlValue("Logging/debug_level", "3"));
    uint32_t mask = 0;
    config.GetDebugLevel(mask);
    EXPECT_EQ(mask, 3u);
}

TEST_F(ConfigFileChainTest, ResetFileAttributesIsSilentForMissingFiles) {
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
    EXPECT_EQ(
        config_test::LoggedTexts(),
        std::vector<std::string>{"CONFIG : Failed to change attributes for '" +
                                 root.Scratch("plainfile") + "/below" + "' to NORMAL (err 20)"});
}

TEST_F(ConfigFileChainTest, ReadFileValueKeepsOneStoreForTheProcess) {
    WriteObfuscated(root.Scratch("one"), Profile("<ipc_port>11</ipc_port>"));
    std::ofstream(root.Scratch("two"), std::ios::binary) << Profile("<ipc_port>22</ipc_port>");
    const std::string key = "Tideway/ConfigurationParameters/ipc_port";
    std::string out;
    EXPECT_EQ(CDnConfigFile::ReadFileValue(root.Scratch("one"), key, true, out), 0);
    EXPECT_EQ(out, "11");
    // Without reload the cached document answers, whatever the path says.
    EXPECT_EQ(CDnConfigFile::ReadFileValue(root.Scratch("two"), key, false, out), 0);
    EXPECT_EQ(out, "11");
    // A plain file is read as it stands.
    EXPECT_EQ(CDnConfigFile::ReadFileValue(root.Scratch("two"), key, true, out), 0);
    EXPECT_EQ(out, "22");
    EXPECT_EQ(CDnConfigFile::ReadFileValue(root.Scratch("two"), "Tideway/none", false, out),
              kConfigFail);
    EXPECT_EQ(out, "");
    // A file that is neither leaves an empty store behind.
    syslog_capture::Clear();
    EXPECT_EQ(CDnConfigFile::ReadFileValue(root.Scratch("absent"), key, true, out), kConfigFail);
    EXPECT_EQ(config_test::Logged("XML has not been loaded."), 1u);
}

TEST_F(ConfigFileChainTest, GetInstanceInitialisesAgainAfterAnyConstruction) {
    WriteObfuscated(root.Current(), kCurrentProfile);
    CDnConfigFile& instance = CDnConfigFile::GetInstance(false);
    EXPECT_EQ(RunningPort(instance), 1001);
    WriteObfuscated(root.Current(), Profile("<ipc_port>1002</ipc_port>"));
    EXPECT_EQ(&CDnConfigFile::GetInstance(false), &instance);
    EXPECT_EQ(RunningPort(instance), 1001);  // initialised once
    { CDnConfigFile temporary; }             // clears the flag
    EXPECT_EQ(RunningPort(CDnConfigFile::GetInstance(false)), 1002);
}

}  // namespace
