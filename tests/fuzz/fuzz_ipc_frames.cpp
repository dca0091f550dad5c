// The IPC frame decoder fed a byte stream in arbitrary pieces, checked against a reference
// decoding. Input: [mode][count][count chunk sizes][stream]; mode bit 0: a 64-byte frame limit,
// bits 1-3: the first buffer size, bits 4-7: the sink stops after every n-th frame (0: never).
#include <functional>

#include "FrameDecoder.h"
#include "ipc/IPCTypes.h"

#include "FuzzSupport.h"

using Result = ipc::CFrameDecoder::Result;

struct Sink final : ipc::IFrameSink {
    std::function<bool(const uint8_t*, uint32_t)> check;
    bool OnFrame(uint8_t* data, uint32_t length) override { return check(data, length); }
};

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2)
        return 0;
    static const size_t kInitialSizes[8] = {1, 3, 4, 7, 16, 64, 4096, 65536};
    const uint32_t limit = (data[0] & 1) ? 64 : kIPCMaxFrameLength;
    const size_t initial = kInitialSizes[(data[0] >> 1) & 7];
    const size_t chunkCount = std::min<size_t>(data[1] & 15, size - 2);
    const uint8_t* chunks = data + 2;
    const uint8_t* stream = chunks + chunkCount;
    const size_t streamSize = size - 2 - chunkCount;

    // Reference: each whole frame's offset and length in order; whether a header is oversize.
    std::vector<std::pair<size_t, uint32_t>> expected;
    bool oversize = false;
    for (size_t at = 0; streamSize - at >= 4;) {
        const uint32_t length = ReadLE32(stream + at);
        if ((oversize = length > limit) || streamSize - at - 4 < length)
            break;
        expected.push_back({at + 4, length});
        at += 4 + size_t{length};
    }

    // Aborts on a frame not sent whole, or with wrong bytes, length or order; stops as asked.
    size_t next = 0;
    Sink sink;
    sink.check = [&](const uint8_t* frame, uint32_t length) {
        FUZZ_CHECK(next < expected.size() && expected[next].second == length &&
                   (!length || !memcmp(frame, stream + expected[next].first, length)));
        ++next;
        return (data[0] >> 4) == 0 || next % (data[0] >> 4) != 0;
    };
    ipc::CFrameDecoder decoder(limit, initial);
    size_t capacity = 0;
    Result result = Result::kNeedMore;
    for (size_t at = 0, piece = 0; at < streamSize && result != Result::kOversize;) {
        uint8_t* space = decoder.WritableData(&capacity);
        FUZZ_CHECK(space != nullptr && capacity > 0);  // a healthy decoder always takes bytes
        // Pieces of 1 to 256 bytes by the chunk table, or as large as the space without one.
        const size_t want = chunkCount > 0 ? size_t{chunks[piece++ % chunkCount]} + 1 : capacity;
        const size_t n = std::min({want, capacity, streamSize - at});
        memcpy(space, stream + at, n);
        decoder.Commit(n);
        at += n;
        while ((result = decoder.Parse(sink)) == Result::kStopped) {
        }
        FUZZ_CHECK(decoder.BufferCapacity() <= std::max(initial, ipc::kFrameHeaderSize + limit));
    }
    FUZZ_CHECK(next == expected.size() && (result == Result::kOversize) == oversize);
    // After an oversize header the stream stays unusable: nothing more is parsed or read.
    FUZZ_CHECK(result != Result::kOversize ||
               (decoder.Parse(sink) == Result::kOversize &&
                decoder.WritableData(&capacity) == nullptr && next == expected.size()));
    // Emptied, the buffer is back to its first size, whatever it grew to.
    FUZZ_CHECK(result == Result::kOversize || decoder.Pending() != 0 ||
               (decoder.WritableData(&capacity) != nullptr && decoder.BufferCapacity() == initial));
    return 0;
}
