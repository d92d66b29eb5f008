// Owns what an act means: the query that carries it out and the one that tells how far it is. Must
// not know signatures (ActReceiver does). Runs on the worker's thread.
#include "ActRunner.h"

#include <sdk/text/JsonUtils.h>
#include <sdk/text/PercentCode.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <utility>

namespace Engine {

using SDK::JsonUtils;

namespace {

constexpr Json::ArrayIndex kMostPaths = 1000;
constexpr Json::ArrayIndex kMostMessages = 20;
constexpr std::size_t kMostDifferenceBytes = 40UL * 1024;
constexpr int kDifferences = 2;  // exit code of morvanectl verify

std::string Text(const Json::Value& object, const char* key) {
    return JsonUtils::GetStringValue(object, key, "");
}

/// What every request has; the agent names the signer in the approval.
Json::Value RequestOf(const Fleet::SignedAct& act, const std::string& action) {
    Json::Value request(Json::objectValue);
    request["action"] = action;
    request["uid"] = static_cast<Json::UInt>(::geteuid());
    request["pid"] = static_cast<Json::Int>(::getpid());
    request["signer"] = act.signer;
    return request;
}

/// The percent-encoded path of the request with the links above it followed, as rules name it.
std::string RootIn(const Json::Value& request) {
    std::string path;
    if (!SDK::PercentDecode(Text(request, "path"), path)) return "%";
    std::error_code error;
    const std::filesystem::path real = std::filesystem::canonical(path, error);
    return SDK::PercentEncode(error ? path : real.string());
}

std::string ReasonOf(const Fleet::SignedAct& act) {
    const std::string reason = Text(act.request, "reason");
    return reason + (reason.empty() ? "" : " ") + "(signed by " + act.signer + ")";
}

Json::Value First(const Json::Value& messages) {
    Json::Value some(Json::arrayValue);
    for (const Json::Value& message : messages) {
        if (some.size() < kMostMessages) some.append(message);
    }
    return some;
}

/// {"differences", "left_out"}: one JSON object a line, as morvanectl verify --json prints them.
Json::Value DifferencesIn(const std::string& output) {
    Json::Value details(Json::objectValue);
    Json::Value& list = details["differences"] = Json::Value(Json::arrayValue);
    std::istringstream lines(output);
    std::size_t bytes = 0;
    int left_out = 0;
    for (std::string line; std::getline(lines, line);) {
        Json::Value one;
        if (JsonUtils::ParseJsonStr(line.data(), line.size(), one) != 0 || !one.isObject() ||
            !one["path"].isString()) {
            continue;  // the summary
        }
        bytes += line.size();
        if (bytes > kMostDifferenceBytes) {
            ++left_out;
        } else {
            list.append(std::move(one));
        }
    }
    details["left_out"] = left_out;
    return details;
}

ActOutcome VerifyOutcome(int code, const std::string& output) {
    ActOutcome outcome;
    outcome.is_done = code == 0 || code == kDifferences;
    if (code == 0) outcome.message = "The site is as approved.";
    if (code == kDifferences) outcome.message = "The site differs from what is approved.";
    if (!outcome.is_done) outcome.message = "The comparison failed: " + output.substr(0, 300);
    if (code == kDifferences) outcome.details = DifferencesIn(output);
    return outcome;
}

}  // namespace

ActRunner::ActRunner(Ask ask, RunCtl run_ctl)
    : ask_(std::move(ask)), run_ctl_(std::move(run_ctl)) {}

ActRunner::~ActRunner() {
    interrupter_.Interrupt();
}

void ActRunner::Fail(const std::string& sentence) {
    outcome_ = ActOutcome{false, sentence, {}};
}

void ActRunner::Succeed(const std::string& sentence, Json::Value details) {
    outcome_ = ActOutcome{true, sentence, std::move(details)};
}

void ActRunner::Start(const Fleet::SignedAct& act) {
    is_busy_ = true;
    outcome_.reset();
    progress_query_.clear();
    if (act.name == "pause" || act.name == "resume") return Pause(act);
    if (act.name == "deploy") return Deploy(act);
    if (act.name == "check") return Check(act);
    if (act.name == "verify") return Verify(act);
    Decide(act);
}

std::optional<ActOutcome> ActRunner::Poll() {
    if (!is_busy_) return std::nullopt;
    std::optional<ActOutcome> ended = std::exchange(outcome_, std::nullopt);
    if (!ended && verification_.valid()) {
        if (verification_.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
            return std::nullopt;
        }
        ended = verification_.get();
    }
    if (!ended && !progress_query_.empty()) ended = Follow();
    if (ended) is_busy_ = false;
    return ended;
}

bool ActRunner::AskOrFail(const std::string& query, const Json::Value& request,
                          Json::Value& answer) {
    if (!ask_(query, request, answer)) {
        Fail("No module of the agent answers for this.");
        return false;
    }
    const std::string error = Text(answer, "error");
    if (!error.empty()) Fail(error);
    return error.empty();
}

/// accept, restore or rollback. Their form is that of the control API.
void ActRunner::Decide(const Fleet::SignedAct& act) {
    Json::Value request = RequestOf(act, act.name);
    Json::Value paths;
    JsonUtils::GetArrayValue(act.request, "paths", paths);
    const bool all = JsonUtils::GetBoolValue(act.request, "all", false);
    if (paths.size() > kMostPaths || all != paths.empty()) {
        return Fail("The act must name paths, or all of them.");
    }
    request["paths"] = paths.isArray() ? paths : Json::Value(Json::arrayValue);
    request["all"] = all;
    if (act.name == "rollback") {
        const Json::Value& generation = act.request["generation"];
        if (!generation.isUInt() || generation.asUInt() == 0) {
            return Fail("The act must name the generation.");
        }
        request["generation"] = generation;
    }
    Json::Value answer;
    if (!AskOrFail("baseline.request", request, answer)) return;
    progress_query_ = "baseline.progress";
    progress_ = Json::Value(Json::objectValue);
    progress_["id"] = answer["id"];
}

void ActRunner::Pause(const Fleet::SignedAct& act) {
    const bool is_begin = act.name == "pause";
    Json::Value request = RequestOf(act, is_begin ? "begin" : "end");
    request["path"] = RootIn(act.request);
    request["reason"] = ReasonOf(act);
    const int seconds = JsonUtils::GetIntValue(act.request, "seconds", 0);
    if (is_begin && seconds <= 0) return Fail("The pause must have an end.");
    request["seconds"] = seconds;
    Json::Value answer;
    if (!AskOrFail("pause", request, answer)) return;
    if (!is_begin) return Succeed("The pause has ended; what was changed in it stays held.");
    Json::Value details(Json::objectValue);
    details["until"] = answer["until"];
    Succeed("Nothing is undone there until the pause ends.", std::move(details));
}

/// {"action": "begin", "path", "seconds", "reason"}, or "commit" or "abort" with the "id".
void ActRunner::Deploy(const Fleet::SignedAct& act) {
    const std::string action = Text(act.request, "action");
    if (action != "begin" && action != "commit" && action != "abort") {
        return Fail("A deploy begins, commits or aborts.");
    }
    Json::Value request = RequestOf(act, action);
    request["id"] = Text(act.request, "id");
    request["path"] = RootIn(act.request);
    request["reason"] = ReasonOf(act);
    request["tree"] = true;
    const int seconds = JsonUtils::GetIntValue(act.request, "seconds", 0);
    if (action == "begin" && seconds <= 0) return Fail("The deploy must have an end.");
    request["seconds"] = seconds;
    const std::string mount = action == "begin" ? "" : MountOf(Text(request, "id"));
    if (!mount.empty()) return Fail(mount + " is still mounted on the host.");
    Json::Value answer;
    if (!AskOrFail("deploy", request, answer)) return;
    Json::Value details(Json::objectValue);
    details["id"] = answer["id"];
    if (action == "abort") return Succeed("Nothing of the deploy is kept.", std::move(details));
    if (action == "begin") {
        return Succeed("The deploy is open; on the host, morvanectl deploy mount shows its files.",
                       std::move(details));
    }
    progress_query_ = "deploy";
    progress_ = RequestOf(act, "progress");
    progress_["id"] = request["id"];
}

/// {"feature", "text"}: what "policy check" tells.
void ActRunner::Check(const Fleet::SignedAct& act) {
    Json::Value request(Json::objectValue);
    request["text"] = Text(act.request, "text");
    Json::Value answer;
    if (!AskOrFail("policy.check." + Text(act.request, "feature"), request, answer)) return;
    Json::Value details(Json::objectValue);
    details["errors"] = First(answer["errors"]);
    details["warnings"] = First(answer["warnings"]);
    const bool is_good = details["errors"].empty();
    Succeed(is_good ? "The policy can be applied here." : "The policy would be refused here.",
            std::move(details));
}

/// The site is read by morvanectl, which may take minutes.
void ActRunner::Verify(const Fleet::SignedAct& act) {
    std::string path;
    if (!SDK::PercentDecode(Text(act.request, "path"), path) || path.empty() || path[0] != '/' ||
        path.find('\0') != std::string::npos) {
        return Fail("The act must name a path.");
    }
    verification_ = std::async(std::launch::async, [this, path] {
        const SDK::CommandInterrupter::Scope scope(interrupter_);
        std::string output;
        const int code = run_ctl_({"verify", "--json", path}, output);
        return VerifyOutcome(code, output);
    });
}

/// Where the files of the deploy are mounted, in which somebody may still write; else empty.
std::string ActRunner::MountOf(const std::string& id) const {
    Json::Value request(Json::objectValue);
    request["action"] = "show";
    request["id"] = id;
    Json::Value answer;
    std::string directory;
    if (!ask_("deploy", request, answer) ||
        !SDK::PercentDecode(Text(answer, "directory"), directory) || directory.empty()) {
        return "";
    }
    std::string tree = directory + "/tree";
    std::ifstream mounts("/proc/self/mountinfo");
    for (std::string line; std::getline(mounts, line);) {
        if (line.find(" " + tree + " ") != std::string::npos) return tree;
    }
    return "";
}

std::optional<ActOutcome> ActRunner::Follow() {
    Json::Value answer;
    if (!ask_(progress_query_, progress_, answer))
        return std::nullopt;  // not before it starts again
    const std::string error = Text(answer, "error");
    if (!error.empty()) return ActOutcome{false, error, {}};
    const std::string state = Text(answer, "state");
    if (state != "done" && state != "failed") return std::nullopt;
    ActOutcome outcome;
    outcome.is_done = state == "done";
    outcome.message = Text(answer, "message");
    outcome.details["objects"] = answer["objects"];
    outcome.details["generation"] = answer["generation"];
    return outcome;
}

}  // namespace Engine
