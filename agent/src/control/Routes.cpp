// Owns the slots of slow requests and the table of addresses. Must not know HTTP
// (ControlConnection does) or policies (PolicyService does). Runs on the control API's threads.
#include "control/Routes.h"

#include <utility>

namespace Agent {

namespace {

constexpr char kBusy[] = "Too many requests are waiting for the framework; try again.";

Reply MethodReply(const std::string& allow) {
    Reply reply = ErrorReply(405, "This address takes " + allow + " only.");
    reply.allow = allow;
    return reply;
}

Reply Unknown() {
    return ErrorReply(
        404,
        "There is no such address. The control API has /v1/status, /v1/reports, "
        "/v1/policies, /v1/baseline, /v1/deploy, /v1/pause, /v1/shield, /v1/notify and "
        "/v1/tasklets/ID.");
}

Reply VerdictReply(const std::string& feature, const PolicyVerdict& verdict) {
    Reply reply;
    reply.body["feature"] = feature;
    reply.body["state"] = ToText(verdict.state);
    reply.body["warnings"] = verdict.warnings;
    if (verdict.state != PolicyState::kRejected) return reply;
    reply.status = 422;
    reply.body["errors"] = verdict.errors;
    return reply;
}

}  // namespace

Routes::Routes(PolicyService& policies, ReportReader& reports, BaselineRequests& baselines,
               Tasklet tasklet, Status status, int max_slow)
    : policies_(policies),
      reports_(reports),
      baselines_(baselines),
      tasklet_(std::move(tasklet)),
      status_(std::move(status)),
      slow_(max_slow) {}

Reply Routes::Handle(const ControlRequest& request) {
    const std::vector<std::string>& path = request.path;
    if (path.size() < 2 || path[0] != "v1") return Unknown();
    if (path[1] == "policies") return HandlePolicies(request);
    if (path[1] == "baseline") return HandleBaseline(request);
    if (path[1] == "deploy" || path[1] == "pause" || path[1] == "shield" || path[1] == "notify") {
        return HandleOperation(request);
    }
    if (path[1] == "tasklets" && path.size() == 3) {
        if (request.method != "POST") return MethodReply("POST");
        return RunTasklet(path[2], request.body);
    }
    if (path.size() != 2) return Unknown();
    if (path[1] == "status") {
        if (request.method != "GET") return MethodReply("GET");
        return {200, status_(), ""};
    }
    if (path[1] == "reports") {
        if (request.method != "GET") return MethodReply("GET");
        return reports_.Read(request.parameters);
    }
    return Unknown();
}

Reply Routes::HandlePolicies(const ControlRequest& request) {
    if (request.path.size() == 2) {
        if (request.method != "GET") return MethodReply("GET");
        Reply reply;
        reply.body["policies"] = policies_.List();
        return reply;
    }
    const std::string& feature = request.path[2];
    if (!IsFeatureName(feature)) {
        return ErrorReply(400,
                          "A feature's name has 1 to 64 letters, digits, \"_\", \"-\" and "
                          "\".\", and does not begin with \".\".");
    }
    if (request.path.size() == 3) return HandlePolicy(request, feature);
    if (request.path.size() != 4 || request.path[3] != "check") return Unknown();
    if (request.method != "POST") return MethodReply("POST");
    const PolicyVerdict verdict = policies_.Check(feature, request.body);
    Reply reply;
    reply.body["feature"] = feature;
    reply.body["errors"] = verdict.errors;
    reply.body["warnings"] = verdict.warnings;
    return reply;
}

Reply Routes::HandlePolicy(const ControlRequest& request, const std::string& feature) {
    if (request.method == "PUT") return ApplyPolicy(feature, request.body);
    if (request.method != "GET") return MethodReply("GET, PUT");
    const Json::Value policy = policies_.Show(feature);
    if (policy.isNull())
        return ErrorReply(404, "There is no policy of the feature " + feature + ".");
    return {200, policy, ""};
}

Reply Routes::ApplyPolicy(const std::string& feature, const std::string& text) {
    const ConcurrencyLimit::Slot slot(slow_);
    if (!slot.IsAcquired()) return ErrorReply(503, kBusy);
    return VerdictReply(feature, policies_.Apply(feature, text));
}

Reply Routes::HandleBaseline(const ControlRequest& request) {
    const std::vector<std::string>& path = request.path;
    if (path.size() == 4 && path[2] == "requests") {
        if (request.method != "GET") return MethodReply("GET");
        return baselines_.Progress(path[3]);
    }
    const bool is_key = path.size() == 3 && path[2] == "key";
    if (path.size() != 3 || (!is_key && !BaselineRequests::IsAction(path[2]))) return Unknown();
    if (request.method != "POST") return MethodReply("POST");
    if (is_key) return baselines_.Lend(request.body);
    return baselines_.Submit(path[2], request.peer, request.body);
}

Reply Routes::HandleOperation(const ControlRequest& request) {
    if (request.path.size() != 3) return Unknown();
    if (request.method != "POST") return MethodReply("POST");
    return baselines_.Operate(request.path[1], request.path[2], request.peer, request.body);
}

Reply Routes::RunTasklet(const std::string& id, const std::string& text) {
    const ConcurrencyLimit::Slot slot(slow_);
    if (!slot.IsAcquired()) return ErrorReply(503, kBusy);
    const Framework::TaskletOutcome outcome = tasklet_(id, text);
    if (!outcome.found) return ErrorReply(404, "There is no tasklet " + id + ".");
    if (!outcome.exception.empty()) {
        return ErrorReply(500, "The tasklet ended with an exception: " + outcome.exception + ".");
    }
    Reply reply;
    reply.body["result"] = outcome.result;
    return reply;
}

}  // namespace Agent
