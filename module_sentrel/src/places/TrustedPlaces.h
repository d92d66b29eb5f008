#pragma once

#include <json/value.h>

#include <list>
#include <map>
#include <mutex>
#include <string>

#include "base/SentrelDirRule.h"

namespace Engine {

/// Says which places the module may rely on: those that only root, or the agent's own user, can
/// change. The questions are for any thread and look at the file system each time; what Judge found
/// is kept for the status.
class TrustedPlaces {
  public:
    /// Why copies must be neither put below `backup_path` nor restored from there: others can write
    /// to it, or can enter it, where the copies keep the owners of the site. Empty: they may.
    static std::string WhyNotForCopies(const std::string& backup_path);
    static bool IsForCopies(const std::string& backup_path) {
        return WhyNotForCopies(backup_path).empty();
    }

    /// Why the installation path, or what the agent runs and reads there, can be changed by others;
    /// empty when it cannot.
    static std::string WhyNotInstallation();

    /// Looks at the installation path and the rules' backup paths, and logs what is not safe as
    /// errors. Policy callbacks and Init.
    void Judge(const std::list<SentrelDirRule>& rules);

    /// What Judge found last: [{"path","reason"}].
    Json::Value ToJson() const;

    void Reset();

  private:
    mutable std::mutex mutex_;                    ///< guards reasons_
    std::map<std::string, std::string> reasons_;  ///< by path
};

}  // namespace Engine
