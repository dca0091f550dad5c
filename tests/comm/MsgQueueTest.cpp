#include <string.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "ApiTrace.h"
#include "Latch.h"
#include "SyslogCapture.h"
#include "comm/MsgQueue.h"

namespace {

using comm_test::ElapsedMs;
using Clock = std::chrono::steady_clock;

// A message whose data is one number, so that order and copies can be checked.
MSG_QUEUE_MSG StampedMessage(uint32_t stamp) {
    MSG_QUEUE_MSG message(COMM_MSG_SERVICE_STATS, 0, 1, 0);
    message.SetData(&stamp, sizeof(stamp));
    return message;
}

uint32_t ReadStamp(const MSG_QUEUE_MSG* message) {
    uint32_t stamp = 0xFFFFFFFF;
    if (message != nullptr && message->HasData(sizeof(stamp)))
        memcpy(&stamp, message->m_pData, sizeof(stamp));
    return stamp;
}

TEST(MsgQueueTest, MessagesAreDeepCopiesInOrderAStaleSignalGivesOneNullAndClearReleasesThem) {
    CMsgQueue queue("VN$COMMUNICATOR");
    EXPECT_FALSE(queue.PutMessage(nullptr));
    {
        // The writer reuses and then frees its record; the queue's copies are untouched.
        MSG_QUEUE_MSG message = StampedMessage(10);
        ASSERT_TRUE(queue.PutMessage(&message));
        const uint32_t next = 11;
        ASSERT_EQ(message.SetData(&next, sizeof(next)), 0u);
        ASSERT_TRUE(queue.PutMessage(&message));
    }
    MSG_QUEUE_MSG bare(COMM_MSG_TOWERS_REQUEST_INFO, 0, 1, 0);
    ASSERT_TRUE(queue.PutMessage(&bare));
    EXPECT_EQ(queue.GetCount(), 3u);
    EXPECT_EQ(ReadStamp(queue.GetMessage(false, 0).get()), 10u);
    EXPECT_EQ(ReadStamp(queue.PopMessage(nullptr).get()), 11u);
    std::unique_ptr<MSG_QUEUE_MSG> third = queue.GetMessage(true, 200);
    ASSERT_NE(third, nullptr);
    EXPECT_EQ(third->m_MessageId, COMM_MSG_TOWERS_REQUEST_INFO);
    EXPECT_EQ(third->m_pData, nullptr);
    EXPECT_EQ(queue.PopMessage(nullptr), nullptr);
    // Those reads left the event set: the next waiting read finds nothing at once, the one after
    // waits its time.
    Clock::time_point start = Clock::now();
    EXPECT_EQ(queue.GetMessage(true, 200), nullptr);
    EXPECT_LT(ElapsedMs(start), 150);
    start = Clock::now();
    EXPECT_EQ(queue.GetMessage(true, 200), nullptr);
    EXPECT_GE(ElapsedMs(start), 150);
    EXPECT_LE(ElapsedMs(start), 1500);

    // Leftovers are released by Clear and by destruction (leaks show in the sanitizer build).
    for (uint32_t i = 0; i < 3; ++i) {
        MSG_QUEUE_MSG message = StampedMessage(i);
        ASSERT_TRUE(queue.PutMessage(&message));
    }
    queue.Clear();
    EXPECT_EQ(queue.GetMessage(false, 0), nullptr);
    ASSERT_TRUE(queue.PutMessage(&bare));  // left for the destructor
}

TEST(MsgQueueTest, BlockedReaderGetsEachMessageHandedOver) {
    // The message lands before, during or after the reader's wait; a lost one waits 10 seconds.
    constexpr uint32_t kRounds = 300;
    CMsgQueue queue("VN$COMM$SENDER");
    comm_test::Barrier start(2);
    std::thread reader([&] {
        for (uint32_t round = 0; round < kRounds; ++round) {
            start.wait();
            std::unique_ptr<MSG_QUEUE_MSG> message = queue.GetMessage(true, 10000);
            if (message == nullptr)  // a stale signal of the round before may give one null
                message = queue.GetMessage(true, 10000);
            EXPECT_EQ(ReadStamp(message.get()), round);
            start.wait();
        }
    });
    for (uint32_t round = 0; round < kRounds; ++round) {
        start.wait();
        MSG_QUEUE_MSG message = StampedMessage(round);
        EXPECT_TRUE(queue.PutMessage(&message));
        start.wait();
    }
    reader.join();
}

TEST(MsgQueueTest, SeveralWritersKeepTheirOrderAndNothingIsLostOrDoubled) {
    constexpr uint32_t kWriters = 4, kPerWriter = 2000, kReaders = 2, kAll = kWriters * kPerWriter;
    CMsgQueue queue("VN$COMMUNICATOR");
    comm_test::Barrier go(kReaders + kWriters);
    std::atomic<uint32_t> taken{0};
    std::vector<std::vector<uint32_t>> seen(kReaders);
    std::vector<std::thread> threads;
    for (uint32_t t = 0; t < kReaders + kWriters; ++t) {
        threads.emplace_back([&, t] {
            go.wait();
            while (t < kReaders && taken.load() < kAll) {
                if (std::unique_ptr<MSG_QUEUE_MSG> message = queue.GetMessage(true, 200)) {
                    ++taken;
                    seen[t].push_back(ReadStamp(message.get()));
                }
            }
            for (uint32_t i = 0; t >= kReaders && i < kPerWriter; ++i) {
                MSG_QUEUE_MSG message = StampedMessage((t - kReaders) * kPerWriter + i);
                EXPECT_TRUE(queue.PutMessage(&message));
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    // Each reader sees each writer's messages in order; together they see each one once.
    std::vector<int> count(kAll, 0);
    for (const std::vector<uint32_t>& list : seen) {
        std::vector<int64_t> last(kWriters, -1);
        for (uint32_t stamp : list) {
            ASSERT_LT(stamp, kAll);
            ASSERT_GT(static_cast<int64_t>(stamp), std::exchange(last[stamp / kPerWriter], stamp));
            ++count[stamp];
        }
    }
    EXPECT_EQ(std::count(count.begin(), count.end(), 1), kAll);
}

TEST(MsgQueueTest, CopyThatCannotBeMadeIsRefusedWithItsLine) {
    ApiTraceOn trace;
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
