#pragma once

#include <framework/Task.h>

namespace Engine {

/// Keeps the rsync daemon of a backup server running and its log bounded. Owned by the module;
/// Init, Run and UnInit run on the task's own thread.
class BackUpServerTask : public Framework::Task {
  public:
    BackUpServerTask();

    bool Init() override;
    /// Stops the daemon, which may block for up to 13 seconds.
    bool UnInit() override;
    /// Starts the daemon when it is not running, and rotates its log. Always 0.
    int Run() override;

  private:
    void RestartWhenDead();
    void RotateLog();
};

}  // namespace Engine
