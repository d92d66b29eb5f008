#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "ctl/deploy/Overlay.h"

namespace Ctl {

/// What became of the command of a deploy.
struct CommandEnd {
    enum class Kind {
        kExited,         ///< with `code`; all its processes have ended, the overlay is unmounted
        kSignalled,      ///< by the signal `code`
        kCannotExecute,  ///< `code` is an errno
        kTimedOut,
        kInterrupted,  ///< by the signal `code` to morvanectl
        kFailed,       ///< see `problem`: it was not started, or its processes could not be ended
    };
    Kind kind = Kind::kFailed;
    int code = 0;
    std::string problem = {};
};

/// Runs `words`, without a shell, in a mount namespace in which the overlay lies over the protected
/// directory, and waits for it. Ends all processes that it has left behind. When this process dies,
/// they are ended, too. Blocks SIGINT, SIGTERM, SIGHUP and SIGQUIT meanwhile, each of which ends
/// the command. For the main thread.
CommandEnd RunInOverlay(const OverlayPlan& plan, const std::vector<std::string>& words,
                        std::chrono::seconds limit);

}  // namespace Ctl
