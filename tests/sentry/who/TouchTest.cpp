#include <gtest/gtest.h>

#include "who/TouchLog.h"
#include "who/Verdict.h"

namespace {

using Sentry::kSecond;
using Sentry::Nanoseconds;
using Sentry::Touch;

Sentry::ProcessPtr Process(pid_t pid) {
    auto process = std::make_shared<Sentry::Process>();
    process->pid = pid;
    process->program = std::make_shared<Sentry::Program>();
    return process;
}

Touch TouchBy(pid_t pid, Nanoseconds first, Nanoseconds last, bool is_exact = true) {
    return {Process(pid), pid, first, last, is_exact, is_exact ? "" : "why"};
}

std::string Judged(const std::vector<Touch>& touches, Nanoseconds at) {
    const Sentry::Verdict verdict = Sentry::JudgeTouches(touches, at, 100 * kSecond);
    return verdict.certainty + " " + std::to_string(verdict.culprit.pid) + " +" +
           std::to_string(verdict.others.size());
}

TEST(Verdict, NearestTouch_IsNamedAsSurelyAsTheTimesAllow) {
    const Nanoseconds at = 90 * kSecond;
    const Nanoseconds ms = kSecond / 1000;
    EXPECT_EQ(Judged({}, at), "unknown 0 +0");
    EXPECT_EQ(Judged({TouchBy(1, at - ms, at - ms)}, at), "exact 1 +0");
    EXPECT_EQ(Judged({TouchBy(1, at + ms, at + ms)}, at), "exact 1 +0");
    EXPECT_EQ(Judged({TouchBy(1, at - ms, at - ms, false)}, at), "likely 1 +0");
    EXPECT_EQ(Judged({TouchBy(1, at - 3 * kSecond, at - 3 * kSecond)}, at), "likely 1 +0");
    EXPECT_EQ(Judged({TouchBy(1, at - 9 * kSecond, at - 9 * kSecond)}, at), "unknown 0 +0");
    EXPECT_EQ(Judged({TouchBy(1, at - 9 * kSecond, at - 9 * kSecond)}, 0), "likely 1 +0");
    EXPECT_EQ(Judged({TouchBy(1, at - 500 * ms, at - 500 * ms), TouchBy(2, at - ms, at - ms)}, at),
              "exact 2 +1");
    EXPECT_EQ(Judged({TouchBy(1, at - 3 * ms, at - 3 * ms), TouchBy(2, at - ms, at - ms)}, at),
              "likely 2 +1");
    EXPECT_EQ(Judged({TouchBy(1, at - kSecond, at + ms), TouchBy(2, at - ms, at - ms)}, at),
              "likely 1 +1");
    EXPECT_EQ(Judged({{nullptr, 5, at, at, false, "it ended"}}, at), "unknown 5 +0");
}

TEST(Verdict, UnknownProcess_IsNotNamedInTheAnswer) {
    const Sentry::Verdict verdict =
        Sentry::JudgeTouches({{nullptr, 5, kSecond, kSecond, false, "it ended"}}, kSecond, kSecond);
    const Json::Value answer = Sentry::ToJson(verdict, true);
    EXPECT_EQ(answer["reason"], "it ended");
    EXPECT_FALSE(answer.isMember("pid"));
}

TEST(TouchLog, Touches_AreMergedByProcessAndBounded) {
    Sentry::TouchLog log;
    const Sentry::ProcessPtr one = Process(1);
    log.Add("/a", {one, 1, 10, 10, true});
    log.Add("/a", {Process(2), 2, 20, 20, true});
    log.Add("/a", {one, 1, 30, 30, true});
    ASSERT_EQ(log.Of("/a").size(), 2U);
    EXPECT_EQ(log.Of("/a").back().first, 10);
    EXPECT_EQ(log.Of("/a").back().last, 30);
    // What is less sure adds nothing to what was known of the same process just before.
    log.Add("/a", {Process(1), 1, 35, 35, false, "why"});
    ASSERT_EQ(log.Of("/a").size(), 2U);
    EXPECT_TRUE(log.Of("/a").back().is_exact);
    EXPECT_EQ(log.Of("/a").back().last, 35);
    for (pid_t pid = 3; pid < 50; ++pid) log.Add("/a", {Process(pid), pid, 40, 40, true});
    EXPECT_EQ(log.Of("/a").size(), Sentry::TouchLog::kMostTouches);
    for (std::size_t i = 0; i < Sentry::TouchLog::kMostObjects; ++i) {
        log.Add("/b" + std::to_string(i), {one, 1, 50, 50, true});
    }
    EXPECT_TRUE(log.Of("/a").empty());
    EXPECT_FALSE(log.Of("/b0").empty());
    log.Expire(51 + Sentry::TouchLog::kKept);
    EXPECT_TRUE(log.Of("/b0").empty());
}

}  // namespace
