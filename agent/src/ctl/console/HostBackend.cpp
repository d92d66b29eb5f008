// Owns the addresses of the console of one host. It must not know HTTP, sessions or the page.
#include "ctl/console/HostBackend.h"

#include <Poco/NumberParser.h>
#include <console/AlarmViews.h>
#include <evidence/EvidenceStore.h>
#include <sdk/files/PathUtils.h>
#include <sdk/text/JsonUtils.h>
#include <sdk/text/PercentCode.h>
#include <unistd.h>

#include <array>
#include <climits>
#include <utility>

#include "ctl/baselines/ApprovedStates.h"

namespace Ctl {

using Console::ErrorReply;
using Console::Reply;
using Console::Request;
using SDK::JsonUtils;

namespace {

constexpr char kNewestAlarms[] = "/v1/reports?kind=alarm&limit=1000";
constexpr int kTimeoutS = 60;
constexpr int kNewsWaits = 10;
constexpr int kNewsWaitMs = 2000;
constexpr std::size_t kMostEvidenceBytes = 64UL * 1024 * 1024;
constexpr long long kMsPerSecond = 1000;

constexpr int kNotFound = 404;
constexpr int kBadRequest = 400;
constexpr int kForbidden = 403;
constexpr int kBadGateway = 502;

Reply NoSuchAddress() {
    return ErrorReply(kNotFound, "The console has no such address.");
}

/// The agent's answer, or why there is none.
Reply FromAgent(const Answer& answer) {
    if (answer.kind != Answer::Kind::kAnswered) return ErrorReply(kBadGateway, answer.problem);
    Reply reply;
    reply.status = answer.status;
    reply.body = answer.body;
    return reply;
}

Reply Found(Json::Value body, const std::string& error) {
    if (!error.empty()) return ErrorReply(kNotFound, error);
    Reply reply;
    reply.body = std::move(body);
    return reply;
}

std::string HostName() {
    std::array<char, HOST_NAME_MAX + 1> name{};
    return ::gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "this host";
}

Json::Value SummaryOf(const Json::Value& status) {
    Json::Value host(Json::objectValue);
    const Json::Value& protection = status["protection"];
    host["id"] = JsonUtils::GetStringValue(status, "agent_id", "");
    host["name"] = HostName();
    host["state"] = JsonUtils::GetStringValue(status["health"], "state", "off");
    host["reasons"] = status["health"]["reasons"];
    host["version"] = JsonUtils::GetStringValue(status, "version", "");
    host["paths"] = status["protected_paths"].size();
    const Json::Value& undone = protection["last_undone"];
    host["last_undone_ms"] =
        undone.isInt64() ? Json::Value(static_cast<Json::Int64>(undone.asInt64() * kMsPerSecond))
                         : Json::Value();
    return host;
}

std::vector<std::string> RootsOf(const Json::Value& status) {
    std::vector<std::string> roots;
    for (const Json::Value& path : status["protected_paths"]) {
        roots.push_back(JsonUtils::GetStringValue(path, "path", ""));
    }
    return roots;
}

/// [{"path", "generation", "approved_at", "approval", "objects"}]
Json::Value Generations() {
    const ApprovedStates states;
    Json::Value list(Json::arrayValue);
    if (!states.IsReadable()) return list;
    for (const Baseline::Generation& generation : states.Store().AllKept()) {
        if (!generation) continue;
        const Baseline::ManifestInfo& info = generation.manifest->Info();
        Json::Value object(Json::objectValue);
        object["path"] = LiveRoot(info);
        object["generation"] = generation.number;
        object["approved_at"] = static_cast<Json::Int64>(info.created);
        object["approval"] = info.approval;
        object["objects"] = static_cast<Json::UInt64>(generation.manifest->Size());
        list.append(std::move(object));
    }
    return list;
}

Reply ReadEvidence(const std::string& id) {
    const Evidence::EvidenceStore store(
        Evidence::EvidenceStore::Directory(SDK::PathUtils::GetInstallationPath()));
    const std::vector<std::string> found = store.Find(id);
    const SDK::FileDescriptor content =
        found.size() == 1 ? store.Open(found.front()) : SDK::FileDescriptor();
    if (!content.IsOpen()) return ErrorReply(kNotFound, "This content is no longer kept.");
    Reply reply;
    reply.file_name = found.front() + ".bin";
    std::string piece(64UL * 1024, '\0');
    while (reply.content.size() < kMostEvidenceBytes) {
        const ssize_t size = ::read(content.Get(), piece.data(), piece.size());
        if (size <= 0) break;
        reply.content.append(piece.data(), static_cast<std::size_t>(size));
    }
    return reply;
}

/// Below 0: it is none.
long long NumberOf(const std::string& text) {
    Poco::Int64 number = -1;
    return Poco::NumberParser::tryParse64(text, number) ? number : -1;
}

bool IsNumber(const std::string& text) {
    return NumberOf(text) >= 0;
}

}  // namespace

Reply HostBackend::Handle(const Request& request) {
    try {
        const std::vector<std::string>& path = request.path;
        const bool is_look = request.method == "GET";
        if (is_look && path == std::vector<std::string>{"changes"}) return AwaitNews(request);
        if (is_look && path == std::vector<std::string>{"hosts"}) return ShowHost(false);
        if (path.size() < 2 || path[0] != "hosts") return NoSuchAddress();
        const std::vector<std::string> what(path.begin() + 2, path.end());
        return is_look ? Look(request, what) : Change(request, what);
    } catch (const std::exception& e) {
        return ErrorReply(kBadGateway, std::string("The console has failed: ") + e.what() + ".");
    }
}

void HostBackend::Stop() {
    is_stopping_ = true;
    jobs_.Stop();
}

Reply HostBackend::Look(const Request&, const std::vector<std::string>& what) {
    if (what.empty()) return ShowHost(true);
    const bool has_name = what.size() == 2;
    if (what[0] == "incidents" || what[0] == "latency") return LookAtAlarms(what);
    if (what[0] == "policies" && what.size() == 1) return FromAgent(client_.Get("/v1/policies"));
    if (what[0] == "policies" && has_name) return ShowPolicy(what[1]);
    if (what[0] == "evidence" && has_name) return ReadEvidence(what[1]);
    if (what[0] == "requests" && has_name && IsNumber(what[1])) {
        return FromAgent(client_.Get("/v1/baseline/requests/" + std::to_string(NumberOf(what[1]))));
    }
    if (what[0] == "generations") {
        Reply reply;
        reply.body["generations"] = Generations();
        return reply;
    }
    if (what[0] == "jobs" && has_name && IsNumber(what[1])) {
        const Json::Value job = jobs_.Show(NumberOf(what[1]));
        return Found(job, job.isNull() ? "Another comparison was begun meanwhile." : "");
    }
    return NoSuchAddress();
}

Reply HostBackend::LookAtAlarms(const std::vector<std::string>& what) const {
    const Answer status = client_.Get("/v1/status");
    if (status.kind != Answer::Kind::kAnswered) return FromAgent(status);
    const Answer alarms = client_.Get(kNewestAlarms);
    if (alarms.kind != Answer::Kind::kAnswered || alarms.status != 200) return FromAgent(alarms);
    const Json::Value& reports = alarms.body["reports"];
    const std::vector<std::string> roots = RootsOf(status.body);
    if (what[0] == "latency") return Found(Console::LatencyIn(reports), "");
    if (what.size() == 1) return Found(Console::IncidentsIn(reports, roots), "");
    if (what.size() != 2 || !IsNumber(what[1])) return NoSuchAddress();
    const Json::Value incident = Console::IncidentIn(reports, roots, NumberOf(what[1]));
    return Found(incident, incident.isNull() ? "This incident is no longer kept." : "");
}

Reply HostBackend::ShowHost(bool in_full) const {
    const Answer status = client_.Get("/v1/status");
    if (status.kind != Answer::Kind::kAnswered || status.status != 200) return FromAgent(status);
    Reply reply;
    if (in_full) {
        reply.body["host"] = SummaryOf(status.body);
        reply.body["status"] = status.body;
    } else {
        reply.body["hosts"].append(SummaryOf(status.body));
    }
    return reply;
}

/// Waits until there is an alarm with a number above "after"; without it, tells the newest number.
Reply HostBackend::AwaitNews(const Request& request) const {
    Reply reply;
    const auto after = request.parameters.find("after");
    if (after == request.parameters.end() || !IsNumber(after->second)) {
        const Answer answer = client_.Get("/v1/reports?limit=1");
        if (answer.kind != Answer::Kind::kAnswered) return FromAgent(answer);
        reply.body["after"] = answer.body["last_seq"];
        reply.body["alarms"] = 0;
        return reply;
    }
    for (int wait = 0; wait < kNewsWaits && !is_stopping_; ++wait) {
        const Answer answer =
            client_.Get("/v1/reports?kind=alarm&limit=1000&after=" + after->second +
                        "&wait_ms=" + std::to_string(kNewsWaitMs));
        if (answer.kind != Answer::Kind::kAnswered || answer.status != 200) {
            return FromAgent(answer);
        }
        const Json::Value& reports = answer.body["reports"];
        reply.body["alarms"] = reports.size();
        reply.body["after"] =
            reports.empty() ? answer.body["last_seq"] : reports[reports.size() - 1]["seq"];
        if (!reports.empty()) break;
    }
    return reply;
}

Reply HostBackend::ShowPolicy(const std::string& feature) const {
    const Answer answer = client_.Get("/v1/policies/" + Encoded(feature));
    if (answer.kind != Answer::Kind::kAnswered || answer.status != 200) return FromAgent(answer);
    Reply reply;
    reply.body["document"] = JsonUtils::GetStringValue(answer.body, "text", "");
    return reply;
}

Reply HostBackend::Change(const Request& request, const std::vector<std::string>& what) {
    const bool is_action = what.size() == 1;
    if (is_action && what[0] == "verify") {
        std::string error;
        const int job = jobs_.Start(JsonUtils::GetStringValue(request.body, "path", ""), error);
        Json::Value body(Json::objectValue);
        body["job"] = job;
        return Found(std::move(body), error);
    }
    if (request.user.role == Console::Role::kViewer) {
        return ErrorReply(kForbidden, "You may look only.");
    }
    if (is_action && (what[0] == "accept" || what[0] == "restore" || what[0] == "rollback")) {
        return Decide(what[0], request);
    }
    if (is_action && (what[0] == "pause" || what[0] == "resume")) {
        return ChangePause(what[0], request);
    }
    if (what.size() == 3 && what[0] == "policies") return TakePolicy(request, what[1], what[2]);
    return NoSuchAddress();
}

Reply HostBackend::Decide(const std::string& action, const Request& request) const {
    Json::Value asked(Json::objectValue);
    asked["all"] = false;
    asked["paths"] = request.body["paths"];
    if (action == "rollback") {
        const std::string path = JsonUtils::GetStringValue(request.body, "path", "");
        asked["paths"] = Json::Value(Json::arrayValue);
        asked["paths"].append(SDK::PercentEncode(ApprovedStates().Resolve(path)));
        asked["generation"] = request.body["generation"];
    }
    return FromAgent(
        client_.Send("POST", "/v1/baseline/" + action, JsonUtils::JsonToString(asked), kTimeoutS));
}

Reply HostBackend::ChangePause(const std::string& action, const Request& request) const {
    Json::Value asked(Json::objectValue);
    const std::string path = JsonUtils::GetStringValue(request.body, "path", "");
    if (path.empty()) return ErrorReply(kBadRequest, "The path is missing.");
    asked["path"] = SDK::PercentEncode(ApprovedStates().Resolve(path));
    asked["seconds"] = request.body.get("seconds", 0);
    asked["reason"] = JsonUtils::GetStringValue(request.body, "reason", "");
    asked["equal"] = request.body.get("equal", false);
    const std::string verb = action == "pause" ? "begin" : "end";
    return FromAgent(
        client_.Send("POST", "/v1/pause/" + verb, JsonUtils::JsonToString(asked), kTimeoutS));
}

Reply HostBackend::TakePolicy(const Request& request, const std::string& feature,
                              const std::string& action) const {
    const std::string text = JsonUtils::GetStringValue(request.body, "document", "");
    const std::string address = "/v1/policies/" + Encoded(feature);
    if (action == "check") {
        return FromAgent(client_.Send("POST", address + "/check", text, kTimeoutS));
    }
    if (action != "apply") return NoSuchAddress();
    if (request.user.role != Console::Role::kAdmin) {
        return ErrorReply(kForbidden, "Only an administrator may change a policy.");
    }
    Reply reply = FromAgent(client_.Send("PUT", address, text, kTimeoutS));
    constexpr int kRefused = 422;
    if (reply.status == kRefused)
        reply.status = 200;  // the page shows the errors with their places
    return reply;
}

}  // namespace Ctl
