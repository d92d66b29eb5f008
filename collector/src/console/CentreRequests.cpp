// Owns the form of what the console asks to act. Must not publish (Rollouts does) or sign.
#include "console/CentreRequests.h"

#include <fleet/SignedAct.h>
#include <fleet/SignedPolicy.h>
#include <sdk/text/JsonUtils.h>

#include <chrono>
#include <utility>

#include "centre/Delivery.h"
#include "centre/Rollouts.h"

namespace Collector {

using Console::ErrorReply;
using Console::Reply;
using Console::Request;
using Console::Role;
using SDK::JsonUtils;

namespace {

constexpr int kBadRequest = 400;
constexpr int kForbidden = 403;
constexpr int kNotFound = 404;
constexpr int kConflict = 409;
constexpr int kFailed = 500;
constexpr int kFewPercent = 5;
constexpr int kDefaultValidS = 900;
constexpr int kMostListed = 50;

std::int64_t NowMs() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

Reply Found(Json::Value body) {
    Reply reply;
    reply.body = std::move(body);
    return reply;
}

/// Empty: the user may.
std::string WhyNot(const Console::User& user, bool is_act) {
    if (user.role == Role::kViewer) return "You may look only.";
    if (!is_act && user.role != Role::kAdmin) return "Only an administrator may change a policy.";
    return "";
}

Fleet::Audience AudienceIn(const Json::Value& body) {
    Fleet::Audience audience;
    Json::Value hosts;
    JsonUtils::GetArrayValue(body, "hosts", hosts);
    for (const Json::Value& host : hosts) {
        if (host.isString()) audience.push_back(host.asString());
    }
    return audience;
}

std::string ActContent(const Request& request) {
    Fleet::SignedAct act;
    act.number = NowMs();
    act.hosts = AudienceIn(request.body);
    act.issued_s = act.number / 1000;
    act.expires_s = act.issued_s + JsonUtils::GetIntValue(request.body, "valid_s", kDefaultValidS);
    act.signer = request.user.name;
    act.name = JsonUtils::GetStringValue(request.body, "act", "");
    act.request = request.body["request"];
    const std::string content = act.request.isObject() ? Fleet::ContentOf(act) : "";
    return Fleet::ReadContent(content, act) ? content : "";
}

std::string PolicyContent(const Request& request) {
    Fleet::SignedPolicy policy;
    policy.version = NowMs();
    policy.hosts = AudienceIn(request.body);
    policy.feature = JsonUtils::GetStringValue(request.body, "feature", "");
    policy.text = JsonUtils::GetStringValue(request.body, "policy", "");
    const std::string content = Fleet::ContentOf(policy);
    return Fleet::ReadContent(content, policy) ? content : "";
}

std::string Called(const std::string& kind, const std::string& name, std::int64_t number) {
    return "the " + kind + " " + name + ", number " + std::to_string(number);
}

}  // namespace

Reply CentreRequests::Prepare(const Request& request) {
    const bool is_act = request.body.isMember("act");
    const std::string refused = WhyNot(request.user, is_act);
    if (!refused.empty()) return ErrorReply(kForbidden, refused);
    const std::string content = is_act ? ActContent(request) : PolicyContent(request);
    const auto kind = is_act ? Fleet::DocumentKind::kAct : Fleet::DocumentKind::kPolicy;
    std::vector<HostRecord> known;
    if (content.empty())
        return ErrorReply(kBadRequest, "This cannot be signed: it is not complete.");
    if (!hosts_.ReadHosts(known)) return ErrorReply(kFailed, hosts_.Error());
    Json::Value body(Json::objectValue);
    body["hosts"] =
        static_cast<Json::UInt64>(TargetsOf(AudienceIn(request.body), known, false).size());
    if (body["hosts"].asUInt64() == 0) return ErrorReply(kBadRequest, "No host is meant.");
    body["document"] = Fleet::ToBeSigned(kind, content);
    body["signed_text"] = Fleet::SignedBytes(kind, content);
    body["content"] = content;
    return Found(std::move(body));
}

Reply CentreRequests::Publish(const Request& request) {
    const std::string document = JsonUtils::GetStringValue(request.body, "document", "");
    const auto delivery = ReadDelivery(document);
    if (!delivery) return ErrorReply(kBadRequest, "This is no signed policy or act.");
    const bool is_act = delivery->kind == Fleet::DocumentKind::kAct;
    const std::string refused = WhyNot(request.user, is_act);
    if (!refused.empty()) return ErrorReply(kForbidden, refused);
    std::vector<HostRecord> known;
    if (!hosts_.ReadHosts(known)) return ErrorReply(kFailed, hosts_.Error());
    Rollout rollout;
    rollout.time_ms = NowMs();
    rollout.author = request.user.name;
    const int percent = JsonUtils::GetIntValue(request.body, "percent", kFewPercent);
    const int count = Enqueue(*delivery, known, percent, rollouts_, rollout);
    if (count == 0) return ErrorReply(kBadRequest, "No host is meant.");
    if (count < 0 ||
        !users_.AddAct(rollout.author,
                       "published " + Called(rollout.kind, rollout.name, rollout.number) + " for " +
                           std::to_string(count) + " hosts",
                       rollout.time_ms)) {
        return ErrorReply(kFailed, "The database cannot store this: " + rollouts_.Error());
    }
    Json::Value body(Json::objectValue);
    body["rollout"] = Json::Int64{rollout.id};
    return Found(std::move(body));
}

Reply CentreRequests::List() {
    Json::Value body(Json::objectValue);
    body["rollouts"] = Json::Value(Json::arrayValue);
    std::vector<Rollout> newest;
    std::vector<RolloutHost> hosts;
    if (!rollouts_.Newest(kMostListed, newest)) return ErrorReply(kFailed, rollouts_.Error());
    for (const Rollout& rollout : newest) {
        if (!rollouts_.Hosts(rollout, hosts)) return ErrorReply(kFailed, rollouts_.Error());
        body["rollouts"].append(ToJson(rollout, ProgressOf(rollout, hosts)));
    }
    return Found(std::move(body));
}

Reply CentreRequests::Show(std::int64_t id) {
    const auto rollout = rollouts_.Find(id);
    std::vector<RolloutHost> hosts;
    if (!rollout || !rollouts_.Hosts(*rollout, hosts)) {
        return ErrorReply(kNotFound, "There is no such rollout.");
    }
    Json::Value body(Json::objectValue);
    body["rollout"] = ToJson(*rollout, ProgressOf(*rollout, hosts));
    body["document"] = rollout->document;
    body["hosts"] = Json::Value(Json::arrayValue);
    for (const RolloutHost& host : hosts) {
        Json::Value one(Json::objectValue);
        one["agent_id"] = host.agent_id;
        one["wave"] = Json::Int64{host.wave};
        one["sent_ms"] = Json::Int64{host.sent_ms};
        one["answer"] = AnswerOf(*rollout, host);
        body["hosts"].append(std::move(one));
    }
    return Found(std::move(body));
}

Reply CentreRequests::Change(const Request& request, std::int64_t id, const std::string& action) {
    const auto rollout = rollouts_.Find(id);
    if (!rollout) return ErrorReply(kNotFound, "There is no such rollout.");
    const std::string refused = WhyNot(request.user, rollout->kind == "act");
    if (!refused.empty()) return ErrorReply(kForbidden, refused);
    Rollout next = *rollout;
    if (action == "stop" && rollout->state == "running") {
        next.state = "stopped";
        next.reason = "Stopped by " + request.user.name + ".";
    } else if (action == "continue" && rollout->state == "stopped") {
        next.state = "running";
        next.reason.clear();
        next.wave_begun_ms = 0;
        ++next.wave;
    } else {
        return ErrorReply(kConflict, "The rollout is " + rollout->state + ".");
    }
    if (!users_.AddAct(request.user.name,
                       (action == "stop" ? "stopped " : "went on with ") +
                           Called(rollout->kind, rollout->name, rollout->number),
                       NowMs()) ||
        !rollouts_.Change(*rollout, next)) {
        return ErrorReply(kConflict, "The rollout has changed meanwhile.");
    }
    return Found(Json::Value(Json::objectValue));
}

}  // namespace Collector
