#include "common/ControlProtocol.h"

#include <sdk/files/PathUtils.h>

namespace Agent {

std::string DefaultSocketPath() {
    return SDK::PathUtils::GetInstallationPath() + "run/agent.sock";
}

}  // namespace Agent
