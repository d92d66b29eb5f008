#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>

namespace Engine::FileNotify {

/// Pauses reading of the kernel's queue in a storm, 1 ms doubling to kMaxPause. Each read costs the
/// writers time: they wake the reader and wait for the queue's lock. Single events and the start of
/// a burst cause no pause. Owned by NotifyCore. Not thread-safe.
class ReadBackoff {
  public:
    using Time = std::chrono::steady_clock::time_point;
    using Span = std::chrono::milliseconds;

    static constexpr Span kMaxPause{4};
    static constexpr std::chrono::milliseconds kWindow{1};
    static constexpr std::size_t kStormRecords = 256;    ///< within kWindow
    static constexpr std::uint32_t kEventsPerMs = 4000;  ///< assumed maximum rate
    static constexpr std::uint32_t kQueueFraction = 4;   ///< a pause may fill 1/4 of the queue

    /// `events`: capacity of the kernel's queue; 0: unknown, which disables pauses.
    void SetQueueLimit(std::uint32_t events) {
        max_pause_ = std::min(kMaxPause, Span(events / kQueueFraction / kEventsPerMs));
        pause_ = Span::zero();
    }

    /// Call after each read of `records` records. `emptied`: the read emptied the queue.
    void OnRead(std::size_t records, bool emptied, Time now) {
        if (now - window_ >= kWindow) {
            window_ = now;
            in_window_ = 0;
        }
        in_window_ += records;
        const bool is_storm = emptied && in_window_ >= kStormRecords;
        pause_ = is_storm ? std::min(std::max(pause_ * 2, Span(1)), max_pause_) : Span::zero();
        until_ = now + pause_;
    }

    bool IsStorm() const { return pause_ > Span::zero(); }
    bool IsPaused(Time now) const { return IsStorm() && now < until_; }

    /// End of the current pause; meaningful while IsPaused.
    Time Until() const { return until_; }

  private:
    Span max_pause_{0};
    Span pause_{0};
    Time until_{};
    Time window_{};
    std::size_t in_window_ = 0;
};

}  // namespace Engine::FileNotify
