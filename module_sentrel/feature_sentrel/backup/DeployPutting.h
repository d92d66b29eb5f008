#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "base/SentrelDirRule.h"
#include "deploy/Deploys.h"

namespace Engine {

class Undoer;
struct ModuleState;

/// Puts deploys on the site that the copies have: each object is restored from its copy in one
/// step, or removed. Raises no alarms. Inotify task's thread.
class DeployPutting {
  public:
    /// Takes the path of an object that could not be put, so that it is tried again.
    using Failed = std::function<void(const std::string& watch_id, const std::string& path)>;

    /// `state` and `undoer` are borrowed.
    DeployPutting(ModuleState& state, Undoer& undoer, Failed failed)
        : state_(state), undoer_(undoer), failed_(std::move(failed)) {}

    /// Puts a portion. True when more is to be done at once. `rules` by watch id.
    bool Work(const std::map<std::string, SentrelDirRule>& rules);

    /// The task ends; what is left is put when it runs again.
    void Forget();

  private:
    void PutOne(const std::string& watch_id, const SentrelDirRule& rule, const std::string& below);
    void AlignDirectories(const SentrelDirRule& rule, const std::vector<std::string>& paths);
    void PutIgnored(const SentrelDirRule& rule);
    void End(const SentrelDirRule& rule);

    ModuleState& state_;
    Undoer& undoer_;
    const Failed failed_;
    std::optional<Deploys::Put> put_;
    std::size_t next_ = 0;  ///< of its paths
    Deploys::Result result_;
};

}  // namespace Engine
