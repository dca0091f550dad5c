#include "comm/ChannelPacket.h"

#include <string.h>

#include "common/Utils.h"
#include "common/VNTrace.h"

// The packet carries the integers in the host's order, which the agent shares: little-endian.
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the packet format is little-endian");

namespace {

template <typename T>
void Put(uint8_t* packet, size_t offset, T value) {
    memcpy(packet + offset, &value, sizeof(value));
}

template <typename T>
T Get(const uint8_t* packet, size_t offset) {
    T value;
    memcpy(&value, packet + offset, sizeof(value));
    return value;
}

}  // namespace

std::unique_ptr<uint8_t[]> BuildPacket(const MSG_QUEUE_MSG* message, uint32_t& size) {
    if (message == nullptr) {
        size = 0;
        return nullptr;
    }
    const bool withData = message->m_pData != nullptr && message->m_DataLength != 0;
    // The size is worked out in 64 bits so that a length near 4 GiB cannot wrap to a small
    // buffer; anything beyond the signed 32-bit range fails like an exhausted heap, without
    // asking the allocator. The caller sees the size as the 32-bit packet length.
    const uint64_t wanted = kPacketHeaderSize + (withData ? uint64_t{message->m_DataLength} : 0);
    size = static_cast<uint32_t>(wanted);
    uint8_t* const packet = wanted > 0x7FFFFFFFu ? nullptr : AllocMessageBytes(size);
    if (packet == nullptr) {
        VNTRACE(TL_ERR, "Comm : Failed to create packet, System Out Of Memory");
        return nullptr;
    }
    Put<uint32_t>(packet, kPacketSignatureOffset, message->m_Signature);
    Put<uint16_t>(packet, kPacketVersionMajorOffset, message->m_VersionMajor);
    Put<uint16_t>(packet, kPacketVersionMinorOffset, message->m_VersionMinor);
    memcpy(packet + kPacketMarkerOffset, message->m_Marker, sizeof(message->m_Marker));
    Put<uint32_t>(packet, kPacketDataLengthOffset, message->m_DataLength);
    Put<uint32_t>(packet, kPacketMessageIdOffset, message->m_MessageId);
    if (withData)
        memcpy(packet + kPacketHeaderSize, message->m_pData, message->m_DataLength);
    return std::unique_ptr<uint8_t[]>(packet);
}

bool ParsePacket(const void* data, size_t n, MSG_QUEUE_MSG& out) {
    out.CopyFrom(MSG_QUEUE_MSG(COMM_MSG_NONE, 0, 1, 0));
    const uint8_t* const packet = static_cast<const uint8_t*>(data);
    if (n == 0 || packet == nullptr) {
        VNTRACE(TL_ERR, "Zero datalen received");
        return false;
    }
    if (n <= kPacketMessageIdOffset) {  // 20 bytes or less: no whole header
        VNTRACE(TL_ERR, "SecureIPC : Failed to recieve MSG_QUEUE_MSG_HEADER");
        return false;
    }
    out.m_Signature = Get<uint32_t>(packet, kPacketSignatureOffset);
    out.m_VersionMajor = Get<uint16_t>(packet, kPacketVersionMajorOffset);
    out.m_VersionMinor = Get<uint16_t>(packet, kPacketVersionMinorOffset);
    memcpy(out.m_Marker, packet + kPacketMarkerOffset, sizeof(out.m_Marker));
    out.m_DataLength = Get<uint32_t>(packet, kPacketDataLengthOffset);
    if (n < kPacketHeaderSize) {  // 21 to 23 bytes: no whole id
        VNTRACE(TL_ERR, "SecureIPC : Failed to recieve eCOMM_MESSAGE_ID");
        return false;
    }
    out.m_MessageId = static_cast<eCOMM_MESSAGE_ID>(Get<uint32_t>(packet, kPacketMessageIdOffset));

    const uint32_t length = out.m_DataLength;
    if (length != 0 && n >= kPacketHeaderSize + uint64_t{length}) {
        if (out.AllocData(length) != 0) {
            // The bytes were there but could not be kept: drop the message rather than pass
            // on a record whose data is missing for a reason its consumer cannot see.
            VNTRACE(TL_ERR, "SecureIPC : Failed to allocate %u bytes for received message data",
                    length);
            return false;
        }
        memcpy_s(out.m_pData, length, packet + kPacketHeaderSize, length);
    }
    return true;
}

IPCBuffer RequestBuffer(void* bytes, uint32_t size) {
    IPCBuffer buffer;
    memset(&buffer, 0, sizeof(buffer));
    buffer.m_Kind = kIPCBufferKindRequest;
    buffer.m_Length = size;
    buffer.m_pData = bytes;
    return buffer;
}

bool MakeWirePacket(const MSG_QUEUE_MSG* message, CWirePacket& out) {
    uint32_t size = 0;
    out.m_pBytes = BuildPacket(message, size);
    out.m_Buffer = RequestBuffer(out.m_pBytes.get(), size);
    return out.m_pBytes != nullptr;
}
