#include "FrameDecoder.h"

#include <string.h>

#include <algorithm>
#include <new>

namespace ipc {

namespace {

uint32_t ReadLE32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
           (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

}  // namespace

CFrameDecoder::CFrameDecoder(uint32_t maxFrame, size_t initialCapacity)
    : m_MaxFrame(maxFrame),
      m_InitialCapacity(std::max<size_t>(initialCapacity, 1)),
      m_MinFree(std::max<size_t>(m_InitialCapacity / 4, 1)) {}

bool CFrameDecoder::Reserve(size_t capacity) {
    const size_t pending = m_End - m_Begin;
    if (capacity < pending)
        return false;
    std::unique_ptr<uint8_t[]> fresh(new (std::nothrow) uint8_t[capacity]);
    if (!fresh)
        return false;
    if (pending > 0)
        memcpy(fresh.get(), m_pBuf.get() + m_Begin, pending);
    m_pBuf = std::move(fresh);
    m_Capacity = capacity;
    m_Begin = 0;
    m_End = pending;
    return true;
}

uint8_t* CFrameDecoder::WritableData(size_t* capacity) {
    *capacity = 0;
    if (m_bBroken)
        return nullptr;
    const size_t pending = m_End - m_Begin;
    if (pending == 0) {
        m_Begin = m_End = 0;
        // Back to the first size once a large frame has gone, so an idle connection stays small.
        if (m_Capacity != m_InitialCapacity && !Reserve(m_InitialCapacity) && m_Capacity == 0) {
            return nullptr;
        }
    }
    if (m_Capacity - m_End < m_MinFree && m_Begin > 0) {
        memmove(m_pBuf.get(), m_pBuf.get() + m_Begin, pending);
        m_Begin = 0;
        m_End = pending;
    }
    const size_t limit = std::max(m_InitialCapacity, kFrameHeaderSize + size_t{m_MaxFrame});
    if (m_Capacity - m_End < m_MinFree && m_Capacity < limit) {
        size_t want = m_Capacity * 2;
        if (pending >= kFrameHeaderSize) {
            // Room for the whole frame at once rather than several doublings.
            want = std::max(want, kFrameHeaderSize + size_t{ReadLE32(m_pBuf.get() + m_Begin)});
        }
        Reserve(std::min(want, limit));  // on failure, go on with what free space there is
    }
    *capacity = m_Capacity - m_End;
    return *capacity > 0 ? m_pBuf.get() + m_End : nullptr;
}

void CFrameDecoder::Commit(size_t n) {
    m_End += std::min(n, m_Capacity - m_End);
}

void CFrameDecoder::Consume(size_t n) {
    m_Begin += std::min(n, m_End - m_Begin);
    if (m_Begin == m_End)
        m_Begin = m_End = 0;
}

CFrameDecoder::Result CFrameDecoder::Parse(IFrameSink& sink) {
    if (m_bBroken)
        return Result::kOversize;
    while (m_End - m_Begin >= kFrameHeaderSize) {
        uint8_t* frame = m_pBuf.get() + m_Begin;
        const uint32_t length = ReadLE32(frame);
        if (length > m_MaxFrame) {
            m_bBroken = true;
            return Result::kOversize;
        }
        if (m_End - m_Begin - kFrameHeaderSize < length)
            break;
        // Consumed before delivery: the sink may stop us, and the frame must not come twice.
        m_Begin += kFrameHeaderSize + length;
        if (!sink.OnFrame(frame + kFrameHeaderSize, length))
            return Result::kStopped;
    }
    if (m_Begin == m_End)
        m_Begin = m_End = 0;
    return Result::kNeedMore;
}

}  // namespace ipc
