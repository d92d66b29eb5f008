#include <SentrelInotifyTask.h>
#include <SentrelUtils.h>

#include <cstdlib>

#include "Installation.h"

namespace {

using Engine::SentrelUtils;
using Poco::Message;

// 2026-11-22, a Sunday, in UTC.
constexpr std::time_t kSunday0800 = 1'795'334'400;

std::time_t g_now = 0;

class WorkTime : public ::testing::Test {
  protected:
    WorkTime() {
        ::setenv("TZ", "UTC", 1);
        ::tzset();
        task_.SetClock([] { return g_now; });
    }
    test::Installation install_;
    SentrelUtils* utils_ = SentrelUtils::GetInstance();
    Engine::SentrelInotifyTask task_;
};

TEST_F(WorkTime, MinuteTable_CountsOnlyOnDisabledWeekdays) {
    utils_->minute_enabled[480] = false;
    EXPECT_TRUE(task_.SentrelCheckWork(0, 480));
    utils_->weekday_enabled[0] = false;
    EXPECT_FALSE(task_.SentrelCheckWork(0, 480));
    EXPECT_TRUE(task_.SentrelCheckWork(0, 481));
    EXPECT_TRUE(task_.SentrelCheckWork(1, 480));
    EXPECT_TRUE(install_.log.Texts(Message::PRIO_ERROR).empty());
}

TEST_F(WorkTime, ArgumentOutOfRange_NeverStopsProtection) {
    utils_->weekday_enabled.fill(false);
    utils_->minute_enabled.fill(false);
    for (const auto& [day, minute] : {std::pair{-1, 0}, {7, 0}, {0, -1}, {0, 1440}}) {
        EXPECT_TRUE(task_.SentrelCheckWork(day, minute));
    }
    EXPECT_EQ(install_.log.Count(Message::PRIO_ERROR, "check work time failse:weekday 7 sec 0 "),
              1);
}

TEST_F(WorkTime, Transition_SetsAllThreeFlagsOnceEachWay) {
    utils_->weekday_enabled[0] = false;
    utils_->minute_enabled[480] = false;
    g_now = kSunday0800;
    task_.CheckDisableTime();
    task_.CheckDisableTime();
    EXPECT_FALSE(utils_->is_run || utils_->local_backup_pending || utils_->remote_backup_pending);
    g_now = kSunday0800 + 60;
    task_.CheckDisableTime();
    EXPECT_TRUE(utils_->is_run && utils_->local_backup_pending && utils_->remote_backup_pending);
    utils_->local_backup_pending = false;
    task_.CheckDisableTime();
    EXPECT_FALSE(utils_->local_backup_pending);
    EXPECT_EQ(
        install_.log.Texts(Message::PRIO_TRACE),
        (std::vector<std::string>{"is_run true change to false", "is_run false change to true"}));
}

}  // namespace
