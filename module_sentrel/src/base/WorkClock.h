#pragma once

#include <ctime>

namespace Engine {

constexpr int kMinutesPerDay = 1440;
constexpr int kDaysPerWeek = 7;

/// The present time for the schedule: the work-time gate, the age of alarms and the status ask
/// here. Thread-safe.
class WorkClock {
  public:
    using Source = std::time_t (*)();

    static std::time_t Now();

    /// Replaces the source of the time, for tests; null restores the system's clock.
    static void SetSource(Source source);
};

}  // namespace Engine
