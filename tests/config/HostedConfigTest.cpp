// Downloaded profiles and the trusted-network section, on real files.
#include <stdlib.h>

#include <boost/property_tree/ptree.hpp>

#include "ConfigTestSupport.h"
#include "config/HostedConfigFile.h"

namespace {

using namespace config_test;
namespace fs = std::filesystem;
using boost::property_tree::ptree;

// An obfuscated profile file's bytes, made beside the profiles and removed again.
std::string ObfuscatedBytes(const ChainRoot& root, const std::string& plain, bool marker = true) {
    const std::string path = root.Path("made.wso");
    WriteObfuscated(path, plain, marker);
    const std::string bytes = Bytes(path);
    fs::remove(path);
    return bytes;
}

// The temporary folder of the download, watched by the tests through TMPDIR.
struct HostedRoot : ChainRoot {
    HostedRoot() : temporary(Path("tmp")) {
        fs::create_directories(temporary);
        fs::permissions(temporary, fs::perms::all);
        setenv("TMPDIR", temporary.c_str(), 1);
        g_Trace.SetLevelMask(kDefaultTraceMask | (1u << TL_LIC));
    }
    ~HostedRoot() { unsetenv("TMPDIR"); }
    std::string temporary;
};

TEST(HostedConfigTest, OnlyANewDecodableProfileReplacesTheUpdateFile) {
    HostedRoot root;
    const std::string installed =
        "UseHostedConfig : Loaded and copied hosted config to update config";
    const std::string old = ObfuscatedBytes(root, Profile("<ipc_port>1</ipc_port>", "old"));
    const std::string fresh = ObfuscatedBytes(root, Profile("<ipc_port>2</ipc_port>", "new"));
    const std::string oldSize = std::to_string(old.size()),
                      wrongType = "UseHostedConfig : Downoaded config was wrong type ";
    // What, an update file in place or not, the download, and the line logged besides the
    // installed line, which a success adds.
    const std::tuple<const char*, bool, std::string, std::string> rows[] = {
        {"identical", true, old,
         "UseHostedConfig : updateLength=" + oldSize + " hostedLength=" + oldSize},
        {"different", true, fresh,
         "UseHostedConfig : Wrote " + std::to_string(fresh.size()) + " bytes"},
        {"no update yet", false, fresh,
         "Config : Update file '" + root.Update() + "' doesn't exist. Code :2"},
        {"without marker", true, ObfuscatedBytes(root, Profile(""), false), installed},
        {"garbage", true, "\x01\x02 not a profile", wrongType + "0"},
        {"plain XML", true, Profile("<ipc_port>3</ipc_port>"), wrongType + "1"},
        {"decodes to bad XML", true, ObfuscatedBytes(root, "<Tideway><open>"), wrongType + "2"},
    };
    for (const auto& [name, updateExists, hosted, logged] : rows) {
        SCOPED_TRACE(name);
        const bool result = hosted != old && logged.find(wrongType) == std::string::npos;
        fs::remove_all(root.temporary);
        fs::create_directories(root.temporary);
        fs::remove(root.Update());
        if (updateExists) {
            Write(root.Update(), old);
            ASSERT_EQ(chmod(root.Update().c_str(), 0640), 0);
        }
        syslog_capture::Clear();
        EXPECT_EQ(CDnConfigFile().UseHostedConfig(hosted), result);
        EXPECT_TRUE(Bytes(root.Update()) == (result ? hosted : updateExists ? old : "<absent>"));
        EXPECT_EQ(Logged(logged), 1u);
        EXPECT_EQ(Logged(installed), result ? 1u : 0u);
        // A refused download stays in the temporary folder; nothing else is left beside.
        EXPECT_EQ(FilesIn(root.temporary), result || hosted == old ? 0u : 1u);
        EXPECT_EQ(FilesIn(root.Path("tarvex/brenlo/tideway")),
                  Bytes(root.Update()) == "<absent>" ? 0u : 1u);
        EXPECT_EQ(updateExists ? Mode(root.Update()) : 0640, 0640) << "the update file's mode";
    }

    // A full disk while the download is written, or a writer that may not write the update
    // file, leaves the old one whole and no stray file beside it.
    const std::string large =
        ObfuscatedBytes(root, Profile("<!--" + std::string(4096, '-') + "-->"));
    Write(root.Update(), old);
    ASSERT_EQ(chmod(root.Update().c_str(), 0644), 0);
    const auto install = [&] { return CDnConfigFile().UseHostedConfig(large); };
    EXPECT_EQ(SaveInChild(nullptr, install, true).substr(0, 6), "false|");
    if (const passwd* nobody = getuid() == 0 ? getpwnam("nobody") : nullptr) {
        ASSERT_EQ(chmod(root.path().c_str(), 0755), 0);
        fs::permissions(root.temporary, fs::perms::all);
        const std::string size = std::to_string(large.size());
        EXPECT_EQ(SaveInChild(nobody, install),
                  "false|UseHostedConfig : updateLength=" + oldSize + " hostedLength=" + size +
                      "\n|UseHostedConfig : Wrote " + size +
                      " bytes\n|UseHostedConfig: copy_file failed: Permission denied\n");
    }
    EXPECT_EQ(Bytes(root.Update()), old);
    EXPECT_EQ(FilesIn(root.Path("tarvex/brenlo/tideway")), 1u);
}

TEST(HostedConfigTest, AnInstalledProfileIsReadAndThenAdoptedByTheNextRun) {
    HostedRoot root;
    CDnConfigFile::SetConfigRoleForTesting(kConfigRoleOwner);
    Write(root.Update(), ObfuscatedBytes(root, Profile("<ipc_port>1</ipc_port>", "first")));
    ASSERT_TRUE(CDnConfigFile().InitializeConfig(true, false));  // adopted: backup == update
    const std::string hosted = ObfuscatedBytes(
        root,
        Profile(
            "<ipc_port>2</ipc_port><Towers><Tower><DisplayName>T</DisplayName></Tower></Towers>",
            "hosted"));
    ASSERT_TRUE(CDnConfigFile().UseHostedConfig(hosted));
    std::string label;
    CHostedConfigFile reader;
    EXPECT_FALSE(reader.GetProfileLabel(label)) << "a store before any load";
    ASSERT_TRUE(reader.LoadHostedProfile());
    EXPECT_TRUE(reader.GetProfileLabel(label));
    EXPECT_EQ(label, "hosted") << "the pending update is what the reader sees";
    EXPECT_EQ(reader.GetXmlValue("ipc_port"), "2");
    EXPECT_TRUE(reader.KeyExists("Towers/Tower/DisplayName"));
    EXPECT_TRUE(reader.GetValues().empty());

    CDnConfigFile next;
    ASSERT_TRUE(next.InitializeConfig(true, false));
    EXPECT_EQ(next.GetPort("ipc_port"), 2u);
    EXPECT_EQ(Bytes(root.Backup()) + Bytes(root.Update()), hosted + hosted);
    EXPECT_FALSE(next.UseHostedConfig(hosted)) << "the installed profile is not new";
    // Once adopted, the reader takes the current file; with no file at all it has nothing.
    ASSERT_TRUE(reader.LoadHostedProfile());
    EXPECT_EQ(reader.GetXmlValue("ipc_port"), "2");
    fs::remove(root.Current());
    fs::remove(root.Update());
    EXPECT_FALSE(CHostedConfigFile().LoadHostedProfile());
    EXPECT_EQ(Logged("ERROR : Failed to load Configuration file"), 1u);
    EXPECT_FALSE(fs::exists(root.Current())) << "the reader wrote a default profile";
}

// Servers as the caller hands them: children named Server.
ptree Servers(const std::vector<std::string>& addresses) {
    ptree servers;
    for (const std::string& address : addresses) {
        ptree server;
        server.put("Address", address);
        server.put("Port", "443");
        servers.add_child("Server", server);
    }
    return servers;
}

TEST(HostedConfigTest, TrustedServersAreReplacedInPlaceAndTheRestKeepsItsBytes) {
    const std::string parameters =
        "<ipc_port>1001</ipc_port><enterprise_domains>corp</enterprise_domains>"
        "<TrustedNetworkDetection><Enabled>false</Enabled><TrustedServers><Server>"
        "<Address>old.example</Address></Server></TrustedServers>"
        "<CheckInterval>30</CheckInterval></TrustedNetworkDetection>"
        "<Towers><Tower><DisplayName>T1</DisplayName><HostName>h1</HostName></Tower></Towers>";
    // The text outside the section, and the section.
    const auto split = [](const std::string& text) {
        const size_t begin = text.find("<TrustedNetworkDetection");
        const std::string end = "</TrustedNetworkDetection>";
        const size_t stop = text.find(end) == std::string::npos ? text.find("/>", begin) + 2
                                                                : text.find(end) + end.size();
        return std::make_pair(text.substr(0, begin) + text.substr(stop),
                              text.substr(begin, stop - begin));
    };
    // Role, servers, Enabled text, Enabled in the file ("-": no such element), file changed.
    const std::tuple<int, std::vector<std::string>, std::string, std::string, bool> rows[] = {
        {kConfigRoleOwner, {"a.example", "b.example"}, "true", "true", true},
        {kConfigRoleOwner, {}, "false", "false", true},
        {kConfigRolePlugin, {"a.example"}, " Yes ", "-", true},
        {kConfigRolePlugin, {}, "", "", false},
    };
    for (const auto& [role, servers, enabled, enabledInFile, fileChanged] : rows) {
        SCOPED_TRACE(std::to_string(role) + " " + enabled);
        ChainRoot root;
        CDnConfigFile::SetConfigRoleForTesting(role);
        auto config = LoadParameters(root, parameters);
        ASSERT_TRUE(config->CommitConfig());  // the file as this store writes it
        const std::string before = Decode(root.Current());
        const auto valuesBefore = config->GetValues();
        syslog_capture::Clear();
        config->UpdateCurrentConfigTND(Servers(servers), enabled);
        EXPECT_TRUE(syslog_capture::Texts().empty());
        const std::string after = Decode(root.Current());
        EXPECT_EQ(after != before, fileChanged);
        EXPECT_EQ(split(after).first, split(before).first) << "bytes outside the section changed";
        if (fileChanged) {
            CXMLReadWrite file;
            ASSERT_EQ(file.LoadFromString(after.substr(10), true), kConfigOk);
            ptree section;
            file.GetChild("Tideway/ConfigurationParameters/TrustedNetworkDetection", section);
            std::vector<std::string> written;
            const ptree none;
            for (const auto& server : section.get_child("TrustedServers", none))
                written.push_back(server.second.get("Address", "?"));
            EXPECT_EQ(written, servers);
            EXPECT_EQ(section.get("Enabled", std::string("-")), enabledInFile);
            EXPECT_FALSE(section.get_optional<std::string>("CheckInterval")) << "not cleared";
        }
        // In memory the new text is read back trimmed, and the map gains the path-named key.
        std::string trimmed = enabled;
        Trim(trimmed, kWhitespace);
        EXPECT_EQ(config->GetXmlValue(cfgkey::kTndEnabled), trimmed);
        EXPECT_EQ(config->GetValues().count(cfgkey::kTndEnabled), role == kConfigRolePlugin);
        ASSERT_TRUE(config->Reload());  // a reload of the file keeps every other key as it was
        EXPECT_EQ(config->GetValues(), valuesBefore);
    }
    ChainRoot root;
    CDnConfigFile().UpdateCurrentConfigTND(Servers({"a"}), "true");
    EXPECT_EQ(Logged("Config : Not initialized."), 1u);
}

}  // namespace
