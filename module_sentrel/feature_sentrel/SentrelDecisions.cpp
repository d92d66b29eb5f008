// Carries out what operators decide about approved states. It must not put the site back (the
// inotify task does). Backup task's thread.
#define SDK_LOG_FILE "SentrelBackupTask.cpp"
#include <sdk/log/Log.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "base/ModuleLogger.h"
#include "feature_sentrel/SentrelBackupTask.h"
#include "feature_sentrel/backup/Acceptance.h"
#include "feature_sentrel/backup/Rollback.h"
#include "state/ModuleState.h"
#include "utils/ModuleReports.h"
#include "utils/SentrelUtils.h"

namespace Engine {

void SentrelBackupTask::HandleAcceptance() {
    const auto request = state_.requests.Take(OperatorRequest::Action::kAccept);
    if (!request) return;
    OperatorRequests::Result result;
    bool is_ours = false;
    for (const SentrelDirRule& rule : SentrelUtils::GetInstance()->dir_rules) {
        if (request->PartsOf(rule).empty()) continue;
        is_ours = true;
        Accept(*request, rule, result);
    }
    if (!is_ours) result.message = "No path of these is protected.";
    result.is_done = result.message.empty();
    if (result.is_done) {
        result.message = std::to_string(result.objects) +
                         (result.objects == 1 ? " changed object is" : " changed objects are") +
                         " approved now.";
    }
    state_.requests.End(request->id, result);
    ModuleReports::SendAcceptance(request->user, request->process, request->paths, result.objects);
}

/// A failure becomes the result's message.
void SentrelBackupTask::Accept(const OperatorRequest& request, const SentrelDirRule& rule,
                               OperatorRequests::Result& result) {
    if (state_.deploys.IsCommitting(rule)) {
        result.message = "A deploy of " + rule.real_path + " is being carried out; try again.";
        return;
    }
    if (!state_.baselines.Obstacle(rule).empty() && request.PartsOf(rule).front().empty()) {
        state_.baselines.BeginCopying(rule, "accepted by " + request.By(), request.key);
        SentrelUtils::GetInstance()->local_backup_pending = true;
        return;
    }
    const RulePlaces places = state_.anchors.Of(rule);
    const RuleBaselines::Known manifest = state_.baselines.Of(rule);
    if (!places || manifest == nullptr || !state_.baselines.HasBackup(rule)) {
        result.message = rule.real_path + " has no approved state to compare with.";
        return;
    }
    state_.baselines.BeginAccepting(rule, "accepted by " + request.By(), request.key);
    ReplacedCopies replaced = state_.baselines.Replaced(*places.anchors);
    Acceptance acceptance(*places.anchors, manifest, replaced, [this] { return ShouldYield(); });
    std::size_t taken_here = 0;
    for (const std::string& part : request.PartsOf(rule)) {
        const Acceptance::Result taken = acceptance.Take(part);
        taken_here += taken.objects;
        if (!taken.error.empty()) {
            result.message = taken.error;
        } else {
            state_.progress.Release(rule, part);
        }
    }
    result.objects += taken_here;
    if (taken_here == 0) {
        state_.baselines.Adopt(rule);  // the state approved before stays in force
    } else if (!CommitBaseline(rule, request.PartsOf(rule))) {
        result.message = "The manifest of " + rule.real_path + " was not written.";
    }
}

/// Copies outside the part that is rolled back would be approved as they are. `is_part_good`: those
/// in it are what the newest manifest says.
std::string SentrelBackupTask::FaultOutside(const AnchoredRule& rule, const std::string& part,
                                            bool& is_part_good) {
    std::string outside;
    for (const RuleBaselines::Fault& fault : state_.baselines.CheckCopies(rule, rule.RootPath())) {
        std::string_view below;
        if (rule.Below(fault.path, below) && Baseline::IsWithin(below, part)) {
            is_part_good = false;
        } else if (outside.empty()) {
            outside = "Nothing was changed: the backup copy of " + fault.path +
                      " is not what was approved (" + fault.what + ").";
        }
    }
    return outside;
}

void SentrelBackupTask::HandleRollback() {
    const auto request = state_.requests.Take(OperatorRequest::Action::kRollback);
    if (!request) return;
    std::vector<const SentrelDirRule*> rules;
    for (const SentrelDirRule& rule : SentrelUtils::GetInstance()->dir_rules) {
        if (!request->PartsOf(rule).empty()) rules.push_back(&rule);
    }
    OperatorRequests::Result result;
    if (rules.empty()) result.message = "No path of these is protected.";
    if (rules.size() > 1) result.message = "There are several protected paths; name one.";
    if (!result.message.empty() || !RollBack(*request, *rules.front(), result)) {
        state_.requests.End(request->id, result);
    }
}

/// True when the request goes on with putting the site back. A failure becomes the result's
/// message.
bool SentrelBackupTask::RollBack(const OperatorRequest& request, const SentrelDirRule& rule,
                                 OperatorRequests::Result& result) {
    if (state_.deploys.IsCommitting(rule)) {
        result.message = "A deploy of " + rule.real_path + " is being carried out; try again.";
        return false;
    }
    const RulePlaces places = state_.anchors.Of(rule);
    const RuleBaselines::Known present = state_.baselines.Of(rule);
    const Baseline::Generation wanted = state_.baselines.Get(rule, request.generation);
    if (!places || present == nullptr || !state_.baselines.HasBackup(rule)) {
        result.message = rule.real_path + " has no approved state that can be used.";
    } else if (!wanted) {
        result.message = "Generation " + std::to_string(request.generation) + " of " +
                         rule.real_path + " cannot be used: " + wanted.problem + ".";
    }
    if (!result.message.empty()) return false;
    const AnchoredRule& anchors = *places.anchors;
    const std::string part = request.PartsOf(rule).front();
    bool is_part_good = true;
    result.message = FaultOutside(anchors, part, is_part_good);
    if (!result.message.empty()) return false;
    ReplacedCopies replaced = state_.baselines.Replaced(anchors);
    Rollback rollback(anchors, wanted.manifest, wanted.number, replaced,
                      [this] { return ShouldYield(); });
    const Rollback::Result planned = rollback.Plan(part);
    result.objects = planned.objects;
    result.message = planned.error;
    if (!planned.error.empty()) return false;
    // Without a step an earlier try may have ended before it was approved.
    if (request.is_dry_run || (planned.objects == 0 && is_part_good)) {
        result.is_done = true;
        result.message = std::to_string(planned.objects) + " objects differ from generation " +
                         std::to_string(wanted.number) +
                         (planned.objects == 0 ? "." : "; the contents of all of them are kept.");
        return false;
    }
    return CarryOut(request, rule, rollback, result);
}

bool SentrelBackupTask::CarryOut(const OperatorRequest& request, const SentrelDirRule& rule,
                                 Rollback& rollback, OperatorRequests::Result& result) {
    const std::string number = std::to_string(request.generation);
    // The newest manifest stays in force meanwhile: a copy that differs from it is not used, and
    // nothing that it lists is taken for foreign.
    const Rollback::Result done = rollback.CarryOut();
    result.objects = done.objects;
    result.message = done.error;
    if (!done.error.empty()) return false;
    state_.baselines.BeginAccepting(
        rule, "rolled back to generation " + number + " by " + request.By(), request.key);
    if (!CommitBaseline(rule, {}, false)) {
        uncommitted_.erase(rule.real_path);
        result.message =
            "The manifest of " + rule.real_path + " was not written; repeat the rollback.";
        state_.baselines.Adopt(rule);
        return false;
    }
    const unsigned int generation = state_.baselines.GenerationOf(rule);
    ModuleReports::SendRollback({request.user, request.process,
                                 request.paths.empty() ? rule.real_path : request.paths.front(),
                                 request.generation, generation, done.objects});
    state_.requests.GoOnWithRestore(
        request.id, generation,
        std::to_string(done.objects) + " objects are approved as in generation " + number +
            ", which is generation " + std::to_string(generation) + " now.");
    return true;
}

}  // namespace Engine
