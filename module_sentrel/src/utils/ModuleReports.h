#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace Engine {

/// The module's messages to the report tasks, apart from alarms. Stateless; thread-safe.
class ModuleReports {
  public:
    static void SendStatus(const std::string& feature, const std::string& task,
                           const std::string& status);
    /// Dropped silently when the agent has no command report task.
    /// An operator approved changes; no paths: all of them.
    static void SendAcceptance(unsigned int user, int process,
                               const std::vector<std::string>& paths, std::size_t objects);
    /// A deploy or pause: `what` became of it, and the first of the changed `paths`.
    static void SendDeploy(const std::string& what, unsigned int user, int process,
                           const std::string& path, const std::string& reason,
                           const std::vector<std::string>& paths, unsigned int generation);
    static void SendException(const std::string& feature, const std::string& exception);
};

}  // namespace Engine
