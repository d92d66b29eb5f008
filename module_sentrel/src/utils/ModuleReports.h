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
    /// An operator approved changes; no paths: all of them.
    static void SendAcceptance(unsigned int user, int process,
                               const std::vector<std::string>& paths, std::size_t objects);
    /// A deploy or pause: `what` became of it, and the first of the changed `paths`.
    static void SendDeploy(const std::string& what, unsigned int user, int process,
                           const std::string& path, const std::string& reason,
                           const std::vector<std::string>& paths, unsigned int generation);
    /// An operator went back to an older approved state at `path` and below it.
    struct Rollback {
        unsigned int user = 0;
        int process = 0;
        std::string path;
        unsigned int from = 0;        ///< the generation that it went back to
        unsigned int generation = 0;  ///< the one that it became
        std::size_t objects = 0;
    };
    static void SendRollback(const Rollback& rollback);
    /// Dropped silently when the agent has no command report task.
    static void SendException(const std::string& feature, const std::string& exception);
};

}  // namespace Engine
