#pragma once

#include <string>

namespace Engine {

/// The module's messages to the report tasks, apart from alarms. Stateless; thread-safe.
class ModuleReports {
  public:
    static void SendStatus(const std::string& feature, const std::string& task,
                           const std::string& status);
    /// Dropped silently when the agent has no command report task.
    static void SendException(const std::string& feature, const std::string& exception);
};

}  // namespace Engine
