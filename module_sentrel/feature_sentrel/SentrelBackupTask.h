#pragma once

#include <framework/Task.h>

#include <atomic>
#include <cstdint>
#include <string>

#include "base/SentrelDirRule.h"

namespace Engine {

struct ModuleState;

/// Brings the backup copies up to date after each policy: into the local backup folders, and from
/// there to the backup server where the policy asks for it. Idle once every path has succeeded,
/// except that objects which could not be copied are tried again alone.
/// Owned by the module; Init, Run and UnInit run on the task's own thread.
class SentrelBackupTask : public Framework::Task {
  public:
    /// `state` is borrowed and must outlive the task.
    explicit SentrelBackupTask(ModuleState& state);

    bool Init() override;
    bool UnInit() override;
    /// One pass over all paths; blocks while rsync copies. Always 0.
    int Run() override;

  private:
    /// Until changes of the path are announced; a change before that would be in neither the copy
    /// nor an event. False when the pass should end. Waits for two minutes at most.
    bool AwaitWatch(const SentrelDirRule& rule);
    /// The rule's copy is complete in this round, by now or already.
    bool IsCopied(const SentrelDirRule& rule, unsigned long succeeded_before);
    /// True when the rule's copy is complete, apart from open objects.
    bool BackUpLocally(const SentrelDirRule& rule, unsigned long succeeded_before);
    /// Why the rule cannot be copied as things are; else empty.
    std::string WhatHinders(const SentrelDirRule& rule);
    /// After rsync has left out something: copies what it can, and leaves the rest open.
    bool CompleteByObjects(const SentrelDirRule& rule, std::uint64_t round);
    /// Tries those again that are due.
    void RetryOpenObjects();
    void RetryOpenObjects(const SentrelDirRule& rule);
    bool PushToServer(const SentrelDirRule& rule);
    void ClearPending(std::atomic<bool>& pending, std::uint64_t round);

    ModuleState& state_;
};

}  // namespace Engine
