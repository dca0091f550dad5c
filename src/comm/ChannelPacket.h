// The wire form of a MSG_QUEUE_MSG: its header at fixed offsets, little-endian with no padding,
// then the data. Framing is the transport's business: a packet arrives as one whole buffer.
//
// Free functions without state; any thread may call them. The communicator's send and receive
// paths wrap them.
#ifndef TIDEWAY_COMM_CHANNELPACKET_H_
#define TIDEWAY_COMM_CHANNELPACKET_H_

#include <stddef.h>
#include <stdint.h>

#include <memory>

#include "comm/MsgQueueMsg.h"
#include "ipc/IPCTypes.h"

// The packet's header as a record: the first five fields of a MSG_QUEUE_MSG, as they go on the
// wire. The offsets below are read from it; the functions work with those offsets.
#pragma pack(push, 1)
struct MSG_QUEUE_MSG_HEADER {
    uint32_t m_Signature;
    uint16_t m_VersionMajor;
    uint16_t m_VersionMinor;
    char m_Marker[8];
    uint32_t m_DataLength;
    uint32_t m_MessageId;
};
// A whole packet: the header, then m_DataLength bytes of data.
struct ChannelPacket {
    MSG_QUEUE_MSG_HEADER m_Header;
    uint8_t m_Data[1];
};
#pragma pack(pop)

// Offsets of the packet's fields.
constexpr size_t kPacketSignatureOffset = offsetof(MSG_QUEUE_MSG_HEADER, m_Signature);
constexpr size_t kPacketVersionMajorOffset = offsetof(MSG_QUEUE_MSG_HEADER, m_VersionMajor);
constexpr size_t kPacketVersionMinorOffset = offsetof(MSG_QUEUE_MSG_HEADER, m_VersionMinor);
constexpr size_t kPacketMarkerOffset = offsetof(MSG_QUEUE_MSG_HEADER, m_Marker);
constexpr size_t kPacketDataLengthOffset = offsetof(MSG_QUEUE_MSG_HEADER, m_DataLength);
constexpr size_t kPacketMessageIdOffset = offsetof(MSG_QUEUE_MSG_HEADER, m_MessageId);
constexpr size_t kPacketHeaderSize = offsetof(ChannelPacket, m_Data);  // data follows here
static_assert(kPacketHeaderSize == 24 && kPacketMarkerOffset == 8 && kPacketMessageIdOffset == 20,
              "the packet's header is 24 bytes, packed");

// Makes the packet of `message`: 24 bytes of header, plus the data when the message has data
// and a length. `size` receives the packet's size (0 for a null message), also when the buffer
// cannot be made. Null for a null message, and null with "Comm : Failed to create packet, System
// Out Of Memory" at ERR when the allocation fails.
std::unique_ptr<uint8_t[]> BuildPacket(const MSG_QUEUE_MSG* message, uint32_t& size);

// A message as the IPC library takes it: its packet, and the request buffer that points at it.
// The buffer is valid while the object lives.
struct CWirePacket {
    std::unique_ptr<uint8_t[]> m_pBytes;
    IPCBuffer m_Buffer;
};

// Makes the packet of `message` and its buffer (kind 1, zero-filled otherwise). False, with
// BuildPacket's line and `out.m_Buffer.m_Length` the size it needed, when the packet could not
// be made.
bool MakeWirePacket(const MSG_QUEUE_MSG* message, CWirePacket& out);
// Wraps `bytes` (a packet or anything else) in a request buffer, as the library hands one over.
IPCBuffer RequestBuffer(void* bytes, uint32_t size);

// Reads a received packet of `n` bytes into `out`, which starts as a blank COMM_MSG_NONE record.
// False (with its ERR line) when the packet is dropped: empty, no whole header, or no id.
// Signature, marker and versions are not checked. A length field that promises more than the
// packet holds is kept, with no data; a consumer must not trust the length alone.
bool ParsePacket(const void* data, size_t n, MSG_QUEUE_MSG& out);

#endif  // TIDEWAY_COMM_CHANNELPACKET_H_
