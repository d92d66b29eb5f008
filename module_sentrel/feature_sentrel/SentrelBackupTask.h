#pragma once

#include <SentrelDirRule.h>
#include <framework/Task.h>

namespace Engine {

/// Brings the backup copies up to date after each policy: into the local backup folders, and from
/// there to the backup server where the policy asks for it. Idle once every path has succeeded.
/// Owned by the module; Init, Run and UnInit run on the task's own thread.
class SentrelBackupTask : public Framework::Task {
  public:
    SentrelBackupTask();

    bool Init() override;
    bool UnInit() override;
    /// One pass over all paths; blocks while rsync copies. Always 0.
    int Run() override;

  private:
    /// Until changes of the path are announced; a change before that would be in neither the copy
    /// nor an event. False when the pass should end. Waits for two minutes at most.
    bool AwaitWatch(const SentrelDirRule& rule);
    bool BackUpLocally(const SentrelDirRule& rule, unsigned long succeeded_before);
    bool PushToServer(const SentrelDirRule& rule);
};

}  // namespace Engine
