// Decides what becomes of a committed deploy. It must not change the protected path (the inotify
// task puts the deploy there).
#include "feature_sentrel/backup/DeployTaking.h"

#include <sdk/log/Log.h>
#include <sdk/text/JsonUtils.h>
#include <sdk/text/PercentCode.h>

#include <algorithm>
#include <ctime>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "base/ModuleLogger.h"
#include "deploy/StagedTree.h"
#include "feature_sentrel/backup/StagedAcceptance.h"
#include "state/ModuleState.h"
#include "utils/ModuleReports.h"
#include "utils/SentrelUtils.h"

namespace Engine {

namespace {

constexpr char kChanges[] = "changes";

Json::Value Encoded(const std::vector<std::string>& paths) {
    Json::Value array(Json::arrayValue);
    for (const std::string& path : paths) array.append(SDK::PercentEncode(path));
    return array;
}

std::vector<std::string> Decoded(const Json::Value& array) {
    std::vector<std::string> paths;
    for (const Json::Value& one : array) {
        std::string path;
        if (one.isString() && SDK::PercentDecode(one.asString(), path)) paths.push_back(path);
    }
    return paths;
}

/// What an earlier try was going to put on the site; false when there was none.
bool ReadChanges(const StagedTree& tree, Deploys::Put& put) {
    const std::string text = tree.ReadFile(kChanges);
    Json::Value changes;
    if (SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), changes) != 0) return false;
    put.paths = Decoded(changes["paths"]);
    put.ignored = Decoded(changes["ignored"]);
    return true;
}

int WriteChanges(const StagedTree& tree, const Deploys::Put& put) {
    Json::Value changes(Json::objectValue);
    changes["paths"] = Encoded(put.paths);
    changes["ignored"] = Encoded(put.ignored);
    return tree.WriteFile(kChanges, SDK::JsonUtils::JsonToString(changes));
}

}  // namespace

void DeployTaking::Work(const std::list<SentrelDirRule>& rules) {
    for (const Deploy& ended : state_.deploys.EndAbandoned(std::time(nullptr))) {
        SDK_LOG(ModuleLogger(), PRIO_WARNING, "deploy %s of %s has ended by itself (%s).", ended.id,
                ended.real_path, ended.By());
        ModuleReports::SendDeploy("ended by itself", ended.user, ended.process, ended.real_path,
                                  ended.reason, {}, 0);
    }
    state_.deploys.CleanUp();
    if (!SentrelUtils::GetInstance()->is_run) return;
    const std::optional<Deploy> deploy = state_.deploys.NextToTake();
    if (!deploy) return;
    const auto rule = std::find_if(rules.begin(), rules.end(),
                                   [&](const SentrelDirRule& one) { return deploy->IsOf(one); });
    if (rule == rules.end()) {
        return Fail(*deploy, "The policy no longer names " + deploy->real_path + ".");
    }
    if (state_.progress.IsComplete(*rule)) Take(*deploy, *rule);
}

std::string DeployTaking::WhyNot(const SentrelDirRule& rule) const {
    std::string obstacle = state_.baselines.Obstacle(rule);
    if (!obstacle.empty()) return rule.real_path + ": " + obstacle + ".";
    if (!state_.baselines.HasBackup(rule)) return "The backup copies are gone.";
    return state_.anchors.Of(rule).problem;
}

void DeployTaking::Take(const Deploy& deploy, const SentrelDirRule& rule) {
    const StagedTree tree(deploy.id);
    Deploys::Put put;
    put.deploy = deploy;
    const bool is_again = ReadChanges(tree, put);
    const RulePlaces places = state_.anchors.Of(rule);
    const std::unique_ptr<SDK::PathAnchor> staged = tree.Upper();
    std::string problem = WhyNot(rule);
    const std::string unsigned_state = is_again ? "" : state_.baselines.WhyUnsigned();
    if (!unsigned_state.empty()) problem = "It cannot be approved: " + unsigned_state + ".";
    if (problem.empty() && staged == nullptr) problem = "What was staged cannot be opened.";
    if (!problem.empty() || !places) {
        // Copies that were begun to be changed are completed, whatever it takes.
        return is_again ? state_.status.NoteFailure(rule.real_path, "deploy: " + problem)
                        : Fail(deploy, problem);
    }
    ReplacedCopies replaced = state_.baselines.Replaced(*places.anchors);
    StagedAcceptance acceptance(*places.anchors, *staged, replaced, ".deploy-" + deploy.id,
                                owner_.is_over);
    problem = acceptance.Prepare();
    if (!problem.empty()) {
        if (!is_again && !owner_.is_over()) Fail(deploy, problem);
        if (is_again) state_.status.NoteFailure(rule.real_path, "deploy: " + problem);
        return;
    }
    if (!is_again) {
        put.paths = acceptance.Paths();
        put.ignored = acceptance.Ignored();
        if (WriteChanges(tree, put) != 0) return Fail(deploy, "The journal cannot be written.");
    }
    if (!put.paths.empty()) {
        state_.baselines.BeginAccepting(rule, "deployed by " + deploy.By(),
                                        state_.baselines.Lent().Take());
        put.problem = acceptance.Take();
        if (!owner_.sign(rule, put.paths) && put.problem.empty()) {
            put.problem = "The manifest of " + rule.real_path + " was not written.";
        }
    }
    put.generation =
        state_.baselines.ToJson(rule.real_path, rule.backup_path)["generation"].asUInt();
    state_.deploys.HandOver(std::move(put));
}

void DeployTaking::Fail(const Deploy& deploy, const std::string& why) {
    SDK_LOG(ModuleLogger(), PRIO_ERROR, "deploy %s of %s has failed, nothing was changed: %s",
            deploy.id, deploy.real_path, why);
    state_.deploys.End(deploy.id, {false, "Nothing was changed. " + why, 0, 0});
}

}  // namespace Engine
