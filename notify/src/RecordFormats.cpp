// Writes single alarms for log collectors: RFC 5424, the journal's protocol, OCSF.
#include <sdk/text/JsonUtils.h>
#include <sdk/text/StrUtils.h>
#include <sdk/text/Utf8.h>

#include <algorithm>
#include <cstdint>

#include "MessageText.h"
#include "notify/Formats.h"

namespace Notify {

using SDK::StrUtils;

namespace {

constexpr int kFacility = 13;  ///< log audit
constexpr int kWarning = 4;
constexpr int kError = 3;
constexpr std::size_t kMostHost = 255;
constexpr std::size_t kMostRecord = 60 * 1024;  ///< a datagram of any socket

int SeverityOf(const AlarmRecord& alarm) {
    return IsFailure(alarm.outcome) ? kError : kWarning;
}

/// A value of structured data: '"', '\' and ']' have a meaning.
std::string Parameter(const char* name, const std::string& value) {
    std::string escaped;
    for (const char c : SDK::ToValidUtf8(value)) {
        if (c == '"' || c == '\\' || c == ']') escaped += '\\';
        const auto code = static_cast<unsigned char>(c);
        escaped +=
            code < 0x20 || code == 0x7f ? StrUtils::Format("\\\\x%02x", code) : std::string(1, c);
    }
    return std::string(" ") + name + "=\"" + escaped + "\"";
}

/// PRINTUSASCII without blanks, or "-".
std::string Name(const std::string& text) {
    std::string name;
    for (const char c : text.substr(0, kMostHost)) {
        name += c > 0x20 && c < 0x7f ? c : '?';
    }
    return name.empty() ? "-" : name;
}

/// A value may have any bytes; its length precedes it.
std::string JournalField(const char* name, const std::string& value) {
    std::string field = std::string(name) + "\n";
    const std::uint64_t size = value.size();
    for (int shift = 0; shift < 64; shift += 8) {
        field += static_cast<char>((size >> static_cast<unsigned>(shift)) & 0xffU);
    }
    return field + value + "\n";
}

/// What OCSF calls the activity.
int ActivityOf(const std::string& action) {
    if (action == "add") return 1;
    if (action == "modify") return 3;
    if (action == "delete") return 4;
    return action == "attribute" ? 6 : 99;
}

/// What OCSF calls the disposition: Restored, Deleted, Uncorrected; 1, Allowed, when the change was
/// only reported.
int DispositionOf(const std::string& outcome) {
    if (IsFailure(outcome)) return 13;
    if (outcome.find("restored") != std::string::npos) return 9;
    return outcome.find("removed") != std::string::npos ? 5 : 1;
}

Json::Value OcsfMetadata(const Origin& origin, const AlarmRecord& alarm) {
    Json::Value metadata(Json::objectValue);
    metadata["version"] = "1.3.0";
    metadata["uid"] = origin.agent_id + "-" + std::to_string(alarm.seq);
    metadata["sequence"] = static_cast<Json::Int64>(alarm.seq);
    metadata["profiles"].append("host");
    metadata["profiles"].append("security_control");
    metadata["product"]["name"] = "Sentrel";
    metadata["product"]["vendor_name"] = "Sentrel";
    metadata["product"]["version"] = origin.version;
    return metadata;
}

}  // namespace

std::string FormatSyslog(const Origin& origin, const Json::Value& report) {
    const AlarmRecord alarm = ReadAlarm(report);
    if (!alarm.is_alarm) return "";
    // 32473 is the number that RFC 5612 reserves for examples; there is none of this product.
    const std::string data = "[alarm@32473" + Parameter("seq", std::to_string(alarm.seq)) +
                             Parameter("agent", origin.agent_id) +
                             Parameter("action", alarm.action) + Parameter("path", alarm.path) +
                             Parameter("outcome", alarm.outcome) +
                             Parameter("count", std::to_string(alarm.count)) + "]";
    const std::string text = StrUtils::Format("<%d>1 ", kFacility * 8 + SeverityOf(alarm)) +
                             UtcTime(alarm.time_ms) + " " + Name(origin.host) +
                             " morvane_agent - alarm " + data + " " + AlarmText(alarm);
    return text.size() <= kMostRecord ? text : SDK::ToValidUtf8(text.substr(0, kMostRecord));
}

std::string FormatJournal(const Origin& origin, const Json::Value& report) {
    const AlarmRecord alarm = ReadAlarm(report);
    if (!alarm.is_alarm) return "";
    return JournalField("MESSAGE", AlarmText(alarm)) +
           JournalField("PRIORITY", std::to_string(SeverityOf(alarm))) +
           JournalField("SYSLOG_IDENTIFIER", "morvane_agent") +
           JournalField("SENTREL_SEQ", std::to_string(alarm.seq)) +
           JournalField("SENTREL_AGENT", origin.agent_id) +
           JournalField("SENTREL_ACTION", alarm.action) + JournalField("SENTREL_PATH", alarm.path) +
           JournalField("SENTREL_OUTCOME", alarm.outcome) +
           JournalField("SENTREL_COUNT", std::to_string(alarm.count));
}

std::string FormatOcsf(const Origin& origin, const Json::Value& report) {
    const AlarmRecord alarm = ReadAlarm(report);
    if (!alarm.is_alarm) return "";
    const int activity = ActivityOf(alarm.action);
    Json::Value event(Json::objectValue);
    event["category_uid"] = 1;
    event["class_uid"] = 1001;
    event["activity_id"] = activity;
    event["type_uid"] = 100100 + activity;
    if (activity == 99) event["activity_name"] = alarm.action;
    event["time"] = static_cast<Json::Int64>(alarm.time_ms);
    event["severity_id"] = IsFailure(alarm.outcome) ? 4 : 3;  // High, Medium
    event["count"] = static_cast<Json::Int64>(alarm.count);
    event["message"] = AlarmText(alarm);
    event["status_detail"] = alarm.outcome;
    event["action_id"] = DispositionOf(alarm.outcome) == 1 ? 1 : 2;  // Allowed, Denied
    event["disposition_id"] = DispositionOf(alarm.outcome);
    event["metadata"] = OcsfMetadata(origin, alarm);
    event["actor"]["app_name"] = "unknown";
    event["device"]["type_id"] = 1;  // Server
    event["device"]["hostname"] = origin.host;
    event["device"]["uid"] = origin.agent_id;
    const std::size_t slash = alarm.path.rfind('/');
    event["file"]["path"] = alarm.path;
    event["file"]["name"] = slash == std::string::npos ? alarm.path : alarm.path.substr(slash + 1);
    event["file"]["type_id"] = 0;  // the alarm does not say
    return SDK::JsonUtils::JsonToString(event);
}

}  // namespace Notify
