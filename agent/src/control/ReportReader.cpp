// Owns the slots of waiting readers. Must not know the store (the report module answers the
// query). Runs on the control API's threads.
#include "control/ReportReader.h"

#include <Poco/NumberParser.h>
#include <sdk/time/TimeUtils.h>

#include <algorithm>

#include "common/ControlProtocol.h"

namespace Agent {

namespace {

constexpr char kQuery[] = "reports.read";
constexpr int kWaitSliceMs = 250;  ///< upper bound until a waiting reader notices Stop

/// Adds one parameter to the request; false when it is unknown or out of range.
bool ParseParameter(const std::string& name, const std::string& value, Json::Value& request) {
    if (name == "kind") {
        request["kind"] = value;
        return value.empty() || value == "cmd" || value == "data" || value == "alarm";
    }
    Poco::Int64 number = 0;
    if (!Poco::NumberParser::tryParse64(value, number) || number < 0) return false;
    if (name == "limit") {
        request["limit"] =
            static_cast<Json::Int64>(std::clamp<Poco::Int64>(number, 1, kMaxReportsPerRequest));
        return true;
    }
    if (name == "wait_ms") {
        request["wait_ms"] = static_cast<Json::Int64>(std::min<Poco::Int64>(number, kMaxWaitMs));
        return true;
    }
    if (name != "after" && name != "since") return false;
    request[name] = static_cast<Json::Int64>(number);
    return true;
}

}  // namespace

ReportReader::ReportReader(Framework::QueryRegistry& queries, int max_waiting)
    : queries_(queries), waiting_(max_waiting) {}

Reply ReportReader::Read(const QueryParameters& parameters) {
    Json::Value request(Json::objectValue);
    for (const auto& [name, value] : parameters) {
        if (!ParseParameter(name, value, request)) {
            return ErrorReply(400, "\"" + value + "\" is no value that " + name +
                                       " can have. Parameters are kind (cmd, data or alarm), and "
                                       "the numbers after, since, limit and wait_ms.");
        }
    }
    const int wait_ms = request.get("wait_ms", 0).asInt();
    request.removeMember("wait_ms");
    return wait_ms > 0 ? Wait(request, wait_ms) : Ask(request);
}

Reply ReportReader::Wait(Json::Value request, int wait_ms) {
    const ConcurrencyLimit::Slot slot(waiting_);
    if (!slot.IsAcquired())
        return ErrorReply(503, "Too many readers are waiting for reports already.");
    const std::int64_t end = SDK::TimeUtils::GetMonotonicMs() + wait_ms;
    while (true) {
        const std::int64_t left = end - SDK::TimeUtils::GetMonotonicMs();
        const bool last = left <= 0 || stopped_;
        request["wait_ms"] =
            last ? 0 : static_cast<int>(std::min<std::int64_t>(left, kWaitSliceMs));
        Reply reply = Ask(request);
        if (last || reply.status != 200 || !reply.body["reports"].empty()) return reply;
    }
}

Reply ReportReader::Ask(const Json::Value& request) {
    Reply reply;
    if (queries_.Ask(kQuery, request, reply.body) && reply.body.isObject()) return reply;
    return ErrorReply(503, "No report store answers; is the report module loaded?");
}

}  // namespace Agent
