#include <numeric>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ApiTrace.h"
#include "SyslogCapture.h"
#include "comm/ChannelPacket.h"
#include "comm/MsgQueueMsg.h"

namespace {

struct PacketTest : ::testing::Test {
    ApiTraceOn trace;
};

// A packet as the agent would send it, assembled byte by byte (little-endian fields).
std::vector<uint8_t> WirePacket(uint32_t length, uint32_t id, const std::vector<uint8_t>& data) {
    std::vector<uint8_t> packet;
    for (uint32_t v : {0xDEADBEEFu, 1u, 0x52415453u, 0x47534D54u, length, id})  // "STARTMSG"
        for (int shift = 0; shift < 32; shift += 8)
            packet.push_back(static_cast<uint8_t>(v >> shift));
    packet.insert(packet.end(), data.begin(), data.end());
    return packet;
}

// The bytes BuildPacket makes of `message`.
std::vector<uint8_t> Wire(const MSG_QUEUE_MSG& message) {
    uint32_t size = 0;
    std::unique_ptr<uint8_t[]> packet = BuildPacket(&message, size);
    return {packet.get(), packet.get() + (packet ? size : 0)};
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

TEST_F(PacketTest, DataIsSetRefusedAndCopiedDeep) {
    MSG_QUEUE_MSG message(COMM_MSG_CHANGE_ACTIVE_TOWER, 0, 1, 0);
    EXPECT_EQ(message.SetData("west-1", 0), 0x80070057u);
    EXPECT_EQ(message.SetData(nullptr, 6), 0x80070057u);
    ASSERT_EQ(message.SetData("west-1", 6), 0u);
    ASSERT_EQ(message.SetData(message.m_pData + 5, 1), 0u);  // a part of its own data
    EXPECT_EQ(Wire(message), WirePacket(1, 1042, {'1'}));
    // A size negative as a signed 32-bit number fails as an allocation would; the old data goes.
    EXPECT_EQ(message.AllocData(0x80000000u), 0x8007000Eu);
    EXPECT_EQ(message.m_DataLength, 0u);
    EXPECT_EQ(message.m_pData, nullptr);
    EXPECT_EQ(message.AllocData(0), 0x80070057u);

    std::vector<uint8_t> bytes(547);
    std::iota(bytes.begin(), bytes.end(), uint8_t{7});
    MSG_QUEUE_MSG original(COMM_MSG_SERVICE_STATS, 0, 3, 7);
    original.m_Signature = 0x01020304;
    ASSERT_EQ(original.SetData(bytes.data(), 547), 0u);
    // CopyFrom replaces old data (a leak shows in the sanitizer build) and ignores itself.
    MSG_QUEUE_MSG copy(original), other(COMM_MSG_QUIT, 0, 1, 0);
    ASSERT_EQ(other.SetData("xy", 2), 0u);
    other.CopyFrom(original);
    other.CopyFrom(other);
    for (const MSG_QUEUE_MSG* c : {&copy, &other}) {
        EXPECT_NE(c->m_pData, original.m_pData);
        EXPECT_EQ(Wire(*c), Wire(original));
    }
    // A header that promises data it does not hold stays so through both copies.
    MSG_QUEUE_MSG promise(COMM_MSG_TOWERS_RESPONSE_INFO, 40, 1, 0);
    other.CopyFrom(promise);
    EXPECT_EQ(Wire(MSG_QUEUE_MSG(promise)), WirePacket(40, 1041, {}));
    EXPECT_EQ(Wire(other), WirePacket(40, 1041, {}));
}

TEST_F(PacketTest, PacketRoundTripsEveryByteAndSizesNear4GiBFail) {
    std::vector<uint8_t> data(600);
    std::iota(data.begin(), data.end(), uint8_t{7});  // a shifted copy shows
    MSG_QUEUE_MSG message(COMM_MSG_PROXY_CRED_RESPONSE, 0, 1, 0);
    ASSERT_EQ(message.SetData(data.data(), 600), 0u);
    std::vector<uint8_t> packet = Wire(message);
    EXPECT_EQ(packet, WirePacket(600, 1050, data));
    // Signature, versions and marker are not checked: a parsed packet is built back byte for byte.
    packet[0] = 0x11;
    packet[5] = 7;
    packet[8] = 'X';
    MSG_QUEUE_MSG parsed(COMM_MSG_QUIT, 0, 9, 9);
    ASSERT_TRUE(ParsePacket(packet.data(), packet.size(), parsed));
    EXPECT_EQ(Wire(parsed), packet);
    uint32_t size = 0;
    EXPECT_EQ(BuildPacket(nullptr, size), nullptr);
    EXPECT_TRUE(syslog_capture::Records().empty());
    // A length near 4 GiB must neither wrap the size to a small buffer nor be read past the data.
    for (uint32_t length : {0x7FFFFFF0u, 0xFFFFFFF0u}) {
        message.m_DataLength = length;
        EXPECT_EQ(BuildPacket(&message, size), nullptr) << length;
        EXPECT_EQ(size, length + 24) << length;
    }
    message.m_DataLength = 600;
    EXPECT_EQ(syslog_capture::Count("Comm : Failed to create packet, System Out Of Memory\n"), 2u);
}

TEST_F(PacketTest, ShortPacketsAreDroppedAndTheLengthIsNotTrusted) {
    const struct {
        uint32_t length;
        size_t n;
        const char* line;  // "": accepted
        std::string data;
    } cases[] = {{0, 0, "Zero datalen received", ""},
                 {0, 20, "SecureIPC : Failed to recieve MSG_QUEUE_MSG_HEADER", ""},
                 {0, 21, "SecureIPC : Failed to recieve eCOMM_MESSAGE_ID", ""},
                 {0, 23, "SecureIPC : Failed to recieve eCOMM_MESSAGE_ID", ""},
                 {0, 24, "", ""},
                 {2, 28, "", "ab"},  // bytes beyond the length are ignored
                 // More than the data present (also a 32-bit sum that wraps): no data, silently.
                 {5, 28, "", ""},
                 {0xFFFFFFE9, 28, "", ""}};
    for (const auto& c : cases) {
        syslog_capture::Clear();
        const std::vector<uint8_t> packet = WirePacket(c.length, 1041, {'a', 'b', 'c', 'd'});
        MSG_QUEUE_MSG out(COMM_MSG_QUIT, 0, 1, 0);
        ASSERT_EQ(out.SetData("old", 3), 0u);
        EXPECT_EQ(ParsePacket(packet.data(), c.n, out), *c.line == '\0') << c.n;
        using Lines = std::vector<std::string>;
        EXPECT_EQ(syslog_capture::Texts(), *c.line ? Lines{c.line + std::string("\n")} : Lines{});
        if (*c.line == '\0') {
            EXPECT_EQ(Wire(out), WirePacket(c.length, 1041, {c.data.begin(), c.data.end()}));
            EXPECT_EQ(out.m_pData == nullptr, c.data.empty());  // the old data went
        }
    }
}

}  // namespace
