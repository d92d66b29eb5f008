// Owns: the counts of one receiver's messages in flight and the measured handling times.
// Must not own: the messages (the framework).
// Threads: the task's posts; MessageGone runs on the thread that frees a message.
// Ownership passes: never; shared by Delivery and the messages.

#include "delivery/SendWindow.h"

#include <module_filenotify/FileNotifyMessage.h>
#include <sys/inotify.h>

#include <algorithm>

namespace Engine::FileNotify {

namespace {

// A slow message narrows the window at once; each faster one reduces the excess by 1/kSmoothing.
constexpr std::int64_t kSmoothing = 8;

}  // namespace

std::size_t SendWindow::Size() const {
    const std::int64_t fitting =
        std::chrono::nanoseconds(kTargetWork).count() / std::max<std::int64_t>(pace_ns_, 1);
    return std::clamp(static_cast<std::size_t>(fitting), kMinSize, kMaxSize);
}

void SendWindow::OnPost(bool is_deletion) {
    ++in_flight_;
    if (is_deletion) ++deletions_in_flight_;
}

bool SendWindow::WakeWhenLow() {
    const std::size_t most = HasRoom() ? kMaxDeletions : Size();
    const auto low = static_cast<std::int64_t>(most / 2);
    wake_at_ = low;
    if (in_flight_ > low) return true;
    wake_at_ = kNoWake;
    return false;
}

void SendWindow::MessageGone(const FileNotifyMessage& message,
                             std::optional<std::chrono::nanoseconds> handling) noexcept {
    if (handling) UpdatePace(*handling);
    if ((message.GetEventMask() & (IN_DELETE | IN_MOVED_FROM)) != 0) {
        // The cost of a directory depends on its content.
        if (handling && (message.GetRawMask() & IN_ISDIR) == 0) UpdateDeletionCost(*handling);
        --deletions_in_flight_;
    }
    const std::int64_t left = in_flight_.fetch_sub(1) - 1;
    if (left <= wake_at_ && wake_at_.exchange(kNoWake) != kNoWake) wake_->Wake();
}

void SendWindow::UpdateDeletionCost(std::chrono::nanoseconds handling) noexcept {
    if (handling < kNothingToUndo) return;
    if (handling >= kSlowDeletion) ++slow_deletions_;
    const std::int64_t took =
        std::min<std::chrono::nanoseconds>(handling, kMaxDeletionCost).count();
    const std::int64_t cost = deletion_cost_ns_;
    deletion_cost_ns_ =
        deletion_cost_known_.exchange(true) ? cost + (took - cost) / kSmoothing : took;
}

void SendWindow::UpdatePace(std::chrono::nanoseconds handling) noexcept {
    const std::int64_t pace = pace_ns_;
    pace_ns_ = std::max(handling.count(), pace + (handling.count() - pace) / kSmoothing);
}

}  // namespace Engine::FileNotify
