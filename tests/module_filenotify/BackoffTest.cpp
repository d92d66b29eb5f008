#include <gtest/gtest.h>
#include <kernel/ReadBackoff.h>

#include "NotifyFixture.h"

namespace test {

using Engine::FileNotify::ReadBackoff;

constexpr std::uint32_t kAmple = 1048576;

class Backoff : public ::testing::Test {
  protected:
    /// The pause after a read of that many records.
    std::chrono::nanoseconds Pause(std::size_t records, bool emptied = true) {
        backoff.OnRead(records, emptied, now);
        return backoff.IsPaused(now) ? backoff.Until() - now : 0ns;
    }

    ReadBackoff backoff;
    ReadBackoff::Time now{1h};
};

TEST_F(Backoff, LoneEventsAndTheBeginningOfABurst_CauseNoPause) {
    backoff.SetQueueLimit(kAmple);
    for (int i = 0; i < 1000; ++i, now += 20us) EXPECT_EQ(Pause(1), 0ns);
    now += ReadBackoff::kWindow;
    EXPECT_EQ(Pause(ReadBackoff::kStormRecords - 1), 0ns);
    EXPECT_GT(Pause(1), 0ns);
}

TEST_F(Backoff, Storm_PausesGrowToTheBoundAndEndWithIt) {
    backoff.SetQueueLimit(kAmple);
    std::vector<std::chrono::nanoseconds> pauses;
    for (int i = 0; i < 4; ++i) {
        pauses.push_back(Pause(5000));
        now += pauses.back();
        EXPECT_FALSE(backoff.IsPaused(now));
        EXPECT_TRUE(backoff.IsStorm());
    }
    EXPECT_EQ(pauses, (std::vector<std::chrono::nanoseconds>{1ms, 2ms, 4ms, 4ms}));
    EXPECT_EQ(Pause(3), 0ns);
    EXPECT_FALSE(backoff.IsStorm());
}

TEST_F(Backoff, QueueThatCouldOverflow_HasNoPause) {
    for (const std::uint32_t limit : {0U, 1U, 512U, 8192U, 16384U, 65536U, kAmple, ~0U}) {
        backoff.SetQueueLimit(limit);
        for (int i = 0; i < 4; ++i, now += ReadBackoff::kMaxPause) {
            const auto pause = Pause(100000);
            EXPECT_LE(pause / 1us * ReadBackoff::kEventsPerMs / 1000,
                      limit / ReadBackoff::kQueueFraction);
            EXPECT_EQ(pause > 0ns, limit >= 16384) << limit;
        }
    }
    EXPECT_EQ(Pause(100000, false), 0ns);  // there is more in it already
}

using BackoffOfTask = NotifyTest;

TEST_F(BackoffOfTask, StormOverTheSameFiles_EachIsAnnouncedAfterItsLastChange) {
    constexpr int kFiles = 50;
    for (int i = 0; i < kFiles; ++i) TouchFile(Root("f" + std::to_string(i)));
    Watch(Root());
    std::vector<std::unique_ptr<std::ofstream>> files;
    for (int i = 0; i < kFiles; ++i) {
        files.push_back(
            std::make_unique<std::ofstream>(Root("f" + std::to_string(i)), std::ios::app));
    }
    // Fewer than the kernel keeps: a reader that gets no processor must not fail the test.
    for (int round = 0; round < 300; ++round) {
        for (auto& file : files) *file << "x" << std::flush;
    }
    ASSERT_TRUE(WaitFor([&] { return SeenUntilNow().size() >= kFiles; }, kDeadline));
    receiver_->Forget();
    for (auto& file : files) *file << "x" << std::flush;
    SeenUntilNow();
    EXPECT_EQ(Counter("overflows"), 0U);
    const auto announced = Announced(IN_MODIFY, receiver_);
    for (int i = 0; i < kFiles; ++i) EXPECT_EQ(announced.count(Root("f" + std::to_string(i))), 1U);
}

}  // namespace test
