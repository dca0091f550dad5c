// Reassembles length-prefixed frames (4-byte little-endian length, then the bytes) from a byte
// stream that arrives in arbitrary pieces. Socket-free, so that it can be driven by tests and the
// fuzzer exactly as the I/O threads drive it.
//
// Owned by one connection and used by its I/O thread only: no internal locking.
#ifndef TIDEWAY_IPC_FRAMEDECODER_H_
#define TIDEWAY_IPC_FRAMEDECODER_H_

#include <stddef.h>
#include <stdint.h>

#include <memory>

namespace ipc {

constexpr size_t kFrameHeaderSize = 4;

// Receives the frames that CFrameDecoder::Parse finds.
class IFrameSink {
  public:
    // One whole frame; `data` stays valid only during the call. Return false to stop parsing:
    // the frames after this one stay buffered for the next Parse.
    virtual bool OnFrame(uint8_t* data, uint32_t length) = 0;

  protected:
    ~IFrameSink() = default;
};

class CFrameDecoder {
  public:
    enum class Result {
        kNeedMore,  // every whole frame was delivered; more bytes are needed
        kStopped,   // the sink asked to stop
        kOversize,  // a header announced more than the maximum: the stream is unusable
    };

    // `maxFrame` is the largest payload accepted; `initialCapacity` the first buffer size (the
    // buffer grows up to one whole frame plus header and shrinks back when it empties).
    explicit CFrameDecoder(uint32_t maxFrame, size_t initialCapacity = 64 * 1024);

    CFrameDecoder(const CFrameDecoder&) = delete;
    CFrameDecoder& operator=(const CFrameDecoder&) = delete;

    // Space where the next read may put bytes; `*capacity` is set to its size, at least 1 unless
    // the buffer cannot grow (then null and 0). Follow with Commit.
    uint8_t* WritableData(size_t* capacity);
    // `n` bytes were written at WritableData (n <= the capacity given).
    void Commit(size_t n);

    // Raw access to the buffered, unparsed bytes (the handshake record precedes the frames).
    size_t Pending() const { return m_End - m_Begin; }
    const uint8_t* PendingData() const { return m_pBuf.get() + m_Begin; }
    void Consume(size_t n);

    // Delivers every whole frame buffered. After kOversize it delivers nothing any more.
    Result Parse(IFrameSink& sink);

    // Current size of the buffer; for tests.
    size_t BufferCapacity() const { return m_Capacity; }

  private:
    bool Reserve(size_t capacity);

    const uint32_t m_MaxFrame;
    const size_t m_InitialCapacity;
    const size_t m_MinFree;
    std::unique_ptr<uint8_t[]> m_pBuf;
    size_t m_Capacity = 0;
    size_t m_Begin = 0;  // first unparsed byte
    size_t m_End = 0;    // one past the last byte read
    bool m_bBroken = false;
};

}  // namespace ipc

#endif  // TIDEWAY_IPC_FRAMEDECODER_H_
