// The record of every message between this module and the agent, and between the
// communicator's own threads: a fixed header (what goes on the wire) plus an owned data block.
//
// Ownership: each MSG_QUEUE_MSG owns its m_pData (array form) and releases it in its destructor.
// A record has no lock: it belongs to one thread at a time, and queues hand out deep copies so
// that no pointer into a record ever crosses a thread.
#ifndef TIDEWAY_COMM_MSGQUEUEMSG_H_
#define TIDEWAY_COMM_MSGQUEUEMSG_H_

#include <stddef.h>
#include <stdint.h>

#include "comm/StatusCodes.h"


// Message ids, consecutive from 1025. C: client to agent, A: agent to client, I: internal.
enum eCOMM_MESSAGE_ID : uint32_t {
    COMM_MSG_START = 1025,  // range marker, never sent
    COMM_MSG_START_SERVICE = 1026,
    COMM_MSG_STOP_SERVICE = 1027,
    COMM_MSG_SRVC_STARTED = 1028,
    COMM_MSG_SRVC_START_FAILED = 1029,
    COMM_MSG_SRVC_STOPPED = 1030,
    COMM_MSG_SRVC_EXITED = 1031,
    COMM_MSG_PEER_DC = 1032,
    COMM_MSG_DMN_CONNECT = 1033,
    COMM_MSG_DISCONNECT = 1034,
    COMM_MSG_HEARTBEAT = 1035,
    COMM_MSG_QUIT = 1036,
    COMM_MSG_ICON_APLUS_STATE = 1037,
    COMM_MSG_CONFIG_DATA = 1038,
    COMM_MSG_CONFIG_DATAUPDATED = 1039,
    COMM_MSG_TOWERS_REQUEST_INFO = 1040,
    COMM_MSG_TOWERS_RESPONSE_INFO = 1041,
    COMM_MSG_CHANGE_ACTIVE_TOWER = 1042,
    COMM_MSG_CHANGE_ACTIVE_TOWER_STATUS = 1043,
    COMM_MSG_DCT_SETTINGS_REQUEST = 1044,
    COMM_MSG_DCT_SETTINGS_RESPONSE = 1045,
    COMM_MSG_DCT_SETTINGS_UPDATE = 1046,
    COMM_MSG_DCT_SETTINGS_UPDATED = 1047,
    COMM_MSG_DCT_TOWER_ACTIVATED = 1048,
    COMM_MSG_PROXY_CRED_REQUEST = 1049,
    COMM_MSG_PROXY_CRED_RESPONSE = 1050,
    COMM_MSG_PROXY_STATE_QUERY = 1051,
    COMM_MSG_PROXY_CANCEL_REQUEST = 1052,
    COMM_MSG_CLIENT_TYPE_DAEMON = 1053,
    COMM_MSG_CLIENT_TYPE_MSI = 1054,
    COMM_MSG_CLIENT_TYPE_CMD_ENABLE_SVC = 1055,
    COMM_MSG_CLIENT_TYPE_CMD_DISABLE_SVC = 1056,
    COMM_MSG_SERVICE_STATS_START = 1057,
    COMM_MSG_SERVICE_STATS_START_RESULT = 1058,
    COMM_MSG_SERVICE_STATS = 1059,
    COMM_MSG_SERVICE_STATS_STOP = 1060,
    COMM_MSG_INFO_MESSAGE = 1061,
    COMM_MSG_CHANGE_DBGLEVEL = 1062,
    COMM_MSG_CLIENT_TYPE_CMD_CHANGE_DBGLEVEL = 1063,
    COMM_MSG_NONE = 1064,  // queues hand it out as a blank
    COMM_MSG_END = 1065,   // range marker, never sent
};

// The id's name from the table above; "unknown message type" below 1025 or above 1065.
// For log lines only.
const char* GetMessageName(uint32_t id);

constexpr uint32_t kMsgSignature = 0xDEADBEEF;
constexpr char kMsgMarker[8] = {'S', 'T', 'A', 'R', 'T', 'M', 'S', 'G'};  // not terminated

class MSG_QUEUE_MSG {
  public:
    // Sets signature and marker, stores the arguments, leaves m_pData null. Every message of
    // this module is made with (id, 0, 1, 0).
    MSG_QUEUE_MSG(eCOMM_MESSAGE_ID id, uint32_t dataLength, uint16_t versionMajor,
                  uint16_t versionMinor);
    // Copies the header and, when the source has data and a length, an own copy of the bytes.
    // Never throws: a failed allocation leaves m_DataLength 0 and m_pData null.
    MSG_QUEUE_MSG(const MSG_QUEUE_MSG& other);
    MSG_QUEUE_MSG& operator=(const MSG_QUEUE_MSG&) = delete;
    virtual ~MSG_QUEUE_MSG();

    // Same as the copy constructor onto an existing record; frees the old data first. A copy of
    // itself does nothing.
    void CopyFrom(const MSG_QUEUE_MSG& other);

    // Replaces the data with a copy of `length` bytes. kCommInvalidArg for null data or a length
    // of 0 (nothing changes); kCommOutOfMemory when the array cannot be had (the old data is gone
    // and m_DataLength is 0); else 0.
    uint32_t SetData(const void* data, uint32_t length);
    // Replaces the data with an uninitialised array of `size` bytes for a receiver to fill; same
    // results as SetData.
    uint32_t AllocData(uint32_t size);

    // True when the record holds `size` readable bytes of data: consumers test this rather than
    // m_DataLength alone, which a received packet may promise without delivering.
    bool HasData(uint32_t size) const { return m_pData != nullptr && m_DataLength >= size; }

    // The header: the first five fields are what goes on the wire.
    uint32_t m_Signature;
    uint16_t m_VersionMajor;
    uint16_t m_VersionMinor;
    char m_Marker[8];
    uint32_t m_DataLength;
    eCOMM_MESSAGE_ID m_MessageId;
    uint8_t* m_pData;

  private:
    void ReleaseData();
    // Makes m_pData an own copy of `length` bytes from `data`; on failure no data, length 0.
    void CopyDataFrom(const uint8_t* data, uint32_t length);
};

// Non-throwing array allocation that refuses, without asking the allocator, any size that is
// negative as a signed 32-bit number. Null on failure.
uint8_t* AllocMessageBytes(uint32_t size);

// Data records carried by some messages, byte for byte as the agent lays them out.
// The data records (DCTSettings, ProxyCredRequest, ProxyCredInfo, ServiceStatistics) are
// public: an application fills ProxyCredInfo.
#include "VantoriaRecords.h"

#endif  // TIDEWAY_COMM_MSGQUEUEMSG_H_
