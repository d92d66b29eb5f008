#include <sdk/text/JsonUtils.h>
#include <sdk/text/StrUtils.h>

#include <array>
#include <charconv>
#include <optional>
#include <string>
#include <string_view>

#include "feature_sentrel/policy_check/PolicyContentCheck.h"
#include "feature_sentrel/schedule/TimeRange.h"

namespace Engine {

namespace {

using SDK::JsonUtils;

/// The whole text is "hours:minutes-hours:minutes", each in its range.
bool IsPlainRange(std::string_view text) {
    struct Part {
        int highest;
        char follows;  ///< 0: the end
    };
    static constexpr std::array<Part, 4> kParts = {{{23, ':'}, {59, '-'}, {23, ':'}, {59, 0}}};
    for (const Part& part : kParts) {
        int number = -1;
        const char* const end = text.data() + text.size();
        const char* const next = std::from_chars(text.data(), end, number).ptr;
        if (number < 0 || number > part.highest) return false;
        text.remove_prefix(static_cast<std::size_t>(next - text.data()));
        if (part.follows == 0) return text.empty();
        if (text.empty() || text.front() != part.follows) return false;
        text.remove_prefix(1);
    }
    return false;
}

std::string ClockTime(int minute) {
    return SDK::StrUtils::Format("%d:%02d", minute / 60, minute % 60);
}

/// True when the range disables anything.
bool CheckRange(const std::string& range, const std::string& place, PolicyFindings& findings) {
    const bool plain = IsPlainRange(range);
    const std::optional<TimeRange> read = TimeRange::Scan(range);
    if (!read) {
        findings.Warning(place, plain ? "begins where it ends: it disables nothing"
                                      : "must be hours:minutes-hours:minutes, such as "
                                        "22:00-06:30: it disables nothing");
    } else if (!plain) {
        findings.Warning(place,
                         "is read as " + ClockTime(read->start) + "-" + ClockTime(read->end));
    }
    return read.has_value();
}

bool CheckRanges(const Json::Value& list, const std::string& pointer, PolicyFindings& findings) {
    bool any = false;
    for (Json::ArrayIndex at = 0; at < list.size(); ++at) {
        if (!list[at].isString()) continue;
        if (CheckRange(list[at].asString(), PointerTo(pointer, at), findings)) any = true;
    }
    return any;
}

bool CheckDays(const Json::Value& list, const std::string& pointer, PolicyFindings& findings) {
    bool any = false;
    for (Json::ArrayIndex at = 0; at < list.size(); ++at) {
        if (!list[at].isInt()) continue;
        if (list[at].asInt() >= 0 && list[at].asInt() < kDaysPerWeek) {
            any = true;
        } else {
            findings.Warning(PointerTo(pointer, at),
                             "must be a weekday, 0 (Sunday) to 6 (Saturday): it is ignored");
        }
    }
    return any;
}

/// The schedule of this document alone.
WorkSchedule OwnSchedule(const Json::Value& ranges, const Json::Value& days) {
    WorkSchedule schedule = WorkSchedule::AlwaysOn();
    for (const Json::Value& range : ranges) {
        if (range.isString()) schedule.DisableRange(range.asString());
    }
    for (const Json::Value& day : days) {
        if (!day.isInt() || day.asInt() < 0 || day.asInt() >= kDaysPerWeek) continue;
        schedule.weekdays[static_cast<std::size_t>(day.asInt())] = false;
    }
    return schedule;
}

/// A pause past midnight applies to the early and the late hours of one weekday.
void CheckNights(const Json::Value& ranges, const WorkSchedule& schedule,
                 const std::string& pointer, PolicyFindings& findings) {
    bool interrupted = false;
    for (std::size_t day = 0; day < schedule.weekdays.size(); ++day) {
        const std::size_t next = (day + 1) % schedule.weekdays.size();
        if (!schedule.weekdays[day] && schedule.weekdays[next]) interrupted = true;
    }
    if (!interrupted) return;
    for (Json::ArrayIndex at = 0; at < ranges.size(); ++at) {
        const auto range =
            ranges[at].isString() ? TimeRange::Scan(ranges[at].asString()) : std::nullopt;
        if (!range || range->start <= range->end) continue;
        findings.Warning(PointerTo(pointer, at),
                         "passes midnight: each weekday of disable_week pauses in its own early "
                         "and late hours, and after the last one work begins at midnight");
    }
}

/// Minutes and days that earlier policies disabled stay disabled until the agent restarts.
void CheckEarlierTimes(const WorkSchedule& own, const WorkSchedule& earlier,
                       const std::string& place, PolicyFindings& findings) {
    WorkSchedule united = own;
    united.Unite(earlier);
    if (united.NeverWorks()) {
        findings.Warning(place, own.NeverWorks()
                                    ? "protection never works: every minute of the week is disabled"
                                    : "protection never works: with the times that earlier "
                                      "policies disabled, which stay so until the agent "
                                      "restarts, no minute of the week is left");
    } else if (own.WorksBeyond(united)) {
        findings.Warning(place,
                         "earlier policies disabled other times too: they stay disabled until the "
                         "agent restarts");
    }
}

}  // namespace

void CheckSchedule(const Json::Value& content, const std::string& pointer,
                   const WorkSchedule& earlier, PolicyFindings& findings) {
    const std::string range_place = PointerTo(pointer, "disable_timerange");
    const std::string week_place = PointerTo(pointer, "disable_week");
    const std::string enable_place = PointerTo(pointer, "distime_enable");
    Json::Value ranges;
    Json::Value days;
    const bool has_ranges = JsonUtils::GetArrayValue(content, "disable_timerange", ranges) &&
                            CheckRanges(ranges, range_place, findings);
    const bool has_days = JsonUtils::GetArrayValue(content, "disable_week", days) &&
                          CheckDays(days, week_place, findings);
    if (!JsonUtils::GetBoolValue(content, "distime_enable", false)) {
        if (has_ranges || has_days) {
            findings.Warning(enable_place, "is not true: the schedule is not read");
        }
        CheckEarlierTimes(WorkSchedule::AlwaysOn(), earlier, enable_place, findings);
        return;
    }
    if (!has_ranges && !has_days) {
        findings.Warning(enable_place, "the schedule is on but disables nothing");
    } else if (!has_days) {
        findings.Warning(range_place,
                         "has no effect: minutes count only on the weekdays of disable_week");
    } else if (!has_ranges) {
        findings.Warning(week_place,
                         "has no effect: on these weekdays only the minutes of "
                         "disable_timerange are disabled, and there are none");
    }
    const WorkSchedule own = OwnSchedule(ranges, days);
    CheckNights(ranges, own, range_place, findings);
    CheckEarlierTimes(own, earlier, enable_place, findings);
}

}  // namespace Engine
