#pragma once

#include <sdk/commands/CommandHandler.h>
#include <sdk/files/FileDescriptor.h>

#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace Engine {

class AnchoredRule;
class BackupProgress;
class RuleAnchors;

/// The command runner's handler for bin/rsync. It carries out the module's rsync commands so that
/// nobody can lead a path elsewhere: it restores by descriptors in the agent itself, and gives
/// rsync held directories in place of paths for a backup. Thread-safe.
class RsyncLauncher {
  public:
    /// Opens the directory for the copies that a backup of the rule replaces. Not open: with errno
    /// 0 nothing is kept, otherwise it failed.
    using OpenReplaced = std::function<SDK::FileDescriptor(const AnchoredRule&)>;

    /// Both are borrowed and must outlive the launcher.
    RsyncLauncher(RuleAnchors& anchors, const BackupProgress& progress, OpenReplaced open_replaced);
    /// Takes the handler back; no command may be running.
    ~RsyncLauncher();
    RsyncLauncher(const RsyncLauncher&) = delete;
    RsyncLauncher& operator=(const RsyncLauncher&) = delete;

    /// From now on the command runner asks this object how bin/rsync is run. Reads the installation
    /// path anew at each call; cheap when that has not changed.
    void Install();

    /// What becomes of one command of bin/rsync.
    SDK::CommandAnswer Answer(const std::vector<std::string>& arguments) const;

    /// False when conf/agent.json has "restore_in_process" false: then rsync restores, too.
    static bool RestoresInProcess();

  private:
    RuleAnchors& anchors_;
    const BackupProgress& progress_;
    const OpenReplaced open_replaced_;
    std::mutex mutex_;       ///< guards installed_
    std::string installed_;  ///< the program that has the handler; empty: none
};

}  // namespace Engine
