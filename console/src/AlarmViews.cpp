// Owns how alarms become what the console shows. It must not know where they come from.
#include "console/AlarmViews.h"

#include <notify/Incidents.h>
#include <notify/WhoText.h>
#include <sdk/text/JsonUtils.h>

#include <map>
#include <utility>

namespace Console {

using SDK::JsonUtils;

namespace {

constexpr std::size_t kMostIncidents = 50;
constexpr int kMostAlarms = 200;
constexpr int kMostPoints = 500;

Json::Value ToJson(const std::map<std::string, long long>& counts) {
    Json::Value object(Json::objectValue);
    for (const auto& [name, count] : counts) object[name] = static_cast<Json::Int64>(count);
    return object;
}

Json::Value ToJson(const Notify::Incident& incident) {
    Json::Value object(Json::objectValue);
    object["id"] = incident.first["seq"];
    object["begun_ms"] = static_cast<Json::Int64>(incident.begun_ms);
    object["last_ms"] = static_cast<Json::Int64>(incident.begun_ms);
    object["count"] = static_cast<Json::Int64>(incident.count);
    object["alarms"] = static_cast<Json::UInt64>(incident.alarms);
    object["actions"] = ToJson(incident.actions);
    object["outcomes"] = ToJson(incident.outcomes);
    object["common"] = incident.common;
    object["slowest_ms"] = incident.slowest_ms;
    return object;
}

Json::Value ToJson(const Notify::AlarmRecord& alarm, const Json::Value& report) {
    Json::Value document;
    const std::string body = JsonUtils::GetStringValue(report, "body", "");
    JsonUtils::ParseJsonStr(body.data(), body.size(), document);
    const Json::Value file = document["file_info"][0];
    Json::Value object(Json::objectValue);
    object["path"] = alarm.path;
    object["action"] = alarm.action;
    object["outcome"] = alarm.outcome;
    object["time_ms"] = static_cast<Json::Int64>(alarm.time_ms);
    object["duration_ms"] = alarm.duration_ms;
    object["count"] = static_cast<Json::Int64>(alarm.count);
    object["diff"] = JsonUtils::GetStringValue(file, "diff", "");
    object["diff_attr"] = JsonUtils::GetStringValue(file, "diff_attr", "");
    object["who"] = alarm.who;
    object["who_lines"] = Json::Value(Json::arrayValue);
    for (const std::string& line : Notify::WhoLines(report)) object["who_lines"].append(line);
    object["evidence"] = JsonUtils::GetStringValue(report, "evidence", "");
    return object;
}

}  // namespace

Json::Value IncidentsIn(const Json::Value& reports, const std::vector<std::string>& roots) {
    Notify::Incidents incidents(roots, kMostIncidents, false);
    std::map<long long, long long> last_ms;  // by the number of an incident's first report
    std::map<std::string, long long> open;   // that number by tree
    for (const Json::Value& report : reports) {
        const Notify::AlarmRecord alarm = Notify::ReadAlarm(report);
        if (!alarm.is_alarm) continue;
        long long& first = open[Notify::TreeOf(roots, alarm.path)];
        if (incidents.Add(alarm, report)) first = report["seq"].asInt64();
        last_ms[first] = alarm.time_ms;
    }
    Json::Value answer(Json::objectValue);
    answer["incidents"] = Json::Value(Json::arrayValue);
    for (auto one = incidents.Kept().rbegin(); one != incidents.Kept().rend(); ++one) {
        Json::Value object = ToJson(*one);
        object["last_ms"] = static_cast<Json::Int64>(last_ms[object["id"].asInt64()]);
        answer["incidents"].append(std::move(object));
    }
    return answer;
}

Json::Value IncidentIn(const Json::Value& reports, const std::vector<std::string>& roots,
                       long long id) {
    Notify::Incident incident;
    std::string tree;
    Json::Value answer(Json::objectValue);
    answer["alarms"] = Json::Value(Json::arrayValue);
    Json::Int64 left_out = 0;
    for (const Json::Value& report : reports) {
        const Notify::AlarmRecord alarm = Notify::ReadAlarm(report);
        if (!alarm.is_alarm || report["seq"].asInt64() < id) continue;
        if (incident.alarms == 0 && report["seq"].asInt64() != id) break;
        if (incident.alarms == 0) tree = Notify::TreeOf(roots, alarm.path);
        const bool is_of_it = incident.alarms == 0 ||
                              (Notify::TreeOf(roots, alarm.path) == tree &&
                               alarm.time_ms - incident.begun_ms < Notify::Incidents::kLongestMs);
        if (!is_of_it) continue;
        Notify::AddTo(incident, alarm, report);
        if (answer["alarms"].size() < kMostAlarms) {
            answer["alarms"].append(ToJson(alarm, report));
        } else {
            ++left_out;
        }
    }
    if (incident.alarms == 0) return {};
    answer["incident"] = ToJson(incident);
    answer["left_out"] = left_out;
    return answer;
}

Json::Value LatencyIn(const Json::Value& reports) {
    Json::Value answer(Json::objectValue);
    Json::Value& points = answer["points"];
    points = Json::Value(Json::arrayValue);
    for (const Json::Value& report : reports) {
        const Notify::AlarmRecord alarm = Notify::ReadAlarm(report);
        if (!alarm.is_alarm || alarm.duration_ms < 0) continue;
        Json::Value point(Json::arrayValue);
        point.append(static_cast<Json::Int64>(alarm.time_ms));
        point.append(alarm.duration_ms);
        points.append(std::move(point));
    }
    if (points.size() <= kMostPoints) return answer;
    Json::Value newest(Json::arrayValue);
    for (Json::ArrayIndex at = points.size() - kMostPoints; at < points.size(); ++at) {
        newest.append(points[at]);
    }
    points = std::move(newest);
    return answer;
}

}  // namespace Console
