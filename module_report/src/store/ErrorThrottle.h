#pragma once

#include <sdk/time/TimeUtils.h>

#include <cstdint>

namespace Engine {

/// Decides when to log a lasting fault: at once, once a minute while it lasts, and once at its end.
/// Not thread-safe; its owner's lock guards it.
class ErrorThrottle {
  public:
    /// Counts a failure; true when it should be logged.
    bool Failed() {
        ++failures_;
        const std::int64_t now = SDK::TimeUtils::GetMonotonicMs();
        if (failures_ > 1 && now - last_line_ms_ < kIntervalMs) return false;
        last_line_ms_ = now;
        return true;
    }

    /// Ends the series of failures and returns its length.
    std::uint64_t Recovered() {
        const std::uint64_t failures = failures_;
        failures_ = 0;
        return failures;
    }

    /// Failures since the last success.
    std::uint64_t Failures() const { return failures_; }

  private:
    static constexpr std::int64_t kIntervalMs = 60 * 1000;
    std::uint64_t failures_ = 0;
    std::int64_t last_line_ms_ = 0;
};

}  // namespace Engine
