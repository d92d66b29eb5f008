#include <BackupProgress.h>
#include <SentrelInotifyTask.h>
#include <SentrelUtils.h>
#include <WorkClock.h>
#include <sdk/Log.h>

namespace Engine {

bool SentrelInotifyTask::SentrelCheckWork(int weekday, int sec) {
    const SentrelUtils* utils = SentrelUtils::GetInstance();
    if (weekday < 0 || weekday >= kDaysPerWeek || sec < 0 || sec >= kMinutesPerDay) {
        SDK_LOG(ModuleLogger(), PRIO_ERROR, "check work time failse:weekday %d sec %d ", weekday,
                sec);
        return true;
    }
    return utils->weekday_enabled[static_cast<std::size_t>(weekday)] ||
           utils->minute_enabled[static_cast<std::size_t>(sec)];
}

void SentrelInotifyTask::CheckDisableTime() {
    const std::time_t now = WorkClock::Now();
    std::tm local{};
    ::localtime_r(&now, &local);
    const bool work = SentrelCheckWork(local.tm_wday, local.tm_hour * 60 + local.tm_min);
    SentrelUtils* utils = SentrelUtils::GetInstance();
    if (work == utils->is_run) return;
    const Poco::FastMutex::ScopedLock lock(utils->mutex);
    // What was changed in the pause has to be copied before anything is taken for foreign.
    if (work) BackupProgress::Instance().Restart();
    utils->is_run = work;
    utils->local_backup_pending = work;
    utils->remote_backup_pending = work;
    if (work) {
        SDK_LOG(ModuleLogger(), PRIO_TRACE, "is_run false change to true");
    } else {
        SDK_LOG(ModuleLogger(), PRIO_TRACE, "is_run true change to false");
    }
}

}  // namespace Engine
