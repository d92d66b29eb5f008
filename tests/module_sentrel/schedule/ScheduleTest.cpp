#include <gtest/gtest.h>
#include <sdk/text/JsonUtils.h>

#include <cstdlib>

#include "feature_sentrel/schedule/ScheduleStatus.h"

namespace {

constexpr std::time_t kSunday0800 = 1'795'334'400;  // 2026-11-22 in UTC
constexpr std::time_t kMinute = 60;
constexpr std::time_t kHour = 60 * kMinute;
constexpr std::time_t kDay = 24 * kHour;

class Schedule : public ::testing::Test {
  protected:
    Schedule() { UseZone("UTC"); }
    static void UseZone(const char* zone) {
        ::setenv("TZ", zone, 1);
        ::tzset();
    }
    /// 0: never.
    std::time_t ChangeAfter(std::time_t now) const { return schedule_.ChangesAt(now).value_or(0); }

    Engine::WorkSchedule schedule_ = Engine::WorkSchedule::AlwaysOn();
};

TEST_F(Schedule, NextChange_IsFoundAcrossMidnightAndTheWeek) {
    EXPECT_EQ(ChangeAfter(kSunday0800), 0);
    schedule_.DisableRange("22:00-06:30");
    EXPECT_TRUE(schedule_.AlwaysWorks());  // minutes apply only to disabled days
    schedule_.weekdays[0] = false;
    EXPECT_FALSE(schedule_.AlwaysWorks() || schedule_.NeverWorks());
    const std::time_t sunday2200 = kSunday0800 + 14 * kHour;
    const std::time_t monday = kSunday0800 + 16 * kHour;
    EXPECT_EQ(ChangeAfter(kSunday0800 + 59), sunday2200);
    EXPECT_EQ(ChangeAfter(sunday2200 - 1), sunday2200);
    EXPECT_EQ(ChangeAfter(sunday2200), monday);  // Monday works from its first minute
    EXPECT_EQ(ChangeAfter(monday), monday + 6 * kDay);
    EXPECT_EQ(ChangeAfter(monday + 6 * kDay), monday + 6 * kDay + 6 * kHour + 31 * kMinute);
    schedule_.weekdays[1] = false;
    EXPECT_EQ(ChangeAfter(sunday2200), monday + 6 * kHour + 31 * kMinute);
}

TEST_F(Schedule, NoWorkTime_HasNoNextChange) {
    schedule_.DisableRange("0:00-23:59");
    schedule_.weekdays.fill(false);
    EXPECT_TRUE(schedule_.NeverWorks());
    EXPECT_EQ(ChangeAfter(kSunday0800), 0);
    schedule_.weekdays[6] = true;
    EXPECT_EQ(ChangeAfter(kSunday0800), kSunday0800 - 8 * kHour + 6 * kDay);
    EXPECT_EQ(ChangeAfter(kSunday0800 + 6 * kDay), kSunday0800 - 8 * kHour + 7 * kDay);
}

TEST_F(Schedule, DaylightSavingTime_ShortensAPause) {
    UseZone("CET-1CEST,M3.5.0,M10.5.0/3");
    schedule_.weekdays.fill(false);
    schedule_.DisableRange("1:00-4:29");
    const std::time_t sunday0100 = 1'774'742'400;  // 2026-03-29; 2:00 becomes 3:00 that night
    ASSERT_FALSE(schedule_.WorksAt(sunday0100) || !schedule_.WorksAt(sunday0100 - 1));
    EXPECT_EQ(ChangeAfter(sunday0100), sunday0100 + 2 * kHour + 30 * kMinute);
}

TEST_F(Schedule, Status_HasTheEndAndTheOriginOfThePause) {
    Engine::ScheduleStatus status;
    EXPECT_EQ(SDK::JsonUtils::JsonToString(status.ToJson(kSunday0800)),
              R"({"enabled":false,"text":"working at all times","until":null,"working":true})");
    schedule_.weekdays[0] = false;
    schedule_.DisableRange("7:00-8:59");
    status.Publish(schedule_, true);
    Json::Value now = status.ToJson(kSunday0800);
    EXPECT_FALSE(now["working"].asBool());
    EXPECT_EQ(now["until"].asInt64(), kSunday0800 + kHour);
    EXPECT_EQ(now["text"], "paused until 09:00");
    status.Publish(schedule_, false);
    now = status.ToJson(kSunday0800 + kDay);
    EXPECT_EQ(now["text"],
              "working until 2026-11-29 07:00, by an earlier policy's schedule, which lasts until "
              "the agent restarts");
    schedule_.weekdays.fill(false);
    schedule_.minutes.fill(false);
    status.Publish(schedule_, true);
    EXPECT_EQ(status.ToJson(kSunday0800)["text"],
              "paused at all times: no minute of the week is left");
}

}  // namespace
