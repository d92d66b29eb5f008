#include "feature_sentrel/schedule/TimeRange.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <limits>

#include "base/WorkClock.h"

namespace Engine {

namespace {

/// Reads one %d at `at` and moves `at` on. A number outside int counts as the nearest int.
bool ScanNumber(const char*& at, std::int64_t& number) {
    char* next = nullptr;
    const long value = std::strtol(at, &next, 10);
    if (next == at) return false;
    constexpr long kLowest = std::numeric_limits<int>::min();
    constexpr long kHighest = std::numeric_limits<int>::max();
    number = std::clamp(value, kLowest, kHighest);
    at = next;
    return true;
}

bool ScanSign(const char*& at, char sign) {
    if (*at != sign) return false;
    ++at;
    return true;
}

bool ScanMinute(const char*& at, std::int64_t& minute) {
    std::int64_t hours = 0;
    std::int64_t minutes = 0;
    if (!ScanNumber(at, hours) || !ScanSign(at, ':') || !ScanNumber(at, minutes)) return false;
    minute = hours * 60 + minutes;
    return true;
}

bool IsMinuteOfDay(std::int64_t minute) {
    return minute >= 0 && minute < kMinutesPerDay;
}

}  // namespace

std::optional<TimeRange> TimeRange::Scan(const std::string& text) {
    const char* at = text.c_str();
    std::int64_t start = 0;
    std::int64_t end = 0;
    if (!ScanMinute(at, start) || !ScanSign(at, '-') || !ScanMinute(at, end)) return std::nullopt;
    if (!IsMinuteOfDay(start) || !IsMinuteOfDay(end) || start == end) return std::nullopt;
    return TimeRange{static_cast<int>(start), static_cast<int>(end)};
}

}  // namespace Engine
