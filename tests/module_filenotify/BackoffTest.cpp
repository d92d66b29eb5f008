#include <gtest/gtest.h>
#include <kernel/ReadBackoff.h>

#include "NotifyFixture.h"

namespace test {

using Engine::FileNotify::ReadBackoff;

constexpr std::uint32_t kAmple = 1048576;

class Pace : public ::testing::Test {
  protected:
    /// How long the queue is left alone after a read of so many records.
    std::chrono::nanoseconds Rest(std::size_t records, bool emptied = true) {
        pace.OnRead(records, emptied, now);
        return pace.IsPaused(now) ? pace.Until() - now : 0ns;
    }

    ReadBackoff pace;
    ReadBackoff::Time now{1h};
};

TEST_F(Pace, LoneEventsAndTheBeginningOfABurst_AreFollowedByNoRest) {
    pace.SetQueueLimit(kAmple);
    for (int i = 0; i < 1000; ++i, now += 20us) EXPECT_EQ(Rest(1), 0ns);
    now += ReadBackoff::kWindow;
    EXPECT_EQ(Rest(ReadBackoff::kStormRecords - 1), 0ns);
    EXPECT_GT(Rest(1), 0ns);
}

TEST_F(Pace, Storm_RestsGetLongerUpToTheBoundAndEndWithIt) {
    pace.SetQueueLimit(kAmple);
    std::vector<std::chrono::nanoseconds> rests;
    for (int i = 0; i < 4; ++i) {
        rests.push_back(Rest(5000));
        now += rests.back();
        EXPECT_FALSE(pace.IsPaused(now));
        EXPECT_TRUE(pace.IsStorm());
    }
    EXPECT_EQ(rests, (std::vector<std::chrono::nanoseconds>{1ms, 2ms, 4ms, 4ms}));
    EXPECT_EQ(Rest(3), 0ns);
    EXPECT_FALSE(pace.IsStorm());
}

TEST_F(Pace, QueueThatCouldOverflow_IsNeverLeftAlone) {
    for (const std::uint32_t limit : {0U, 1U, 512U, 8192U, 16384U, 65536U, kAmple, ~0U}) {
        pace.SetQueueLimit(limit);
        for (int i = 0; i < 4; ++i, now += ReadBackoff::kMaxPause) {
            const auto rest = Rest(100000);
            EXPECT_LE(rest / 1us * ReadBackoff::kEventsPerMs / 1000,
                      limit / ReadBackoff::kQueueFraction);
            EXPECT_EQ(rest > 0ns, limit >= 16384) << limit;
        }
    }
    EXPECT_EQ(Rest(100000, false), 0ns);  // there is more in it already
}

using PaceOfTask = NotifyTest;

TEST_F(PaceOfTask, StormOverTheSameFiles_EachIsAnnouncedAfterItsLastChange) {
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
    const std::size_t before = SeenUntilNow().size();
    for (auto& file : files) *file << "x" << std::flush;
    const std::vector<SeenChange> seen = SeenUntilNow();
    EXPECT_EQ(Counter("overflows"), 0U);
    for (int i = 0; i < kFiles; ++i) {
        const std::string path = Root("f" + std::to_string(i));
        const bool last =
            std::any_of(seen.begin() + static_cast<std::ptrdiff_t>(before), seen.end(),
                        [&](const SeenChange& one) { return one.path == path; });
        EXPECT_TRUE(last) << path;
    }
}

}  // namespace test
