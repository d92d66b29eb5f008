#pragma once

#include <functional>

#include "ctl/client/ControlClient.h"

namespace CLI {
class App;
}

namespace Ctl {

/// Adds the commands on evidence; the chosen one goes into `command`, which is borrowed as long as
/// `app` lives.
void DefineEvidence(CLI::App& app, std::function<int(const ControlClient&)>& command);

}  // namespace Ctl
