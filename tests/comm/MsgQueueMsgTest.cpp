#include <numeric>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "SyslogCapture.h"
#include "comm/ChannelPacket.h"
#include "comm/MsgQueueMsg.h"
#include "common/VNTrace.h"

namespace {

class PacketTest : public ::testing::Test {
  protected:
    void SetUp() override {
        g_Trace.InitTrace(kTraceIdent, "/tmp", "TidewayAPI.log", 2, kDefaultTraceMask, false, true,
                          10, 10000, 100, 1, 0, 60);
        syslog_capture::Clear();
    }
};

// Bytes that differ from their neighbours, so that a shifted copy shows.
std::vector<uint8_t> Bytes(size_t n) {
    std::vector<uint8_t> bytes(n);
    std::iota(bytes.begin(), bytes.end(), uint8_t{7});
    return bytes;
}

// A packet as the agent would send it, assembled byte by byte (little-endian fields).
std::vector<uint8_t> WirePacket(uint32_t signature, uint32_t length, uint32_t id,
                                const std::vector<uint8_t>& data) {
    std::vector<uint8_t> packet;
    auto put32 = [&](uint32_t v) {
        for (int shift = 0; shift < 32; shift += 8)
            packet.push_back(static_cast<uint8_t>(v >> shift));
    };
    put32(signature);
    put32(1);  // major 1, minor 0
    for (char c : std::string("STARTMSG"))
        packet.push_back(static_cast<uint8_t>(c));
    put32(length);
    put32(id);
    packet.insert(packet.end(), data.begin(), data.end());
    return packet;
}

TEST_F(PacketTest, EveryIdHasItsNameAndOthersAreUnknown) {
    // In wire order from 1025: the name is what the logs show for each id.
    std::istringstream names(
        "START START_SERVICE STOP_SERVICE SRVC_STARTED SRVC_START_FAILED SRVC_STOPPED SRVC_EXITED "
        "PEER_DC DMN_CONNECT DISCONNECT HEARTBEAT QUIT ICON_APLUS_STATE CONFIG_DATA "
        "CONFIG_DATAUPDATED TOWERS_REQUEST_INFO TOWERS_RESPONSE_INFO CHANGE_ACTIVE_TOWER "
        "CHANGE_ACTIVE_TOWER_STATUS DCT_SETTINGS_REQUEST DCT_SETTINGS_RESPONSE "
        "DCT_SETTINGS_UPDATE DCT_SETTINGS_UPDATED DCT_TOWER_ACTIVATED PROXY_CRED_REQUEST "
        "PROXY_CRED_RESPONSE PROXY_STATE_QUERY PROXY_CANCEL_REQUEST CLIENT_TYPE_DAEMON "
        "CLIENT_TYPE_MSI CLIENT_TYPE_CMD_ENABLE_SVC CLIENT_TYPE_CMD_DISABLE_SVC "
        "SERVICE_STATS_START SERVICE_STATS_START_RESULT SERVICE_STATS SERVICE_STATS_STOP "
        "INFO_MESSAGE CHANGE_DBGLEVEL CLIENT_TYPE_CMD_CHANGE_DBGLEVEL NONE END");
    uint32_t id = 1025;
    for (std::string name; names >> name; ++id)
        EXPECT_EQ(GetMessageName(id), "COMM_MSG_" + name) << id;
    EXPECT_EQ(id, 1066u);
    for (uint32_t unknown : {0u, 1024u, 1066u, 0xFFFFFFFFu})
        EXPECT_STREQ(GetMessageName(unknown), "unknown message type") << unknown;
}

// The bytes BuildPacket makes of `message`: its whole header and data, for comparisons.
std::vector<uint8_t> Wire(const MSG_QUEUE_MSG& message) {
    uint32_t size = 0;
    std::unique_ptr<uint8_t[]> packet = BuildPacket(&message, size);
    return packet ? std::vector<uint8_t>(packet.get(), packet.get() + size)
                  : std::vector<uint8_t>();
}

TEST_F(PacketTest, DataIsSetAndRefusedWithTheSystemCodes) {
    MSG_QUEUE_MSG message(COMM_MSG_CHANGE_ACTIVE_TOWER, 0, 1, 0);
    EXPECT_EQ(message.SetData("west-1", 0), 0x80070057u);
    EXPECT_EQ(message.SetData(nullptr, 6), 0x80070057u);
    EXPECT_EQ(message.m_pData, nullptr);
    ASSERT_EQ(message.SetData("west-1", 6), 0u);
    // A record may be given a part of its own data.
    ASSERT_EQ(message.SetData(message.m_pData + 5, 1), 0u);
    EXPECT_EQ(message.m_DataLength, 1u);
    EXPECT_EQ(message.m_pData[0], '1');
    // A size negative as a signed 32-bit number fails as an allocation would; the old data goes.
    EXPECT_EQ(message.AllocData(0x80000000u), 0x8007000Eu);
    EXPECT_EQ(message.m_DataLength, 0u);
    EXPECT_EQ(message.m_pData, nullptr);
    EXPECT_EQ(message.AllocData(0), 0x80070057u);
}

TEST_F(PacketTest, CopiesAreDeepAndKeepALengthWithoutData) {
    const std::vector<uint8_t> bytes = Bytes(547);
    MSG_QUEUE_MSG original(COMM_MSG_SERVICE_STATS, 0, 3, 7);
    original.m_Signature = 0x01020304;
    ASSERT_EQ(original.SetData(bytes.data(), 547), 0u);
    MSG_QUEUE_MSG copy(original);
    EXPECT_NE(copy.m_pData, original.m_pData);
    EXPECT_EQ(Wire(copy), Wire(original));

    // CopyFrom replaces old data (a leak shows in the sanitizer build) and ignores itself.
    MSG_QUEUE_MSG other(COMM_MSG_QUIT, 0, 1, 0);
    ASSERT_EQ(other.SetData("xy", 2), 0u);
    other.CopyFrom(original);
    EXPECT_NE(other.m_pData, original.m_pData);
    EXPECT_EQ(Wire(other), Wire(original));
    other.CopyFrom(other);
    EXPECT_EQ(Wire(other), Wire(original));

    // A header that promises data it does not hold stays so through both copies.
    MSG_QUEUE_MSG promise(COMM_MSG_TOWERS_RESPONSE_INFO, 40, 1, 0);
    other.CopyFrom(promise);
    EXPECT_EQ(Wire(MSG_QUEUE_MSG(promise)), Wire(promise));
    EXPECT_EQ(Wire(other), Wire(promise));
}

TEST_F(PacketTest, PacketHasTheHeaderAtItsOffsetsAndRoundTripsEveryByte) {
    const std::vector<uint8_t> data = Bytes(600);
    MSG_QUEUE_MSG message(COMM_MSG_PROXY_CRED_RESPONSE, 0, 1, 0);
    ASSERT_EQ(message.SetData(data.data(), 600), 0u);
    const std::vector<uint8_t> packet = Wire(message);
    EXPECT_EQ(packet, WirePacket(0xDEADBEEF, 600, 1050, data));
    // Parsed and built again, every header field and data byte comes back.
    MSG_QUEUE_MSG parsed(COMM_MSG_QUIT, 0, 9, 9);
    ASSERT_TRUE(ParsePacket(packet.data(), packet.size(), parsed));
    ASSERT_TRUE(parsed.HasData(600));
    EXPECT_EQ(Wire(parsed), packet);

    // Without data the packet is the header alone, also when only the length says otherwise.
    EXPECT_EQ(Wire(MSG_QUEUE_MSG(COMM_MSG_TOWERS_REQUEST_INFO, 0, 1, 0)),
              WirePacket(0xDEADBEEF, 0, 1040, {}));
    EXPECT_EQ(Wire(MSG_QUEUE_MSG(COMM_MSG_TOWERS_RESPONSE_INFO, 33, 1, 0)),
              WirePacket(0xDEADBEEF, 33, 1041, {}));
    uint32_t size = 0;
    EXPECT_EQ(BuildPacket(nullptr, size), nullptr);
    EXPECT_TRUE(syslog_capture::Records().empty());
}

TEST_F(PacketTest, PacketThatCannotBeAllocatedIsReportedNotWrapped) {
    // A length near 4 GiB must neither wrap the size to a small buffer nor be read past the data.
    MSG_QUEUE_MSG message(COMM_MSG_CONFIG_DATA, 0, 1, 0);
    ASSERT_EQ(message.SetData("abcd", 4), 0u);
    for (uint32_t length : {0x7FFFFFF0u, 0xFFFFFFF0u}) {
        message.m_DataLength = length;
        uint32_t size = 0;
        EXPECT_EQ(BuildPacket(&message, size), nullptr) << length;
        EXPECT_EQ(size, length + 24) << length;
    }
    message.m_DataLength = 4;
    EXPECT_EQ(syslog_capture::Count("Comm : Failed to create packet, System Out Of Memory\n"), 2u);
}

TEST_F(PacketTest, ShortPacketsAreDroppedAtTheirLimits) {
    const std::vector<uint8_t> full = WirePacket(0xDEADBEEF, 0, 1028, {});
    const struct {
        size_t n;
        const char* line;  // null: accepted
    } cases[] = {{0, "Zero datalen received\n"},
                 {20, "SecureIPC : Failed to recieve MSG_QUEUE_MSG_HEADER\n"},
                 {21, "SecureIPC : Failed to recieve eCOMM_MESSAGE_ID\n"},
                 {23, "SecureIPC : Failed to recieve eCOMM_MESSAGE_ID\n"},
                 {24, nullptr}};
    for (const auto& c : cases) {
        syslog_capture::Clear();
        MSG_QUEUE_MSG out(COMM_MSG_QUIT, 0, 1, 0);
        ASSERT_EQ(out.SetData("old", 3), 0u);
        EXPECT_EQ(ParsePacket(full.data(), c.n, out), c.line == nullptr) << c.n;
        using Lines = std::vector<std::string>;
        EXPECT_EQ(syslog_capture::Texts(), c.line ? Lines{c.line} : Lines{}) << c.n;
        if (c.line == nullptr) {
            EXPECT_EQ(Wire(out), full);
            EXPECT_EQ(out.m_pData, nullptr);  // the old data went with the blank start
        }
    }
    syslog_capture::Clear();
    MSG_QUEUE_MSG out(COMM_MSG_QUIT, 0, 1, 0);
    EXPECT_FALSE(ParsePacket(nullptr, 24, out));
    EXPECT_EQ(syslog_capture::Count("Zero datalen received\n"), 1u);
}

TEST_F(PacketTest, ReceivedHeaderIsTakenAsItStandsAndTheLengthIsNotTrusted) {
    // Signature, versions and marker are not checked: the packet comes back byte for byte.
    std::vector<uint8_t> packet = WirePacket(0x11223344, 3, 1043, {1, 2, 3});
    packet[4] = 7;
    packet[8] = 'X';
    MSG_QUEUE_MSG out(COMM_MSG_QUIT, 0, 1, 0);
    ASSERT_TRUE(ParsePacket(packet.data(), packet.size(), out));
    EXPECT_EQ(Wire(out), packet);

    // Bytes beyond the length are ignored.
    packet = WirePacket(0xDEADBEEF, 2, 1041, {'a', 'b', 'c', 'd'});
    ASSERT_TRUE(ParsePacket(packet.data(), packet.size(), out));
    EXPECT_EQ(out.m_DataLength, 2u);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(out.m_pData), 2), "ab");

    // A length larger than the data present (also one that would wrap a 32-bit sum) is passed on
    // with no data, silently.
    for (uint32_t length : {5u, 0xFFFFFFFFu, 0xFFFFFFE9u}) {
        syslog_capture::Clear();
        packet = WirePacket(0xDEADBEEF, length, 1041, {'a', 'b', 'c', 'd'});
        ASSERT_TRUE(ParsePacket(packet.data(), packet.size(), out)) << length;
        EXPECT_EQ(out.m_DataLength, length);
        EXPECT_EQ(out.m_pData, nullptr);
        EXPECT_TRUE(syslog_capture::Texts().empty());
    }
}

}  // namespace
