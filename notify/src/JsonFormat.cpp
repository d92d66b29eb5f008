// Writes a message as the document of a webhook.
#include <algorithm>

#include "MessageText.h"
#include "notify/Formats.h"

namespace Notify {

namespace {

const char* KindText(Message::Kind kind) {
    switch (kind) {
        case Message::Kind::kIncident:
            return "incident";
        case Message::Kind::kDigest:
            return "digest";
        case Message::Kind::kTest:
            break;
    }
    return "test";
}

Json::Value Counts(const std::map<std::string, long long>& counts) {
    Json::Value object(Json::objectValue);
    for (const auto& [name, count] : counts) {
        object[name.empty() ? "unknown" : name] = static_cast<Json::Int64>(count);
    }
    return object;
}

Json::Value Example(const AlarmRecord& alarm) {
    Json::Value object(Json::objectValue);
    object["seq"] = static_cast<Json::Int64>(alarm.seq);
    object["time"] = UtcTime(alarm.time_ms);
    object["action"] = alarm.action;
    object["path"] = alarm.path;
    object["outcome"] = alarm.outcome;
    object["duration_ms"] = alarm.duration_ms < 0 ? Json::Value() : Json::Value(alarm.duration_ms);
    if (!alarm.who.empty()) object["who"] = alarm.who;
    return object;
}

Json::Value IncidentObject(const Incident& incident) {
    Json::Value object(Json::objectValue);
    if (!incident.agent_id.empty()) {
        object["host"] = incident.host;
        object["agent_id"] = incident.agent_id;
    }
    object["begun"] = UtcTime(incident.begun_ms);
    object["path"] = incident.common;
    object["changes"] = static_cast<Json::Int64>(incident.count);
    object["alarms"] = static_cast<Json::UInt64>(incident.alarms);
    object["actions"] = Counts(incident.actions);
    object["outcomes"] = Counts(incident.outcomes);
    object["failed"] = std::any_of(incident.outcomes.begin(), incident.outcomes.end(),
                                   [](const auto& outcome) { return IsFailure(outcome.first); });
    object["slowest_ms"] =
        incident.slowest_ms < 0 ? Json::Value() : Json::Value(incident.slowest_ms);
    object["examples"] = Json::Value(Json::arrayValue);
    for (const AlarmRecord& alarm : incident.examples) object["examples"].append(Example(alarm));
    return object;
}

}  // namespace

Json::Value ToJson(const Message& message) {
    Json::Value object(Json::objectValue);
    object["format"] = 1;
    object["kind"] = KindText(message.kind);
    object["id"] = message.id;
    object["host"] = message.origin.host;
    object["agent_id"] = message.origin.agent_id;
    object["agent_version"] = message.origin.version;
    object["sent"] = UtcTime(message.sent_ms);
    object["text"] = Headline(message);
    object["changes"] = static_cast<Json::Int64>(message.changes);
    object["lost_reports"] = static_cast<Json::Int64>(message.lost);
    object["incidents_left_out"] = static_cast<Json::UInt64>(message.left_out);
    object["incidents"] = Json::Value(Json::arrayValue);
    for (const Incident& incident : message.incidents) {
        object["incidents"].append(IncidentObject(incident));
    }
    return object;
}

}  // namespace Notify
