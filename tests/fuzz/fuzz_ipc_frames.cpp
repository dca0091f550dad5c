// Drives the IPC frame decoder with an arbitrary byte stream cut into arbitrary pieces, and
// checks every delivered frame against a one-pass reference decoding of the whole stream: same
// frames, same order, nothing partial, nothing after an oversize header, a bounded buffer.
//
// Input: [mode][count][count chunk sizes][stream...]
//   mode bit 0: a 64-byte frame limit (reaches the oversize path) instead of the real 1 MiB;
//   mode bits 1-3: the decoder's first buffer size; bits 4-7: stop the sink after every n-th
//   frame (0: never) and resume parsing, as a torn-down reader would not, to check that stopping
//   loses and repeats nothing.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <vector>

#include "FrameDecoder.h"
#include "ipc/IPCTypes.h"

namespace {

struct Span {
    size_t offset;
    uint32_t length;
};

uint32_t ReadLE32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
           (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

// The whole frames of `stream` in order; `*oversize` when a header announces more than `limit`.
std::vector<Span> ReferenceDecode(const uint8_t* stream, size_t n, uint32_t limit, bool* oversize) {
    std::vector<Span> frames;
    *oversize = false;
    size_t at = 0;
    while (n - at >= 4) {
        const uint32_t length = ReadLE32(stream + at);
        if (length > limit) {
            *oversize = true;
            break;
        }
        if (n - at - 4 < length)
            break;
        frames.push_back({at + 4, length});
        at += 4 + size_t{length};
    }
    return frames;
}

class CheckingSink final : public ipc::IFrameSink {
  public:
    CheckingSink(const uint8_t* stream, const std::vector<Span>& expected, unsigned stopEvery)
        : m_pStream(stream), m_Expected(expected), m_StopEvery(stopEvery) {}

    bool OnFrame(uint8_t* data, uint32_t length) override {
        if (m_Next >= m_Expected.size())
            abort();  // a frame that was never sent whole
        const Span& want = m_Expected[m_Next++];
        if (want.length != length ||
            (length > 0 && memcmp(data, m_pStream + want.offset, length) != 0)) {
            abort();  // wrong bytes, wrong length or wrong order
        }
        return m_StopEvery == 0 || m_Next % m_StopEvery != 0;
    }

    size_t Delivered() const { return m_Next; }

  private:
    const uint8_t* m_pStream;
    const std::vector<Span>& m_Expected;
    const unsigned m_StopEvery;
    size_t m_Next = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2)
        return 0;
    static const size_t kInitialSizes[8] = {1, 3, 4, 7, 16, 64, 4096, 65536};
    const uint8_t mode = data[0];
    const uint32_t limit = (mode & 1) ? 64 : kIPCMaxFrameLength;
    const size_t initial = kInitialSizes[(mode >> 1) & 7];
    const unsigned stopEvery = mode >> 4;
    const size_t chunkCount = std::min<size_t>(data[1] & 15, size - 2);
    const uint8_t* chunks = data + 2;
    const uint8_t* stream = chunks + chunkCount;
    const size_t streamSize = size - 2 - chunkCount;

    bool oversize = false;
    const std::vector<Span> expected = ReferenceDecode(stream, streamSize, limit, &oversize);

    ipc::CFrameDecoder decoder(limit, initial);
    CheckingSink sink(stream, expected, stopEvery);
    const size_t bufferLimit = std::max(initial, ipc::kFrameHeaderSize + size_t{limit});
    size_t at = 0;
    size_t piece = 0;
    ipc::CFrameDecoder::Result result = ipc::CFrameDecoder::Result::kNeedMore;
    while (at < streamSize && result != ipc::CFrameDecoder::Result::kOversize) {
        size_t capacity = 0;
        uint8_t* space = decoder.WritableData(&capacity);
        if (space == nullptr || capacity == 0)
            abort();  // a healthy decoder always takes bytes
        // Pieces of 1 to 256 bytes by the chunk table, or as large as the space when it is empty.
        const size_t want = chunkCount > 0 ? size_t{chunks[piece++ % chunkCount]} + 1 : capacity;
        const size_t n = std::min({want, capacity, streamSize - at});
        memcpy(space, stream + at, n);
        decoder.Commit(n);
        at += n;
        do {
            result = decoder.Parse(sink);
        } while (result == ipc::CFrameDecoder::Result::kStopped);
        if (decoder.BufferCapacity() > bufferLimit)
            abort();
    }
    if (sink.Delivered() != expected.size())
        abort();  // a whole frame went missing
    if (result == ipc::CFrameDecoder::Result::kOversize) {
        // The stream stays unusable: nothing more is parsed or read.
        size_t capacity = 0;
        if (decoder.Parse(sink) != ipc::CFrameDecoder::Result::kOversize ||
            decoder.WritableData(&capacity) != nullptr || sink.Delivered() != expected.size()) {
            abort();
        }
    } else if (decoder.Pending() == 0) {
        // Emptied: the buffer is back to its first size, whatever it grew to.
        size_t capacity = 0;
        if (decoder.WritableData(&capacity) == nullptr || decoder.BufferCapacity() != initial)
            abort();
    }
    if ((result == ipc::CFrameDecoder::Result::kOversize) != oversize)
        abort();
    return 0;
}
