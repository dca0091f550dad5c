#include "api/VantoriaResultObjects.h"

#include <string.h>

#include "common/Utils.h"
#include "common/VNTrace.h"

namespace {

// The text of a fixed field: up to its first NUL, and never past its end.
std::string FieldText(const char* field, size_t size) {
    return std::string(field, strnlen(field, size));
}

// Text up to its first NUL.
std::string UpToNul(const std::string& text) {
    return std::string(text.c_str());
}

// A text getter: copies, and writes `failureLine` for any result but 0 and -3.
int32_t GetText(char* buffer, uint32_t& length, const std::string& text, const char* failureLine) {
    const int32_t result = copyUTF8String(buffer, length, UpToNul(text));
    if (result != kApiOk && result != kApiBufferTooSmall)
        VNTRACE(TL_ERR, "%s", failureLine);
    return result;
}

}  // namespace

int32_t copyUTF8String(char* buffer, uint32_t& length, const std::string& text) {
    if (buffer != nullptr && text.size() + 1 <= length) {
        const int error = strcpy_s(buffer, length, text.c_str());
        if (error != 0) {
            VNTRACE(TL_ERR, "CVantoriaApi::copyUTF8String strcpy_s error: %d - %s", error,
                    strerror(error));
            return kApiRefused;
        }
        return kApiOk;
    }
    length = static_cast<uint32_t>(text.size() + 1);
    return kApiBufferTooSmall;
}

int32_t CVantoriaStatus::GetStatus(uint64_t& status) {
    status = m_Status;
    return kApiOk;
}

int32_t CVantoriaInfoMessage::GetMessageType(uint64_t& type) {
    type = m_Type;
    return kApiOk;
}

int32_t CVantoriaInfoMessage::GetMessageText(char* buffer, uint32_t& length) {
    return GetText(buffer, length, m_Text, "CVantoriaApi::GetMessageText failed");
}

int32_t CVantoriaDCT::ActiveTowerChanged(bool& changed) {
    VNTRACE(TL_API, "ActiveTowerChanged: %d, %d", m_ActiveTower.empty() ? 1 : 0,
            static_cast<int>(m_ActiveTower.size()));
    changed = !m_ActiveTower.empty();
    return kApiOk;
}

int32_t CVantoriaDCT::GetDetectClosest(uint32_t& value) {
    value = m_DetectClosest;
    return kApiOk;
}

int32_t CVantoriaDCT::GetMode(uint32_t& value) {
    value = m_Mode;
    return kApiOk;
}

int32_t CVantoriaDCT::GetGUI(uint32_t& value) {
    value = m_GUI;
    return kApiOk;
}

int32_t CVantoriaDCT::GetActivatedTower(char* buffer, uint32_t& length) {
    return GetText(buffer, length, m_ActiveTower, "CVantoriaApi::GetActivatedTower failed");
}

int32_t CVantoriaTowerList::GetCount(uint64_t& count) {
    count = m_Towers.size();
    return m_Towers.empty() ? kApiEmptyList : kApiOk;
}

int32_t CVantoriaTowerList::GetAt(uint64_t index, char* buffer, uint32_t& length) {
    // Past the end, and also any index of an empty list (for which GetCount already says -1).
    if (index >= m_Towers.size())
        return kApiMismatch;
    return GetText(buffer, length, m_Towers[index], "CVantoriaApi::GetAt failed");
}

int32_t CVantoriaTowerList::GetActiveIndex(int64_t& index) {
    index = m_ActiveIndex;
    return kApiOk;
}

bool CVantoriaTowerList::CalculateActiveIndex(const std::string& name) {
    if (g_pTrace != nullptr && g_pTrace->IsLevelEnabled(TL_API) != 0) {
        // Traced: each comparison gets its line.
        for (size_t i = 0; i < m_Towers.size(); ++i) {
            VNTRACE(TL_API, "CalculateActiveIndex; is '%s' == '%s' (index=%d)", name.c_str(),
                    m_Towers[i].c_str(), static_cast<int>(i));
            if (m_Towers[i] == name) {
                m_ActiveIndex = static_cast<int32_t>(i);
                VNTRACE(TL_API, "CalculateActiveIndex index is %d", m_ActiveIndex);
                return true;
            }
        }
        return false;
    }
    const auto found = m_FirstIndex.find(name);
    if (found == m_FirstIndex.end())
        return false;
    m_ActiveIndex = found->second;
    return true;
}

CVantoriaStatistics::CVantoriaStatistics(const uint8_t* data) {
    // The counters are zeroed; the texts behind them come from the record or stay empty.
    memset(&m_Data, 0, sizeof(m_Data));
    if (data != nullptr)
        memcpy(&m_Data, data, sizeof(m_Data));
}

int32_t CVantoriaStatistics::GetActiveTowerName(char* buffer, uint32_t& length) {
    return GetText(buffer, length, FieldText(m_Data.szActiveTower, sizeof(m_Data.szActiveTower)),
                   "CVantoriaApi::GetActiveTowerName failed");
}

int32_t CVantoriaStatistics::GetTimeServiceEnabled(char* buffer, uint32_t& length) {
    return GetText(buffer, length,
                   FieldText(m_Data.szServiceEnabled, sizeof(m_Data.szServiceEnabled)),
                   "CVantoriaApi::GetTimeServiceEnabled failed");
}

int32_t CVantoriaStatistics::GetTimeSinceLastTowerSelect(char* buffer, uint32_t& length) {
    return GetText(buffer, length,
                   FieldText(m_Data.szLastTowerSelect, sizeof(m_Data.szLastTowerSelect)),
                   "CVantoriaApi::GetTimeSinceLastTowerSelect failed");
}

int32_t CVantoriaStatistics::GetServiceStatus(uint64_t& value) {
    value = m_Data.nServiceStatus;
    return kApiOk;
}

int32_t CVantoriaStatistics::GetReserved(uint64_t& value) {
    value = m_Data.nReserved;
    return kApiOk;
}

int32_t CVantoriaStatistics::GetLanState(uint64_t& detectOnLan, uint64_t& onLan) {
    detectOnLan = m_Data.nDetectOnLan;
    onLan = m_Data.nOnLan;
    return kApiOk;
}

int32_t CVantoriaStatistics::GetSelectionMode(uint64_t& value) {
    value = m_Data.nSelectionMode;
    return kApiOk;
}

int32_t CVantoriaStatistics::ReservedGetter() {
    return kApiOk;
}

int32_t CVantoriaStatistics::GetConnectionCounts(uint64_t& filtered, uint64_t& bypassed,
                                                 uint64_t& other) {
    // Sums in 32 bits, widened afterwards.
    filtered = static_cast<uint32_t>(m_Data.activeFilteredA + m_Data.activeFilteredB);
    bypassed = static_cast<uint32_t>(m_Data.activeBypassedA + m_Data.activeBypassedB);
    other = static_cast<uint32_t>(m_Data.activeOtherA + m_Data.activeOtherB);
    return kApiOk;
}

int32_t CVantoriaStatistics::GetTotalCounts(uint64_t& filtered, uint64_t& bypassed,
                                            uint64_t& other) {
    filtered = m_Data.totalFilteredA + m_Data.totalFilteredB;
    bypassed = m_Data.totalBypassedA + m_Data.totalBypassedB;
    other = m_Data.totalOtherA + m_Data.totalOtherB;
    return kApiOk;
}
