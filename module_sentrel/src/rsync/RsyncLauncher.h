#pragma once

#include <sdk/commands/CommandHandler.h>

#include <string>
#include <vector>

namespace Engine {

/// Carries out the module's rsync commands so that no path on them can be led elsewhere: a restore
/// is done in the agent itself by descriptors, a backup by rsync with held directories in the place
/// of paths. Stateless but for the switch; any thread.
class RsyncLauncher {
  public:
    /// From now on the command runner asks here how the agent's bin/rsync is to be run. Looks at
    /// the installation path anew at each call, and costs next to nothing when nothing has changed.
    static void Install();

    /// What becomes of one command of bin/rsync.
    static SDK::CommandAnswer Answer(const std::vector<std::string>& arguments);

    /// False when conf/agent.json has "restore_in_process" false: then rsync restores, too.
    static bool RestoresInProcess();
};

}  // namespace Engine
