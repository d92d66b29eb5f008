#pragma once

#include <functional>

#include "ctl/client/ControlClient.h"

namespace CLI {
class App;
}

namespace Ctl {

/// Adds the command about the shield; parsing it sets `command`. Both must outlive the parsing.
void DefineShield(CLI::App& app, std::function<int(const ControlClient&)>& command);

}  // namespace Ctl
