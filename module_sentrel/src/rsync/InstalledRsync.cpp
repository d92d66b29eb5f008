// Owns what is known of the installed bin/rsync. It must not install it (RsyncProvision does). Any
// thread; the lock is not held while the program runs.
#include "rsync/InstalledRsync.h"

#include <sdk/commands/ExecuteCmdUtils.h>
#include <sdk/host/RsyncVersion.h>
#include <sdk/log/Log.h>

#include "base/ModuleLogger.h"
#include "rsync/RsyncEnvironment.h"

namespace Engine {

namespace {

constexpr int kAskTimeoutMs = 5000;
constexpr std::size_t kMaxAnswer = 4096;

std::string DegradedReason(const std::string& version) {
    if (version.empty()) return "bin/rsync does not tell its version";
    if (!SDK::FollowsPlantedLinks(version)) return "";
    return "rsync " + version + " is older than 3.5.0: follows planted links as root";
}

}  // namespace

void InstalledRsync::Examine(const std::string& path, bool installed_anew) {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (installed_anew) facts_.known = false;
        if (facts_.known) return;
    }
    SDK::ExecuteCmdUtils::SetProgramEnvironment(path, {});  // a new file is asked without additions
    std::string output;
    int exit_code = 0;
    const int result = SDK::ExecuteCmdUtils::ExecuteCmd(path, {"--version"}, kAskTimeoutMs,
                                                        exit_code, output, kMaxAnswer);
    if (result == SDK::ExecuteCmdUtils::kInterrupted) return;  // the next call asks again
    const std::string version = SDK::RsyncVersionFromText(output);
    const std::string reason = DegradedReason(version);
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        facts_.known = true;
        facts_.version = version;
        facts_.degraded_reason = reason;
    }
    if (!reason.empty()) SDK_LOG(ModuleLogger(), PRIO_WARNING, "rsync degraded: %s.", reason);
    const std::string no_preload_reason = SetUpRsync(path, output);
    const std::lock_guard<std::mutex> lock(mutex_);
    facts_.keeps_acls = Engine::KeepsAcls(output);
    facts_.has_preload = no_preload_reason.empty();
    facts_.no_preload_reason = no_preload_reason;
}

bool InstalledRsync::KeepsAcls() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return facts_.keeps_acls;
}

Json::Value InstalledRsync::ToJson() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    Json::Value answer(Json::objectValue);
    answer["version"] = facts_.version;
    answer["degraded"] = !facts_.degraded_reason.empty();
    answer["reason"] = facts_.degraded_reason;
    answer["preload"]["in_use"] = facts_.has_preload;
    answer["preload"]["reason"] = facts_.no_preload_reason;
    return answer;
}

void InstalledRsync::Reset() {
    const std::lock_guard<std::mutex> lock(mutex_);
    facts_ = {};
}

}  // namespace Engine
