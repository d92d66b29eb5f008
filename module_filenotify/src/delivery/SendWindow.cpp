// Owns: the count of messages on their way to one receiver. Not: the messages (the framework's).
// Threads: the task's posts, the receiver's tells what it has dealt with.

#include "delivery/SendWindow.h"

#include <module_filenotify/FileNotifyMessage.h>
#include <sys/inotify.h>

#include <algorithm>

namespace Engine::FileNotify {

namespace {

// One slow message narrows the window at once; this many parts of it fade with each faster one.
constexpr std::int64_t kFading = 8;

}  // namespace

std::size_t SendWindow::Size() const {
    const std::int64_t fitting =
        std::chrono::nanoseconds(kWork).count() / std::max<std::int64_t>(pace_ns_, 1);
    return std::clamp(static_cast<std::size_t>(fitting), kFewest, kMost);
}

void SendWindow::Posted(bool is_deletion) {
    ++in_flight_;
    if (is_deletion) ++deletions_in_flight_;
}

bool SendWindow::WakeWhenLow() {
    const std::size_t most = HasRoom() ? kMostDeletions : Size();
    const auto low = static_cast<std::int64_t>(most / 2);
    wake_at_ = low;
    if (in_flight_ > low) return true;
    wake_at_ = kNoWake;
    return false;
}

void SendWindow::MessageGone(const FileNotifyMessage& message,
                             std::optional<std::chrono::nanoseconds> handling) noexcept {
    if (handling) Learn(*handling);
    if ((message.GetEventMask() & (IN_DELETE | IN_MOVED_FROM)) != 0) {
        // A directory costs as much as there is in it.
        if (handling && (message.GetRawMask() & IN_ISDIR) == 0) LearnDeletion(*handling);
        --deletions_in_flight_;
    }
    const std::int64_t left = in_flight_.fetch_sub(1) - 1;
    if (left <= wake_at_ && wake_at_.exchange(kNoWake) != kNoWake) wake_->Wake();
}

void SendWindow::LearnDeletion(std::chrono::nanoseconds handling) noexcept {
    if (handling < kUndone) return;
    if (handling >= kSlowDeletion) ++slow_deletions_;
    const std::int64_t took = std::min<std::chrono::nanoseconds>(handling, kDearest).count();
    const std::int64_t cost = deletion_cost_ns_;
    deletion_cost_ns_ = deletion_cost_known_.exchange(true) ? cost + (took - cost) / kFading : took;
}

void SendWindow::Learn(std::chrono::nanoseconds handling) noexcept {
    const std::int64_t pace = pace_ns_;
    pace_ns_ = std::max(handling.count(), pace + (handling.count() - pace) / kFading);
}

}  // namespace Engine::FileNotify
