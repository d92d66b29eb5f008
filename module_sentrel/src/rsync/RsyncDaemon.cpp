// Owns nothing but the note that the daemon is being stopped. While the module runs, the pid file
// is believed; one that an earlier run of the machine left is dropped at the start. It must not
// write the daemon's configuration (BackUpServerPolicy does) nor decide when the daemon runs
// (BackUpServerTask does).
#define SDK_LOG_FILE "SentrelUtils.cpp"

#include "rsync/RsyncDaemon.h"

#include <framework/ConfigManager.h>
#include <framework/OutsideGate.h>
#include <sdk/commands/ProcessUtils.h>
#include <sdk/commands/RunningCommand.h>
#include <sdk/files/FileUtils.h>
#include <sdk/log/Log.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <limits>
#include <sstream>
#include <utility>
#include <vector>

#include "base/ModuleLogger.h"
#include "base/PathText.h"
#include "base/RsyncPaths.h"
#include "rsync/DaemonUnit.h"

namespace Engine {

namespace {

constexpr std::size_t kMaxOutput = 4096;
constexpr long kMaxPidFile = 10485760;
constexpr int kKillWaits = 10;
constexpr unsigned int kSettleSeconds = 3;  ///< for the port to be free again

/// The words of the process's command line; empty when it has none or they cannot be read.
std::vector<std::string> CommandLine(int pid) {
    std::string text;
    SDK::FileUtils::ReadFile("/proc/" + std::to_string(pid) + "/cmdline", text, kMaxOutput);
    std::istringstream in(text);
    std::vector<std::string> words;
    for (std::string word; std::getline(in, word, '\0');) words.push_back(word);
    return words;
}

/// 0 without a number, and for one that no process can have.
int LeadingNumber(const std::string& text) {
    errno = 0;
    const long number = std::strtol(text.c_str(), nullptr, 10);
    const bool fits = errno != ERANGE && number >= std::numeric_limits<int>::min() &&
                      number <= std::numeric_limits<int>::max();
    return fits ? static_cast<int>(number) : 0;
}

/// Kills the process and waits for its end; false when it cannot be killed or does not end. A
/// policy lets the tasks go on meanwhile: pages are restored while the daemon ends.
bool KillAndWait(int pid) {
    if (::kill(pid, SIGKILL) != 0) {
        SDK_LOG(ModuleLogger(), PRIO_ERROR, "kill pid %d failed.", pid);
        return false;
    }
    const Framework::OutsideGate outside;
    const auto process = static_cast<unsigned int>(pid);
    bool alive = true;
    for (int waits = 0; waits < kKillWaits; ++waits) {
        alive = SDK::ProcessUtils::IsProcessAlive(process);
        if (!alive) break;
        ::sleep(1);
        alive = SDK::ProcessUtils::IsProcessAlive(process);
    }
    if (alive) {
        SDK_LOG(ModuleLogger(), PRIO_ERROR, "kill pid %u use more than 10s", process);
        return false;
    }
    ::sleep(kSettleSeconds);
    return true;
}

/// The command that starts `daemon` where it belongs.
std::vector<std::string> InUnit(const std::string& installation, const std::string& received,
                                std::vector<std::string> daemon) {
    DaemonUnit::Request request;
    request.name = DaemonUnit::ConfiguredName();
    if (request.name.empty()) return daemon;
    request.owner = DaemonUnit::OwnService();
    request.pid_file = RsyncPaths::DaemonPidFile(installation);
    request.writable = {ParentPath(request.pid_file),
                        Framework::ConfigManager::GetInstance().GetLoggerConfig().directory,
                        received};
    request.daemon = std::move(daemon);
    return DaemonUnit::StartCommand(request);
}

}  // namespace

bool RsyncDaemon::Start(const std::string& installation, const std::string& conf_path,
                        const std::string& received) {
    const std::string program = RsyncPaths::Program(installation);
    const std::string command = program + " --daemon --config=" + conf_path;
    // Run by its words: the line does not quote the paths, and a shell would end them at a blank.
    SDK::RunningCommand rsync(
        InUnit(installation, received, {program, "--daemon", "--config=" + conf_path}),
        SDK::RunningCommand::kNoLimit);
    std::string output;
    int exit_code = 0;
    rsync.Wait(exit_code, output, kMaxOutput);
    // Only an empty output is searched, so a start never counts as failed here. The pid file tells
    // at the next pass whether the daemon lives.
    if (output.empty() && output.find("failed") != std::string::npos) {
        SDK_LOG(ModuleLogger(), PRIO_ERROR, "Exec cmd [%s] failed, info:%s.", command, output);
        return false;
    }
    // Where a unit was refused, the reason is systemd's.
    if (exit_code != 0 && !DaemonUnit::ConfiguredName().empty()) {
        SDK_LOG(ModuleLogger(), PRIO_ERROR, "the unit %s was not started: %s.",
                DaemonUnit::ConfiguredName(), output);
    }
    SDK_LOG(ModuleLogger(), PRIO_DEBUG, "Exec cmd [%s] sucess.", command);
    return true;
}

bool RsyncDaemon::GetRunningPid(const std::string& pid_file, int& pid) {
    std::string text;
    if (SDK::FileUtils::ReadFile(pid_file, text, kMaxPidFile) != 0) return false;
    pid = LeadingNumber(text);
    if (pid <= 0) return false;
    return SDK::ProcessUtils::IsProcessAlive(static_cast<unsigned int>(pid));
}

std::optional<int> RsyncDaemon::FindOwn(const std::string& installation) {
    int pid = 0;
    if (!GetRunningPid(RsyncPaths::DaemonPidFile(installation), pid)) return std::nullopt;
    const std::vector<std::string> words = CommandLine(pid);
    const auto has = [&words](const std::string& word) {
        return std::find(words.begin(), words.end(), word) != words.end();
    };
    const bool is_own = has(RsyncPaths::Program(installation)) && has("--daemon");
    return is_own ? std::optional<int>(pid) : std::nullopt;
}

void RsyncDaemon::DropForeignPidFile(const std::string& installation) {
    const std::string pid_file = RsyncPaths::DaemonPidFile(installation);
    if (FindOwn(installation)) return;
    int pid = 0;
    GetRunningPid(pid_file, pid);
    if (SDK::FileUtils::TalDeleteFile(pid_file) != 0) return;
    SDK_LOG(ModuleLogger(), PRIO_WARNING,
            "%s is removed: it names process %d, which is no rsync daemon of ours", pid_file, pid);
}

bool RsyncDaemon::Stop(const std::string& installation) {
    const std::string pid_file = RsyncPaths::DaemonPidFile(installation);
    int pid = 0;
    if (GetRunningPid(pid_file, pid)) {
        is_stopping_ = true;
        const bool stopped = KillAndWait(pid);
        is_stopping_ = false;
        if (!stopped) return false;
    }
    if (SDK::FileUtils::TalDeleteFile(pid_file) == 0) {
        SDK_LOG(ModuleLogger(), PRIO_TRACE, "remove file: %s", pid_file);
    }
    return true;
}

}  // namespace Engine
