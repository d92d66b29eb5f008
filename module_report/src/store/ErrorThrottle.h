#pragma once

#include <sdk/time/TimeUtils.h>

#include <cstdint>

namespace Engine {

/// Decides when a lasting fault is worth a log line: at once, then once a minute while it lasts,
/// and once when it is over. Guarded by its owner's lock.
class ErrorThrottle {
  public:
    /// Notes a failure; true when it should be logged.
    bool Failed() {
        ++failures_;
        const std::int64_t now = SDK::TimeUtils::GetMonotonicMs();
        if (failures_ > 1 && now - last_line_ms_ < kIntervalMs) return false;
        last_line_ms_ = now;
        return true;
    }

    /// Notes a success; how many failures came before it.
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
