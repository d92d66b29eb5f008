#include "ReportQueries.h"

#include <sdk/text/JsonUtils.h>

#include <algorithm>
#include <chrono>
#include <string>

#include "alarm_log/AlarmLog.h"
#include "store/ReportStore.h"

namespace Engine {
namespace {

constexpr std::int64_t kDefaultLimit = 100;
constexpr std::int64_t kMaxLimit = 10000;
constexpr std::int64_t kMaxWaitMs = 60 * 1000;
constexpr std::int64_t kMaxSeconds = 1LL
                                     << 40;  // beyond any date, without an overflow in milliseconds
constexpr std::size_t kMaxExporterName = 64;

Json::Value Error(const std::string& sentence) {
    Json::Value answer(Json::objectValue);
    answer["error"] = sentence;
    return answer;
}

// False when the member exists and is not an integer from 0 up.
bool TakeNumber(const Json::Value& request, const char* key, std::int64_t& value) {
    const Json::Value& member = request[key];
    if (member.isNull()) return true;
    if (!member.isInt64() || member.asInt64() < 0) return false;
    value = member.asInt64();
    return true;
}

bool TakeKind(const Json::Value& request, ReportFilter::Kind& kind) {
    const Json::Value& member = request["kind"];
    if (member.isNull()) return true;
    if (!member.isString()) return false;
    const std::string name = member.asString();
    if (name.empty()) {
        kind = ReportFilter::Kind::kAny;
    } else if (name == "cmd") {
        kind = ReportFilter::Kind::kCmd;
    } else if (name == "data") {
        kind = ReportFilter::Kind::kData;
    } else if (name == "alarm") {
        kind = ReportFilter::Kind::kAlarm;
    } else {
        return false;
    }
    return true;
}

bool TakeExporter(const Json::Value& request, std::string& exporter) {
    const Json::Value& member = request["exporter"];
    if (!member.isString()) return false;
    exporter = member.asString();
    return !exporter.empty() && exporter.size() <= kMaxExporterName;
}

Json::Value ToJson(const Report& report) {
    Json::Value object(Json::objectValue);
    object["seq"] = Json::Int64{report.seq};
    object["time_ms"] = Json::Int64{report.time_ms};
    object["kind"] = report.kind;
    object["name"] = report.name;
    object["body"] = report.body;
    object["outcome"] = report.outcome;
    object["duration_ms"] =
        report.duration_ms < 0 ? Json::Value() : Json::Value(report.duration_ms);
    object["evidence"] = report.evidence;
    Json::Value who;
    if (SDK::JsonUtils::ParseJsonStr(report.who.data(), report.who.size(), who) == 0) {
        object["who"] = std::move(who);
    }
    return object;
}

// Empty, or the fault of the request.
std::string ParseRead(const Json::Value& request, ReportFilter& filter, std::int64_t& wait_ms) {
    std::int64_t since = 0;
    filter.limit = kDefaultLimit;
    if (!request.isObject() && !request.isNull()) return "the request must be an object";
    if (!TakeKind(request, filter.kind)) return "\"kind\" must be cmd, data, alarm or empty";
    if (!TakeNumber(request, "after", filter.after)) return "\"after\" must be a sequence number";
    if (!TakeNumber(request, "since", since)) return "\"since\" must be seconds since the epoch";
    if (!TakeNumber(request, "limit", filter.limit)) return "\"limit\" must be a number";
    if (!TakeNumber(request, "wait_ms", wait_ms)) return "\"wait_ms\" must be milliseconds";
    filter.since_ms = std::min(since, kMaxSeconds) * 1000;
    filter.limit = std::clamp<std::int64_t>(filter.limit, 1, kMaxLimit);
    wait_ms = std::min(wait_ms, kMaxWaitMs);
    filter.newest =
        !request.isMember("after") && !request.isMember("since") && !request.isMember("exporter");
    return "";
}

}  // namespace

Json::Value ReportQueries::Read(const Json::Value& request) {
    ReportFilter filter;
    std::int64_t wait_ms = 0;
    const std::string wrong = ParseRead(request, filter, wait_ms);
    if (!wrong.empty()) return Error(wrong);
    if (request.isMember("exporter")) {
        std::string exporter;
        std::int64_t acked = 0;
        if (!TakeExporter(request, exporter)) return Error("\"exporter\" must be a short name");
        if (!store_.AckedSeq(exporter, acked)) return Error("the report store cannot be read");
        filter.after = std::max(filter.after, acked);
    }
    ReportPage page;
    if (!store_.Read(filter, std::chrono::milliseconds(wait_ms), page)) {
        return Error("the report store cannot be read");
    }
    Json::Value answer(Json::objectValue);
    answer["reports"] = Json::Value(Json::arrayValue);
    for (const Report& report : page.reports) answer["reports"].append(ToJson(report));
    answer["first_seq"] = Json::Int64{page.first_seq};
    answer["last_seq"] = Json::Int64{page.last_seq};
    answer["more"] = page.more;
    return answer;
}

Json::Value ReportQueries::Acknowledge(const Json::Value& request) {
    std::string exporter;
    std::int64_t seq = -1;
    if (!request.isObject() || !TakeExporter(request, exporter)) {
        return Error("\"exporter\" must be a short name");
    }
    if (!TakeNumber(request, "seq", seq) || seq < 0) return Error("\"seq\" must be a number");
    if (!store_.Acknowledge(exporter, seq) || !store_.AckedSeq(exporter, seq)) {
        return Error("the report store cannot be written");
    }
    Json::Value answer(Json::objectValue);
    answer["exporter"] = exporter;
    answer["acked_seq"] = Json::Int64{seq};
    return answer;
}

Json::Value ReportQueries::Status() {
    const StoreStatus status = store_.Status();
    Json::Value answer(Json::objectValue);
    Json::Value& reports = answer["reports"];
    reports["working"] = status.working;
    reports["error"] = status.error;
    reports["stored"] = Json::Int64{status.stored};
    reports["last_seq"] = Json::Int64{status.last_seq};
    reports["bytes"] = Json::Int64{status.bytes};
    reports["exporters"] = Json::Value(Json::objectValue);
    for (const ExporterState& exporter : status.exporters) {
        reports["exporters"][exporter.name]["acked_seq"] = Json::Int64{exporter.acked_seq};
    }
    Json::Value& counters = answer["counters"];
    counters["reports_stored"] = Json::UInt64{status.reports_stored};
    counters["reports_failed"] = Json::UInt64{status.reports_failed};
    counters["reports_lost"] = Json::UInt64{status.reports_lost};
    counters["report_stores_set_aside"] = Json::UInt64{status.files_set_aside};
    counters["alarm_lines_failed"] = Json::UInt64{alarms_.FailedLines()};
    return answer;
}

}  // namespace Engine
