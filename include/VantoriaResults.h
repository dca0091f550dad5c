// The read-only result objects an application receives with each notification. Each getter
// returns a status (0 success) and gives its value through an out-argument; text getters use
// one buffer protocol: a null or too small buffer returns -3 and sets `length` to the size
// needed, terminator included; a second call with a buffer of that size returns 0.
//
// The objects live on the notifying thread's stack for the length of the callback only: read
// what you need before returning. The slot order of every interface is part of the binary
// interface.
#ifndef TIDEWAY_INCLUDE_VANTORIARESULTS_H_
#define TIDEWAY_INCLUDE_VANTORIARESULTS_H_

#include <stdint.h>

// A status code of the connection or of a request (see the status table of the host's guide).
class IVantoriaStatus {
  public:
    virtual int32_t GetStatus(uint64_t& status) = 0;

  protected:
    ~IVantoriaStatus() {}
};

// A message from the agent meant for the user: a numeric type and a text.
class IVantoriaInfoMessage {
  public:
    virtual int32_t GetMessageType(uint64_t& type) = 0;
    virtual int32_t GetMessageText(char* buffer, uint32_t& length) = 0;

  protected:
    ~IVantoriaInfoMessage() {}
};

// Closest-tower settings, or (when ActiveTowerChanged gives true) the tower the agent has just
// activated, in which case the numeric getters have no meaning.
class IVantoriaDCT {
  public:
    virtual int32_t ActiveTowerChanged(bool& changed) = 0;
    virtual int32_t GetDetectClosest(uint32_t& value) = 0;
    virtual int32_t GetMode(uint32_t& value) = 0;
    virtual int32_t GetGUI(uint32_t& value) = 0;
    virtual int32_t GetActivatedTower(char* buffer, uint32_t& length) = 0;

  protected:
    ~IVantoriaDCT() {}
};

// The agent's towers and which of them is active (-1: none).
class IVantoriaTowerList {
  public:
    // 0 with the count, or -1 with a count of 0 for an empty list (then do not call GetAt).
    virtual int32_t GetCount(uint64_t& count) = 0;
    // -4 for an index past the end.
    virtual int32_t GetAt(uint64_t index, char* buffer, uint32_t& length) = 0;
    virtual int32_t GetActiveIndex(int64_t& index) = 0;

  protected:
    ~IVantoriaTowerList() {}
};

// One statistics report of the agent. Counts are the sums of the agent's two groups.
class IVantoriaStatistics {
  public:
    virtual int32_t GetActiveTowerName(char* buffer, uint32_t& length) = 0;
    virtual int32_t GetTimeServiceEnabled(char* buffer, uint32_t& length) = 0;
    virtual int32_t GetTimeSinceLastTowerSelect(char* buffer, uint32_t& length) = 0;
    virtual int32_t GetServiceStatus(uint64_t& value) = 0;
    virtual int32_t GetReserved(uint64_t& value) = 0;
    virtual int32_t GetLanState(uint64_t& detectOnLan, uint64_t& onLan) = 0;
    virtual int32_t GetSelectionMode(uint64_t& value) = 0;
    // Kept for the slot order: does nothing and returns 0.
    virtual int32_t ReservedGetter() = 0;
    // Open connections: filtered, bypassed, other (sums taken in 32 bits).
    virtual int32_t GetConnectionCounts(uint64_t& filtered, uint64_t& bypassed,
                                        uint64_t& other) = 0;
    // Connections since the service started: filtered, bypassed, other.
    virtual int32_t GetTotalCounts(uint64_t& filtered, uint64_t& bypassed, uint64_t& other) = 0;

  protected:
    ~IVantoriaStatistics() {}
};

#endif  // TIDEWAY_INCLUDE_VANTORIARESULTS_H_
