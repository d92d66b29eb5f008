// Starts, finds and stops the rsync daemon of a backup server. While the module runs its pid file
// is taken at its word; what an earlier run of the machine left there is dropped before. It must
// not write the daemon's configuration (BackUpServerPolicy does) nor decide when it runs
// (BackUpServerTask does). Stopping blocks the caller for up to 13 seconds, in whole seconds.
#define SDK_LOG_FILE "SentrelUtils.cpp"

#include <framework/OutsideGate.h>
#include <sdk/commands/ProcessUtils.h>
#include <sdk/commands/RunningCommand.h>
#include <sdk/files/FileUtils.h>
#include <sdk/files/PathUtils.h>
#include <sdk/log/Log.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <limits>
#include <sstream>
#include <vector>

#include "base/ModuleLogger.h"
#include "utils/SentrelUtils.h"

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

/// Kills the process and waits for its end; false when it cannot be had away. A policy lets the
/// tasks go on meanwhile: pages are put back while the daemon ends.
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

}  // namespace

bool SentrelUtils::RunRsyncDaemon(const std::string& conf_path) {
    const std::string command = install_path + "bin/rsync --daemon --config=" + conf_path;
    // Run by its words: the line does not quote the paths, and a shell would take a blank for their
    // end.
    SDK::RunningCommand rsync({install_path + "bin/rsync", "--daemon", "--config=" + conf_path},
                              SDK::RunningCommand::kNoLimit);
    std::string output;
    int exit_code = 0;
    rsync.Wait(exit_code, output, kMaxOutput);
    // Only an empty output is searched, so a start never counts as failed here: whether the daemon
    // lives is seen from its pid file at the next pass.
    if (output.empty() && output.find("failed") != std::string::npos) {
        SDK_LOG(GetLogger(), PRIO_ERROR, "Exec cmd [%s] failed, info:%s.", command, output);
        return false;
    }
    SDK_LOG(GetLogger(), PRIO_DEBUG, "Exec cmd [%s] sucess.", command);
    return true;
}

bool SentrelUtils::GetRsyncRunningPid(const std::string& pid_file, int& pid) {
    std::string text;
    if (SDK::FileUtils::ReadFile(pid_file, text, kMaxPidFile) != 0) return false;
    pid = LeadingNumber(text);
    if (pid <= 0) return false;
    return SDK::ProcessUtils::IsProcessAlive(static_cast<unsigned int>(pid));
}

bool SentrelUtils::GetDaemonPid(const std::string& pid_file, int& pid) {
    if (!GetRsyncRunningPid(pid_file, pid)) return false;
    const std::vector<std::string> words = CommandLine(pid);
    const auto has = [&words](const std::string& word) {
        return std::find(words.begin(), words.end(), word) != words.end();
    };
    return has(pid_file.substr(0, pid_file.rfind('/') + 1) + "rsync") && has("--daemon");
}

void SentrelUtils::DropForeignPidFile() {
    const std::string pid_file = SDK::PathUtils::GetInstallationPath() + "bin/morvane_rsyncd.pid";
    int pid = 0;
    if (GetDaemonPid(pid_file, pid) || SDK::FileUtils::TalDeleteFile(pid_file) != 0) return;
    SDK_LOG(GetLogger(), PRIO_WARNING,
            "%s is removed: it names process %d, which is no rsync daemon of ours", pid_file, pid);
}

bool SentrelUtils::DoStopRsyncDeamon() {
    const std::string pid_file = install_path + "bin/morvane_rsyncd.pid";
    int pid = 0;
    if (GetRsyncRunningPid(pid_file, pid)) {
        is_stopping_daemon = true;
        const bool stopped = KillAndWait(pid);
        is_stopping_daemon = false;
        if (!stopped) return false;
    }
    if (SDK::FileUtils::TalDeleteFile(pid_file) == 0) {
        SDK_LOG(GetLogger(), PRIO_TRACE, "remove file: %s", pid_file);
    }
    return true;
}

}  // namespace Engine
