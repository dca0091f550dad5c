// The fixed records carried in the data of the agent's messages, laid out byte for byte as they
// travel: little-endian integers, no padding, texts NUL-terminated or NUL-padded in fixed fields.
// Public because an application fills a ProxyCredInfo for IVantoriaApi::SendProxyInfo.
#ifndef TIDEWAY_INCLUDE_VANTORIARECORDS_H_
#define TIDEWAY_INCLUDE_VANTORIARECORDS_H_

#include <stddef.h>
#include <stdint.h>

#pragma pack(push, 1)

// 1045 (response) and 1046 (update). nGUI is meaningful in responses only.
struct DCTSettings {
    uint32_t nMode;
    uint32_t nDetectClosest;
    uint32_t nGUI;
};

// 1049: the agent needs credentials for a proxy. Texts are NUL-terminated.
struct ProxyCredRequest {
    char szProxyHost[20];
    uint32_t nProxyPort;
    char szAuthType[10];
    char szRealm[70];
};

// 1050: the user's answer. Texts are NUL-padded; a full field has no terminator.
struct ProxyCredInfo {
    char szUser[100];
    char szPassword[200];
    char szReserved[100];  // all zero
};

// 1059: counters of two groups A and B; the client shows only their sums. The 64-bit triples
// put the "other" count first, the 32-bit triples last.
struct ServiceStatistics {
    uint32_t activeFilteredA;
    uint32_t activeBypassedA;
    uint32_t activeOtherA;
    uint32_t activeFilteredB;
    uint32_t activeBypassedB;
    uint32_t activeOtherB;
    uint64_t totalOtherA;
    uint64_t totalFilteredA;
    uint64_t totalBypassedA;
    uint64_t totalOtherB;
    uint64_t totalFilteredB;
    uint64_t totalBypassedB;
    uint32_t nDetectOnLan;
    uint32_t nOnLan;
    uint32_t nSelectionMode;
    uint32_t nServiceStatus;
    uint32_t nReserved;
    char szLastTowerSelect[100];
    char szServiceEnabled[100];
    char szActiveTower[255];
};

#pragma pack(pop)

static_assert(sizeof(DCTSettings) == 12, "DCTSettings is 12 bytes on the wire");
static_assert(offsetof(DCTSettings, nMode) == 0, "DCTSettings layout");
static_assert(offsetof(DCTSettings, nDetectClosest) == 4, "DCTSettings layout");
static_assert(offsetof(DCTSettings, nGUI) == 8, "DCTSettings layout");

static_assert(sizeof(ProxyCredRequest) == 104, "ProxyCredRequest is 104 bytes on the wire");
static_assert(offsetof(ProxyCredRequest, szProxyHost) == 0, "ProxyCredRequest layout");
static_assert(offsetof(ProxyCredRequest, nProxyPort) == 20, "ProxyCredRequest layout");
static_assert(offsetof(ProxyCredRequest, szAuthType) == 24, "ProxyCredRequest layout");
static_assert(offsetof(ProxyCredRequest, szRealm) == 34, "ProxyCredRequest layout");

static_assert(sizeof(ProxyCredInfo) == 400, "ProxyCredInfo is 400 bytes on the wire");
static_assert(offsetof(ProxyCredInfo, szUser) == 0, "ProxyCredInfo layout");
static_assert(offsetof(ProxyCredInfo, szPassword) == 100, "ProxyCredInfo layout");
static_assert(offsetof(ProxyCredInfo, szReserved) == 300, "ProxyCredInfo layout");

static_assert(sizeof(ServiceStatistics) == 547, "ServiceStatistics is 547 bytes on the wire");
static_assert(offsetof(ServiceStatistics, activeFilteredA) == 0, "ServiceStatistics layout");
static_assert(offsetof(ServiceStatistics, activeBypassedA) == 4, "ServiceStatistics layout");
static_assert(offsetof(ServiceStatistics, activeOtherA) == 8, "ServiceStatistics layout");
static_assert(offsetof(ServiceStatistics, activeFilteredB) == 12, "ServiceStatistics layout");
static_assert(offsetof(ServiceStatistics, activeBypassedB) == 16, "ServiceStatistics layout");
static_assert(offsetof(ServiceStatistics, activeOtherB) == 20, "ServiceStatistics layout");
static_assert(offsetof(ServiceStatistics, totalOtherA) == 24, "ServiceStatistics layout");
static_assert(offsetof(ServiceStatistics, totalFilteredA) == 32, "ServiceStatistics layout");
static_assert(offsetof(ServiceStatistics, totalBypassedA) == 40, "ServiceStatistics layout");
static_assert(offsetof(ServiceStatistics, totalOtherB) == 48, "ServiceStatistics layout");
static_assert(offsetof(ServiceStatistics, totalFilteredB) == 56, "ServiceStatistics layout");
static_assert(offsetof(ServiceStatistics, totalBypassedB) == 64, "ServiceStatistics layout");
static_assert(offsetof(ServiceStatistics, nDetectOnLan) == 72, "ServiceStatistics layout");
static_assert(offsetof(ServiceStatistics, nOnLan) == 76, "ServiceStatistics layout");
static_assert(offsetof(ServiceStatistics, nSelectionMode) == 80, "ServiceStatistics layout");
static_assert(offsetof(ServiceStatistics, nServiceStatus) == 84, "ServiceStatistics layout");
static_assert(offsetof(ServiceStatistics, nReserved) == 88, "ServiceStatistics layout");
static_assert(offsetof(ServiceStatistics, szLastTowerSelect) == 92, "ServiceStatistics layout");
static_assert(offsetof(ServiceStatistics, szServiceEnabled) == 192, "ServiceStatistics layout");
static_assert(offsetof(ServiceStatistics, szActiveTower) == 292, "ServiceStatistics layout");

#endif  // TIDEWAY_INCLUDE_VANTORIARECORDS_H_
