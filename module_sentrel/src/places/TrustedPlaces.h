#pragma once

#include <json/value.h>

#include <list>
#include <map>
#include <mutex>
#include <string>

#include "base/SentrelDirRule.h"

namespace Engine {

/// Says which places the module may rely on: those that only root, or the agent's own user, can
/// change. The questions read the file system each time; the findings of Judge are kept for the
/// status. Owned by ModuleState. Thread-safe.
class TrustedPlaces {
  public:
    /// Why `backup_path` must not be used: others can write to it, or can enter it, where the
    /// copies keep the owners of the site. Empty when it may be used.
    static std::string WhyNotForCopies(const std::string& backup_path);

    /// Why the installation path, or what the agent runs and reads there, can be changed by others;
    /// empty when it cannot.
    static std::string WhyNotInstallation();

    /// Examines the installation path and the rules' backup paths, and logs unsafe ones as errors.
    /// For policy callbacks and Init.
    void Judge(const std::list<SentrelDirRule>& rules);

    /// The findings of the last Judge: [{"path","reason"}].
    Json::Value ToJson() const;

    void Reset();

  private:
    mutable std::mutex mutex_;                    ///< guards reasons_
    std::map<std::string, std::string> reasons_;  ///< by path
};

}  // namespace Engine
