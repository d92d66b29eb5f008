#include "notify/NewsReader.h"

#include <Poco/NumberParser.h>
#include <sdk/text/JsonUtils.h>
#include <sdk/time/TimeUtils.h>

#include <cmath>
#include <utility>
#include <vector>

namespace Collector {

using SDK::JsonUtils;

namespace {

constexpr std::int64_t kMsPerSecond = 1000;
constexpr std::size_t kMostName = 100;

// Another collector may commit a row with a smaller number a little later.
constexpr std::int64_t kSettledMs = 2 * kMsPerSecond;

std::int64_t Number(const Json::Value& object, const char* key) {
    return object.isObject() && object[key].isInt64() ? object[key].asInt64() : 0;
}

/// The document of an alarm that is about the host itself.
std::string HostAlarm(const std::string& kind) {
    Json::Value document(Json::objectValue);
    document["event_count"] = 1;
    document["file_info"][0]["action"] = kind;
    document["file_info"][0]["file_path"] = "";
    return JsonUtils::JsonToString(document);
}

Json::Value DurationOf(const Json::Value& row) {
    double milliseconds = -1;
    const std::string text = JsonUtils::GetStringValue(row, "duration_ms", "");
    const bool is_number = Poco::NumberParser::tryParseFloat(text, milliseconds) &&
                           std::isfinite(milliseconds) && milliseconds >= 0;
    return is_number ? Json::Value(milliseconds) : Json::Value();
}

}  // namespace

bool NewsReader::Read(const Json::Value& request, Json::Value& answer) {
    answer = Json::Value(Json::objectValue);
    answer["reports"] = Json::Value(Json::arrayValue);
    answer["more"] = false;
    std::int64_t last = 0;
    if (!request.isMember("after")) {
        if (!Last(last)) return false;
        answer["last_seq"] = Json::Int64{last};
        return true;
    }
    return ReadPage(Number(request, "after"), Number(request, "limit"), answer);
}

bool NewsReader::ReadPage(std::int64_t after, std::int64_t limit, Json::Value& answer) {
    const std::int64_t settled_ms =
        SDK::TimeUtils::GetCurrentTimestampS() * kMsPerSecond - kSettledMs;
    std::int64_t last = after;
    std::int64_t count = 0;
    bool good = true;
    names_.clear();
    std::vector<Json::Value> rows;
    const auto keep = [&](const Json::Value& row) {
        if (Number(row, is_of_hosts_ ? "time_ms" : "received_ms") > settled_ms) return false;
        last = Number(row, "id");
        ++count;
        rows.push_back(row);
        return true;
    };
    good = is_of_hosts_ ? store_.ReadEventsAfter(after, limit, keep)
                        : store_.ReadReportsAfter(after, limit, keep);
    for (const Json::Value& row : rows) good = good && Take(row, answer["reports"]);
    // A database that was restored from a backup has smaller numbers.
    std::int64_t newest = last;
    if (good && count == 0) good = Last(newest);
    answer["last_seq"] = Json::Int64{newest < after ? newest : last};
    answer["more"] = count >= limit;
    return good;
}

/// The time is that of the collector: the clocks of hosts differ.
bool NewsReader::Take(const Json::Value& row, Json::Value& reports) {
    const std::string agent_id = JsonUtils::GetStringValue(row, "agent_id", "");
    const std::string kind = JsonUtils::GetStringValue(row, "kind", "");
    if (agent_id.empty() || (!is_of_hosts_ && kind != "alarm")) return true;
    Json::Value report(Json::objectValue);
    if (names_.count(agent_id) == 0 && !FindName(agent_id)) return false;
    report["seq"] = row["id"];
    report["agent_id"] = agent_id;
    report["host"] = names_[agent_id];
    report["time_ms"] = row[is_of_hosts_ ? "time_ms" : "received_ms"];
    report["body"] = is_of_hosts_ ? Json::Value(HostAlarm(kind)) : row["body"];
    report["outcome"] = row[is_of_hosts_ ? "text" : "outcome"];
    report["duration_ms"] = DurationOf(row);
    report["evidence"] = "";  // stays on its host
    reports.append(std::move(report));
    return true;
}

bool NewsReader::FindName(const std::string& agent_id) {
    std::string text;
    if (!store_.ReadState(agent_id, text)) return false;
    Json::Value state;
    JsonUtils::ParseJsonStr(text.data(), text.size(), state);
    const std::string name = JsonUtils::GetStringValue(state, "host", "").substr(0, kMostName);
    names_[agent_id] = name.empty() ? agent_id : name;
    return true;
}

bool NewsReader::Last(std::int64_t& id) {
    return is_of_hosts_ ? store_.LastEvent(id) : store_.LastReport(id);
}

}  // namespace Collector
