#pragma once

#include <json/value.h>
#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "base/SentrelDirRule.h"

namespace Engine {

/// Protected paths in which nothing is undone for a while: changes have their alarms and are held
/// until an operator decides. Kept on the disk, so that a pause survives a restart. Owned by
/// ModuleState. Thread-safe.
class Pauses {
  public:
    struct Pause {
        std::string real_path;
        std::string reason;
        uid_t user = 0;
        pid_t process = 0;
        std::int64_t begun = 0;  ///< seconds since the epoch
        std::int64_t until = 0;
    };

    /// Reads what is kept below the installation.
    void Load();

    /// {"path","until"} or {"error"}. Prolongs a pause that is open. `request` as in Deploys.
    Json::Value Begin(const Json::Value& request, const SentrelDirRule& rule);
    /// {"path"} or {"error"}.
    Json::Value End(const SentrelDirRule& rule);

    bool IsPaused(const SentrelDirRule& rule) const;

    /// Ends the pauses whose time is over. Returns them.
    std::vector<Pause> EndDue(std::int64_t now);

    /// The open ones.
    Json::Value ToJson() const;

  private:
    int Write() const;

    mutable std::mutex mutex_;             ///< guards pauses_
    std::map<std::string, Pause> pauses_;  ///< by real_path
    std::atomic<bool> has_any_{false};
};

}  // namespace Engine
