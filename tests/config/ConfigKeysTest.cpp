// The typed reading of a loaded profile: map, getters, start-up record, dump, log settings.
#include <arpa/inet.h>

#include "ConfigTestSupport.h"
#include "config/Config.h"

namespace {

using config_test::ChainRoot;
using config_test::Join;
using config_test::LoadParameters;

TEST(ConfigKeysTest, GettersTrimAndParseWhileTheMapKeepsTheParsedText) {
    ChainRoot root;  // the parser trims text only outside CDATA: those reach the map untrimmed
    auto config = LoadParameters(root,
                                 "<ipc_port>70000</ipc_port><ipc_port>1234</ipc_port>"
                                 "<max_connections><![CDATA[ \t 42 \r\n]]></max_connections>"
                                 "<blanks><![CDATA[   ]]></blanks>"
                                 "<hexval><![CDATA[ 1aF ]]></hexval><notnum>x12</notnum>"
                                 "<ip><![CDATA[ 10.1.2.3 ]]></ip><badip>10.1.2.300</badip>"
                                 "<authenticated_user>alice</authenticated_user>"
                                 "<authenticated_groups>g1,g2</authenticated_groups>"
                                 "<GroupInclude>in</GroupInclude><GroupExclude>out</GroupExclude>"
                                 "<Logging><debug_level>1F</debug_level></Logging>");
    const auto values = config->GetValues();
    syslog_capture::Clear();
    EXPECT_EQ(values.at("max_connections"), " \t 42 \r\n");
    EXPECT_EQ(values.count("Logging/debug_level"), 0u);
    EXPECT_EQ(config->GetString("max_connections"), "42");
    EXPECT_EQ(config->GetInteger("max_connections"), 42);
    EXPECT_EQ(config->GetString("blanks"), "   ");  // left as they are
    EXPECT_EQ(config->GetHexInteger("hexval"), 0x1AF);
    EXPECT_EQ(config->GetInteger("notnum"), 0);
    EXPECT_EQ(config->GetInteger("missing"), 0);
    EXPECT_EQ(config->GetString("missing") + config->GetString("IPC_PORT"), "");  // case counts
    EXPECT_EQ(config->GetIpAddress("ip"), htonl(0x0A010203u));
    EXPECT_EQ(config->GetIpAddress("badip"), 0xFFFFFFFFu);
    EXPECT_EQ(config->GetString("ipc_port"), "70000");  // the first of two elements wins
    EXPECT_EQ(config->GetPort("ipc_port"), 4464);       // cut to 16 bits without a word
    EXPECT_TRUE(syslog_capture::Records().empty());

    std::string user, groups, include, exclude;
    config->GetAuthenticatedIdentity(user, groups);
    config->GetGroupFilters(include, exclude);
    EXPECT_EQ(user + "|" + groups + "|" + include + "|" + exclude, "alice|g1,g2|in|out");
    uint32_t mask = 0;
    EXPECT_EQ(config->GetDebugLevel(mask), 0);  // read from the store, never from the map
    EXPECT_EQ(mask, 0x1Fu);
}

TEST(ConfigKeysTest, WalkFillsTowersAddressClosestTowerSettingsAndTheRecord) {
    ChainRoot root;
    auto config = LoadParameters(
        root,
        "<Address>10.0.0.1</Address><Towers><Tower><DisplayName>East</DisplayName>"
        "<HostName>e.example</HostName><SSLPort>443</SSLPort></Tower><Tower><DisplayName>West"
        "</DisplayName><HostName>w.example</HostName></Tower></Towers><DetectClosestTower>"
        "<Mode>auto</Mode><NumberReadings>3</NumberReadings><Mode>manual</Mode>"
        "</DetectClosestTower><TrustedNetworkDetection><Enabled>1</Enabled>"
        "</TrustedNetworkDetection><Logging><LogFileSize>500</LogFileSize></Logging>"
        "<address>10.0.0.2</address><TowerUrl>https://towers.example/list.xml</TowerUrl>"
        "<kdf_port_included>80,8080</kdf_port_included><static_exceptions>s1</static_exceptions>"
        "<MaxNumStaticExceptions>12abc</MaxNumStaticExceptions>");
    const auto towers = config->GetTowers();
    ASSERT_EQ(towers.size(), 2u);
    EXPECT_EQ(towers.front().first + "|" + towers.front().second.HostName + "|" +
                  towers.front().second.SSLPort + "|" + towers.back().first,
              "East|e.example|443|West");
    const auto dct = config->GetDctSettings();
    EXPECT_EQ(dct.size(), 2u);
    EXPECT_EQ(dct.at("Mode"), "auto");  // the first of the two wins
    auto values = config->GetValues();  // complex children stand with an empty text
    EXPECT_EQ(values.count("TrustedNetworkDetection") + values.count("Address") +
                  values.count("Towers") + values.count("Logging"),
              1u);
    EXPECT_EQ(values["Logging"], "");

    ConfigParams params;
    params.ipcPort = 99;
    EXPECT_EQ(config->GetConfigParams(params), 0);
    // No port; a later Address replaces the earlier, in any case.
    EXPECT_EQ(
        Join(std::vector<std::string>{std::to_string(params.ipcPort), params.towerHosts,
                                      params.towerUrlHost, params.address, params.kdfPortIncluded,
                                      params.staticExceptions, params.maxNumStaticExceptions}),
        "0|e.example;w.example;|towers.example;|;10.0.0.2;|80,8080|s1|12abc");

    // The tower list's host only comes with a path after it: each URL, then the host it gives.
    const char* urls[] = {"  http://a.b:8080/p/q  ",
                          "a.b:8080;",
                          "https://t.example",
                          "",
                          "t.example/x",
                          "",
                          "/",
                          "",
                          "//h/",
                          "h;",
                          "///",
                          ";"};
    for (size_t i = 0; i < std::size(urls); i += 2) {
        config =
            LoadParameters(root, std::string("<TowerUrl><![CDATA[") + urls[i] + "]]></TowerUrl>");
        config->GetConfigParams(params);
        EXPECT_EQ(params.towerUrlHost, urls[i + 1]) << urls[i];
        EXPECT_EQ(params.address, ";");  // no Address element: the separator alone
    }
}

TEST(ConfigKeysTest, DumpCutsTheMaskAndFollowsTheRole) {
    ChainRoot root;
    auto config = LoadParameters(
        root,
        "<kdf_listen_port>5001</kdf_listen_port><ipc_port>5003</ipc_port><kdf_port_included>80"
        "</kdf_port_included><Logging><debug_level>FFFFFFFF</debug_level><LogFileSize>50"
        "</LogFileSize><LogFileRetentionTime><Hours>2</Hours></LogFileRetentionTime></Logging>"
        "<host_exceptions>a;b</host_exceptions><enterprise_domains>corp</enterprise_domains>"
        "<authenticated_user>u</authenticated_user><connection_cleanup_interval_ms>0"
        "</connection_cleanup_interval_ms><ActiveTowerDisplayName>East</ActiveTowerDisplayName>"
        "<TrustedNetworkDetection><Enabled>true</Enabled></TrustedNetworkDetection>"
        "<DetectClosestTower><DetectClosest>1</DetectClosest></DetectClosestTower>");
    std::vector<std::string> lines;
    std::vector<int> marks;
    ASSERT_EQ(config->GetConfigDump(lines, marks), 0);
    EXPECT_EQ(
        Join(lines, "\n"),
        "Logging/debug_level = 7FFF\nLogging/LogFileSize = 100\nLogging/NumLogFilesToRetain = 1\n"
        "Logging/LogFileRetentionTime/Days\t= 0\nLogging/LogFileRetentionTime/Hours\t= 2\n"
        "Logging/LogFileRetentionTime/Minutes\t= 0\nipc_port = 5003\ntunnel_type = ssl\n"
        "max_connections = \nmin_connections = \nhost_exceptions = a;b\nproxy_exceptions = \n"
        "static_exceptions = \nenterprise_domains = corp\nconnection_cleanup_interval_ms = 3000\n"
        "ActiveTowerDisplayName = East\nActiveTowerHostName = \n"
        "TrustedNetworkDetection/Enabled = true\nDetectClosestTower/DetectClosest = 1");
    EXPECT_EQ(marks, std::vector<int>(19, 0));

    CDnConfigFile::SetConfigRoleForTesting(kConfigRoleOwner);  // the owner sees its own keys
    lines.clear();
    ASSERT_EQ(config->GetConfigDump(lines, marks), 0);
    EXPECT_EQ(lines.at(6), "kdf_listen_port = 5001");
    CDnConfigFile::SetConfigRoleForTesting(kConfigRolePlugin);
    // WARN and ERR are added to a mask without them.
    const std::pair<const char*, const char*> masks[] = {
        {"", "107"}, {"1", "7"}, {"8000", "6"}, {"18001", "7"}, {"106", "106"}};
    for (const auto& [level, shown] : masks) {
        config = LoadParameters(
            root, std::string("<Logging><debug_level>") + level + "</debug_level></Logging>");
        lines.clear();
        ASSERT_EQ(config->GetConfigDump(lines, marks), 0);
        EXPECT_EQ(lines.at(0), std::string("Logging/debug_level = ") + shown) << level;
    }
    lines.clear();
    EXPECT_EQ(CDnConfigFile().GetConfigDump(lines, marks), -1);
    EXPECT_TRUE(lines.empty());
}

TEST(ConfigKeysTest, TunnelTypeAndConnectTimeout) {
    ChainRoot root;
    const std::tuple<const char*, int, int> cases[] = {
        {"<tunnel_type>PLAIN</tunnel_type><connect_timeout>7</connect_timeout>", 2, 7},
        {"<tunnel_type>Ssl</tunnel_type><connect_timeout>7</connect_timeout>"
         "<tower_secure_connect_timeout>15</tower_secure_connect_timeout>",
         1, 15},
        {"<tunnel_type>tls</tunnel_type>", 0, 0},
        {"<tower_secure_connect_timeout><![CDATA[ 9s ]]></tower_secure_connect_timeout>", 0, 9},
        {"<connect_timeout>-3</connect_timeout>", 0, -3},
    };
    for (const auto& [params, tunnel, timeout] : cases) {
        auto config = LoadParameters(root, params);
        EXPECT_EQ(config->GetTunnelType(), tunnel) << params;
        EXPECT_EQ(config->GetTowerConnectTimeout(), timeout) << params;
    }
}

// The log settings read from a profile with `logging` inside Logging and `outside` beside it,
// as "level buffered flush maxFlush size files retention errorInterval".
std::string Settings(const std::string& logging, const std::string& outside) {
    CXMLReadWrite store;
    EXPECT_EQ(store.LoadFromString(
                  config_test::Profile("<Logging>" + logging + "</Logging>" + outside), true),
              kConfigOk);
    LoggingSettings s;
    ReadLoggingSettings(store, s);
    char text[128];
    snprintf(text, sizeof(text), "%X %d %u %d %u %u %u %u", s.debugLevel, s.buffered ? 1 : 0,
             static_cast<unsigned>(s.flushInterval), static_cast<int>(s.maxFlushTime),
             static_cast<unsigned>(s.logFileSize), static_cast<unsigned>(s.numLogFiles),
             static_cast<unsigned>(s.retentionSeconds), static_cast<unsigned>(s.errorInterval));
    return text;
}

// Zero, negative or below the bounds gives the default or the minimum; each field is read on
// its own, so one profile can hold a case of each.
TEST(LoggingSettingsTest, ClampsAndDefaults) {
    config_test::InitTrace();
    const std::tuple<const char*, const char*, const char*> cases[] = {
        {"", "", "107 1 10 10000 100 1 0 60"},
        {"<LogFileSize>50</LogFileSize><NumLogFilesToRetain>0</NumLogFilesToRetain>"
         "<ErrorReportingInterval>0</ErrorReportingInterval>",
         "<BufferedLoggingFlushInterval_ms>0</BufferedLoggingFlushInterval_ms>"
         "<MaxTimeToFlushLogs_ms>-1</MaxTimeToFlushLogs_ms>"
         "<DisableBufferedLogging>-1</DisableBufferedLogging>",
         "107 1 10 10000 100 1 0 60"},
        {"<debug_level>FFFFFFFF</debug_level><LogFileSize>20000</LogFileSize>"
         "<NumLogFilesToRetain>4</NumLogFilesToRetain>"
         "<ErrorReportingInterval>5</ErrorReportingInterval><LogFileRetentionTime><Days>1</Days>"
         "<Hours>2</Hours><Minutes>3</Minutes></LogFileRetentionTime>",
         "<BufferedLoggingFlushInterval_ms>25</BufferedLoggingFlushInterval_ms>"
         "<MaxTimeToFlushLogs_ms>0</MaxTimeToFlushLogs_ms>"
         "<DisableBufferedLogging>1</DisableBufferedLogging>",
         "FFFFFFFF 0 25 0 10000 4 93780 5"},
        {"<LogFileSize>2500</LogFileSize>", "", "107 1 10 10000 2500 1 0 60"},
    };
    for (const auto& [logging, outside, expected] : cases)
        EXPECT_EQ(Settings(logging, outside), expected) << logging << outside;

    CXMLReadWrite unloaded;  // a store that never loaded leaves every default standing
    LoggingSettings settings;
    settings.logFileSize = 7;
    ReadLoggingSettings(unloaded, settings);
    EXPECT_EQ(settings.logFileSize, 100u);
}

}  // namespace
