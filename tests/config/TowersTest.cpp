// Towers and closest-tower settings on real profiles, checked in memory and through the file.
#include <utility>

#include "ConfigTestSupport.h"

namespace {

using config_test::Bytes;
using config_test::ChainRoot;
using config_test::LoadParameters;
using config_test::Logged;

// Towers A (a.host) and B (b.host), each with both ports.
const char kTwoTowers[] =
    "<Towers><Tower><DisplayName>A</DisplayName><Active>1</Active><HostName>a.host</HostName>"
    "<SSLPort>443</SSLPort><PlainPort>80</PlainPort></Tower>"
    "<Tower><DisplayName>B</DisplayName><Active>0</Active><HostName>b.host</HostName>"
    "<SSLPort>8443</SSLPort><PlainPort>8080</PlainPort></Tower></Towers>";

std::string Element(const char* name, const std::string& text) {
    return text.empty() ? std::string() : "<" + std::string(name) + ">" + text + "</" + name + ">";
}

std::string Joined(const TowerInfo& t) {
    return t.DisplayName + "|" + t.Active + "|" + t.HostName + "|" + t.PlainPort + "|" + t.SSLPort;
}

TEST(TowersTest, ActiveTowerIsRepairedFromNameDefaultOrFirstTower) {
    // What, the stored ActiveTowerDisplayName, ActiveTowerHostName, Default and tunnel type; the
    // file owner's role (the repair reaches the file); Joined(out) ("?": the untouched port) with
    // the stored host name and display name afterwards; the one TRACE line expected, or "".
    const std::tuple<const char*, const char*, const char*, const char*, const char*, bool,
                     const char*, const char*>
        cases[] = {
            {"name matches ignoring case, host too", "a", "A.HOST", "", "ssl", false,
             "A|1|a.host|?|443 A.HOST a", ""},
            {"name matches, host moved", "b", "old.host", "", "plain", true,
             "B|0|b.host|8080|? b.host b",
             "Config: Changing ActiveTowerHostName from old.host to b.host"},
            {"host empty: Default wins over the name", "A", "", "b", "ssl", true,
             "B|0|b.host|?|8443 b.host B",
             "Config: ActiveHostDisplayName has been changed from A to B (Default)"},
            {"stale name, Default names no tower", "Gone", "g.host", "Nowhere", "", false,
             "A|1|a.host|?|443 a.host A",
             "Config: ActiveHostDisplayName has been changed from Gone to A (First tower's "
             "display name from the Tower List)"},
            {"nothing stored, no Default", "", "", "", "plain", false, "A|1|a.host|80|? a.host A",
             "Config: ActiveHostDisplayName has been changed from  to A (First tower's display "
             "name from the Tower List)"},
        };
    for (const auto& [what, display, host, preferred, tunnel, owner, after, log] : cases) {
        SCOPED_TRACE(what);
        ChainRoot root;
        auto config = LoadParameters(root, kTwoTowers + Element("ActiveTowerDisplayName", display) +
                                               Element("ActiveTowerHostName", host) +
                                               Element("Default", preferred) +
                                               Element("tunnel_type", tunnel));
        CDnConfigFile::SetConfigRoleForTesting(owner ? kConfigRoleOwner : kConfigRolePlugin);
        const std::string before = Bytes(root.Current());
        syslog_capture::Clear();
        TowerInfo out{"?", "?", "?", "?", "?"};
        EXPECT_EQ(config->GetActiveTower(out), 0);
        const std::string storedHost = config->GetString("ActiveTowerHostName");
        EXPECT_EQ(
            Joined(out) + " " + storedHost + " " + config->GetString("ActiveTowerDisplayName"),
            after);
        EXPECT_EQ(*log == '\0' ? syslog_capture::CountContaining("Config") : Logged(log),
                  *log == '\0' ? 0u : 1u);
        CDnConfigFile fresh;  // the plug-in keeps changes in memory; the owner commits them
        ASSERT_TRUE(fresh.InitializeConfig(false, false));
        EXPECT_EQ(fresh.GetString("ActiveTowerHostName"), owner ? storedHost : host);
        EXPECT_EQ(owner || Bytes(root.Current()) == before, true);
    }
    ChainRoot root;
    TowerInfo out{"keep", "", "", "", ""};
    EXPECT_EQ(LoadParameters(root, "<ActiveTowerDisplayName>A</ActiveTowerDisplayName>")
                  ->GetActiveTower(out),
              0);
    EXPECT_EQ(out.DisplayName + "|" + std::to_string(Logged("Config : List of towers is empty.")),
              "keep|1");
}

TEST(TowersTest, ReplacedTowerListIsCommittedAndReadBack) {
    ChainRoot root;
    auto config = LoadParameters(root, std::string(kTwoTowers) +
                                           "<ActiveTowerDisplayName>b</ActiveTowerDisplayName>"
                                           "<ActiveTowerHostName>b.host</ActiveTowerHostName>");
    const std::list<std::pair<std::string, TowerInfo>> towers = {
        {"C", {"C", "1", "c.host", "81", "444"}},
        {"B", {"B", "0", "new-b.host", "82", "445"}},
        {"C", {"C", "0", "second-c.host", "83", "446"}},  // duplicates are kept
    };
    // In the plug-in's role the change stays in memory.
    const std::string before = Bytes(root.Current());
    config->UpdateTowerList(towers, true);
    EXPECT_EQ(Bytes(root.Current()), before);
    EXPECT_EQ(config->GetString("ActiveTowerHostName"), "new-b.host");
    EXPECT_EQ(Logged("Config: ActiveTowerHostName has been changed to new-b.host"), 1u);

    // Again as the file owner: the host already follows, so no second change is logged.
    CDnConfigFile::SetConfigRoleForTesting(kConfigRoleOwner);
    config->UpdateTowerList(towers, true);
    EXPECT_EQ(syslog_capture::CountContaining("ActiveTowerHostName"), 2u);  // both of the first
    CDnConfigFile fresh;
    ASSERT_TRUE(fresh.InitializeConfig(false, false));
    std::unique_ptr<std::list<std::pair<std::string, TowerInfo>>> read(fresh.GetTowerList());
    std::string got;
    for (const auto& t : *read)
        got += t.first + "=" + Joined(t.second) + " ";
    EXPECT_EQ(got, "C=C|1|c.host|81|444 B=B|0|new-b.host|82|445 C=C|0|second-c.host|83|446 ");
    EXPECT_EQ(fresh.GetString("ActiveTowerHostName"), "new-b.host");
    EXPECT_THAT(fresh.GetString("LastUpdateTime"), testing::MatchesRegex("20[0-9]{12}"));
}

TEST(TowersTest, DisplayListsFollowDisplayTowersOrFallBackToAllTowers) {
    const char kThree[] =
        "<Towers><Tower><DisplayName>A</DisplayName><HostName>a1</HostName></Tower>"
        "<Tower><DisplayName>B</DisplayName><HostName>b</HostName></Tower>"
        "<Tower><DisplayName>a</DisplayName><HostName>a2</HostName></Tower></Towers>";
    // Towers and DisplayTowers; GetDisplayTowersList joined by "|", GetDisplayTowerNames, and
    // the HostName of each of GetDisplayTowerInfos.
    const std::tuple<const char*, const char*, const char*> cases[] = {
        {kThree, " b , a,B,, ", "b|a B,A, b|a1"},
        {kThree, "x,y", "x|y A,B,a, a1|b|a1"},
        {kThree, "zz,b", "zz|b B, b"},
        {"", "A", "A  "},
    };
    for (const auto& [towers, displayTowers, expected] : cases) {
        SCOPED_TRACE(std::string(towers).substr(0, 10) + " / " + displayTowers);
        ChainRoot root;
        auto config = LoadParameters(root, towers + Element("DisplayTowers", displayTowers));
        syslog_capture::Clear();
        std::list<std::string> raw{"stale"};
        std::string names = "stale", hosts;
        std::vector<TowerInfo> infos(1);
        EXPECT_EQ(config->GetDisplayTowersList(raw) + config->GetDisplayTowerNames(names) +
                      config->GetDisplayTowerInfos(infos),
                  0);
        for (const auto& t : infos)
            hosts += (hosts.empty() ? "" : "|") + t.HostName;
        EXPECT_EQ(config_test::Join(raw) + " " + names + " " + hosts, expected);
        EXPECT_EQ(Logged("Config: Failed to get valid display towers list."), *towers ? 0u : 2u);
    }
}

TEST(TowersTest, DctUpdatesReachMapStoreAndFile) {
    ChainRoot root;
    auto config = LoadParameters(root,
                                 "<connect_timeout>12</connect_timeout><DetectClosestTower>"
                                 "<DetectClosest>0</DetectClosest><Mode>auto</Mode>"
                                 "<NumberReadings> 7 </NumberReadings></DetectClosestTower>");
    DctParams params;
    EXPECT_EQ(config->GetDctParams(params), 0);
    EXPECT_EQ(params.connectTimeout, 12u);
    EXPECT_EQ(params.mode, "auto");
    EXPECT_EQ(params.numberReadings, 7);
    EXPECT_FALSE(config->UpdateDCTData(nullptr, "x", false));

    const std::tuple<int, int, const char*, bool> cases[] = {
        {1, 0, "manual", false}, {0, 1, "auto", false}, {5, 2, "auto", true}};
    for (const auto& [detectClosest, mode, expectedMode, warned] : cases) {
        SCOPED_TRACE(mode);
        syslog_capture::Clear();
        const std::string before = Bytes(root.Current());
        // The plug-in's role: only the closing commit writes.
        EXPECT_TRUE(config->UpdateDCT(detectClosest, mode, false));
        EXPECT_NE(Bytes(root.Current()), before);
        EXPECT_EQ(Logged("CDnConfigFile : Invalid DCT mode received from client"),
                  warned ? 1u : 0u);
        EXPECT_EQ(config->GetDctInteger("DetectClosest"), detectClosest);
        CDnConfigFile fresh;
        ASSERT_TRUE(fresh.InitializeConfig(false, false));
        EXPECT_EQ(fresh.GetDctInteger("DetectClosest"), detectClosest);
        EXPECT_EQ(fresh.GetDctString("Mode"), expectedMode);
        EXPECT_EQ(fresh.GetDctInteger("NumberReadings"), 7);
    }
    // A new key is created under DetectClosestTower and reaches the file on the owner's commit.
    CDnConfigFile::SetConfigRoleForTesting(kConfigRoleOwner);
    EXPECT_TRUE(config->UpdateDCTData("Interval", 30, true));
    CDnConfigFile fresh;
    ASSERT_TRUE(fresh.InitializeConfig(false, false));
    EXPECT_EQ(fresh.GetDctInteger("Interval"), 30);
    EXPECT_EQ(fresh.GetDctString("missing"), "");
}

TEST(TowersTest, ToolCheckReportsValidProfilesAndRefusesOthers) {
    ChainRoot root;
    const std::string profile =
        config_test::Profile(std::string(kTwoTowers) +
                                 "<ActiveTowerDisplayName>b</ActiveTowerDisplayName>"
                                 "<ActiveTowerHostName>b.host</ActiveTowerHostName>"
                                 "<DetectClosestTower><Mode>manual</Mode>"
                                 "<DetectClosest>1</DetectClosest></DetectClosestTower>",
                             "Branch");
    config_test::WriteObfuscated(root.Path("hosted.wso"), profile);
    config_test::Write(root.Path("plain.xml"), profile);
    config_test::Write(root.Path("garbage"), std::string("\x93\x01garbage\0\xff", 12));
    const std::tuple<std::string, int, std::string> cases[] = {
        {"hosted.wso", 0,
         "hosted.wso: valid obfuscated profile\nlabel: Branch\ntowers: 2\n"
         "tower: A host=a.host ssl=443 plain=80 active=1\n"
         "tower: B host=b.host ssl=8443 plain=8080 active=0\nactive: B host=b.host\n"
         "dct: DetectClosest=1 Mode=manual\n"
         "dct params: Mode=manual NumberReadings=0 connect_timeout=0\n"},
        {"plain.xml", 1, "plain.xml: invalid: plain XML, not an obfuscated profile\n"},
        {"garbage", 1, "garbage: invalid: not an obfuscated file (or another pass phrase)\n"},
    };
    for (const auto& [file, status, output] : cases) {
        const std::string before = Bytes(root.Path(file));
        std::string out;
        EXPECT_EQ(config_test::Shell(root.path(), TIDEWAY_OBFUSCATE_TOOL " --check " + file, &out),
                  status)
            << file;
        EXPECT_EQ(out, output);
        EXPECT_EQ(Bytes(root.Path(file)), before);  // checking never writes the file
    }
}

}  // namespace
