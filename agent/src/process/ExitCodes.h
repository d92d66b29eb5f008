#pragma once

namespace Agent {

/// Exit codes of morvane_agent.
constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;          ///< it could not start; a message says why
constexpr int kExitAlreadyRunning = 2;  ///< another agent runs on the installation path
constexpr int kExitUsage = 64;

}  // namespace Agent
