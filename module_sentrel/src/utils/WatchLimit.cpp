#define SDK_LOG_FILE "SentrelUtils.cpp"

#include "utils/WatchLimit.h"

#include <sdk/commands/ExecuteCmdUtils.h>
#include <sdk/log/Log.h>
#include <sdk/time/CommandLimit.h>

#include "base/ModuleLogger.h"

namespace Engine {

bool WatchLimit::Raise(std::chrono::milliseconds period) {
    static const std::string kCommand =
        "echo fs.inotify.max_user_watches=819200 | sudo tee -a /etc/sysctl.conf && sudo sysctl -p";
    constexpr std::size_t kMaxOutput = 4096;
    std::string output;
    // sudo may ask a directory service that does not answer; this thread has policies to serve.
    const SDK::CommandTimeLimit limit(period);
    const int result = SDK::ExecuteCmdUtils::ExecuteCmd(kCommand, output, kMaxOutput);
    if (result != 0 || output.find("error") != std::string::npos) {
        SDK_LOG(ModuleLogger(), PRIO_DEBUG, "Exec cmd [%s] failed, infor:%s.", kCommand, output);
        return false;
    }
    SDK_LOG(ModuleLogger(), PRIO_DEBUG, "Exec cmd [%s] sucess.", kCommand);
    return true;
}

}  // namespace Engine
