#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>

namespace Engine::FileNotify {

/// Decides how long the kernel's queue is left alone after it has been read. In a storm each look
/// at it costs whoever makes the changes: he wakes the reader and waits for the lock of the queue.
/// So it is left to fill for a moment, in which the writer has the processor and what is read comes
/// in large portions. What comes alone, and how a burst begins, is read at once. Not for several
/// threads.
class ReadBackoff {
  public:
    using Time = std::chrono::steady_clock::time_point;
    using Span = std::chrono::milliseconds;

    static constexpr Span kLongest{4};
    static constexpr std::chrono::milliseconds kWindow{1};
    static constexpr std::size_t kStorm = 256;        ///< records within kWindow
    static constexpr std::uint32_t kFastest = 4000;   ///< events that may come in 1 ms
    static constexpr std::uint32_t kPartOfQueue = 4;  ///< it is never left to fill further

    /// So many events the kernel keeps; 0: not known, and then there are no rests.
    void SetQueueLimit(std::uint32_t events) {
        most_ = std::min(kLongest, Span(events / kPartOfQueue / kFastest));
        rest_ = Span::zero();
    }

    /// So many records were read just now. `emptied`: the queue has been left empty.
    void Note(std::size_t records, bool emptied, Time now) {
        if (now - window_ >= kWindow) {
            window_ = now;
            in_window_ = 0;
        }
        in_window_ += records;
        const bool rests = emptied && in_window_ >= kStorm;
        rest_ = rests ? std::min(std::max(rest_ * 2, Span(1)), most_) : Span::zero();
        until_ = now + rest_;
    }

    bool IsStorm() const { return rest_ > Span::zero(); }
    bool IsResting(Time now) const { return IsStorm() && now < until_; }

    /// When the queue is to be read again, while resting.
    Time Until() const { return until_; }

  private:
    Span most_{0};
    Span rest_{0};
    Time until_{};
    Time window_{};
    std::size_t in_window_ = 0;
};

}  // namespace Engine::FileNotify
