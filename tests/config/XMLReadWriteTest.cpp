#include "config/XMLReadWrite.h"

#include <atomic>
#include <thread>

#include "ConfigTestSupport.h"

namespace {

namespace pt = boost::property_tree;

const char kProfile[] =
    "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<Tideway>\n<SchemaVersion>3.0</SchemaVersion>\n"
    "<!-- a comment that both loaders drop -->\n<ConfigurationParameters>\n<ipc_port>  5003  "
    "</ipc_port><password></password>\n<Towers>\n<Tower><DisplayName>East</DisplayName><Active>1"
    "</Active><HostName>e.example</HostName><SSLPort>443</SSLPort><PlainPort>80</PlainPort><Extra>x"
    "</Extra></Tower>\n<Tower><displayname>West</displayname><HOSTNAME>w.example</HOSTNAME>"
    "</Tower>\n<Odd><HostName>o.example</HostName></Odd>\n</Towers>\n<towers><Tower>"
    "<HostName>ignored</HostName></Tower></towers>\n<Address>10.0.0.1</Address><DetectOnLANClient>1"
    "</DetectOnLANClient>\n<DetectClosestTower><Mode>auto</Mode><NumberReadings>3</NumberReadings>"
    "</DetectClosestTower><TrustedNetworkDetection><Enabled>1</Enabled></TrustedNetworkDetection>\n"
    "<tower>stray</tower><detectclosesttower>stray</detectclosesttower>\n"
    "</ConfigurationParameters>\n</Tideway>\n";

// Appends what EnumConfig reports to the string `context`, as "key=value;" in call order.
void Record(void* context, const char* key, const void* value) {
    const std::string name(key);
    const auto* t = static_cast<const TowerInfo*>(value);
    const auto* s = static_cast<const DctSetting*>(value);
    *static_cast<std::string*>(context) +=
        name + "=" +
        (CompareNoCase(name, "Tower") == 0 ? t->DisplayName + "|" + t->Active + "|" + t->HostName +
                                                 "|" + t->SSLPort + "|" + t->PlainPort
         : CompareNoCase(name, "DetectClosestTower") == 0 ? s->first + ":" + s->second
                                                          : static_cast<const char*>(value)) +
        ";";
}

// The walk of kProfile's typed keys only.
const std::string kTyped =
    "Tower=East|1|e.example|443|80;Tower=West||w.example||;Tower=||o.example||;Address=10.0.0.1;"
    "DetectClosestTower=Mode:auto;DetectClosestTower=NumberReadings:3;";

class XMLReadWriteTest : public ::testing::Test {
  protected:
    void SetUp() override { config_test::InitTrace(), syslog_capture::Clear(); }
};

std::string Xml(CXMLReadWrite& store) {
    std::string text;
    EXPECT_EQ(store.GetXML(text), kConfigOk);
    return text;
}

TEST_F(XMLReadWriteTest, ValuesByPathAndTheFailureStatusThatIsNotNegative) {
    CXMLReadWrite store;
    std::string value = "stale";
    EXPECT_EQ(store.GetValue("Tideway/SchemaVersion", value), 2147500037);  // not loaded
    EXPECT_EQ(value, "");
    EXPECT_FALSE(store.NodeExists("Tideway"));
    EXPECT_EQ(store.EnumConfig(nullptr, Record, true), kConfigNotImpl);

    ASSERT_EQ(store.LoadFromString(kProfile, false), kConfigOk);
    syslog_capture::Clear();
    EXPECT_EQ(store.GetValue("Tideway/ConfigurationParameters/ipc_port", value), kConfigOk);
    EXPECT_EQ(value, "  5003  ");  // untrimmed without the flag
    const ConfigStatus missing = store.GetValue("Tideway/ConfigurationParameters/nope", value);
    EXPECT_EQ(missing, kConfigFail);
    EXPECT_FALSE(missing < 0);  // a test for a negative status lets it pass
    EXPECT_EQ(value, "");
    EXPECT_TRUE(syslog_capture::Records().empty());  // absence is an ordinary answer

    // "/" separates; a dot is part of a name. Put overwrites the first match, creates the rest.
    EXPECT_EQ(store.PutValue("Tideway/ConfigurationParameters/ipc_port", "6000"), kConfigOk);
    EXPECT_EQ(store.PutValue("Tideway/New/log.level", "7"), kConfigOk);
    EXPECT_TRUE(store.NodeExists("Tideway/New/log.level"));
    EXPECT_FALSE(store.NodeExists("Tideway/New/log"));
    store.GetValue("Tideway/ConfigurationParameters/ipc_port", value);
    EXPECT_EQ(value, "6000");
    pt::ptree child;  // a missing path is no empty child
    EXPECT_FALSE(store.GetChild("Tideway/Nope", child));
}

TEST_F(XMLReadWriteTest, LoadersTrimOnRequestDropCommentsAndKeepTheOldDocumentOnFailure) {
    TempRoot dir;
    const std::string plain = config_test::Write(dir.path() + "/plain.xml", kProfile);
    CXMLReadWrite store;
    ASSERT_EQ(store.LoadFromFile(plain, true), kConfigOk);
    std::string value;
    store.GetValue("Tideway/ConfigurationParameters/ipc_port", value);
    EXPECT_EQ(value, "5003");
    const std::string before = Xml(store);
    EXPECT_EQ(before.find("comment"), std::string::npos);

    // Each bad input fails with the positive code, logs nothing, and leaves the document.
    std::string deep;
    for (int i = 0; i < 200000; ++i)
        deep += "<a>";
    for (const std::string& text : std::vector<std::string>{"not xml", "<Tideway><a></Tideway>",
                                                            std::string(kProfile, 100), deep}) {
        EXPECT_EQ(store.LoadFromString(text, true), kConfigFail) << text.substr(0, 40);
        EXPECT_FALSE(store.IsXMLFile(config_test::Write(dir.path() + "/bad.xml", text)));
    }
    EXPECT_EQ(store.LoadFromFile(dir.path() + "/missing.xml", false), kConfigFail);
    EXPECT_FALSE(store.IsXMLFile(dir.path() + "/missing.xml"));
    EXPECT_TRUE(store.IsXMLFile(plain));
    EXPECT_EQ(Xml(store), before);
    EXPECT_TRUE(syslog_capture::Records().empty());

    // Nesting up to the limit loads; comments and CDATA holding tags do not count.
    std::string nested = "<!-- <a><a><a> --><![CDATA[<b><b>]]>";
    for (int i = 0; i < CXMLReadWrite::kMaxXmlDepth; ++i)
        nested += "<a x='>' y=\"/>\">";
    for (int i = 0; i < CXMLReadWrite::kMaxXmlDepth; ++i)
        nested += "</a>";
    EXPECT_EQ(store.LoadFromString(nested, false), kConfigOk);
    EXPECT_EQ(store.LoadFromString("<r>" + nested + "</r>", false), kConfigFail);

    // A text without an element is an empty document: it loads, replacing the one in memory,
    // and a plain file of it is XML.
    for (const std::string& text : {std::string(), std::string(" \r\n\t"),
                                    std::string("<?xml version=\"1.0\" encoding=\"utf-8\"?>\n")}) {
        ASSERT_EQ(store.LoadFromString(kProfile, true), kConfigOk);
        EXPECT_EQ(store.LoadFromString(text, true), kConfigOk) << text;
        EXPECT_TRUE(store.IsXMLFile(config_test::Write(dir.path() + "/empty.xml", text))) << text;
        syslog_capture::Clear();
        EXPECT_FALSE(store.NodeExists("Tideway"));
        EXPECT_THAT(syslog_capture::Texts(), testing::ElementsAre("XMLParser : XML not loaded\n"));
    }
}

TEST_F(XMLReadWriteTest, EnumConfigReportsTypedValuesInDocumentOrder) {
    CXMLReadWriteConfig store;
    // Not loaded, then without the node, with it empty, an empty document: each fails.
    std::string walk;
    EXPECT_EQ(store.EnumConfig(&walk, Record, true), kConfigFail);
    for (const char* text :
         {"<Tideway><Other/></Tideway>", "<Tideway><ConfigurationParameters/></Tideway>", ""}) {
        ASSERT_EQ(store.LoadFromString(text, true), kConfigOk);
        syslog_capture::Clear();
        EXPECT_EQ(store.EnumConfig(&walk, Record, true), kConfigFail);
    }
    EXPECT_THAT(syslog_capture::Texts(),
                testing::ElementsAre(
                    "XMLParser : Parent of Tideway/ConfigurationParameters node doesn't exist\n",
                    "XMLParser : Config node not found in Config file\n"));
    EXPECT_TRUE(walk.empty());
    syslog_capture::Clear();
    ASSERT_EQ(store.LoadFromString(kProfile, true), kConfigOk);
    ASSERT_EQ(store.EnumConfig(&walk, Record, true), kConfigOk);
    EXPECT_EQ(walk,
              "ipc_port=5003;password=;Tower=East|1|e.example|443|80;Tower=West||w.example||;"
              "Tower=||o.example||;towers=;" +
                  kTyped.substr(kTyped.find("Address")) + "TrustedNetworkDetection=;");
    EXPECT_EQ(config_test::Logged("The Detect on LAN feature is no longer supported. Use the "
                                  "Trusted Network Detection feature instead."),
              1u);
    // Stray elements spelled like the typed keys never arrive as text under those keys.
    EXPECT_EQ(config_test::Logged("XMLParser : Element 'tower' ignored: its name is reserved"), 1u);

    std::string typed;
    ASSERT_EQ(store.EnumConfig(&typed, Record, false), kConfigOk);
    EXPECT_EQ(typed, kTyped);
}

TEST_F(XMLReadWriteTest, EditsKeepSectionsInPlaceAndRefuseAStaleNode) {
    CXMLReadWriteConfig store;
    store.DeleteConfigNode("Towers");
    EXPECT_EQ(store.AddTowersToConfig({}), 1);
    ASSERT_EQ(store.LoadFromString(kProfile, true), kConfigOk);
    ASSERT_EQ(store.EnumConfig(nullptr, nullptr, true), kConfigOk);

    syslog_capture::Clear();
    const std::string before = Xml(store);
    store.DeleteConfigNode("NoSuchSection");
    EXPECT_EQ(Xml(store), before);
    EXPECT_TRUE(syslog_capture::Records().empty());

    // Replace the towers: the section stays where it was, a list of ten thousand with duplicates
    // comes back whole and in order, each tower's fields in their fixed order.
    store.DeleteConfigNode("Towers");
    TowerInfo north{"North", "", "n.example", "8080", "8443"};
    std::vector<TowerInfo> towers(10000, north);
    for (size_t i = 2; i < towers.size(); ++i)
        towers[i].DisplayName = "T" + std::to_string(i);
    EXPECT_EQ(store.AddTowersToConfig(towers), kConfigOk);
    pt::ptree servers;
    servers.add("Server.Address", "10.1.1.1");
    EXPECT_EQ(store.AddTNDServersToConfig(servers), kConfigOk);
    EXPECT_TRUE(syslog_capture::Records().empty());
    std::string value;
    store.GetValue(
        "Tideway/ConfigurationParameters/TrustedNetworkDetection/TrustedServers/Server/Address",
        value);
    EXPECT_EQ(value, "10.1.1.1");
    CXMLReadWriteConfig written;
    ASSERT_EQ(written.LoadFromString(Xml(store), true), kConfigOk);
    std::string walk;
    ASSERT_EQ(written.EnumConfig(&walk, Record, false), kConfigOk);
    std::string expected;
    for (const TowerInfo& t : towers)
        expected += "Tower=" + t.DisplayName + "||n.example|8443|8080;";
    EXPECT_TRUE(walk == expected + kTyped.substr(kTyped.find("Address"))) << "towers differ";
    const std::string after = Xml(store);
    EXPECT_LT(after.find("<password/>"), after.find("<Towers>"));
    EXPECT_LT(after.find("<Towers>"), after.find("<towers>"));

    // A reload leaves the old node pointer stale: the edits refuse it until the next walk.
    ASSERT_EQ(store.LoadFromString(kProfile, true), kConfigOk);
    store.DeleteConfigNode("Towers");
    EXPECT_EQ(store.AddTowersToConfig({north}), kConfigFail);
    EXPECT_EQ(store.AddTNDServersToConfig(servers), kConfigFail);
    EXPECT_EQ(syslog_capture::Count("Configuration node pointer not valid\n"), 3u);
    EXPECT_EQ(Xml(store), config_test::Rewritten(kProfile));
}

// A callback may use the store on the same thread, even reload it, without a deadlock: the walk
// goes on over what it started with, and the edits refuse the node of the replaced document.
TEST_F(XMLReadWriteTest, CallbackMayReadWriteAndReloadTheStore) {
    struct Context {
        CXMLReadWriteConfig store;
        int calls = 0;
    } c;
    ASSERT_EQ(c.store.LoadFromString(kProfile, true), kConfigOk);
    auto callback = [](void* raw, const char*, const void*) {
        Context& c = *static_cast<Context*>(raw);
        std::string value;
        c.store.GetValue("Tideway/SchemaVersion", value);
        c.store.PutValue("Tideway/ConfigurationParameters/added" + std::to_string(c.calls), "1");
        if (++c.calls == 2)
            c.store.LoadFromString(
                "<Tideway><ConfigurationParameters><a/></ConfigurationParameters></Tideway>", true);
    };
    EXPECT_EQ(c.store.EnumConfig(&c, callback, true), kConfigOk);
    EXPECT_EQ(c.calls, 10);  // the walk over the first document went to its end
    c.store.DeleteConfigNode("a");
    EXPECT_EQ(syslog_capture::Count("Configuration node pointer not valid\n"), 1u);
}

TEST_F(XMLReadWriteTest, ConcurrentReadersWritersAndWalks) {
    CXMLReadWriteConfig store;
    ASSERT_EQ(store.LoadFromString(kProfile, true), kConfigOk);
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&, t] {
            const std::string key = "Tideway/ConfigurationParameters/k" + std::to_string(t);
            for (int i = 0; i < 300; ++i) {
                std::string value;
                store.PutValue(key, std::to_string(i));
                if (store.GetValue(key, value) != kConfigOk || value != std::to_string(i))
                    ++failures;
            }
        });
    }
    threads.emplace_back([&] {
        for (int i = 0; i < 100; ++i) {
            std::string walk, xml;
            CXMLReadWrite copy;
            if (store.EnumConfig(&walk, Record, false) != kConfigOk || walk != kTyped ||
                store.GetXML(xml) != kConfigOk || copy.LoadFromString(xml, false) != kConfigOk)
                ++failures;
        }
    });
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(failures.load(), 0);
    std::string value;
    store.GetValue("Tideway/ConfigurationParameters/k2", value);
    EXPECT_EQ(value, "299");
}

}  // namespace
