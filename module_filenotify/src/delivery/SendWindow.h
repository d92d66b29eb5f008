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

/// How many messages one receiver has been posted and has not dealt with yet, and how many that
/// should be: what lies in its queue can no longer be put in order nor merged, so it is to be
/// little, about kWork of the receiver's time, but never so little that the receiver has to wait
/// for more. Shared with the messages, which may outlive the task.
class SendWindow : public DeliveryObserver {
  public:
    static constexpr std::chrono::milliseconds kWork{10};
    static constexpr std::size_t kFewest = 8;
    static constexpr std::size_t kMost = 256;

    explicit SendWindow(std::shared_ptr<const WakeEvent> wake) : wake_(std::move(wake)) {}

    /// Deletions are posted in so small numbers only, until it is known what they cost.
    static constexpr std::size_t kMostDeletions = 8;
    /// A deletion that took so long has been undone by a command; one that took less than this has
    /// been found to be undone already.
    static constexpr std::chrono::milliseconds kSlowDeletion{2};
    static constexpr int kSlowDeletions = 3;
    static constexpr std::chrono::microseconds kUndone{60};
    static constexpr std::chrono::milliseconds kDearest{
        20};  ///< one that took longer counts so much

    // Task's thread only.
    bool HasRoom() const { return InFlight() < Size(); }
    bool HasRoomForDeletion() const { return deletions_in_flight_ < std::int64_t{kMostDeletions}; }
    void Posted(bool is_deletion);

    /// True: the wake line is told when half of the window, and of its part for deletions, is free.
    /// False: it is already.
    bool WakeWhenLow();

    /// Deletions have turned out slow since they were forgotten.
    bool DeletionsAreSlow() const { return slow_deletions_ >= kSlowDeletions; }
    void ForgetSlowDeletions() { slow_deletions_ = 0; }
    /// What it takes to undo the deletion of one file, by the last ones.
    std::chrono::nanoseconds DeletionCost() const {
        return std::chrono::nanoseconds(deletion_cost_ns_.load());
    }

    // Any thread.
    std::size_t InFlight() const { return static_cast<std::size_t>(in_flight_.load()); }
    std::size_t Size() const;
    void MessageGone(const FileNotifyMessage& message,
                     std::optional<std::chrono::nanoseconds> handling) noexcept override;

  private:
    static constexpr std::int64_t kNoWake = -1;

    void Learn(std::chrono::nanoseconds handling) noexcept;
    void LearnDeletion(std::chrono::nanoseconds handling) noexcept;

    const std::shared_ptr<const WakeEvent> wake_;
    std::atomic<std::int64_t> in_flight_{0};
    std::atomic<std::int64_t> deletions_in_flight_{0};
    std::atomic<int> slow_deletions_{0};
    std::atomic<std::int64_t> deletion_cost_ns_{DeletionDebounce::kUsualCost.count()};
    std::atomic<bool> deletion_cost_known_{false};
    std::atomic<std::int64_t> wake_at_{kNoWake};
    std::atomic<std::int64_t> pace_ns_{1000000};  ///< what a message is taken to need
};

}  // namespace Engine::FileNotify
