// Owns the published copy of the schedule. It must not read the settings (the policy callback
// passes them). Any thread, under a lock.
#include "feature_sentrel/schedule/ScheduleStatus.h"

#include <array>

namespace Engine {

namespace {

/// "06:30" for a moment of today, else with the date.
std::string TimeText(std::time_t moment, std::time_t now) {
    std::tm then{};
    std::tm today{};
    ::localtime_r(&moment, &then);
    ::localtime_r(&now, &today);
    const bool same_day = then.tm_yday == today.tm_yday && then.tm_year == today.tm_year;
    std::array<char, 32> text{};
    std::strftime(text.data(), text.size(), same_day ? "%H:%M" : "%Y-%m-%d %H:%M", &then);
    return text.data();
}

}  // namespace

void ScheduleStatus::Publish(const WorkSchedule& schedule, bool enabled) {
    const std::lock_guard<std::mutex> lock(mutex_);
    schedule_ = schedule;
    enabled_ = enabled;
}

WorkSchedule ScheduleStatus::Get() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return schedule_;
}

Json::Value ScheduleStatus::ToJson(std::time_t now) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    const bool working = schedule_.WorksAt(now);
    const auto until = schedule_.ChangesAt(now);
    Json::Value answer(Json::objectValue);
    answer["enabled"] = enabled_;
    answer["working"] = working;
    answer["until"] = until ? Json::Value(static_cast<Json::Int64>(*until)) : Json::Value();
    std::string text = working ? "working" : "paused";
    if (until) {
        text += " until " + TimeText(*until, now);
    } else {
        text += working ? " at all times" : " at all times: no minute of the week is left";
    }
    if (!enabled_ && !schedule_.AlwaysWorks()) {
        text += ", by an earlier policy's schedule, which lasts until the agent restarts";
    }
    answer["text"] = text;
    return answer;
}

}  // namespace Engine
