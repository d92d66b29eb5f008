#pragma once

#include <framework/Task.h>

namespace Engine {

struct ModuleState;

/// Keeps the rsync daemon of a backup server running and its log bounded. Owned by the module;
/// Init, Run and UnInit run on the task's own thread.
class BackUpServerTask : public Framework::Task {
  public:
    /// `state` is borrowed and must outlive the task.
    explicit BackUpServerTask(ModuleState& state);

    bool Init() override;
    /// Stops the daemon, which may block for up to 13 seconds.
    bool UnInit() override;
    /// Starts the daemon when it is not running, and rotates its log. Always 0.
    int Run() override;

  private:
    void RestartWhenDead();
    void RotateLog();

    ModuleState& state_;
};

}  // namespace Engine
