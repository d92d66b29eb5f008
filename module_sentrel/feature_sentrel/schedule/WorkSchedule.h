#pragma once

#include <array>
#include <ctime>
#include <optional>
#include <string>

#include "base/WorkClock.h"

namespace Engine {

/// The tables of working time as a value. Protection works all day on an enabled weekday; on the
/// others the minutes decide.
struct WorkSchedule {
    std::array<bool, kMinutesPerDay> minutes;
    std::array<bool, kDaysPerWeek> weekdays;  ///< Sunday is 0

    /// A schedule without a pause.
    static WorkSchedule AlwaysOn();
    /// The schedule of the module's settings. For threads that may read these.
    static WorkSchedule OfSettings();

    bool Works(int weekday, int minute) const;
    /// Works at that moment, in local time.
    bool WorksAt(std::time_t moment) const;
    /// The first full minute after `now` at which WorksAt changes; none when it never does. Looks
    /// eight days ahead, to cover a change to or from daylight saving time.
    std::optional<std::time_t> ChangesAt(std::time_t now) const;

    /// Also disables `range` ("22:00-06:30"). A malformed range changes nothing.
    void DisableRange(const std::string& range);
    /// Also disables what `other` disables.
    void Unite(const WorkSchedule& other);

    bool AlwaysWorks() const;
    bool NeverWorks() const;
    /// Works at some minute of the week at which `other` does not.
    bool WorksBeyond(const WorkSchedule& other) const;
};

}  // namespace Engine
