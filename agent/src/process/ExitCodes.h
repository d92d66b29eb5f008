#pragma once

namespace Agent {

/// Exit codes of morvane_agent.
constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;          ///< the start failed; a message says why
constexpr int kExitAlreadyRunning = 2;  ///< another agent uses the installation path
constexpr int kExitUsage = 64;

}  // namespace Agent
