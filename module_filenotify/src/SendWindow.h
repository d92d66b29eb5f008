#pragma once

#include <module_filenotify/DeliveryObserver.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <utility>

#include "LossHold.h"
#include "WakeLine.h"

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

    explicit SendWindow(std::shared_ptr<const WakeLine> wake) : wake_(std::move(wake)) {}

    /// Deletions are posted in so small numbers only, until it is known what they cost.
    static constexpr std::size_t kMostLosses = 8;
    /// A deletion that took so long has been undone by a command; one that took less than this has
    /// been found to be undone already.
    static constexpr std::chrono::milliseconds kSlowLoss{2};
    static constexpr int kSlowLosses = 3;
    static constexpr std::chrono::microseconds kUndone{60};
    static constexpr std::chrono::milliseconds kDearest{
        20};  ///< one that took longer counts so much

    // Task's thread only.
    bool HasRoom() const { return InFlight() < Size(); }
    bool HasRoomForLoss() const { return losses_in_flight_ < std::int64_t{kMostLosses}; }
    void Posted(bool is_loss);

    /// True: the wake line is told when half of the window, and of its part for deletions, is free.
    /// False: it is already.
    bool WakeWhenLow();

    /// Deletions have turned out slow since they were forgotten.
    bool LossesAreSlow() const { return slow_losses_ >= kSlowLosses; }
    void ForgetSlowLosses() { slow_losses_ = 0; }
    /// What it takes to undo the deletion of one file, by the last ones.
    std::chrono::nanoseconds LossCost() const {
        return std::chrono::nanoseconds(loss_cost_ns_.load());
    }

    // Any thread.
    std::size_t InFlight() const { return static_cast<std::size_t>(in_flight_.load()); }
    std::size_t Size() const;
    void MessageGone(const FileNotifyMessage& message,
                     std::optional<std::chrono::nanoseconds> handling) noexcept override;

  private:
    static constexpr std::int64_t kNoWake = -1;

    void Learn(std::chrono::nanoseconds handling) noexcept;
    void LearnLoss(std::chrono::nanoseconds handling) noexcept;

    const std::shared_ptr<const WakeLine> wake_;
    std::atomic<std::int64_t> in_flight_{0};
    std::atomic<std::int64_t> losses_in_flight_{0};
    std::atomic<int> slow_losses_{0};
    std::atomic<std::int64_t> loss_cost_ns_{LossHold::kUsualCost.count()};
    std::atomic<bool> loss_cost_known_{false};
    std::atomic<std::int64_t> wake_at_{kNoWake};
    std::atomic<std::int64_t> pace_ns_{1000000};  ///< what a message is taken to need
};

}  // namespace Engine::FileNotify
