#pragma once

#include <array>
#include <ctime>
#include <optional>
#include <string>

#include "base/WorkClock.h"

namespace Engine {

/// The tables of working time, as values to look ahead in. A weekday that is set works all day; on
/// the others the minutes decide.
struct WorkSchedule {
    std::array<bool, kMinutesPerDay> minutes;
    std::array<bool, kDaysPerWeek> weekdays;  ///< Sunday is 0

    /// Without any pause.
    static WorkSchedule AlwaysOn();
    /// The module's settings. For threads that may read those.
    static WorkSchedule OfSettings();

    bool Works(int weekday, int minute) const;
    /// At that moment in local time.
    bool WorksAt(std::time_t moment) const;
    /// The first moment after `now` at which WorksAt changes, a full minute; nothing when it never
    /// does. Looks eight days ahead, so that it holds across a change of the clocks too.
    std::optional<std::time_t> ChangesAt(std::time_t now) const;

    /// Disables also what `range` ("22:00-06:30") says; a malformed one nothing.
    void DisableRange(const std::string& range);
    /// Disables also what `other` disables.
    void Unite(const WorkSchedule& other);

    /// Whether it works at every, or at no minute of the week; whether it works at a minute at
    /// which `other` does not.
    bool AlwaysWorks() const;
    bool NeverWorks() const;
    bool WorksBeyond(const WorkSchedule& other) const;
};

}  // namespace Engine
