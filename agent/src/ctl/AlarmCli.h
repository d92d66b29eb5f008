#pragma once

#include <functional>

#include "ctl/client/ControlClient.h"

namespace CLI {
class App;
}

namespace Ctl {

/// Adds "alarms"; it goes into `command`, which is borrowed as long as `app` lives.
void DefineAlarms(CLI::App& app, std::function<int(const ControlClient&)>& command);

}  // namespace Ctl
