#pragma once

#include <cstddef>
#include <string>

namespace Agent {

/// Constants shared by the agent's control API and its clients, beside the JSON documents.

constexpr std::size_t kMaxBodyBytes = 4 * 1024 * 1024;  ///< of a policy or a tasklet request
constexpr int kMaxWaitMs = 30 * 1000;                   ///< upper bound of a wait for reports
constexpr int kMaxReportsPerRequest = 1000;

/// The control socket of the installation that the calling program belongs to.
std::string DefaultSocketPath();

}  // namespace Agent
