#include "utils/TaskSteps.h"

#include <sdk/host/InnerCpuCtrlUtils.h>
#include <sdk/log/Log.h>
#include <sdk/time/TimeUtils.h>
#include <unistd.h>

#include "base/ModuleLogger.h"
#include "rsync/RsyncLauncher.h"
#include "utils/SentrelUtils.h"

namespace Engine {

void PrepareRsyncForTask(RsyncLauncher& launcher) {
    const unsigned int uid = ::getuid();
    if (uid != 0) SDK_LOG(ModuleLogger(), PRIO_WARNING, "run as not root user, uid=%u.", uid);
    launcher.Install();
    SentrelUtils* utils = SentrelUtils::GetInstance();
    if (utils->DownloadRsync()) return;
    SDK_LOG(ModuleLogger(), PRIO_ERROR, "download rsync failed.");
    utils->SendExceptionMsg("sentrel_feature", "download rsync failed.");
}

void YieldCpu(unsigned long& last_tick, const char* file, int line, const char* task) {
    if (!SDK::InnerCpuCtrlUtils::IsEnabled()) return;
    const unsigned long now = SDK::TimeUtils::GetCurrentSystemTickUsed();
    const unsigned long used = now > last_tick ? now - last_tick : last_tick - now;
    if (used <= SDK::InnerCpuCtrlUtils::GetSuggestedRunTick()) return;
    SDK::InnerCpuCtrlUtils::AdjustThreadCpu(SDK::SourceBaseName(file), line, task, now, used);
    last_tick = now;
}

}  // namespace Engine
