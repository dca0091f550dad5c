// The result classes behind the public result interfaces. Each is made on the notifying
// thread's stack, filled before the callback and destroyed after it; it copies everything it
// holds, so nothing points into message data. No locks: an object belongs to one thread.
#ifndef TIDEWAY_API_VANTORIARESULTOBJECTS_H_
#define TIDEWAY_API_VANTORIARESULTOBJECTS_H_

#include <stdint.h>

#include <string>
#include <unordered_map>
#include <vector>

#include "VantoriaRecords.h"
#include "VantoriaResults.h"

// Result codes of the API and its result objects.
constexpr int32_t kApiOk = 0;
constexpr int32_t kApiEmptyList = -1;
constexpr int32_t kApiBufferTooSmall = -3;
constexpr int32_t kApiMismatch = -4;
constexpr int32_t kApiNullPointer = -6;
constexpr int32_t kApiAlreadyRegistered = -9;
constexpr int32_t kApiRefused = -10;

// The text getters' buffer protocol: copies `text` with its NUL when `buffer` holds it (0,
// `length` unchanged), else sets `length` to the size needed and returns -3; -10 when the copy
// itself fails.
int32_t copyUTF8String(char* buffer, uint32_t& length, const std::string& text);

class CVantoriaStatus : public IVantoriaStatus {
  public:
    explicit CVantoriaStatus(uint64_t status) : m_Status(status) {}
    int32_t GetStatus(uint64_t& status) override;
    virtual ~CVantoriaStatus() {}

  private:
    uint64_t m_Status;
};

// Has no destructor slot: it is only ever destroyed where it was made, by its own name.
class CVantoriaInfoMessage : public IVantoriaInfoMessage {
  public:
    CVantoriaInfoMessage(uint64_t type, const std::string& text) : m_Text(text), m_Type(type) {}
    int32_t GetMessageType(uint64_t& type) override;
    int32_t GetMessageText(char* buffer, uint32_t& length) override;

  private:
    std::string m_Text;
    uint64_t m_Type;
};

class CVantoriaDCT : public IVantoriaDCT {
  public:
    // A settings event.
    CVantoriaDCT(uint32_t mode, uint32_t detectClosest, uint32_t gui)
        : m_Mode(mode), m_DetectClosest(detectClosest), m_GUI(gui) {}
    // An active-tower event.
    explicit CVantoriaDCT(const std::string& activeTower)
        : m_ActiveTower(activeTower), m_Mode(0), m_DetectClosest(0), m_GUI(0) {}
    int32_t ActiveTowerChanged(bool& changed) override;
    int32_t GetDetectClosest(uint32_t& value) override;
    int32_t GetMode(uint32_t& value) override;
    int32_t GetGUI(uint32_t& value) override;
    int32_t GetActivatedTower(char* buffer, uint32_t& length) override;
    virtual ~CVantoriaDCT() {}

  private:
    std::string m_ActiveTower;
    uint32_t m_Mode;
    uint32_t m_DetectClosest;
    uint32_t m_GUI;
};

class CVantoriaTowerList : public IVantoriaTowerList {
  public:
    CVantoriaTowerList() : m_ActiveIndex(-1) {}
    int32_t GetCount(uint64_t& count) override;
    int32_t GetAt(uint64_t index, char* buffer, uint32_t& length) override;
    int32_t GetActiveIndex(int64_t& index) override;
    virtual ~CVantoriaTowerList() {}

    void Append(const std::string& name) {
        m_FirstIndex.emplace(name, static_cast<int32_t>(m_Towers.size()));
        m_Towers.push_back(name);
    }
    // Makes the first entry so far equal to `name` (case-sensitive) the active one.
    bool CalculateActiveIndex(const std::string& name);

  private:
    std::vector<std::string> m_Towers;
    int32_t m_ActiveIndex;
    // First index of each name: finds the active tower without comparing against every entry,
    // which a long list full of "&" items would make quadratic.
    std::unordered_map<std::string, int32_t> m_FirstIndex;
};

class CVantoriaStatistics : public IVantoriaStatistics {
  public:
    // Zeroes the counters and, when `data` is not null, copies a whole record from it.
    explicit CVantoriaStatistics(const uint8_t* data);
    int32_t GetActiveTowerName(char* buffer, uint32_t& length) override;
    int32_t GetTimeServiceEnabled(char* buffer, uint32_t& length) override;
    int32_t GetTimeSinceLastTowerSelect(char* buffer, uint32_t& length) override;
    int32_t GetServiceStatus(uint64_t& value) override;
    int32_t GetReserved(uint64_t& value) override;
    int32_t GetLanState(uint64_t& detectOnLan, uint64_t& onLan) override;
    int32_t GetSelectionMode(uint64_t& value) override;
    int32_t ReservedGetter() override;
    int32_t GetConnectionCounts(uint64_t& filtered, uint64_t& bypassed, uint64_t& other) override;
    int32_t GetTotalCounts(uint64_t& filtered, uint64_t& bypassed, uint64_t& other) override;
    virtual ~CVantoriaStatistics() {}

  private:
    ServiceStatistics m_Data;
};

#endif  // TIDEWAY_API_VANTORIARESULTOBJECTS_H_
