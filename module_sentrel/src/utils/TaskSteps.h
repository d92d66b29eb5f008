#pragma once

namespace Engine {

class RsyncLauncher;

/// What the Init of every task of the module does: warns when the agent does not run as root,
/// installs the launcher, makes sure that rsync is there, and logs and reports when it is not.
/// Task's thread; may download.
void PrepareRsyncForTask(RsyncLauncher& launcher);

/// Sleeps as the agent's CPU limit demands when the calling thread has used more than its share
/// since `last_tick`, and then updates `last_tick`. `file`, `line` and `task` name the caller.
void YieldCpu(unsigned long& last_tick, const char* file, int line, const char* task);

}  // namespace Engine
