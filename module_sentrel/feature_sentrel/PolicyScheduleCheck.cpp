#include <PolicyContentCheck.h>
#include <SentrelUtils.h>
#include <TimeRange.h>
#include <sdk/JsonUtils.h>

#include <array>
#include <charconv>
#include <string_view>

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

/// True when the range disables anything.
bool CheckRange(const std::string& range, const std::string& place, PolicyFindings& findings) {
    if (!IsPlainRange(range)) {
        findings.Error(place, "must be hours:minutes-hours:minutes, such as 22:00-06:30");
        return false;
    }
    if (TimeRange::Scan(range)) return true;
    findings.Warning(place, "begins where it ends: it disables nothing");
    return false;
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
            findings.Error(PointerTo(pointer, at), "must be a weekday, 0 (Sunday) to 6 (Saturday)");
        }
    }
    return any;
}

}  // namespace

void CheckSchedule(const Json::Value& content, const std::string& pointer,
                   PolicyFindings& findings) {
    const std::string range_place = PointerTo(pointer, "disable_timerange");
    const std::string week_place = PointerTo(pointer, "disable_week");
    Json::Value ranges;
    Json::Value days;
    const bool has_ranges = JsonUtils::GetArrayValue(content, "disable_timerange", ranges) &&
                            CheckRanges(ranges, range_place, findings);
    const bool has_days = JsonUtils::GetArrayValue(content, "disable_week", days) &&
                          CheckDays(days, week_place, findings);
    const std::string enable_place = PointerTo(pointer, "distime_enable");
    if (!JsonUtils::GetBoolValue(content, "distime_enable", false)) {
        if (has_ranges || has_days) {
            findings.Warning(enable_place, "is not true: the schedule is not read");
        }
    } else if (!has_ranges && !has_days) {
        findings.Warning(enable_place, "the schedule is on but disables nothing");
    } else if (!has_days) {
        findings.Warning(range_place,
                         "has no effect: minutes count only on the weekdays of disable_week");
    } else if (!has_ranges) {
        findings.Warning(week_place,
                         "has no effect: on these weekdays only the minutes of "
                         "disable_timerange are disabled, and there are none");
    }
}

}  // namespace Engine
