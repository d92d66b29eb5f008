#include <fleet/Report.h>
#include <fleet/Topics.h>
#include <sdk/text/JsonUtils.h>
#include <sdk/text/Utf8.h>

#include <charconv>
#include <utility>

namespace Fleet {

namespace {

constexpr std::size_t kMaxTextBytes = 256;
constexpr std::size_t kMaxAcknowledgementBytes = 256;

bool ToNumber(const std::string& text, std::int64_t& number) {
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && stop == end && number >= 0;
}

/// False when the property is missing or no number.
bool TakeNumber(const Message& message, const char* name, std::int64_t& number) {
    const auto found = message.properties.find(name);
    return found != message.properties.end() && ToNumber(found->second, number);
}

/// An empty text when the property is missing. False when it is too long.
bool TakeText(Message& message, const char* name, std::string& text) {
    const auto found = message.properties.find(name);
    if (found != message.properties.end()) text = std::move(found->second);
    return text.size() <= kMaxTextBytes;
}

void AddText(Message& message, const char* name, const std::string& text) {
    if (!text.empty()) {
        message.properties[name] = SDK::ToValidUtf8(text.substr(0, kMaxTextBytes / 4));
    }
}

}  // namespace

Message ToMessage(const std::string& agent_id, const Report& report) {
    Message message;
    message.topic = ReportTopic(agent_id, report.kind);
    message.payload = report.body.substr(0, kMaxBodyBytes);
    message.properties["stream"] = report.stream;
    message.properties["seq"] = std::to_string(report.seq);
    message.properties["previous"] = std::to_string(report.previous);
    message.properties["acknowledged"] = std::to_string(report.acknowledged);
    message.properties["time_ms"] = std::to_string(report.time_ms);
    message.properties["whole_bytes"] = std::to_string(report.body.size());
    AddText(message, "name", report.name);
    AddText(message, "outcome", report.outcome);
    AddText(message, "duration_ms", report.duration_ms);
    AddText(message, "evidence", report.evidence);
    return message;
}

std::optional<Report> ReadReport(const std::string& kind, Message&& message) {
    Report report;
    report.kind = kind;
    const bool numbers = TakeNumber(message, "seq", report.seq) &&
                         TakeNumber(message, "previous", report.previous) &&
                         TakeNumber(message, "acknowledged", report.acknowledged) &&
                         TakeNumber(message, "time_ms", report.time_ms) &&
                         TakeNumber(message, "whole_bytes", report.whole_bytes);
    const bool texts = TakeText(message, "stream", report.stream) &&
                       TakeText(message, "name", report.name) &&
                       TakeText(message, "outcome", report.outcome) &&
                       TakeText(message, "duration_ms", report.duration_ms) &&
                       TakeText(message, "evidence", report.evidence);
    if (!numbers || !texts || !IsLeaf(report.stream) || report.previous >= report.seq ||
        report.acknowledged > report.previous) {
        return std::nullopt;
    }
    report.body = std::move(message.payload);
    return report;
}

std::string ToText(const Acknowledgement& acknowledgement) {
    Json::Value object(Json::objectValue);
    object["stream"] = acknowledgement.stream;
    object["seq"] = Json::Int64{acknowledgement.seq};
    object["again"] = acknowledgement.again;
    return SDK::JsonUtils::JsonToString(object);
}

std::optional<Acknowledgement> ReadAcknowledgement(const std::string& text) {
    Json::Value object;
    if (text.size() > kMaxAcknowledgementBytes ||
        SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), object) != 0 || !object.isObject() ||
        !object["seq"].isInt64() || object["seq"].asInt64() < 0) {
        return std::nullopt;
    }
    Acknowledgement read;
    read.stream = SDK::JsonUtils::GetStringValue(object, "stream", "");
    read.seq = object["seq"].asInt64();
    read.again = SDK::JsonUtils::GetBoolValue(object, "again", false);
    return read;
}

}  // namespace Fleet
