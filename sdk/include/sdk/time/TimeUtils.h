#pragma once

#include <cstdint>
#include <string>

namespace SDK {

/// Clocks. Stateless and thread-safe.
class TimeUtils {
  public:
    /// Seconds since the epoch.
    static std::int64_t GetCurrentTimestampS();

    /// Milliseconds of the monotonic clock.
    static std::int64_t GetMonotonicMs();

    /// CPU time of the calling thread in ticks of a microsecond.
    static unsigned long GetCurrentSystemTickUsed();

    /// Local time as "2026-11-21T08:37:33+0100".
    static std::string FormatLocalTime(std::int64_t seconds_since_epoch);
};

}  // namespace SDK
