#pragma once

#include <functional>

#include "ctl/client/ControlClient.h"

namespace CLI {
class App;
}

namespace Ctl {

/// Adds "notify"; its commands go into `command`, which is borrowed as long as `app` lives.
void DefineNotify(CLI::App& app, std::function<int(const ControlClient&)>& command);

}  // namespace Ctl
