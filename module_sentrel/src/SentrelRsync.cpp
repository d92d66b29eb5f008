// Builds and runs the rsync commands. It must not decide what is copied when (the tasks do) nor
// quote: file names go on the command line as they stand, and what it cannot carry is refused or
// pointed out when a policy is checked. Keeps no state but each thread's last error.
#define SDK_LOG_FILE "SentrelUtils.cpp"

#include <SentrelUtils.h>
#include <framework/ConfigManager.h>
#include <sdk/CommandIdleLimit.h>
#include <sdk/ExecuteCmdUtils.h>
#include <sdk/Log.h>
#include <sdk/PathUtils.h>

#include <cerrno>
#include <cstring>

namespace Engine {

namespace {

constexpr std::size_t kMaxOutput = 4096;

std::string& ThreadError() {
    thread_local std::string text;
    return text;
}

std::string FirstLine(const std::string& text) {
    return text.substr(0, text.find('\n'));
}

std::string DescribeFailure(int result, const std::string& output) {
    switch (result) {
        case SDK::ExecuteCmdUtils::kInterrupted:
            return "rsync was interrupted";
        case SDK::ExecuteCmdUtils::kStartFailed:
            return "rsync could not be started";
        case SDK::ExecuteCmdUtils::kKilledBySignal:
            return "rsync was killed";
        case SDK::ExecuteCmdUtils::kTimedOut:
            return "rsync was held up and has been ended";
        default:
            break;
    }
    return "rsync ended with " + std::to_string(result) + ": " + FirstLine(output);
}

std::string Exclusions(const std::list<std::string>& ignored_postfix,
                       const std::list<std::string>& ignored_subdir) {
    std::string options;
    for (const std::string& postfix : ignored_postfix) {
        options += " --exclude \"*" + postfix + "\" ";
    }
    for (const std::string& subdir : ignored_subdir) {
        options += " --exclude \"" + subdir + "\" ";
    }
    return options;
}

/// Source and destination of a restore; false when there is no backup copy.
bool RestoreArguments(const std::string& src, const std::string& dst, std::string& arguments) {
    std::string target = src;
    const std::string backup = dst + target;
    struct stat info {};
    if (::lstat(backup.c_str(), &info) != 0) {
        const int error = errno;
        SDK_LOG(ModuleLogger(), PRIO_DEBUG, "file:%s  info:%d", backup, error);
        ThreadError() = "no backup copy " + backup + ": " + std::strerror(error);
        return false;
    }
    if (S_ISDIR(info.st_mode) && (target.empty() || target.back() != '/')) target += '/';
    arguments = dst + target + " " + target + " ";
    return true;
}

}  // namespace

std::unique_ptr<SentrelUtils::RunningCopy> SentrelUtils::BeginLocal(
    const std::string& arguments, const std::list<std::string>& ignored_postfix,
    const std::list<std::string>& ignored_subdir) {
    const std::string command = SDK::PathUtils::GetInstallationPath() + "bin/rsync" +
                                " -az -H -X --links --delete-excluded --temp-dir=/tmp " +
                                Exclusions(ignored_postfix, ignored_subdir) + arguments;
    return std::make_unique<RunningCopy>(command);
}

bool SentrelUtils::DoRsyncLocal(const std::string& src, const std::string& dst,
                                const std::list<std::string>& ignored_postfix,
                                const std::list<std::string>& ignored_subdir, rsync_mode mode) {
    return FinishLocal(
        mode == RSYNC_BACKUP
            ? BeginLocal(" -R " + src + " " + dst + " ", ignored_postfix, ignored_subdir)
            : BeginRestore(src, dst, ignored_postfix, ignored_subdir));
}

std::unique_ptr<SentrelUtils::RunningCopy> SentrelUtils::BeginRestore(
    const std::string& src, const std::string& dst, const std::list<std::string>& ignored_postfix,
    const std::list<std::string>& ignored_subdir) {
    std::string arguments;
    if (!RestoreArguments(src, dst, arguments)) return nullptr;
    return BeginLocal(arguments, ignored_postfix, ignored_subdir);
}

bool SentrelUtils::FinishLocal(const std::unique_ptr<RunningCopy>& copy) {
    // A pipe in a file's place would hold it for ever, and rsync's own time limit ends only what
    // waits for the other end.
    const SDK::CommandIdleLimit limit(copy_idle_period);
    return copy != nullptr && FinishCopy(*copy);
}

bool SentrelUtils::DoRsyncRemote(const std::string& src, [[maybe_unused]] rsync_mode mode) {
    const std::string install = SDK::PathUtils::GetInstallationPath();
    std::string command = install + "bin/rsync" +
                          " -az -H -X -R --links --delete-excluded --password-file=" + install +
                          "conf/rsync_client.secrets";
    if (backup_port != 0) command += " --port " + std::to_string(backup_port);
    command += " " + src + " morvane_agent@" + backup_addr + "::morvane_agent/";
    const std::string agent_id = Framework::ConfigManager::GetInstance().GetAgentId();
    if (agent_id.empty()) {
        SDK_LOG(GetLogger(), PRIO_DEBUG, "agentid pok.");
        ThreadError() = "the agent has no id";
        return false;
    }
    command += agent_id + " ";
    RunningCopy copy(command);
    return FinishCopy(copy);
}

bool SentrelUtils::FinishCopy(RunningCopy& copy) {
    std::string output;
    int exit_code = -1;
    const int ended = copy.rsync.Wait(exit_code, output, kMaxOutput);
    const int result = ended == 0 ? exit_code : ended;
    const std::string& command = copy.command;
    if (result != 0 || output.find("error") != std::string::npos) {
        SDK_LOG(GetLogger(), PRIO_DEBUG, "Exec cmd [%s] failed, infor:%s.", command, output);
        ThreadError() = DescribeFailure(result, output);
        if (result == SDK::ExecuteCmdUtils::kTimedOut) {
            SDK_LOG(GetLogger(), PRIO_WARNING, "%s: %s", ThreadError(), command);
        }
        return false;
    }
    SDK_LOG(GetLogger(), PRIO_DEBUG, "Exec cmd [%s] sucess.", command);
    ThreadError().clear();
    return true;
}

std::string SentrelUtils::LastCopyError() const {
    return ThreadError();
}

}  // namespace Engine
