#pragma once

#include "ctl/client/ControlClient.h"

namespace Ctl {

/// Serves the web console of this host on the loopback address until Ctrl-C. `port` 0: a free one.
/// Returns the exit code.
int ServeConsole(const ControlClient& client, unsigned short port);

}  // namespace Ctl
