// Owns the activity of a command's processes at the last check. Must not reap them (ChildProcess
// does). A process was idle when it sleeps, does not wait for a disk, and has the same count of
// voluntary context switches as before. Runs on the caller's thread.
#include "commands/ProcessGroupIdleMonitor.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

#include "sdk/files/FileUtils.h"
#include "sdk/time/CommandLimit.h"

namespace SDK {

namespace {

namespace fs = std::filesystem;

constexpr std::chrono::seconds kGrace{1};
constexpr long kStatusSize = 16384;
constexpr std::uint64_t kActive = UINT64_MAX;

/// The number behind `name` in the text of a status file; kActive without it.
std::uint64_t NumberOf(const std::string& status, const std::string& name) {
    const std::size_t at = status.find(name);
    if (at == std::string::npos) return kActive;
    return std::strtoull(status.c_str() + at + name.size(), nullptr, 10);
}

/// The voluntary context switches of a sleeping thread, which grow whenever it runs; kActive when
/// it does not sleep or its state is unknown.
std::uint64_t SleepCount(const fs::path& thread) {
    std::string status;
    if (FileUtils::ReadFile(thread / "status", status, kStatusSize) != 0) return kActive;
    if (status.find("\nState:\tZ") != std::string::npos) return 0;  // it never runs again
    if (status.find("\nState:\tS") == std::string::npos) return kActive;
    return NumberOf(status, "\nvoluntary_ctxt_switches:");
}

template <typename Action>
void ForEachNumber(const fs::path& directory, Action action) {
    std::error_code error;
    fs::directory_iterator entry(directory, error);
    for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
        const long number = std::strtol(entry->path().filename().c_str(), nullptr, 10);
        if (number > 0) action(static_cast<pid_t>(number), entry->path());
    }
}

}  // namespace

ProcessGroupIdleMonitor::ProcessGroupIdleMonitor(pid_t group)
    : group_(group), period_(CommandIdleLimit::Current()), next_check_(Clock::now() + period_) {}

int ProcessGroupIdleMonitor::PollTimeout(int other) const {
    if (period_.count() == 0) return other;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(next_check_ - Clock::now());
    const int wait = static_cast<int>(std::max<std::int64_t>(0, left.count()));
    return other < 0 ? wait : std::min(wait, other);
}

bool ProcessGroupIdleMonitor::Check() {
    if (period_.count() == 0 || Clock::now() < next_check_) return true;
    if (has_terminated_) return false;
    Activity now = Observe();
    if (!now.empty() && now == last_) {
        has_terminated_ = true;
        ::killpg(group_, SIGTERM);
    }
    last_ = std::move(now);
    next_check_ =
        Clock::now() + (has_terminated_ ? std::min<Clock::duration>(kGrace, period_) : period_);
    return true;
}

ProcessGroupIdleMonitor::Activity ProcessGroupIdleMonitor::Observe() const {
    Activity activity;
    bool is_active = false;
    ForEachNumber("/proc", [&](pid_t process, const fs::path& path) {
        if (is_active || ::getpgid(process) != group_) return;
        ForEachNumber(path / "task", [&](pid_t thread, const fs::path& thread_path) {
            const std::uint64_t times = SleepCount(thread_path);
            is_active = is_active || times == kActive;
            activity[thread] = times;
        });
    });
    if (is_active) activity.clear();
    return activity;
}

}  // namespace SDK
