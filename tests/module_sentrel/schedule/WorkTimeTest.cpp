#include <cstdlib>

#include "base/WorkClock.h"
#include "feature_sentrel/SentrelInotifyTask.h"
#include "fixtures/Installation.h"
#include "utils/SentrelUtils.h"

namespace {

using Poco::Message;

constexpr std::time_t kSunday0800 = 1'795'334'400;  // 2026-11-22 in UTC
std::time_t g_now = kSunday0800;

TEST(WorkTime, CheckDisableTime_FollowsTheTablesAndSetsAllFlagsAtTransitions) {
    ::setenv("TZ", "UTC", 1);
    test::Installation install;
    Engine::SentrelUtils* utils = Engine::SentrelUtils::GetInstance();
    Engine::SentrelInotifyTask task(install.state);
    Engine::WorkClock::SetSource([] { return g_now; });
    Engine::BackupProgress& progress = install.state.progress;
    const std::uint64_t round = progress.Round();
    EXPECT_TRUE(progress.NoteComplete({}, round));
    utils->minute_enabled[480] = false;
    EXPECT_TRUE(task.SentrelCheckWork(0, 480));
    utils->weekday_enabled[0] = false;
    EXPECT_FALSE(task.SentrelCheckWork(0, 480));
    EXPECT_TRUE(task.SentrelCheckWork(0, 481) && task.SentrelCheckWork(1, 480));
    task.CheckDisableTime();
    EXPECT_FALSE(utils->is_run || utils->local_backup_pending || utils->remote_backup_pending);
    EXPECT_TRUE(progress.IsComplete({}));
    g_now += 60;
    task.CheckDisableTime();
    EXPECT_FALSE(progress.NoteComplete({}, round));  // begun before the pause: not complete
    EXPECT_TRUE(utils->is_run && utils->local_backup_pending && utils->remote_backup_pending);
    EXPECT_FALSE(progress.IsComplete({}));
    utils->local_backup_pending = false;
    task.CheckDisableTime();
    EXPECT_FALSE(utils->local_backup_pending);
    for (const auto& [day, minute] : {std::pair{-1, 0}, {7, 0}, {0, -1}, {0, 1440}}) {
        EXPECT_TRUE(task.SentrelCheckWork(day, minute));
    }
    EXPECT_EQ(install.Errors("check work time failse:weekday 7 sec 0 "), 1);
    EXPECT_EQ(
        install.log.Texts(Message::PRIO_TRACE),
        (std::vector<std::string>{"is_run true change to false", "is_run false change to true"}));
}

}  // namespace
