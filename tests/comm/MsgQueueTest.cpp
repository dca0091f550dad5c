#include <string.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Latch.h"
#include "SyslogCapture.h"
#include "comm/MsgQueue.h"
#include "common/VNTrace.h"

namespace {

using comm_test::ElapsedMs;
using Clock = std::chrono::steady_clock;

class MsgQueueTest : public ::testing::Test {
  protected:
    void SetUp() override {
        g_Trace.InitTrace(kTraceIdent, "/tmp", "TidewayAPI.log", 2, kDefaultTraceMask, false, true,
                          10, 10000, 100, 1, 0, 60);
        syslog_capture::Clear();
    }
};

// A message whose data names its writer and its sequence number.
struct Stamp {
    uint32_t writer;
    uint32_t sequence;
};

MSG_QUEUE_MSG StampedMessage(uint32_t writer, uint32_t sequence) {
    MSG_QUEUE_MSG message(COMM_MSG_SERVICE_STATS, 0, 1, 0);
    const Stamp stamp{writer, sequence};
    message.SetData(&stamp, sizeof(stamp));
    return message;
}

Stamp ReadStamp(const MSG_QUEUE_MSG& message) {
    Stamp stamp{0xFFFFFFFF, 0xFFFFFFFF};
    if (message.HasData(sizeof(stamp)))
        memcpy(&stamp, message.m_pData, sizeof(stamp));
    return stamp;
}

TEST_F(MsgQueueTest, MessagesAreDeepCopiesInAndOutInOrderAndClearReleasesThem) {
    CMsgQueue queue("VN$COMMUNICATOR");
    EXPECT_FALSE(queue.PutMessage(nullptr));
    {
        MSG_QUEUE_MSG message = StampedMessage(1, 0);
        ASSERT_TRUE(queue.PutMessage(&message));
        // The writer reuses and then frees its record; the queue's copies are untouched.
        const Stamp next{1, 1};
        ASSERT_EQ(message.SetData(&next, sizeof(next)), 0u);
        ASSERT_TRUE(queue.PutMessage(&message));
    }
    MSG_QUEUE_MSG bare(COMM_MSG_TOWERS_REQUEST_INFO, 0, 1, 0);
    ASSERT_TRUE(queue.PutMessage(&bare));
    EXPECT_EQ(queue.GetCount(), 3u);
    std::unique_ptr<MSG_QUEUE_MSG> first = queue.GetMessage(false, 0);
    std::unique_ptr<MSG_QUEUE_MSG> second = queue.PopMessage(nullptr);
    std::unique_ptr<MSG_QUEUE_MSG> third = queue.GetMessage(true, 200);
    ASSERT_TRUE(first && second && third);
    EXPECT_EQ(ReadStamp(*first).sequence, 0u);
    EXPECT_EQ(ReadStamp(*second).sequence, 1u);
    EXPECT_EQ(third->m_MessageId, COMM_MSG_TOWERS_REQUEST_INFO);
    EXPECT_EQ(third->m_pData, nullptr);
    EXPECT_EQ(queue.PopMessage(nullptr), nullptr);

    // Leftovers are released by Clear and by destruction (leaks show in the sanitizer build).
    for (uint32_t i = 0; i < 3; ++i) {
        MSG_QUEUE_MSG message = StampedMessage(2, i);
        ASSERT_TRUE(queue.PutMessage(&message));
    }
    queue.Clear();
    EXPECT_EQ(queue.GetMessage(false, 0), nullptr);
    ASSERT_TRUE(queue.PutMessage(&bare));  // left for the destructor
}

TEST_F(MsgQueueTest, ReadAfterAStaleSignalReturnsNullAtOnceThenWaits) {
    CMsgQueue queue("VN$COMM$RECEIVER");
    MSG_QUEUE_MSG message(COMM_MSG_SRVC_STARTED, 0, 1, 0);
    ASSERT_TRUE(queue.PutMessage(&message));
    Clock::time_point start = Clock::now();
    ASSERT_NE(queue.GetMessage(true, 200), nullptr);
    EXPECT_LT(ElapsedMs(start), 150);
    // A read without waiting leaves the event set: the next waiting read finds nothing at once.
    EXPECT_EQ(queue.GetMessage(false, 0), nullptr);
    start = Clock::now();
    EXPECT_EQ(queue.GetMessage(true, 200), nullptr);
    EXPECT_LT(ElapsedMs(start), 150);
    start = Clock::now();
    EXPECT_EQ(queue.GetMessage(true, 200), nullptr);
    const long elapsed = ElapsedMs(start);
    EXPECT_GE(elapsed, 150);
    EXPECT_LE(elapsed, 1500);
}

TEST_F(MsgQueueTest, BlockedReaderGetsEachMessageHandedOver) {
    // The message lands before, during or after the reader's wait; a lost one waits 10 seconds.
    constexpr int kRounds = 300;
    CMsgQueue queue("VN$COMM$SENDER");
    comm_test::Barrier start(2);
    std::thread reader([&] {
        for (int round = 0; round < kRounds; ++round) {
            start.ArriveAndWait();
            std::unique_ptr<MSG_QUEUE_MSG> message = queue.GetMessage(true, 10000);
            if (message == nullptr)  // a stale signal of the round before may give one null
                message = queue.GetMessage(true, 10000);
            EXPECT_EQ(message ? static_cast<int>(ReadStamp(*message).sequence) : -1, round);
            start.ArriveAndWait();
        }
    });
    for (int round = 0; round < kRounds; ++round) {
        start.ArriveAndWait();
        MSG_QUEUE_MSG message = StampedMessage(0, static_cast<uint32_t>(round));
        EXPECT_TRUE(queue.PutMessage(&message));
        start.ArriveAndWait();
    }
    reader.join();
}

TEST_F(MsgQueueTest, SeveralWritersKeepTheirOrderAndNothingIsLostOrDoubled) {
    constexpr uint32_t kWriters = 4, kPerWriter = 2000, kReaders = 2;
    CMsgQueue queue("VN$COMMUNICATOR");
    comm_test::Barrier go(kReaders + kWriters);
    std::atomic<uint32_t> taken{0};
    std::vector<std::vector<Stamp>> seen(kReaders);
    std::vector<std::thread> threads;
    for (uint32_t r = 0; r < kReaders; ++r) {
        threads.emplace_back([&, r] {
            go.ArriveAndWait();
            while (taken.load() < kWriters * kPerWriter) {
                if (std::unique_ptr<MSG_QUEUE_MSG> message = queue.GetMessage(true, 200)) {
                    ++taken;
                    seen[r].push_back(ReadStamp(*message));
                }
            }
        });
    }
    for (uint32_t w = 0; w < kWriters; ++w) {
        threads.emplace_back([&, w] {
            go.ArriveAndWait();
            for (uint32_t i = 0; i < kPerWriter; ++i) {
                MSG_QUEUE_MSG message = StampedMessage(w, i);
                EXPECT_TRUE(queue.PutMessage(&message));
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    // Each reader sees each writer's messages in order; together they see each one once.
    std::vector<int> count(kWriters * kPerWriter, 0);
    for (const std::vector<Stamp>& list : seen) {
        std::vector<int64_t> last(kWriters, -1);
        for (const Stamp& stamp : list) {
            ASSERT_TRUE(stamp.writer < kWriters && stamp.sequence < kPerWriter);
            ASSERT_GT(static_cast<int64_t>(stamp.sequence), last[stamp.writer]);
            last[stamp.writer] = stamp.sequence;
            ++count[stamp.writer * kPerWriter + stamp.sequence];
        }
    }
    EXPECT_EQ(std::count(count.begin(), count.end(), 1), kWriters * kPerWriter);
}

TEST_F(MsgQueueTest, CopyThatCannotBeMadeIsRefusedWithItsLine) {
    // A record claiming more data than can be allocated is refused, not queued without data.
    CMsgQueue queue("VN$COMM$SENDER");
    MSG_QUEUE_MSG message(COMM_MSG_CONFIG_DATA, 0, 1, 0);
    ASSERT_EQ(message.SetData("abcd", 4), 0u);
    message.m_DataLength = 0x80000000u;
    EXPECT_FALSE(queue.PutMessage(&message));
    message.m_DataLength = 4;
    EXPECT_EQ(
        syslog_capture::Texts(),
        std::vector<std::string>{"MQ : Failed to allocate memory, System OUT OF MEMORY!!!\n"});
    EXPECT_EQ(queue.GetMessage(false, 0), nullptr);
}

}  // namespace
