// The file chain on real files: which file runs, and what each of the three holds afterwards.

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

uint16_t RunningPort(CDnConfigFile& config) {
    ConfigParams params;
    config.GetConfigParams(params);
    return params.ipcPort;
}

TEST(ConfigFileChainTest, WhatBecomesOfEachFile) {
    // Before: G(ood) X(garbage) P(lain XML) B(ad) O(ther) U(pdate's copy) -; after: K(ept)
    // A(bsent) U(pdate's bytes) D(efault). Checks: 1 checkUpdate, 2 also updateOnly. Port 0: the
    // load fails. Last: a log record the situation must leave, or "".
    const std::tuple<const char*, const char*, int, const char*, int, const char*> rows[] = {
        {"no file, backup left over", "--O", 0, "DAA", 5003, ""},
        {"update alone, no checkUpdate", "-GO", 0, "AKK", 2002, ""},
        {"update differs from backup", "GGO", 1, "UKU", 2002,
         "CONFIG : Loaded and copied update config to current config"},
        {"update equals backup", "GGU", 1, "KKK", 1001, ""},
        {"update equals backup, current gone", "-GU", 1, "UKK", 2002, ""},
        {"update fails to load", "GBO", 1, "KKK", 1001,
         "ERROR : Failed to load Update Configuration file"},
        {"update only", "GGO", 2, "KKK", 2002, ""},
        {"current undecodable, update present", "XGU", 1, "UKK", 2002,
         "Config : deleting the file"},
        {"current undecodable, no update", "X-O", 1, "DAA", 5003, "Config : deleting the file"},
        {"current undecodable, no checkUpdate", "XGU", 0, "KKK", 0,
         "ERROR : Failed to load Configuration file"},
        {"plain XML in the current place", "P--", 0, "KAA", 0,
         "Config : The service only loads an obfuscated configuration file"},
    };
    const std::string defaultXml = Rewritten(kDefaultConfigXml);
    for (const auto& [name, before, checks, after, port, line] : rows) {
        SCOPED_TRACE(name);
        ChainRoot root;
        const std::string paths[] = {root.Current(), root.Update(), root.Backup()};
        const std::string good[] = {kCurrentProfile, kUpdateProfile,
                                    Profile("<ipc_port>3003</ipc_port>", "backup")};
        std::map<char, std::string> raw{
            {'X', std::string(64, 'x')}, {'B', "junk"}, {'P', kCurrentProfile}};
        std::string was[3], got, want;
        for (int i = 0; i < 3; ++i) {
            if (before[i] == 'G' || before[i] == 'O')
                WriteObfuscated(paths[i], good[i]);
            else if (before[i] == 'U')
                fs::copy_file(root.Update(), paths[i]);
            else if (before[i] != '-')
                Write(paths[i], raw[before[i]]);
            was[i] = Bytes(paths[i]);
        }
        syslog_capture::Clear();
        CDnConfigFile config;
        EXPECT_EQ(config.InitializeConfig(checks > 0, checks > 1), port != 0);
        for (int i = 0; i < 3; ++i) {
            raw = {
                {'D', "OBFUSCATED" + defaultXml}, {'K', was[i]}, {'U', was[1]}, {'A', "<absent>"}};
            got += (after[i] == 'D' ? Decode(paths[i]) : Bytes(paths[i])) + "|";
            want += raw[after[i]] + "|";
        }
        EXPECT_EQ(got, want);
        std::string label;
        EXPECT_EQ(config.GetProfileLabel(label), port != 0);  // a failed load leaves no store
        EXPECT_EQ(RunningPort(config), port);
        EXPECT_EQ(config.GetExceptionCount(1), port == 2002 ? 2 : 0);  // lists parsed
        EXPECT_TRUE(*line == '\0' || Logged(line) == 1u) << line;
    }
}

TEST(ConfigFileChainTest, UserAndGroupsSurviveAnAdoptedUpdateOnlyWhileTheDomainsStay) {
    const std::string corp = "<enterprise_domains>corp</enterprise_domains>",
                      bob = "<authenticated_user>bob</authenticated_user>";
    // Role, a current file or not, the update's parameters, and "user|groups" in memory and, for
    // the owner, in the committed file.
    const std::tuple<int, bool, std::string, std::string> cases[] = {
        {kConfigRolePlugin, true, corp, "alice|staff,dev"},
        {kConfigRoleOwner, true, corp, "alice|staff,dev"},
        {kConfigRoleOwner, true, "<enterprise_domains>other</enterprise_domains>" + bob, "bob|"},
        {kConfigRoleOwner, false, corp + bob, "bob|"},
    };
    for (const auto& [role, withCurrent, updateParams, identity] : cases) {
        SCOPED_TRACE(updateParams);
        ChainRoot root;
        CDnConfigFile::SetConfigRoleForTesting(role);
        if (withCurrent)
            WriteObfuscated(root.Current(), kCurrentProfile);
        WriteObfuscated(root.Update(), Profile("<ipc_port>2002</ipc_port>" + updateParams));
        const std::string update = Bytes(root.Update());
        CDnConfigFile config;
        ASSERT_TRUE(config.InitializeConfig(true, false));
        EXPECT_EQ(RunningPort(config), 2002);
        std::string user, groups;
        config.GetAuthenticatedIdentity(user, groups);
        EXPECT_EQ(user + "|" + groups, identity);
        EXPECT_EQ(Bytes(root.Backup()), update);
        if (role == kConfigRolePlugin) {
            EXPECT_EQ(Bytes(root.Current()), update);  // a plain copy: nothing committed
            continue;
        }
        CXMLReadWrite written;  // what the owner committed
        ASSERT_EQ(written.LoadFromString(Decode(root.Current()).substr(10), true), kConfigOk);
        std::string values, value;
        for (const std::string key : {"ipc_port", "authenticated_user", "authenticated_groups"}) {
            written.GetValue("Tideway/ConfigurationParameters/" + key, value);
            values += value + "|";
        }
        EXPECT_EQ(values, "2002|" + identity + "|");
    }
}

TEST(ConfigFileChainTest, FailedCopiesOfTheUpdate) {
    ChainRoot root;
    // The current place is a folder: the update runs, the initialisation fails, no file changes.
    fs::create_directories(root.Current() + "/inner");
    WriteObfuscated(root.Update(), kUpdateProfile);
    const std::string update = Bytes(root.Update());
    {
        CDnConfigFile config;
        EXPECT_FALSE(config.InitializeConfig(true, false));
        EXPECT_EQ(syslog_capture::CountContaining(
                      "CONFIG : Failed to copy update config to current config: "),
                  1u);
        EXPECT_EQ(RunningPort(config), 2002);
        EXPECT_EQ(Bytes(root.Update()) + Bytes(root.Backup()), update + "<absent>");
        EXPECT_TRUE(fs::is_directory(root.Current() + "/inner"));
    }
    fs::remove_all(root.Current());
    // The backup place is a folder: the adoption stands, the failed backup copy is reported.
    fs::create_directories(root.Backup());
    CDnConfigFile config;
    ASSERT_TRUE(config.InitializeConfig(true, false));
    EXPECT_EQ(Logged("CONFIG : Failed to copy update config to backup config"), 1u);
    EXPECT_EQ(Bytes(root.Current()), update);
}

TEST(ConfigFileChainTest, IsUpdateAvailableComparesUpdateAndBackupBytes) {
    ChainRoot root;
    CDnConfigFile config;
    EXPECT_FALSE(config.IsUpdateAvailable());
    WriteObfuscated(root.Current(), kCurrentProfile);
    WriteObfuscated(root.Update(), kUpdateProfile);
    fs::copy_file(root.Update(), root.Backup());
    EXPECT_FALSE(config.IsUpdateAvailable());
    std::string changed = Bytes(root.Update());
    changed.back() ^= 1;  // the same size, one bit apart
    Write(root.Backup(), changed);
    EXPECT_TRUE(config.IsUpdateAvailable());
    fs::copy_file(root.Update(), root.Backup(), fs::copy_options::overwrite_existing);
    // A corrupt or missing current file, or a missing backup, makes the update worth adopting.
    Write(root.Current(), "junk");
    EXPECT_TRUE(config.IsUpdateAvailable());
    EXPECT_EQ(Logged("Config : '" + root.Current() + "' is corrupt: Result: 22"), 1u);
    fs::remove(root.Current());
    EXPECT_TRUE(config.IsUpdateAvailable());
    fs::remove(root.Backup());
    EXPECT_TRUE(config.IsUpdateAvailable());
}

TEST(ConfigFileChainTest, FileTypesReadingAndTheMarker) {
    ChainRoot root;
    WriteObfuscated(root.Path("marked"), kCurrentProfile);
    WriteObfuscated(root.Path("bare"), kCurrentProfile, false);
    WriteObfuscated(root.Path("notxml"), "no xml here");
    Write(root.Path("junk"), std::string(32, '\x01'));
    Write(root.Path("bom"), "\xEF\xBB\xBF \r\n\t" + kCurrentProfile);
    Write(root.Path("text"), "  x" + kCurrentProfile);
    Write(root.Path("empty"), "");
    Write(root.Path("blank"), " \r\n\t");
    Write(root.Path("declaration"), "<?xml version=\"1.0\"?>\n");
    // About one ciphertext in 256 begins with 0x00: a comment in front is varied until one does.
    for (int i = 0; i < 95 * 95 && Bytes(root.Path("zero"))[0] != '\0'; ++i)
        WriteObfuscated(root.Path("zero"), std::string("<!--") + char(' ' + i / 95) +
                                               char(' ' + i % 95) + " -->" + kCurrentProfile);
    const std::tuple<const char*, long, ConfigFileType> cases[] = {
        {"missing", 22, kConfigFileUnknown},  {"junk", 22, kConfigFileUnknown},
        {"text", 22, kConfigFileUnknown},     {"notxml", kConfigFail, kConfigFileBadXml},
        {"marked", 0, kConfigFileObfuscated}, {"bare", 0, kConfigFileObfuscated},
        {"bom", 0, kConfigFilePlainXml},      {"empty", 0, kConfigFilePlainXml},
        {"blank", 0, kConfigFilePlainXml},    {"declaration", 0, kConfigFilePlainXml},
        {"zero", 0, kConfigFileObfuscated},
    };
    CDnConfigFile config;
    for (const auto& [name, code, want] : cases) {
        ConfigFileType type = 99;
        EXPECT_EQ(config.GetConfigFileType(root.Path(name), type), code) << name;
        EXPECT_EQ(type, want) << name;
    }
    EXPECT_EQ(Logged("The config file is corrupted. Cannot load: \"no xml here\""), 1u);

    std::string text;
    EXPECT_EQ(config.ReadObfuscatedFile(root.Path("marked"), text, false), 0);
    EXPECT_EQ(text, "OBFUSCATED" + kCurrentProfile);
    for (const char* name : {"marked", "bare"}) {
        EXPECT_EQ(config.ReadObfuscatedFile(root.Path(name), text, true), 0);
        EXPECT_EQ(text, kCurrentProfile);
    }
    EXPECT_EQ(config.ReadObfuscatedFile(root.Path("junk"), text, true), 22);
    // Plain XML in the current place is refused with 22 and stays as it is.
    fs::copy_file(root.Path("bom"), root.Current());
    EXPECT_EQ(config.LoadConfigFile(false), 22);
    EXPECT_EQ(Bytes(root.Current()), Bytes(root.Path("bom")));
}

TEST(ConfigFileChainTest, AnEmptyObfuscatedProfileRunsWithDefaults) {
    for (const bool marker : {true, false}) {
        ChainRoot root;
        auto config = LoadParameters(root, "<ipc_port>1001</ipc_port>");
        WriteObfuscated(root.Current(), " \r\n\t", marker);
        const std::string file = Bytes(root.Current());
        // A reload replaces the running profile with the empty one, as a first load does.
        for (const bool reload : {true, false}) {
            CDnConfigFile fresh;
            CDnConfigFile& target = reload ? *config : fresh;
            EXPECT_TRUE(reload ? target.Reload() : target.InitializeConfig(false, false));
            EXPECT_EQ(RunningPort(target), 0);
            EXPECT_TRUE(target.GetValues().empty());
        }
        EXPECT_EQ(Bytes(root.Current()), file);
    }
}

TEST(ConfigFileChainTest, GroupListLineFeedsBecomeCommasInMemoryOnly) {
    ChainRoot root;
    auto config = LoadParameters(root, "<authenticated_groups>g1\ng2\ng3</authenticated_groups>");
    const std::string file = Bytes(root.Current());
    EXPECT_EQ(config->GetString("authenticated_groups"), "g1,g2,g3");
    EXPECT_EQ(config->GetXmlValue("authenticated_groups"), "g1,g2,g3");
    EXPECT_EQ(Bytes(root.Current()), file);
    config = LoadParameters(root, "<authenticated_groups>  a,  b </authenticated_groups>");
    EXPECT_EQ(config->GetValues().at("authenticated_groups"), "a, b");
    // An opening without its closing text costs a warning; the parse stands on its own merits.
    config = LoadParameters(root, "<note>authenticated_groups></note><ipc_port>7</ipc_port>");
    EXPECT_EQ(RunningPort(*config), 7);
    EXPECT_EQ(Logged("Config : Malformed XML. Closing auth groups tag not found."), 1u);
}

TEST(ConfigFileChainTest, CommitWritesTheTypeOfTheLastProbe) {
    ChainRoot root;
    CDnConfigFile::SetConfigRoleForTesting(kConfigRoleOwner);
    auto config = LoadParameters(root, "<ipc_port>1001</ipc_port>");
    // Obfuscated road: the marker goes in front of the store's text, and the reload runs it.
    ASSERT_TRUE(config->UpdateConfigKey("ipc_port", "4444", true));
    EXPECT_EQ(RunningPort(*config), 4444);
    const std::string xml = Rewritten(Profile("<ipc_port>4444</ipc_port>"));
    EXPECT_EQ(Decode(root.Current()), "OBFUSCATED" + xml);

    // Plain road: the text alone; failures of the file are logged and count as done.
    CDnConfigFile::m_ConfigFileType = kConfigFilePlainXml;
    ASSERT_TRUE(config->CommitConfig());
    EXPECT_EQ(Bytes(root.Current()), xml);
    fs::remove(root.Current());
    fs::create_symlink("/dev/full", root.Current());  // opens, but every write fails
    EXPECT_TRUE(config->CommitConfig());
    EXPECT_EQ(Logged("Config : Failed to write to config file. Code : 0x0"), 1u);
    fs::remove(root.Current());
    fs::create_directory(root.Current());  // cannot be opened for writing, even by root
    EXPECT_TRUE(config->CommitConfig());
    EXPECT_EQ(Logged("Config : Failed to open config file."), 1u);
    // Obfuscated road into a place that cannot be written: the commit fails.
    CDnConfigFile::m_ConfigFileType = kConfigFileObfuscated;
    EXPECT_FALSE(config->UpdateConfigKey("ipc_port", "5555", true));
    EXPECT_EQ(Logged("Config : ObfuscateStringToFile failed"), 1u);
    EXPECT_EQ(Logged("UpdateData : Failed to commit changes to config"), 1u);
}

TEST(ConfigFileChainTest, BadArgumentsAndAMissingStoreAreRefused) {
    ChainRoot root;
    auto config = LoadParameters(root, "<ipc_port>1001</ipc_port>");
    boost::property_tree::ptree tree;
    EXPECT_FALSE(config->UpdateConfigKey(nullptr, "x", true) || config->GetXmlSubtree("", tree) ||
                 config->UpdateConfigKey("", "x", true) ||
                 config->UpdateData(nullptr, "k", "v", 0));
    // Without a store every operation refuses.
    CDnConfigFile empty;
    EXPECT_FALSE(empty.SetXmlValue("ipc_port", "1") || empty.GetXmlSubtree("Logging", tree) ||
                 empty.KeyExists("") || empty.CommitConfig());
    EXPECT_EQ(empty.GetXmlValue("ipc_port"), "");
    EXPECT_EQ(empty.LoadConfigKeys(), 1);
}

TEST(ConfigFileChainTest, ResetFileAttributesIsSilentForMissingFiles) {
    ChainRoot root;
    WriteObfuscated(root.Current(), kCurrentProfile);
    chmod(root.Current().c_str(), 0600);
    const std::string below = Write(root.Path("plainfile"), "x") + "/below";
    CDnConfigFile config;
    syslog_capture::Clear();
    config.ResetFileAttributes({root.Current(), root.Path("absent"), below, root.Update()});
    EXPECT_EQ(Mode(root.Current()), 0644);
    // Only the path through a file (not a folder) is an error worth a line.
    EXPECT_THAT(syslog_capture::Texts(),
                testing::ElementsAre("CONFIG : Failed to change attributes for '" + below +
                                     "' to NORMAL (err 20)\n"));
}

TEST(ConfigFileChainTest, ReadFileValueAndGetInstanceKeepOneStateForTheProcess) {
    ChainRoot root;
    WriteObfuscated(root.Path("one"), Profile("<ipc_port>11</ipc_port>"));
    Write(root.Path("two"), Profile("<ipc_port>22</ipc_port>"));
    const std::string key = "Tideway/ConfigurationParameters/ipc_port";
    const std::tuple<const char*, bool, long, const char*> reads[] = {
        {"one", true, 0, "11"},
        {"two", false, 0, "11"},  // without reload the cached document answers
        {"two", true, 0, "22"},   // a plain file is read as it stands
        {"absent", true, kConfigFail, ""}};
    for (const auto& [file, reload, code, value] : reads) {
        std::string out = "22";
        EXPECT_EQ(CDnConfigFile::ReadFileValue(root.Path(file), key, reload, out), code);
        EXPECT_EQ(out, value) << file << reload;
    }
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
