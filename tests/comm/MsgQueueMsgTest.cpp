#include <string.h>

#include <random>
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

std::vector<uint8_t> Bytes(size_t n, uint32_t seed) {
    std::mt19937 random(seed);
    std::vector<uint8_t> bytes(n);
    for (uint8_t& byte : bytes)
        byte = static_cast<uint8_t>(random());
    return bytes;
}

// A packet as the agent would send it, assembled byte by byte.
std::vector<uint8_t> WirePacket(uint32_t signature, uint32_t length, uint32_t id,
                                const std::vector<uint8_t>& data) {
    std::vector<uint8_t> packet = {static_cast<uint8_t>(signature),
                                   static_cast<uint8_t>(signature >> 8),
                                   static_cast<uint8_t>(signature >> 16),
                                   static_cast<uint8_t>(signature >> 24),
                                   1,
                                   0,
                                   0,
                                   0};
    for (char c : std::string("STARTMSG"))
        packet.push_back(static_cast<uint8_t>(c));
    for (int shift = 0; shift < 32; shift += 8)
        packet.push_back(static_cast<uint8_t>(length >> shift));
    for (int shift = 0; shift < 32; shift += 8)
        packet.push_back(static_cast<uint8_t>(id >> shift));
    packet.insert(packet.end(), data.begin(), data.end());
    return packet;
}

TEST_F(PacketTest, EveryIdHasItsNameAndOthersAreUnknown) {
#define EXPECT_NAME(id) EXPECT_STREQ(GetMessageName(id), #id)
    EXPECT_NAME(COMM_MSG_START);
    EXPECT_NAME(COMM_MSG_START_SERVICE);
    EXPECT_NAME(COMM_MSG_STOP_SERVICE);
    EXPECT_NAME(COMM_MSG_SRVC_STARTED);
    EXPECT_NAME(COMM_MSG_SRVC_START_FAILED);
    EXPECT_NAME(COMM_MSG_SRVC_STOPPED);
    EXPECT_NAME(COMM_MSG_SRVC_EXITED);
    EXPECT_NAME(COMM_MSG_PEER_DC);
    EXPECT_NAME(COMM_MSG_DMN_CONNECT);
    EXPECT_NAME(COMM_MSG_DISCONNECT);
    EXPECT_NAME(COMM_MSG_HEARTBEAT);
    EXPECT_NAME(COMM_MSG_QUIT);
    EXPECT_NAME(COMM_MSG_ICON_APLUS_STATE);
    EXPECT_NAME(COMM_MSG_CONFIG_DATA);
    EXPECT_NAME(COMM_MSG_CONFIG_DATAUPDATED);
    EXPECT_NAME(COMM_MSG_TOWERS_REQUEST_INFO);
    EXPECT_NAME(COMM_MSG_TOWERS_RESPONSE_INFO);
    EXPECT_NAME(COMM_MSG_CHANGE_ACTIVE_TOWER);
    EXPECT_NAME(COMM_MSG_CHANGE_ACTIVE_TOWER_STATUS);
    EXPECT_NAME(COMM_MSG_DCT_SETTINGS_REQUEST);
    EXPECT_NAME(COMM_MSG_DCT_SETTINGS_RESPONSE);
    EXPECT_NAME(COMM_MSG_DCT_SETTINGS_UPDATE);
    EXPECT_NAME(COMM_MSG_DCT_SETTINGS_UPDATED);
    EXPECT_NAME(COMM_MSG_DCT_TOWER_ACTIVATED);
    EXPECT_NAME(COMM_MSG_PROXY_CRED_REQUEST);
    EXPECT_NAME(COMM_MSG_PROXY_CRED_RESPONSE);
    EXPECT_NAME(COMM_MSG_PROXY_STATE_QUERY);
    EXPECT_NAME(COMM_MSG_PROXY_CANCEL_REQUEST);
    EXPECT_NAME(COMM_MSG_CLIENT_TYPE_DAEMON);
    EXPECT_NAME(COMM_MSG_CLIENT_TYPE_MSI);
    EXPECT_NAME(COMM_MSG_CLIENT_TYPE_CMD_ENABLE_SVC);
    EXPECT_NAME(COMM_MSG_CLIENT_TYPE_CMD_DISABLE_SVC);
    EXPECT_NAME(COMM_MSG_SERVICE_STATS_START);
    EXPECT_NAME(COMM_MSG_SERVICE_STATS_START_RESULT);
    EXPECT_NAME(COMM_MSG_SERVICE_STATS);
    EXPECT_NAME(COMM_MSG_SERVICE_STATS_STOP);
    EXPECT_NAME(COMM_MSG_INFO_MESSAGE);
    EXPECT_NAME(COMM_MSG_CHANGE_DBGLEVEL);
    EXPECT_NAME(COMM_MSG_CLIENT_TYPE_CMD_CHANGE_DBGLEVEL);
    EXPECT_NAME(COMM_MSG_NONE);
    EXPECT_NAME(COMM_MSG_END);
#undef EXPECT_NAME
    // The enumerators are the wire values, consecutive from 1025.
    EXPECT_EQ(COMM_MSG_CHANGE_ACTIVE_TOWER, 1042u);
    EXPECT_EQ(COMM_MSG_SERVICE_STATS, 1059u);
    EXPECT_EQ(COMM_MSG_END, 1065u);
    for (uint32_t id : {0u, 1024u, 1066u, 0xFFFFFFFFu}) {
        EXPECT_STREQ(GetMessageName(id), "unknown message type") << id;
    }
}

TEST_F(PacketTest, DataIsSetCopiedAndRefusedWithTheSystemCodes) {
    MSG_QUEUE_MSG message(COMM_MSG_CHANGE_ACTIVE_TOWER, 0, 1, 0);
    EXPECT_EQ(message.m_Signature, 0xDEADBEEFu);
    EXPECT_EQ(memcmp(message.m_Marker, "STARTMSG", 8), 0);
    EXPECT_EQ(message.m_VersionMajor, 1);
    EXPECT_EQ(message.m_VersionMinor, 0);
    EXPECT_EQ(message.m_pData, nullptr);

    // Refusals change nothing.
    const char tower[] = "west-1";
    EXPECT_EQ(message.SetData(tower, 0), 0x80070057u);
    EXPECT_EQ(message.SetData(nullptr, 6), 0x80070057u);
    EXPECT_EQ(message.m_DataLength, 0u);
    EXPECT_EQ(message.m_pData, nullptr);

    ASSERT_EQ(message.SetData(tower, 6), 0u);
    EXPECT_EQ(message.m_DataLength, 6u);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(message.m_pData), 6), "west-1");
    EXPECT_EQ(message.SetData(nullptr, 0), 0x80070057u);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(message.m_pData), 6), "west-1");

    // A record may be given a part of its own data.
    ASSERT_EQ(message.SetData(message.m_pData + 5, 1), 0u);
    EXPECT_EQ(message.m_DataLength, 1u);
    EXPECT_EQ(message.m_pData[0], '1');

    // A size that is negative as a signed 32-bit number fails as an allocation would, and the
    // old data is gone.
    EXPECT_EQ(message.AllocData(0x80000000u), 0x8007000Eu);
    EXPECT_EQ(message.m_DataLength, 0u);
    EXPECT_EQ(message.m_pData, nullptr);
    EXPECT_EQ(message.AllocData(0), 0x80070057u);
    ASSERT_EQ(message.AllocData(12), 0u);
    EXPECT_EQ(message.m_DataLength, 12u);
    EXPECT_NE(message.m_pData, nullptr);
}

TEST_F(PacketTest, CopiesAreDeepAndKeepALengthWithoutData) {
    const std::vector<uint8_t> bytes = Bytes(547, 1);
    MSG_QUEUE_MSG original(COMM_MSG_SERVICE_STATS, 0, 3, 7);
    original.m_Signature = 0x01020304;
    ASSERT_EQ(original.SetData(bytes.data(), 547), 0u);

    MSG_QUEUE_MSG copy(original);
    ASSERT_NE(copy.m_pData, nullptr);
    EXPECT_NE(copy.m_pData, original.m_pData);
    EXPECT_EQ(copy.m_Signature, 0x01020304u);
    EXPECT_EQ(copy.m_VersionMajor, 3);
    EXPECT_EQ(copy.m_VersionMinor, 7);
    EXPECT_EQ(copy.m_MessageId, COMM_MSG_SERVICE_STATS);
    ASSERT_EQ(copy.m_DataLength, 547u);
    EXPECT_EQ(memcmp(copy.m_pData, bytes.data(), 547), 0);

    // CopyFrom replaces old data (a leak would show in the sanitizer build) and ignores itself.
    MSG_QUEUE_MSG other(COMM_MSG_QUIT, 0, 1, 0);
    ASSERT_EQ(other.SetData("xy", 2), 0u);
    other.CopyFrom(original);
    EXPECT_EQ(other.m_MessageId, COMM_MSG_SERVICE_STATS);
    ASSERT_EQ(other.m_DataLength, 547u);
    EXPECT_EQ(memcmp(other.m_pData, bytes.data(), 547), 0);
    uint8_t* const before = other.m_pData;
    other.CopyFrom(other);
    EXPECT_EQ(other.m_pData, before);
    EXPECT_EQ(other.m_DataLength, 547u);

    // A header that promises data it does not hold stays so through both copies.
    MSG_QUEUE_MSG promise(COMM_MSG_TOWERS_RESPONSE_INFO, 40, 1, 0);
    MSG_QUEUE_MSG promiseCopy(promise);
    EXPECT_EQ(promiseCopy.m_DataLength, 40u);
    EXPECT_EQ(promiseCopy.m_pData, nullptr);
    EXPECT_FALSE(promiseCopy.HasData(1));
    other.CopyFrom(promise);
    EXPECT_EQ(other.m_DataLength, 40u);
    EXPECT_EQ(other.m_pData, nullptr);
}

TEST_F(PacketTest, PacketHasTheHeaderAtItsOffsetsAndRoundTripsEveryByte) {
    const std::vector<uint8_t> data = Bytes(600, 2);
    MSG_QUEUE_MSG message(COMM_MSG_PROXY_CRED_RESPONSE, 0, 1, 0);
    ASSERT_EQ(message.SetData(data.data(), 600), 0u);

    uint32_t size = 0;
    std::unique_ptr<uint8_t[]> packet = BuildPacket(&message, size);
    ASSERT_NE(packet, nullptr);
    ASSERT_EQ(size, 624u);
    EXPECT_EQ(std::vector<uint8_t>(packet.get(), packet.get() + size),
              WirePacket(0xDEADBEEF, 600, 1050, data));

    MSG_QUEUE_MSG parsed(COMM_MSG_QUIT, 0, 9, 9);
    ASSERT_TRUE(ParsePacket(packet.get(), size, parsed));
    EXPECT_EQ(parsed.m_Signature, 0xDEADBEEFu);
    EXPECT_EQ(parsed.m_VersionMajor, 1);
    EXPECT_EQ(parsed.m_VersionMinor, 0);
    EXPECT_EQ(memcmp(parsed.m_Marker, "STARTMSG", 8), 0);
    EXPECT_EQ(parsed.m_MessageId, COMM_MSG_PROXY_CRED_RESPONSE);
    ASSERT_EQ(parsed.m_DataLength, 600u);
    ASSERT_NE(parsed.m_pData, nullptr);
    EXPECT_EQ(std::vector<uint8_t>(parsed.m_pData, parsed.m_pData + 600), data);

    // Without data the packet is the header alone, also when only the length says otherwise.
    MSG_QUEUE_MSG bare(COMM_MSG_TOWERS_REQUEST_INFO, 0, 1, 0);
    packet = BuildPacket(&bare, size);
    ASSERT_NE(packet, nullptr);
    EXPECT_EQ(size, 24u);
    EXPECT_EQ(std::vector<uint8_t>(packet.get(), packet.get() + 24),
              WirePacket(0xDEADBEEF, 0, 1040, {}));
    MSG_QUEUE_MSG promise(COMM_MSG_TOWERS_RESPONSE_INFO, 33, 1, 0);
    packet = BuildPacket(&promise, size);
    ASSERT_NE(packet, nullptr);
    EXPECT_EQ(size, 24u);
    EXPECT_EQ(packet[16], 33);

    EXPECT_EQ(BuildPacket(nullptr, size), nullptr);
    EXPECT_EQ(syslog_capture::Records().size(), 0u);
}

TEST_F(PacketTest, PacketThatCannotBeAllocatedIsReportedNotWrapped) {
    // A length near 4 GiB must neither wrap the size to a small buffer nor ask the allocator:
    // the record is made to claim more than it holds, which BuildPacket never reads.
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
    struct Case {
        size_t n;
        const char* line;  // null: accepted
    };
    const Case cases[] = {
        {0, "Zero datalen received\n"},
        {1, "SecureIPC : Failed to recieve MSG_QUEUE_MSG_HEADER\n"},
        {20, "SecureIPC : Failed to recieve MSG_QUEUE_MSG_HEADER\n"},
        {21, "SecureIPC : Failed to recieve eCOMM_MESSAGE_ID\n"},
        {23, "SecureIPC : Failed to recieve eCOMM_MESSAGE_ID\n"},
        {24, nullptr},
    };
    for (const Case& c : cases) {
        syslog_capture::Clear();
        MSG_QUEUE_MSG out(COMM_MSG_QUIT, 0, 1, 0);
        ASSERT_EQ(out.SetData("old", 3), 0u);
        const bool accepted = ParsePacket(full.data(), c.n, out);
        EXPECT_EQ(accepted, c.line == nullptr) << c.n;
        if (c.line != nullptr) {
            EXPECT_EQ(syslog_capture::Texts(), std::vector<std::string>{c.line}) << c.n;
        } else {
            EXPECT_TRUE(syslog_capture::Texts().empty());
            EXPECT_EQ(out.m_MessageId, COMM_MSG_SRVC_STARTED);
            EXPECT_EQ(out.m_DataLength, 0u);
            EXPECT_EQ(out.m_pData, nullptr);  // the old data went with the blank start
        }
    }
    syslog_capture::Clear();
    MSG_QUEUE_MSG out(COMM_MSG_QUIT, 0, 1, 0);
    EXPECT_FALSE(ParsePacket(nullptr, 24, out));
    EXPECT_EQ(syslog_capture::Count("Zero datalen received\n"), 1u);
}

TEST_F(PacketTest, ReceivedHeaderIsTakenAsItStandsAndTheLengthIsNotTrusted) {
    // Signature, versions and marker are not checked.
    std::vector<uint8_t> packet = WirePacket(0x11223344, 3, 1043, {1, 2, 3});
    packet[4] = 7;
    packet[8] = 'X';
    MSG_QUEUE_MSG out(COMM_MSG_QUIT, 0, 1, 0);
    ASSERT_TRUE(ParsePacket(packet.data(), packet.size(), out));
    EXPECT_EQ(out.m_Signature, 0x11223344u);
    EXPECT_EQ(out.m_VersionMajor, 7);
    EXPECT_EQ(out.m_Marker[0], 'X');
    EXPECT_EQ(out.m_MessageId, COMM_MSG_CHANGE_ACTIVE_TOWER_STATUS);
    ASSERT_TRUE(out.HasData(3));
    EXPECT_EQ(out.m_pData[2], 3);

    // Bytes beyond the length are ignored.
    packet = WirePacket(0xDEADBEEF, 2, 1041, {'a', 'b', 'c', 'd'});
    ASSERT_TRUE(ParsePacket(packet.data(), packet.size(), out));
    EXPECT_EQ(out.m_DataLength, 2u);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(out.m_pData), 2), "ab");

    // A length larger than the data present: passed on with the length and no data, silently;
    // also a length that would wrap a 32-bit sum.
    for (uint32_t length : {5u, 0xFFFFFFFFu, 0xFFFFFFE9u}) {
        syslog_capture::Clear();
        packet = WirePacket(0xDEADBEEF, length, 1041, {'a', 'b', 'c', 'd'});
        ASSERT_TRUE(ParsePacket(packet.data(), packet.size(), out)) << length;
        EXPECT_EQ(out.m_DataLength, length);
        EXPECT_EQ(out.m_pData, nullptr);
        EXPECT_FALSE(out.HasData(1));
        EXPECT_TRUE(syslog_capture::Texts().empty());
    }
}

}  // namespace
