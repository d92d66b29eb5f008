#include <gtest/gtest.h>
#include <notify/Pacer.h>

namespace {

constexpr long long kNow = 1763714260;

Notify::Pacing People() {
    Notify::Pacing pacing;
    pacing.settle_ms = 10000;
    pacing.longest_ms = 60000;
    pacing.most_per_hour = 2;
    pacing.digest_s = 1800;
    return pacing;
}

TEST(Pacer, QuietOrLongEnough_IsDue) {
    Notify::Pacer pacer(People());
    EXPECT_FALSE(pacer.IsDue(0, kNow));
    ASSERT_TRUE(pacer.Add(1000, 0, kNow));
    EXPECT_FALSE(pacer.IsDue(9999, kNow));
    EXPECT_TRUE(pacer.IsDue(10000, kNow));
    for (long long at = 5000; at < 60000; at += 5000) {
        ASSERT_TRUE(pacer.Add(1000 + at, at, kNow));
        ASSERT_FALSE(pacer.IsDue(at + 4999, kNow)) << at;
    }
    EXPECT_TRUE(pacer.IsDue(60000, kNow));
}

TEST(Pacer, OldReports_ArePartedByTheirTimes) {
    Notify::Pacer pacer(People());
    EXPECT_TRUE(pacer.Add(0, 0, kNow));
    EXPECT_TRUE(pacer.Add(59999, 0, kNow));
    EXPECT_FALSE(pacer.IsDue(1, kNow));
    EXPECT_FALSE(pacer.Add(60000, 0, kNow));
    EXPECT_TRUE(pacer.IsDue(1, kNow));
}

TEST(Pacer, BeyondTheLimit_OneDigestTakesAllThatComes) {
    Notify::Pacer pacer(People());
    for (int message = 0; message < 2; ++message) {
        EXPECT_FALSE(pacer.IsLimited(kNow));
        ASSERT_TRUE(pacer.Add(0, 0, kNow));
        EXPECT_TRUE(pacer.IsDue(10000, kNow));
        pacer.Delivered(kNow);
    }
    ASSERT_TRUE(pacer.IsLimited(kNow));
    for (long long minute = 0; minute < 30; ++minute) {
        ASSERT_TRUE(pacer.Add(minute * 60000, minute * 60000, kNow + minute * 60));
        ASSERT_FALSE(pacer.IsDue(minute * 60000 + 50000, kNow + minute * 60 + 50));
    }
    EXPECT_TRUE(pacer.IsDue(1800000, kNow + 1800));
    EXPECT_TRUE(pacer.IsDigest());
    pacer.Delivered(kNow + 1800);
    EXPECT_TRUE(pacer.IsLimited(kNow + 1801)) << "the hour is not over";
    EXPECT_FALSE(pacer.IsLimited(kNow + 3600));
    EXPECT_FALSE(pacer.IsLimited(kNow - 10)) << "the clock was set back";
}

}  // namespace
