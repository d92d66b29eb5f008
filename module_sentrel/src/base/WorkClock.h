#pragma once

#include <ctime>

namespace Engine {

constexpr int kMinutesPerDay = 1440;
constexpr int kDaysPerWeek = 7;

/// The time of day that the schedule goes by: what the gate, the age of alarms and the status take
/// for the present. Any thread.
class WorkClock {
  public:
    using Source = std::time_t (*)();

    static std::time_t Now();

    /// Another source of the time, for tests; null: the system's again.
    static void SetSource(Source source);
};

}  // namespace Engine
