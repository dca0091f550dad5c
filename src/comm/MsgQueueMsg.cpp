#include "comm/MsgQueueMsg.h"

#include <new>

#include "common/Utils.h"

namespace {

// Names in id order from COMM_MSG_START.
const char* const kMessageNames[] = {
    "COMM_MSG_START",
    "COMM_MSG_START_SERVICE",
    "COMM_MSG_STOP_SERVICE",
    "COMM_MSG_SRVC_STARTED",
    "COMM_MSG_SRVC_START_FAILED",
    "COMM_MSG_SRVC_STOPPED",
    "COMM_MSG_SRVC_EXITED",
    "COMM_MSG_PEER_DC",
    "COMM_MSG_DMN_CONNECT",
    "COMM_MSG_DISCONNECT",
    "COMM_MSG_HEARTBEAT",
    "COMM_MSG_QUIT",
    "COMM_MSG_ICON_APLUS_STATE",
    "COMM_MSG_CONFIG_DATA",
    "COMM_MSG_CONFIG_DATAUPDATED",
    "COMM_MSG_TOWERS_REQUEST_INFO",
    "COMM_MSG_TOWERS_RESPONSE_INFO",
    "COMM_MSG_CHANGE_ACTIVE_TOWER",
    "COMM_MSG_CHANGE_ACTIVE_TOWER_STATUS",
    "COMM_MSG_DCT_SETTINGS_REQUEST",
    "COMM_MSG_DCT_SETTINGS_RESPONSE",
    "COMM_MSG_DCT_SETTINGS_UPDATE",
    "COMM_MSG_DCT_SETTINGS_UPDATED",
    "COMM_MSG_DCT_TOWER_ACTIVATED",
    "COMM_MSG_PROXY_CRED_REQUEST",
    "COMM_MSG_PROXY_CRED_RESPONSE",
    "COMM_MSG_PROXY_STATE_QUERY",
    "COMM_MSG_PROXY_CANCEL_REQUEST",
    "COMM_MSG_CLIENT_TYPE_DAEMON",
    "COMM_MSG_CLIENT_TYPE_MSI",
    "COMM_MSG_CLIENT_TYPE_CMD_ENABLE_SVC",
    "COMM_MSG_CLIENT_TYPE_CMD_DISABLE_SVC",
    "COMM_MSG_SERVICE_STATS_START",
    "COMM_MSG_SERVICE_STATS_START_RESULT",
    "COMM_MSG_SERVICE_STATS",
    "COMM_MSG_SERVICE_STATS_STOP",
    "COMM_MSG_INFO_MESSAGE",
    "COMM_MSG_CHANGE_DBGLEVEL",
    "COMM_MSG_CLIENT_TYPE_CMD_CHANGE_DBGLEVEL",
    "COMM_MSG_NONE",
    "COMM_MSG_END",
};

static_assert(sizeof(kMessageNames) / sizeof(kMessageNames[0]) == COMM_MSG_END - COMM_MSG_START + 1,
              "one name for every id");

}  // namespace

const char* GetMessageName(uint32_t id) {
    if (id < COMM_MSG_START || id > COMM_MSG_END)
        return "unknown message type";
    return kMessageNames[id - COMM_MSG_START];
}

uint8_t* AllocMessageBytes(uint32_t size) {
    if (static_cast<int32_t>(size) < 0)
        return nullptr;
    return new (std::nothrow) uint8_t[size];
}

MSG_QUEUE_MSG::MSG_QUEUE_MSG(eCOMM_MESSAGE_ID id, uint32_t dataLength, uint16_t versionMajor,
                             uint16_t versionMinor)
    : m_Signature(kMsgSignature),
      m_VersionMajor(versionMajor),
      m_VersionMinor(versionMinor),
      m_Marker(),
      m_DataLength(dataLength),
      m_MessageId(id),
      m_pData(nullptr) {
    memcpy_s(m_Marker, sizeof(m_Marker), kMsgMarker, sizeof(kMsgMarker));
}

MSG_QUEUE_MSG::MSG_QUEUE_MSG(const MSG_QUEUE_MSG& other)
    : m_Signature(other.m_Signature),
      m_VersionMajor(other.m_VersionMajor),
      m_VersionMinor(other.m_VersionMinor),
      m_Marker(),
      m_DataLength(other.m_DataLength),
      m_MessageId(other.m_MessageId),
      m_pData(nullptr) {
    memcpy_s(m_Marker, sizeof(m_Marker), other.m_Marker, sizeof(other.m_Marker));
    if (m_DataLength != 0 && other.m_pData != nullptr)
        CopyDataFrom(other.m_pData, m_DataLength);
}

MSG_QUEUE_MSG::~MSG_QUEUE_MSG() {
    ReleaseData();
}

void MSG_QUEUE_MSG::CopyFrom(const MSG_QUEUE_MSG& other) {
    if (&other == this)
        return;
    ReleaseData();
    m_Signature = other.m_Signature;
    m_VersionMajor = other.m_VersionMajor;
    m_VersionMinor = other.m_VersionMinor;
    memcpy_s(m_Marker, sizeof(m_Marker), other.m_Marker, sizeof(other.m_Marker));
    m_DataLength = other.m_DataLength;
    m_MessageId = other.m_MessageId;
    // A length without data (a packet that promised more than it held) is kept as it is.
    if (m_DataLength != 0 && other.m_pData != nullptr)
        CopyDataFrom(other.m_pData, m_DataLength);
}

uint32_t MSG_QUEUE_MSG::SetData(const void* data, uint32_t length) {
    if (data == nullptr || length == 0)
        return kCommInvalidArg;
    // The new array is made before the old one goes, so that a record may be given its own data.
    uint8_t* const bytes = AllocMessageBytes(length);
    if (bytes != nullptr)
        memcpy_s(bytes, length, data, length);
    ReleaseData();
    if (bytes == nullptr)
        return kCommOutOfMemory;
    m_pData = bytes;
    m_DataLength = length;
    return 0;
}

uint32_t MSG_QUEUE_MSG::AllocData(uint32_t size) {
    if (size == 0)
        return kCommInvalidArg;
    ReleaseData();
    m_pData = AllocMessageBytes(size);
    if (m_pData == nullptr)
        return kCommOutOfMemory;
    m_DataLength = size;
    return 0;
}

void MSG_QUEUE_MSG::ReleaseData() {
    delete[] m_pData;
    m_pData = nullptr;
    m_DataLength = 0;
}

void MSG_QUEUE_MSG::CopyDataFrom(const uint8_t* data, uint32_t length) {
    m_pData = AllocMessageBytes(length);
    if (m_pData == nullptr) {
        m_DataLength = 0;
        return;
    }
    memcpy_s(m_pData, length, data, length);
    m_DataLength = length;
}
