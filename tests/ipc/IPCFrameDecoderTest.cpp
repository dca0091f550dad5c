#include "FrameDecoder.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "IPCTestSupport.h"

namespace {

using Result = ipc::CFrameDecoder::Result;

class CollectingSink final : public ipc::IFrameSink {
  public:
    bool OnFrame(uint8_t* data, uint32_t length) override {
        frames.emplace_back(reinterpret_cast<const char*>(data), length);
        return stopAfter == 0 || frames.size() != stopAfter;
    }
    std::vector<std::string> frames;
    size_t stopAfter = 0;
};

Result FeedString(ipc::CFrameDecoder& decoder, const std::string& bytes, ipc::IFrameSink& sink) {
    return decoder.Feed(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size(), sink);
}

TEST(IPCFrameDecoder, ReassemblesAnyChunkingAndShrinksBackWhenEmpty) {
    std::vector<std::string> sent;
    std::string stream;
    for (size_t size : {0u, 1u, 24u, 600u, 70000u, 3u}) {
        sent.push_back(ipc_test::Payload(size, static_cast<uint32_t>(size)));
        stream += ipc_test::Frame(sent.back());
    }
    for (size_t piece : {size_t{1}, size_t{3}, size_t{4097}, stream.size()}) {
        ipc::CFrameDecoder decoder(kIPCMaxFrameLength, 16);
        CollectingSink sink;
        for (size_t at = 0; at < stream.size(); at += piece) {
            ASSERT_EQ(FeedString(decoder, stream.substr(at, piece), sink), Result::kNeedMore);
        }
        EXPECT_EQ(sink.frames, sent) << "pieces of " << piece;
        EXPECT_EQ(decoder.Pending(), 0u);
        size_t capacity = 0;
        ASSERT_NE(decoder.WritableData(&capacity), nullptr);
        EXPECT_EQ(decoder.BufferCapacity(), 16u);  // the 70000-byte buffer was let go
    }
}

TEST(IPCFrameDecoder, StopKeepsTheRestAndOversizeEndsTheStream) {
    const std::string three = ipc_test::Frame("a") + ipc_test::Frame("bb") + ipc_test::Frame("c");
    ipc::CFrameDecoder decoder(kIPCMaxFrameLength);
    CollectingSink sink;
    sink.stopAfter = 2;
    EXPECT_EQ(FeedString(decoder, three, sink), Result::kStopped);
    EXPECT_EQ(sink.frames, (std::vector<std::string>{"a", "bb"}));
    sink.stopAfter = 0;
    EXPECT_EQ(decoder.Parse(sink), Result::kNeedMore);
    EXPECT_EQ(sink.frames, (std::vector<std::string>{"a", "bb", "c"}));

    // The limit itself passes; one byte more ends the stream, also for what follows it.
    ipc::CFrameDecoder limited(8);
    CollectingSink limitedSink;
    EXPECT_EQ(FeedString(
                  limited,
                  ipc_test::Frame("12345678") + ipc_test::Frame("123456789") + ipc_test::Frame("x"),
                  limitedSink),
              Result::kOversize);
    EXPECT_EQ(limitedSink.frames, std::vector<std::string>{"12345678"});
    EXPECT_EQ(limited.Parse(limitedSink), Result::kOversize);
    size_t capacity = 1;
    EXPECT_EQ(limited.WritableData(&capacity), nullptr);
    EXPECT_EQ(capacity, 0u);
    EXPECT_EQ(limitedSink.frames.size(), 1u);
}

}  // namespace
