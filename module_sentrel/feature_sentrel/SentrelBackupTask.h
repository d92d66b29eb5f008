#pragma once

#include <framework/Task.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <string>

#include "base/SentrelDirRule.h"
#include "baseline/OperatorRequests.h"
#include "feature_sentrel/backup/DeployTaking.h"

namespace Engine {

class AnchoredRule;
class Rollback;
struct ModuleState;

/// Brings the backup copies up to date after each policy: copies the protected paths to the local
/// backup folders, and these to the backup server where the policy asks for it. Once every path has
/// succeeded, it only tries the objects again that could not be copied. Owned by the module; Init,
/// Run and UnInit run on the task's own thread.
class SentrelBackupTask : public Framework::Task {
  public:
    /// `state` is borrowed and must outlive the task.
    explicit SentrelBackupTask(ModuleState& state);

    bool Init() override;
    bool UnInit() override;
    /// One pass over all paths; blocks while rsync copies. Always 0.
    int Run() override;

  private:
    using Parts = DeployTaking::Parts;

    /// Waits until the path is watched: an earlier change would be in neither the copy nor an
    /// event. False when the pass should end. Waits for two minutes at most.
    bool AwaitWatch(const SentrelDirRule& rule);
    /// True when the rule's copy is complete in this round; copies the rule when it is not.
    bool IsCopied(const SentrelDirRule& rule, unsigned long succeeded_before);
    /// True when the rule's copy is complete now, except for open objects.
    bool BackUpLocally(const SentrelDirRule& rule, unsigned long succeeded_before);
    /// Why the rule cannot be copied now; else empty.
    std::string WhatHinders(const SentrelDirRule& rule);
    /// After a failed rsync: copies the missing objects one by one and notes the rest as open.
    unsigned AttributeKinds(const SentrelDirRule& rule);
    bool CompleteByObjects(const SentrelDirRule& rule, std::uint64_t round);
    /// Tries the open objects again that are due.
    void RetryOpenObjects();
    void RetryOpenObjects(const SentrelDirRule& rule);
    /// Approves the copies of `parts`. `is_copy_of_site`: else the copies are of an older state
    /// than the site.
    bool CommitBaseline(const SentrelDirRule& rule, Parts parts = {}, bool is_copy_of_site = true);
    void CommitInterrupted();
    /// Removes replaced copies of generations that are gone.
    void TrimReplaced();

    // What operators decide (SentrelDecisions.cpp).

    /// Takes what an operator accepted into the copies.
    void HandleAcceptance();
    void Accept(const OperatorRequest& request, const SentrelDirRule& rule,
                OperatorRequests::Result& result);
    /// Makes the copies what they were in an older generation.
    void HandleRollback();
    bool RollBack(const OperatorRequest& request, const SentrelDirRule& rule,
                  OperatorRequests::Result& result);
    bool CarryOut(const OperatorRequest& request, const SentrelDirRule& rule, Rollback& rollback,
                  OperatorRequests::Result& result);
    std::string FaultOutside(const AnchoredRule& rule, const std::string& part, bool& is_part_good);

    bool PushToServer(const SentrelDirRule& rule);
    void RequestPush();
    void ClearPending(std::atomic<bool>& pending, std::uint64_t round);

    ModuleState& state_;
    DeployTaking deploys_;
    /// Paths whose manifest is still to be written, with what is approved of them.
    std::map<std::string, Parts> uncommitted_;
    bool is_trimmed_ = false;  ///< no replaced copies are left that are to be removed
};

}  // namespace Engine
