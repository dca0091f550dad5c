// The typed reading of a loaded profile: the map filled by the walk, the trimmed getters, the
// start-up record, the dump, and the log settings with their clamps.
#include <arpa/inet.h>
#include <string.h>

#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <boost/property_tree/xml_parser.hpp>

#include "ConfigTestSupport.h"
#include "SyslogCapture.h"
#include "config/Config.h"
#include "config/ConfigKeys.h"
#include "config/DnConfigFile.h"

namespace {

using config_test::ChainRoot;
using config_test::LoadParameters;

TEST(DefaultProfileTest, IsTheDocumentItDescribes) {
    EXPECT_EQ(strlen(kDefaultConfigXml), 889u);
    EXPECT_EQ(kDefaultConfigXmlLength, 889u);

    std::istringstream stream(kDefaultConfigXml);
    boost::property_tree::ptree tree;
    ASSERT_NO_THROW(boost::property_tree::read_xml(stream, tree, 6));
    EXPECT_EQ(tree.get<std::string>("Tideway.<xmlattr>.xsi:noNamespaceSchemaLocation"),
              "Tideway.xsd");
    EXPECT_EQ(tree.get<std::string>("Tideway.<xmlattr>.xmlns:xsi"),
              "http://www.w3.org/2001/XMLSchema-instance");
    EXPECT_EQ(tree.get<std::string>("Tideway.SchemaVersion"), "3.0");
    const auto& params = tree.get_child("Tideway.ConfigurationParameters");
    EXPECT_EQ(params.get<std::string>("kdf_listen_port"), "5001");
    EXPECT_EQ(params.get<std::string>("ipc_port"), "5003");
    EXPECT_EQ(params.get<std::string>("kdf_port_included"), "80,8080,3128");
    EXPECT_EQ(params.get<std::string>("Logging.debug_level"), "FFFFFFFF");
    EXPECT_EQ(params.get<std::string>("ConnectionFailure.Policy"), "FailClose");
    EXPECT_EQ(params.get<std::string>("ConnectionFailure.OnCaptivePortal"), "FailClose");
    // Nothing else: five direct children of the root's two, three keys plus two groups.
    EXPECT_EQ(params.size(), 5u);
    EXPECT_EQ(tree.get_child("Tideway").size(), 3u);  // attributes, SchemaVersion, parameters
}

TEST(ConfigKeysTest, GettersTrimWhileTheMapKeepsTheParsedText) {
    ChainRoot root;
    auto config = LoadParameters(root,
                                 "<ipc_port>70000</ipc_port><ipc_port>1234</ipc_port>"
                                 "<kdf_listen_port>5001</kdf_listen_port>"
                                 "<max_connections><![CDATA[ \t 42 \r\n]]></max_connections>"
                                 "<blanks><![CDATA[   ]]></blanks>"
                                 "<hexval><![CDATA[ 1aF ]]></hexval>"
                                 "<notnum>x12</notnum>"
                                 "<ip><![CDATA[ 10.1.2.3 ]]></ip><badip>10.1.2.300</badip>"
                                 "<authenticated_user>alice</authenticated_user>"
                                 "<authenticated_groups>g1,g2</authenticated_groups>"
                                 "<GroupInclude>in</GroupInclude><GroupExclude>out</GroupExclude>"
                                 "<Logging><debug_level>1F</debug_level></Logging>");

    // The parser trims element text only outside CDATA, so these reach the map untrimmed.
    const auto values = config->GetValues();
    ASSERT_EQ(values.count("max_connections"), 1u);
    EXPECT_EQ(values.at("max_connections"), " \t 42 \r\n");
    EXPECT_EQ(config->GetString("max_connections"), "42");
    EXPECT_EQ(config->GetInteger("max_connections"), 42u);
    // Blanks alone are left as they are.
    EXPECT_EQ(config->GetString("blanks"), "   ");
    EXPECT_EQ(config->GetHexInteger("hexval"), 0x1AFu);
    EXPECT_EQ(config->GetInteger("notnum"), 0u);
    EXPECT_EQ(config->GetInteger("missing"), 0u);
    EXPECT_EQ(config->GetString("missing"), "");
    // The map is case-sensitive.
    EXPECT_EQ(config->GetString("IPC_PORT"), "");

    EXPECT_EQ(config->GetIpAddress("ip"), htonl(0x0A010203u));
    EXPECT_EQ(config->GetIpAddress("badip"), 0xFFFFFFFFu);

    // The first of two elements wins, and the port is cut to 16 bits without a word.
    syslog_capture::Clear();
    EXPECT_EQ(config->GetString("ipc_port"), "70000");
    EXPECT_EQ(config->GetPort("ipc_port"), 4464);
    EXPECT_TRUE(config_test::LoggedTexts().empty());
    uint16_t kdf = 0;
    EXPECT_EQ(config->GetKdfListenPort(kdf), 0);
    EXPECT_EQ(kdf, 5001);

    std::string user, groups, include, exclude;
    EXPECT_EQ(config->GetAuthenticatedIdentity(user, groups), 0);
    EXPECT_EQ(user, "alice");
    EXPECT_EQ(groups, "g1,g2");
    EXPECT_EQ(config->GetGroupFilters(include, exclude), 0);
    EXPECT_EQ(include, "in");
    EXPECT_EQ(exclude, "out");

    // The nested mask is read from the store, never from the map.
    EXPECT_EQ(values.count("Logging/debug_level"), 0u);
    uint32_t mask = 0;
    EXPECT_EQ(config->GetDebugLevel(mask), 0);
    EXPECT_EQ(mask, 0x1Fu);
}

TEST(ConfigKeysTest, WalkSortsTowersAddressAndClosestTowerSettings) {
    ChainRoot root;
    auto config = LoadParameters(
        root,
        "<Address>10.0.0.1</Address>"
        "<Towers>"
        "<Tower><DisplayName>East</DisplayName><HostName>e.example</HostName>"
        "<SSLPort>443</SSLPort></Tower>"
        "<Tower><DisplayName>West</DisplayName><HostName>w.example</HostName></Tower>"
        "</Towers>"
        "<DetectClosestTower><Mode>auto</Mode><NumberReadings>3</NumberReadings>"
        "<Mode>manual</Mode></DetectClosestTower>"
        "<TrustedNetworkDetection><Enabled>1</Enabled></TrustedNetworkDetection>"
        "<Logging><LogFileSize>500</LogFileSize></Logging>"
        "<address>10.0.0.2</address>"
        "<TowerUrl>https://towers.example/list.xml</TowerUrl>"
        "<kdf_port_included>80,8080</kdf_port_included>"
        "<static_exceptions>s1</static_exceptions>"
        "<MaxNumStaticExceptions>12abc</MaxNumStaticExceptions>");

    const auto towers = config->GetTowers();
    ASSERT_EQ(towers.size(), 2u);
    EXPECT_EQ(towers.front().first, "East");
    EXPECT_EQ(towers.front().second.HostName, "e.example");
    EXPECT_EQ(towers.front().second.SSLPort, "443");
    EXPECT_EQ(towers.back().first, "West");

    const auto dct = config->GetDctSettings();
    EXPECT_EQ(dct.size(), 2u);
    EXPECT_EQ(dct.at("Mode"), "auto");  // the first of the two wins
    EXPECT_EQ(dct.at("NumberReadings"), "3");

    const auto values = config->GetValues();
    EXPECT_EQ(values.count("TrustedNetworkDetection"), 0u);
    EXPECT_EQ(values.count("Address"), 0u);
    EXPECT_EQ(values.count("Towers"), 0u);
    // Complex children stand in the map with an empty text; their nested keys do not.
    ASSERT_EQ(values.count("Logging"), 1u);
    EXPECT_EQ(values.at("Logging"), "");

    ConfigParams params;
    params.ipcPort = 99;
    EXPECT_EQ(config->GetConfigParams(params), 0);
    EXPECT_EQ(params.ipcPort, 0);  // absent
    EXPECT_EQ(params.towerHosts, "e.example;w.example;");
    EXPECT_EQ(params.towerUrlHost, "towers.example;");
    // A later Address replaces the earlier one, whatever its case.
    EXPECT_EQ(params.address, ";10.0.0.2;");
    EXPECT_EQ(params.kdfPortIncluded, "80,8080");
    EXPECT_EQ(params.staticExceptions, "s1");
    EXPECT_EQ(params.maxNumStaticExceptions, "12abc");
}

TEST(ConfigKeysTest, TowerUrlYieldsAHostOnlyWithAPath) {
    ChainRoot root;
    const struct {
        const char* url;
        const char* host;
    } cases[] = {
        {"https://t.example/x", "t.example;"},
        {"  http://a.b:8080/path/more  ", "a.b:8080;"},
        {"https://t.example", ""},
        {"t.example/x", ""},
        {"/", ""},
        {"//h/", "h;"},
        {"///", ";"},
    };
    for (const auto& c : cases) {
        auto config =
            LoadParameters(root, std::string("<TowerUrl><![CDATA[") + c.url + "]]></TowerUrl>");
        ConfigParams params;
        config->GetConfigParams(params);
        EXPECT_EQ(params.towerUrlHost, c.host) << c.url;
        EXPECT_EQ(params.address, ";");  // no Address element: the separator alone
    }
}

TEST(ConfigKeysTest, StrayTowerElementsAreNeverReadAsTowerRecords) {
    // Elements named like the walk's typed reports but standing directly under
    // ConfigurationParameters carry text; reading them as records would read a string as a
    // structure.
    ChainRoot root;
    auto config = LoadParameters(
        root,
        "<Tower>stray text</Tower>"
        "<Towers><Tower><DisplayName>A</DisplayName><HostName>a.example</HostName></Tower>"
        "</Towers>"
        "<tower>lower</tower><TOWER>upper</TOWER>"
        "<Tower><HostName>nested is text too</HostName></Tower>"
        "<Towers><Tower><DisplayName>B</DisplayName><HostName>b.example</HostName></Tower>"
        "</Towers>"
        "<detectclosesttower>text</detectclosesttower>"
        "<DetectClosestTower><Mode>auto</Mode></DetectClosestTower>"
        "<ipc_port>5003</ipc_port>");
    const auto towers = config->GetTowers();
    ASSERT_EQ(towers.size(), 2u);
    EXPECT_EQ(towers.front().second.HostName, "a.example");
    EXPECT_EQ(towers.back().second.HostName, "b.example");
    EXPECT_EQ(config->GetDctSettings().size(), 1u);
    EXPECT_EQ(config->GetPort("ipc_port"), 5003);
    // The walk leaves them out, each with a warning, and none of them reaches the map.
    EXPECT_EQ(config_test::Logged("XMLParser : Element 'Tower' ignored: its name is reserved"), 2u);
    EXPECT_EQ(syslog_capture::CountContaining("ignored: its name is reserved"), 5u);
    const auto values = config->GetValues();
    EXPECT_EQ(values.count("tower") + values.count("TOWER") + values.count("detectclosesttower"),
              0u);
}

TEST(ConfigKeysTest, DumpCutsTheMaskAndFollowsTheRole) {
    ChainRoot root;
    auto config = LoadParameters(
        root,
        "<kdf_listen_port>5001</kdf_listen_port><ipc_port>5003</ipc_port>"
        "<kdf_port_included>80</kdf_port_included>"
        "<Logging><debug_level>FFFFFFFF</debug_level><LogFileSize>50</LogFileSize>"
        "<LogFileRetentionTime><Hours>2</Hours></LogFileRetentionTime></Logging>"
        "<host_exceptions>a;b</host_exceptions><enterprise_domains>corp</enterprise_domains>"
        "<authenticated_user>u</authenticated_user>"
        "<connection_cleanup_interval_ms>0</connection_cleanup_interval_ms>"
        "<ActiveTowerDisplayName>East</ActiveTowerDisplayName>"
        "<TrustedNetworkDetection><Enabled>true</Enabled></TrustedNetworkDetection>"
        "<DetectClosestTower><DetectClosest>1</DetectClosest></DetectClosestTower>");
    std::vector<std::string> lines;
    std::vector<int> marks;
    ASSERT_EQ(config->GetConfigDump(lines, marks), 0);
    const std::vector<std::string> expected = {
        "Logging/debug_level = 7FFF",
        "Logging/LogFileSize = 100",
        "Logging/NumLogFilesToRetain = 1",
        "Logging/LogFileRetentionTime/Days\t= 0",
        "Logging/LogFileRetentionTime/Hours\t= 2",
        "Logging/LogFileRetentionTime/Minutes\t= 0",
        "ipc_port = 5003",
        "tunnel_type = ssl",
        "max_connections = ",
        "min_connections = ",
        "host_exceptions = a;b",
        "proxy_exceptions = ",
        "static_exceptions = ",
        "enterprise_domains = corp",
        "connection_cleanup_interval_ms = 3000",
        "ActiveTowerDisplayName = East",
        "ActiveTowerHostName = ",
        "TrustedNetworkDetection/Enabled = true",
        "DetectClosestTower/DetectClosest = 1",
    };
    EXPECT_EQ(lines, expected);
    EXPECT_EQ(marks, std::vector<int>(expected.size(), 0));

    // The owner of the files sees its own keys as well.
    CDnConfigFile::SetConfigRoleForTesting(kConfigRoleOwner);
    lines.clear();
    marks.clear();
    ASSERT_EQ(config->GetConfigDump(lines, marks), 0);
    ASSERT_EQ(lines.size(), expected.size() + 4);
    EXPECT_EQ(lines[6], "kdf_listen_port = 5001");
    EXPECT_EQ(lines[8], "kdf_port_included = 80");
    EXPECT_EQ(lines[16], "authenticated_user = u");
    EXPECT_EQ(lines[17], "authenticated_groups = ");
}

TEST(ConfigKeysTest, DumpAddsWarnAndErrorToAMaskWithoutThem) {
    ChainRoot root;
    const struct {
        const char* level;
        const char* shown;
    } cases[] = {{"", "107"}, {"1", "7"}, {"8000", "6"}, {"18001", "7"}, {"106", "106"}};
    for (const auto& c : cases) {
        auto config = LoadParameters(
            root, std::string("<Logging><debug_level>") + c.level + "</debug_level></Logging>");
        std::vector<std::string> lines;
        std::vector<int> marks;
        ASSERT_EQ(config->GetConfigDump(lines, marks), 0);
        EXPECT_EQ(lines.at(0), std::string("Logging/debug_level = ") + c.shown) << c.level;
    }
    // Without a store there is nothing to show.
    CDnConfigFile empty;
    std::vector<std::string> lines;
    std::vector<int> marks;
    syslog_capture::Clear();
    EXPECT_EQ(empty.GetConfigDump(lines, marks), -1);
    EXPECT_TRUE(lines.empty());
    EXPECT_EQ(config_test::Logged("Config : Not initialized"), 1u);
}

TEST(ConfigKeysTest, TunnelTypeAndConnectTimeout) {
    ChainRoot root;
    const struct {
        const char* params;
        int tunnel;
        int timeout;
    } cases[] = {
        {"<tunnel_type>PLAIN</tunnel_type><connect_timeout>7</connect_timeout>", 2, 7},
        {"<tunnel_type>Ssl</tunnel_type><connect_timeout>7</connect_timeout>"
         "<tower_secure_connect_timeout>15</tower_secure_connect_timeout>",
         1, 15},
        {"<tunnel_type>tls</tunnel_type>", 0, 0},
        {"<tower_secure_connect_timeout><![CDATA[ 9s ]]></tower_secure_connect_timeout>", 0, 9},
        {"<connect_timeout>-3</connect_timeout>", 0, -3},
    };
    for (const auto& c : cases) {
        auto config = LoadParameters(root, c.params);
        EXPECT_EQ(config->GetTunnelType(), c.tunnel) << c.params;
        EXPECT_EQ(config->GetTowerConnectTimeout(), c.timeout) << c.params;
    }
}

// The log settings of a store holding `logging` (inner text of Logging) and `buffering`
// (elements directly under ConfigurationParameters).
LoggingSettings Settings(const std::string& logging, const std::string& buffering = "") {
    CXMLReadWrite store;
    EXPECT_EQ(store.LoadFromString(
                  config_test::Profile("<Logging>" + logging + "</Logging>" + buffering), true),
              kConfigOk);
    LoggingSettings settings;
    ReadLoggingSettings(store, settings);
    return settings;
}

TEST(LoggingSettingsTest, ClampsAndDefaults) {
    config_test::InitTrace();
    const LoggingSettings defaults = Settings("");
    EXPECT_EQ(defaults.debugLevel, 0x107u);
    EXPECT_TRUE(defaults.buffered);
    EXPECT_EQ(defaults.flushInterval, 10u);
    EXPECT_EQ(defaults.maxFlushTime, 10000);
    EXPECT_EQ(defaults.logFileSize, 100u);
    EXPECT_EQ(defaults.numLogFiles, 1u);
    EXPECT_EQ(defaults.retentionSeconds, 0u);
    EXPECT_EQ(defaults.errorInterval, 60u);

    EXPECT_EQ(Settings("<LogFileSize>50</LogFileSize>").logFileSize, 100u);
    EXPECT_EQ(Settings("<LogFileSize>20000</LogFileSize>").logFileSize, 10000u);
    EXPECT_EQ(Settings("<LogFileSize>abc</LogFileSize>").logFileSize, 100u);
    EXPECT_EQ(Settings("<LogFileSize>2500</LogFileSize>").logFileSize, 2500u);
    EXPECT_EQ(Settings("<NumLogFilesToRetain>0</NumLogFilesToRetain>").numLogFiles, 1u);
    EXPECT_EQ(Settings("<NumLogFilesToRetain>4</NumLogFilesToRetain>").numLogFiles, 4u);
    EXPECT_EQ(Settings("<ErrorReportingInterval>0</ErrorReportingInterval>").errorInterval, 60u);
    EXPECT_EQ(Settings("<ErrorReportingInterval>5</ErrorReportingInterval>").errorInterval, 5u);
    EXPECT_EQ(Settings("<debug_level>FFFFFFFF</debug_level>").debugLevel, 0xFFFFFFFFu);
    EXPECT_EQ(Settings("<LogFileRetentionTime><Days>1</Days><Hours>1</Hours>"
                       "<Minutes>1</Minutes></LogFileRetentionTime>")
                  .retentionSeconds,
              90060u);

    const std::string none;
    EXPECT_EQ(Settings(none, "<BufferedLoggingFlushInterval_ms>0</BufferedLoggingFlushInterval_ms>")
                  .flushInterval,
              10u);
    EXPECT_EQ(
        Settings(none, "<BufferedLoggingFlushInterval_ms>25</BufferedLoggingFlushInterval_ms>")
            .flushInterval,
        25u);
    EXPECT_EQ(Settings(none, "<MaxTimeToFlushLogs_ms>0</MaxTimeToFlushLogs_ms>").maxFlushTime, 0);
    EXPECT_EQ(Settings(none, "<MaxTimeToFlushLogs_ms>-1</MaxTimeToFlushLogs_ms>").maxFlushTime,
              10000);
    EXPECT_FALSE(Settings(none, "<DisableBufferedLogging>1</DisableBufferedLogging>").buffered);
    EXPECT_TRUE(Settings(none, "<DisableBufferedLogging>0</DisableBufferedLogging>").buffered);
    EXPECT_TRUE(Settings(none, "<DisableBufferedLogging>-1</DisableBufferedLogging>").buffered);

    // A store that never loaded costs one line per key read, and every default stands.
    CXMLReadWrite unloaded;
    LoggingSettings settings;
    settings.logFileSize = 7;
    syslog_capture::Clear();
    ReadLoggingSettings(unloaded, settings);
    EXPECT_EQ(settings.logFileSize, 100u);
    EXPECT_EQ(settings.debugLevel, 0x107u);
    EXPECT_EQ(config_test::Logged("XML has not been loaded."), 10u);
}

}  // namespace
