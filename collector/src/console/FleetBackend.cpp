// Owns the addresses of the console of a fleet. What hosts sent is hostile.
#include "console/FleetBackend.h"

#include <Poco/NumberParser.h>
#include <console/AlarmViews.h>
#include <sdk/text/JsonUtils.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <thread>

#include "centre/Delivery.h"

namespace Collector {

using Console::ErrorReply;
using Console::Reply;
using Console::Request;
using SDK::JsonUtils;

namespace {

constexpr int kNotFound = 404;
constexpr int kForbidden = 403;
constexpr int kFailed = 500;
constexpr int kMostListed = 500;
constexpr int kMostAlarms = 1000;
constexpr std::chrono::milliseconds kLookEvery{250};
constexpr std::chrono::seconds kLongestWait{20};

Json::Value StateOf(const HostRecord& host) {
    Json::Value state;
    JsonUtils::ParseJsonStr(host.state.data(), host.state.size(), state);
    return state.isObject() ? state : Json::Value(Json::objectValue);
}

Json::Value Member(const Json::Value& object, const char* key) {
    return object.isObject() ? object.get(key, Json::Value()) : Json::Value();
}

/// [{"path", "text", "code"}], whatever the host says.
Json::Value ReasonsOf(const Json::Value& health) {
    Json::Value reasons(Json::arrayValue);
    Json::Value told;
    JsonUtils::GetArrayValue(health, "reasons", told);
    for (const Json::Value& one : told) {
        Json::Value reason(Json::objectValue);
        for (const char* key : {"path", "text", "code"}) {
            reason[key] = JsonUtils::GetStringValue(one, key, "");
        }
        reasons.append(std::move(reason));
    }
    return reasons;
}

Json::Int64 NumberIn(const Json::Value& object, const char* key) {
    const Json::Value value = Member(object, key);
    return value.isInt64() ? value.asInt64() : 0;
}

/// Protected paths in the form that the page knows, whatever the host says.
Json::Value PathsOf(const Json::Value& state) {
    Json::Value paths(Json::arrayValue);
    Json::Value told;
    JsonUtils::GetArrayValue(state, "protected_paths", told);
    for (const Json::Value& one : told) {
        Json::Value path(Json::objectValue);
        for (const char* key : {"path", "state", "problem", "backup_path"}) {
            path[key] = JsonUtils::GetStringValue(one, key, "");
        }
        for (const char* key : {"watched_directories", "held", "last_local_backup"}) {
            path[key] = NumberIn(one, key);
        }
        path["auto_restore"] = JsonUtils::GetBoolValue(one, "auto_restore", false);
        const Json::Value baseline = Member(one, "baseline");
        if (baseline.isObject()) {
            path["baseline"]["generation"] = NumberIn(baseline, "generation");
            path["baseline"]["approved_at"] = NumberIn(baseline, "approved_at");
            path["baseline"]["approval"] = JsonUtils::GetStringValue(baseline, "approval", "");
        }
        const Json::Value look = Member(one, "last_look");
        if (look.isObject()) {
            path["last_look"]["ended_at"] = NumberIn(look, "ended_at");
            path["last_look"]["objects"] = NumberIn(look, "objects");
        }
        paths.append(std::move(path));
    }
    return paths;
}

/// What a clock that differs does to acts. The state is up to half a minute old.
void TellSkew(const HostRecord& host, const Json::Value& state, Json::Value& reasons) {
    constexpr std::int64_t kToleratedMs = 120'000;
    const std::int64_t skew_ms = NumberIn(state, "time_ms") - host.last_seen_ms;
    if (NumberIn(state, "time_ms") == 0 || std::llabs(skew_ms) < kToleratedMs) return;
    Json::Value reason(Json::objectValue);
    reason["code"] = "clock";
    reason["text"] = "Its clock is " + std::to_string(std::llabs(skew_ms) / 1000) + " s " +
                     (skew_ms > 0 ? "ahead of" : "behind") +
                     " the collector's, so it may refuse acts.";
    reasons.append(std::move(reason));
}

Json::Value SummaryOf(const HostRecord& host) {
    const Json::Value state = StateOf(host);
    const Json::Value health = Member(state, "health");
    const std::string name = JsonUtils::GetStringValue(state, "host", "");
    const std::string told = JsonUtils::GetStringValue(health, "state", "off");
    Json::Value summary(Json::objectValue);
    summary["id"] = host.agent_id;
    summary["name"] = name.empty() ? host.agent_id : name;
    summary["state"] =
        host.silent ? "silent" : (told == "healthy" || told == "degraded" ? told : "off");
    summary["reasons"] = ReasonsOf(health);
    if (!host.silent) TellSkew(host, state, summary["reasons"]);
    summary["approved"] = JsonUtils::GetStringValue(Member(state, "approved"), "id", "");
    summary["version"] = JsonUtils::GetStringValue(state, "version", "");
    summary["seen_ms"] = Json::Int64{host.last_seen_ms};
    summary["last_undone_ms"] = NumberIn(state, "last_undone_ms");
    summary["paths"] = PathsOf(state).size();
    summary["groups"] = Json::Value(Json::arrayValue);
    for (const std::string& group : GroupsOf(host)) summary["groups"].append(group);
    return summary;
}

std::vector<std::string> RootsOf(const Json::Value& state) {
    std::vector<std::string> roots;
    Json::Value paths;
    JsonUtils::GetArrayValue(state, "protected_paths", paths);
    for (const Json::Value& path : paths) {
        const std::string root = JsonUtils::GetStringValue(path, "path", "");
        if (!root.empty()) roots.push_back(root);
    }
    return roots;
}

Reply Found(Json::Value body) {
    Reply reply;
    reply.body = std::move(body);
    return reply;
}

/// Below 0: it is none.
std::int64_t NumberOf(const std::string& text) {
    Poco::Int64 number = -1;
    return Poco::NumberParser::tryParse64(text, number) ? number : -1;
}

bool IsNumber(const std::string& text) {
    return NumberOf(text) >= 0;
}

}  // namespace

bool FleetBackend::Open(const Database::Location& database, std::string& error) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (store_.OpenExisting(database) && users_.Open(database) && rollouts_.Open(database)) {
        return true;
    }
    error = "cannot open " + database.Text() + ": " + store_.Error();
    return false;
}

Reply FleetBackend::Handle(const Request& request) {
    const std::vector<std::string>& path = request.path;
    if (request.method != "GET") return Change(request);
    if (path == std::vector<std::string>{"changes"}) return AwaitNews(request);
    const std::lock_guard<std::mutex> lock(mutex_);
    if (path == std::vector<std::string>{"hosts"}) return ListHosts();
    if (path == std::vector<std::string>{"events"}) return ListEvents();
    if (path == std::vector<std::string>{"results"}) return ListResults();
    if (path == std::vector<std::string>{"acts"}) return ListActs(request.user);
    if (!path.empty() && path[0] == "rollouts") return LookAtRollouts(path);
    if (path.size() < 2 || path[0] != "hosts") {
        return ErrorReply(kNotFound, "The console has no such address.");
    }
    return LookAtHost(path[1], {path.begin() + 2, path.end()});
}

Reply FleetBackend::Change(const Request& request) {
    const std::vector<std::string>& path = request.path;
    const std::lock_guard<std::mutex> lock(mutex_);
    if (path == std::vector<std::string>{"prepare"}) return centre_.Prepare(request);
    if (path == std::vector<std::string>{"publish"}) return centre_.Publish(request);
    if (path.size() == 3 && path[0] == "rollouts" && IsNumber(path[1])) {
        return centre_.Change(request, NumberOf(path[1]), path[2]);
    }
    return ErrorReply(kNotFound, "The console has no such address.");
}

Reply FleetBackend::LookAtRollouts(const std::vector<std::string>& path) {
    if (path.size() == 1) return centre_.List();
    if (path.size() == 2 && IsNumber(path[1])) return centre_.Show(NumberOf(path[1]));
    return ErrorReply(kNotFound, "The console has no such address.");
}

Reply FleetBackend::ListHosts() {
    std::vector<HostRecord> hosts;
    if (!store_.ReadHosts(hosts)) return ErrorReply(kFailed, store_.Error());
    Json::Value body(Json::objectValue);
    body["hosts"] = Json::Value(Json::arrayValue);
    for (const HostRecord& host : hosts) body["hosts"].append(SummaryOf(host));
    return Found(std::move(body));
}

Reply FleetBackend::LookAtHost(const std::string& agent_id, const std::vector<std::string>& what) {
    HostRecord host;
    if (!FindHost(agent_id, host)) return ErrorReply(kNotFound, "There is no such host.");
    const Json::Value state = StateOf(host);
    Json::Value body(Json::objectValue);
    if (what.empty()) {
        body["host"] = SummaryOf(host);
        body["status"]["protected_paths"] = PathsOf(state);
        return Found(std::move(body));
    }
    const std::vector<std::string> roots = RootsOf(state);
    if (what[0] == "latency") return Found(Console::LatencyIn(NewestAlarms(agent_id)));
    if (what[0] != "incidents") return ErrorReply(kNotFound, "The console has no such address.");
    if (what.size() == 1) return Found(Console::IncidentsIn(NewestAlarms(agent_id), roots));
    if (what.size() != 2 || !IsNumber(what[1])) {
        return ErrorReply(kNotFound, "The console has no such address.");
    }
    body = Console::IncidentIn(NewestAlarms(agent_id), roots, NumberOf(what[1]));
    if (body.isNull()) return ErrorReply(kNotFound, "This incident is no longer kept.");
    return Found(std::move(body));
}

bool FleetBackend::FindHost(const std::string& agent_id, HostRecord& host) {
    std::vector<HostRecord> hosts;
    if (!store_.ReadHosts(hosts)) return false;
    const auto found = std::find_if(hosts.begin(), hosts.end(), [&](const HostRecord& one) {
        return one.agent_id == agent_id;
    });
    if (found == hosts.end()) return false;
    host = *found;
    return true;
}

/// Reports as a host's own store answers them; the collector's row stands for the number, which a
/// host may use twice.
Json::Value FleetBackend::NewestAlarms(const std::string& agent_id) {
    Json::Value reports(Json::arrayValue);
    ReportQuery query;
    query.agent_id = agent_id;
    query.kind = "alarm";
    query.limit = kMostAlarms;
    store_.ListReports(query, [&](const Json::Value& row) {
        Json::Value report = row;
        report["seq"] = row["id"];
        report.removeMember("agent_id");  // incidents of one host are told apart by their paths
        const std::string duration = JsonUtils::GetStringValue(row, "duration_ms", "");
        double milliseconds = -1;
        if (!Poco::NumberParser::tryParseFloat(duration, milliseconds)) milliseconds = -1;
        // JSON has no other numbers.
        report["duration_ms"] = std::isfinite(milliseconds) && milliseconds >= 0
                                    ? Json::Value(milliseconds)
                                    : Json::Value();
        report["evidence"] = "";  // stays on its host
        reports.append(std::move(report));
        return true;
    });
    return reports;
}

Reply FleetBackend::ListEvents() {
    Json::Value body(Json::objectValue);
    body["events"] = Json::Value(Json::arrayValue);
    store_.ListEvents(kMostListed, [&](const Json::Value& row) {
        body["events"].append(row);
        return true;
    });
    return Found(std::move(body));
}

Reply FleetBackend::ListResults() {
    Json::Value body(Json::objectValue);
    body["results"] = Json::Value(Json::arrayValue);
    store_.ListResults([&](const Json::Value& row) {
        body["results"].append(row);
        return true;
    });
    return Found(std::move(body));
}

Reply FleetBackend::ListActs(const Console::User& user) {
    if (user.role != Console::Role::kAdmin) {
        return ErrorReply(kForbidden, "Only an administrator sees what users did.");
    }
    Json::Value body(Json::objectValue);
    body["acts"] = users_.Acts(kMostListed);
    return Found(std::move(body));
}

/// Waits until a report is stored after the row "after"; without it, tells the newest row.
Reply FleetBackend::AwaitNews(const Request& request) {
    const auto after = request.parameters.find("after");
    const bool is_first = after == request.parameters.end() || !IsNumber(after->second);
    ReportQuery query;
    query.kind = "alarm";
    query.limit = is_first ? 1 : kMostAlarms;
    query.after = is_first ? 0 : NumberOf(after->second);
    Json::Value body(Json::objectValue);
    body["after"] = Json::Int64{query.after};
    body["alarms"] = 0;
    const auto end = std::chrono::steady_clock::now() + kLongestWait;
    do {
        const std::lock_guard<std::mutex> lock(mutex_);
        int count = 0;
        store_.ListReports(query, [&](const Json::Value& row) {
            body["after"] = row["id"];
            ++count;
            return true;
        });
        body["alarms"] = is_first ? 0 : count;
        if (is_first || count > 0) break;
    } while (!is_stopping_ && std::chrono::steady_clock::now() < end &&
             (std::this_thread::sleep_for(kLookEvery), true));
    return Found(std::move(body));
}

}  // namespace Collector
