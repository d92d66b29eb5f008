#include "feature_sentrel/schedule/WorkSchedule.h"

#include <algorithm>

#include "feature_sentrel/schedule/TimeRange.h"
#include "utils/SentrelUtils.h"

namespace Engine {

namespace {

constexpr std::time_t kMinuteSeconds = 60;
constexpr int kLookAheadMinutes = 8 * kMinutesPerDay;

/// True when `holds(weekday, minute)` is true for some minute of the week.
template <typename Condition>
bool AnyMinute(Condition holds) {
    for (int weekday = 0; weekday < kDaysPerWeek; ++weekday) {
        for (int minute = 0; minute < kMinutesPerDay; ++minute) {
            if (holds(weekday, minute)) return true;
        }
    }
    return false;
}

}  // namespace

WorkSchedule WorkSchedule::AlwaysOn() {
    WorkSchedule schedule{};
    schedule.minutes.fill(true);
    schedule.weekdays.fill(true);
    return schedule;
}

WorkSchedule WorkSchedule::OfSettings() {
    const SentrelUtils* utils = SentrelUtils::GetInstance();
    return {utils->minute_enabled, utils->weekday_enabled};
}

bool WorkSchedule::Works(int weekday, int minute) const {
    return weekdays.at(static_cast<std::size_t>(weekday)) ||
           minutes.at(static_cast<std::size_t>(minute));
}

bool WorkSchedule::WorksAt(std::time_t moment) const {
    std::tm local{};
    ::localtime_r(&moment, &local);
    return Works(local.tm_wday, local.tm_hour * 60 + local.tm_min);
}

std::optional<std::time_t> WorkSchedule::ChangesAt(std::time_t now) const {
    if (AlwaysWorks() || NeverWorks()) return std::nullopt;
    const bool works = WorksAt(now);
    std::time_t moment = now - now % kMinuteSeconds;
    for (int ahead = 0; ahead < kLookAheadMinutes; ++ahead) {
        moment += kMinuteSeconds;
        if (WorksAt(moment) != works) return moment;
    }
    return std::nullopt;
}

void WorkSchedule::DisableRange(const std::string& range) {
    const auto scanned = TimeRange::Scan(range);
    if (!scanned) return;
    const auto [start, end] = *scanned;
    if (start < end) {
        std::fill(minutes.begin() + start, minutes.begin() + end + 1, false);
    } else {
        std::fill(minutes.begin() + start, minutes.end(), false);
        std::fill(minutes.begin(), minutes.begin() + end + 1, false);
    }
}

void WorkSchedule::Unite(const WorkSchedule& other) {
    const auto both = [](bool a, bool b) { return a && b; };
    std::transform(minutes.begin(), minutes.end(), other.minutes.begin(), minutes.begin(), both);
    std::transform(weekdays.begin(), weekdays.end(), other.weekdays.begin(), weekdays.begin(),
                   both);
}

bool WorkSchedule::AlwaysWorks() const {
    return !AnyMinute([this](int weekday, int minute) { return !Works(weekday, minute); });
}

bool WorkSchedule::NeverWorks() const {
    return !AnyMinute([this](int weekday, int minute) { return Works(weekday, minute); });
}

bool WorkSchedule::WorksBeyond(const WorkSchedule& other) const {
    return AnyMinute([this, &other](int weekday, int minute) {
        return Works(weekday, minute) && !other.Works(weekday, minute);
    });
}

}  // namespace Engine
