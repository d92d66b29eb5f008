#pragma once

#include <functional>

#include "ctl/client/ControlClient.h"

namespace CLI {
class App;
}

namespace Ctl {

/// Adds the commands on deploys and pauses; parsing one sets `command`. Both must outlive the
/// parsing.
void DefineDeploy(CLI::App& app, std::function<int(const ControlClient&)>& command);

}  // namespace Ctl
