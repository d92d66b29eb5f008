// Keeps the rsync daemon alive. It must not write the daemon's configuration (BackUpServerPolicy
// does): without one, every pass tries and fails to start the daemon. The daemon is no child of the
// agent; its pid file is all that is known of it. Task's thread.
#include "feature_backupserver/BackUpServerTask.h"

#include <framework/ConfigManager.h>
#include <sdk/files/FileUtils.h>
#include <sdk/log/Log.h>

#include "base/ModuleLogger.h"
#include "base/RsyncPaths.h"
#include "state/ModuleState.h"
#include "utils/SentrelUtils.h"
#include "utils/TaskSteps.h"

namespace Engine {

namespace {

constexpr unsigned int kQueueCapacity = 1024;
constexpr long kRotateBytes = 10485760;

}  // namespace

BackUpServerTask::BackUpServerTask(ModuleState& state)
    : Framework::Task("sentrel_backupserver_task", "backupserver_feature",
                      Framework::TaskCondition::kPeriodic, kQueueCapacity),
      state_(state) {}

bool BackUpServerTask::Init() {
    SDK_LOG(ModuleLogger(), PRIO_INFORMATION, "Task(%s) init.", Id());
    PrepareRsyncForTask(state_.launcher);
    return Framework::Task::Init();
}

int BackUpServerTask::Run() {
    RestartWhenDead();
    RotateLog();
    return 0;
}

void BackUpServerTask::RestartWhenDead() {
    SentrelUtils* utils = SentrelUtils::GetInstance();
    if (utils->IsStoppingDaemon()) return;  // a start now would use the old configuration
    const std::string pid_file = RsyncPaths::DaemonPidFile(utils->install_path);
    int pid = 0;
    if (utils->GetRsyncRunningPid(pid_file, pid)) return;
    SDK_LOG(ModuleLogger(), PRIO_DEBUG, "pid not running: %d", pid);
    if (SDK::FileUtils::TalDeleteFile(pid_file) == 0) {
        SDK_LOG(ModuleLogger(), PRIO_TRACE, "remove file: %s", pid_file);
    }
    if (!utils->RunRsyncDaemon(RsyncPaths::DaemonConf(utils->install_path))) {
        SDK_LOG(ModuleLogger(), PRIO_ERROR, "run rsync daemon failed");
        return;
    }
    state_.backup_server.NoteStart();
}

void BackUpServerTask::RotateLog() {
    const std::string log =
        RsyncPaths::DaemonLog(Framework::ConfigManager::GetInstance().GetLoggerConfig().directory);
    long size = 0;
    if (SDK::FileUtils::GetFileSize(log, size) != 0 || size < kRotateBytes) return;
    const std::string rotated = log + ".0";
    SDK::FileUtils::TalDeleteFile(rotated);
    SDK::FileUtils::TalCopyFile(log, rotated, kRotateBytes);
    SDK::FileUtils::TalDeleteFile(log);
}

bool BackUpServerTask::UnInit() {
    SentrelUtils::GetInstance()->DoStopRsyncDeamon();
    const bool result = Framework::Task::UnInit();
    SDK_LOG(ModuleLogger(), PRIO_INFORMATION, "Task(%s) uninit.", Id());
    return result;
}

}  // namespace Engine
