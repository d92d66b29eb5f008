// Answers what operators ask about deploys and pauses. It must not carry them out (the tasks do).
// Any thread.
#define SDK_LOG_FILE "SentrelModule.cpp"
#include <baseline/ManifestEntry.h>
#include <framework/Engine.h>
#include <sdk/files/PathUtils.h>
#include <sdk/text/JsonUtils.h>
#include <sdk/text/PercentCode.h>

#include <optional>
#include <string>
#include <vector>

#include "SentrelModule.h"
#include "deploy/StagedTree.h"
#include "utils/SentrelUtils.h"

namespace Engine {

using SDK::JsonUtils;

namespace {

Json::Value Error(const std::string& sentence) {
    Json::Value answer(Json::objectValue);
    answer["error"] = sentence;
    return answer;
}

unsigned int GenerationOf(const RuleBaselines& baselines, const std::string& real_path,
                          const std::string& backup_path) {
    const Json::Value known = baselines.ToJson(real_path, backup_path);
    return known.isObject() ? known["generation"].asUInt() : 0;
}

}  // namespace

std::optional<SentrelDirRule> SentrelModule::RuleOf(const SentrelStatus& status,
                                                    const Json::Value& request) {
    std::string path;
    if (!SDK::PercentDecode(JsonUtils::GetStringValue(request, "path", "%"), path)) {
        return std::nullopt;
    }
    path = SDK::PathUtils::WithoutTrailingSlash(path);
    for (const SentrelDirRule& rule : status.Rules()) {
        const std::string root = SDK::PathUtils::WithoutTrailingSlash(rule.real_path);
        if (Baseline::IsWithin(path, root)) return rule;
    }
    return std::nullopt;
}

Json::Value SentrelModule::BeginDeploy(const Json::Value& request) {
    if (!SentrelUtils::GetInstance()->is_run) {
        return Error("The protection pauses by its schedule.");
    }
    const std::optional<SentrelDirRule> rule = RuleOf(state_.status, request);
    if (!rule) return Error("No protected directory holds this path.");
    if (state_.pauses.IsPaused(*rule)) {
        return Error(rule->real_path + " pauses; end that with morvanectl resume.");
    }
    for (const SentrelDirRule& other : state_.status.Rules()) {
        const bool is_inside =
            other.real_path != rule->real_path &&
            other.real_path.compare(0, rule->real_path.size(), rule->real_path) == 0;
        if (is_inside) return Error(other.real_path + " is protected by an entry of its own.");
    }
    const RulePlaces places = state_.anchors.Of(*rule);
    if (!places) return Error(places.problem + ".");
    const unsigned int generation =
        GenerationOf(state_.baselines, rule->real_path, rule->backup_path);
    if (generation == 0 || !state_.progress.IsComplete(*rule)) {
        return Error(rule->real_path + " has no approved state yet; see morvanectl status.");
    }
    Json::Value answer = state_.deploys.Begin(request, *places.anchors, generation);
    PublishShield(true);
    return answer;
}

Json::Value SentrelModule::AnswerDeploy(const Json::Value& request) {
    const std::string action = JsonUtils::GetStringValue(request, "action", "");
    if (action == "list") {
        Json::Value answer(Json::objectValue);
        answer["deploys"] = state_.deploys.ToJson();
        return answer;
    }
    if (action == "begin") return BeginDeploy(request);
    const std::string id = JsonUtils::GetStringValue(request, "id", "");
    if (!StagedTree::IsId(id)) return Error("A deploy's id has 12 hexadecimal digits.");
    if (action == "show") {
        const std::optional<Deploy> known = state_.deploys.Find(id);
        for (const SentrelDirRule& rule : state_.status.Rules()) {
            if (known && known->IsOf(rule)) return Deploys::Describe(*known, rule);
        }
        return Error("There is no open deploy " + id + ".");
    }
    if (action == "progress") return state_.deploys.Progress(id);
    if (action == "abort") return state_.deploys.Abort(id);
    if (action != "commit") return Error("There is no such action.");
    const std::optional<Deploy> deploy = state_.deploys.Find(id);
    if (!deploy) return Error("There is no open deploy " + id + ".");
    Json::Value answer = state_.deploys.Commit(
        id, GenerationOf(state_.baselines, deploy->real_path, deploy->backup_path));
    WakeTasks();
    return answer;
}

Json::Value SentrelModule::AnswerPause(const Json::Value& request) {
    const std::string action = JsonUtils::GetStringValue(request, "action", "");
    const std::optional<SentrelDirRule> rule = RuleOf(state_.status, request);
    if (!rule) return Error("No protected path holds this path.");
    if (action == "end") {
        // What was changed and is as approved again need not be held any longer.
        if (JsonUtils::GetBoolValue(request, "equal", false)) state_.progress.Release(*rule, "");
        return state_.pauses.End(*rule);
    }
    if (action == "show") {
        return state_.pauses.IsPaused(*rule) ? Json::Value(Json::objectValue)
                                             : Error(rule->real_path + " does not pause.");
    }
    if (action != "begin") return Error("There is no such action.");
    // Without an approved state nothing can be held, and so nothing restored later.
    if (!state_.progress.IsComplete(*rule)) {
        return Error(rule->real_path + " has no approved state yet; see morvanectl status.");
    }
    Json::Value answer = state_.pauses.Begin(request, *rule);
    PublishShield(true);
    return answer;
}

}  // namespace Engine
