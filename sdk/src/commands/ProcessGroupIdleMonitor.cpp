// Owns what a command's processes had done at the last look. It must not reap them (ChildProcess
// does). A process that sleeps, in no wait for a disk, and has not given up its processor since the
// last look was not woken in between. The caller's thread.
#include "commands/ProcessGroupIdleMonitor.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

#include "sdk/files/FileUtils.h"
#include "sdk/time/CommandIdleLimit.h"

namespace SDK {

namespace {

namespace fs = std::filesystem;

constexpr std::chrono::seconds kGrace{1};
constexpr long kStatusSize = 16384;
constexpr std::uint64_t kAwake = UINT64_MAX;

/// The number behind `name` in the text of a status file; kAwake without it.
std::uint64_t NumberOf(const std::string& status, const std::string& name) {
    const std::size_t at = status.find(name);
    if (at == std::string::npos) return kAwake;
    return std::strtoull(status.c_str() + at + name.size(), nullptr, 10);
}

/// How often a thread that sleeps gave up its processor by itself, which none does without having
/// run; kAwake when it does not sleep or it cannot be told.
std::uint64_t TimesSlept(const fs::path& thread) {
    std::string status;
    if (FileUtils::ReadFile(thread / "status", status, kStatusSize) != 0) return kAwake;
    if (status.find("\nState:\tZ") != std::string::npos) return 0;  // nothing will wake it
    if (status.find("\nState:\tS") == std::string::npos) return kAwake;
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
    : group_(group), period_(CommandIdleLimit::Current()), next_look_(Clock::now() + period_) {}

int ProcessGroupIdleMonitor::Until(int other) const {
    if (period_.count() == 0) return other;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(next_look_ - Clock::now());
    const int wait = static_cast<int>(std::max<std::int64_t>(0, left.count()));
    return other < 0 ? wait : std::min(wait, other);
}

bool ProcessGroupIdleMonitor::Look() {
    if (period_.count() == 0 || Clock::now() < next_look_) return true;
    if (has_asked_) return false;
    Activity now = Observe();
    if (!now.empty() && now == last_) {
        has_asked_ = true;
        ::killpg(group_, SIGTERM);
    }
    last_ = std::move(now);
    next_look_ = Clock::now() + (has_asked_ ? std::min<Clock::duration>(kGrace, period_) : period_);
    return true;
}

ProcessGroupIdleMonitor::Activity ProcessGroupIdleMonitor::Observe() const {
    Activity activity;
    bool is_awake = false;
    ForEachNumber("/proc", [&](pid_t process, const fs::path& path) {
        if (is_awake || ::getpgid(process) != group_) return;
        ForEachNumber(path / "task", [&](pid_t thread, const fs::path& thread_path) {
            const std::uint64_t times = TimesSlept(thread_path);
            is_awake = is_awake || times == kAwake;
            activity[thread] = times;
        });
    });
    if (is_awake) activity.clear();
    return activity;
}

}  // namespace SDK
