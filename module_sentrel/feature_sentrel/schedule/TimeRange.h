#pragma once

#include <optional>
#include <string>

namespace Engine {

/// A daily range of minutes, both ends included; start after end wraps past midnight.
struct TimeRange {
    int start;  ///< minute of the day, 0 to 1439
    int end;

    /// Reads "%d:%d-%d:%d" as scanf does: hours and minutes are not checked one by one ("0:90-3:00"
    /// begins at minute 90), and trailing text is ignored. None when a number is missing, when
    /// start or end is outside the day, or when they are equal.
    static std::optional<TimeRange> Scan(const std::string& text);
};

}  // namespace Engine
