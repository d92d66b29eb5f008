#pragma once

#include <module_filenotify/DeliveryObserver.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <utility>

#include "delivery/DeletionDebounce.h"
#include "delivery/WakeEvent.h"

namespace Engine::FileNotify {

/// Limits the messages in flight to one receiver to about kTargetWork of its time: a posted message
/// can no longer be merged or reordered, but the receiver must not run dry. Measures handling
/// times. Shared by Delivery and the messages, which may outlive the task.
///
/// Size, InFlight and MessageGone are thread-safe; the rest is for the task's thread.
class SendWindow : public DeliveryObserver {
  public:
    static constexpr std::chrono::milliseconds kTargetWork{10};
    static constexpr std::size_t kMinSize = 8;
    static constexpr std::size_t kMaxSize = 256;

    /// Deletions in flight, so that their cost is known before many are posted.
    static constexpr std::size_t kMaxDeletions = 8;
    /// A deletion that takes this long was undone by an external command.
    static constexpr std::chrono::milliseconds kSlowDeletion{2};
    static constexpr int kSlowDeletionsNeeded = 3;
    /// A deletion that takes less needed no undoing.
    static constexpr std::chrono::microseconds kNothingToUndo{60};
    /// Upper bound of one measured deletion.
    static constexpr std::chrono::milliseconds kMaxDeletionCost{20};

    /// `wake` is woken from the thread that frees a message; may be null when WakeWhenLow is not
    /// used.
    explicit SendWindow(std::shared_ptr<const WakeEvent> wake) : wake_(std::move(wake)) {}

    bool HasRoom() const { return InFlight() < Size(); }
    bool HasRoomForDeletion() const { return deletions_in_flight_ < std::int64_t{kMaxDeletions}; }
    /// Counts a message. MessageGone reverts it.
    void OnPost(bool is_deletion);

    /// Requests a wake-up when half of the full window (of all messages or of deletions) is free.
    /// Returns false when it is free already; then there will be no wake-up.
    bool WakeWhenLow();

    /// True after kSlowDeletionsNeeded slow deletions since the last reset.
    bool DeletionsAreSlow() const { return slow_deletions_ >= kSlowDeletionsNeeded; }
    void ResetSlowDeletions() { slow_deletions_ = 0; }
    /// The receiver's smoothed time to undo the deletion of one file.
    std::chrono::nanoseconds DeletionCost() const {
        return std::chrono::nanoseconds(deletion_cost_ns_.load());
    }

    std::size_t InFlight() const { return static_cast<std::size_t>(in_flight_.load()); }
    /// The current size of the window in messages.
    std::size_t Size() const;
    void MessageGone(const FileNotifyMessage& message,
                     std::optional<std::chrono::nanoseconds> handling) noexcept override;

  private:
    static constexpr std::int64_t kNoWake = -1;

    void UpdatePace(std::chrono::nanoseconds handling) noexcept;
    void UpdateDeletionCost(std::chrono::nanoseconds handling) noexcept;

    const std::shared_ptr<const WakeEvent> wake_;
    std::atomic<std::int64_t> in_flight_{0};
    std::atomic<std::int64_t> deletions_in_flight_{0};
    std::atomic<int> slow_deletions_{0};
    std::atomic<std::int64_t> deletion_cost_ns_{DeletionDebounce::kDefaultCost.count()};
    std::atomic<bool> deletion_cost_known_{false};
    std::atomic<std::int64_t> wake_at_{kNoWake};
    std::atomic<std::int64_t> pace_ns_{1000000};  ///< assumed time per message
};

}  // namespace Engine::FileNotify
