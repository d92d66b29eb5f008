#pragma once

#include <json/value.h>

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>

namespace Engine {

/// The status of this host as a backup server. The policy callback and the task write, the status
/// query reads. It never influences what they do. Owned by ModuleState. Thread-safe.
class BackUpServerStatus {
  public:
    /// A policy has switched the feature on. Resets the count of restarts.
    void SetOn(const std::string& address, int port, const std::string& path);
    void SetOff();
    void NoteStart();

    /// {"on","address","port","path","running","pid","restarts","last_start"}. `pid` is that of the
    /// daemon, if it runs. "pid" and "last_start" are null when there is none.
    Json::Value ToJson(std::optional<int> pid) const;

    void Reset() { SetOff(); }

  private:
    mutable std::mutex mutex_;  ///< guards all below
    bool on_ = false;
    std::string address_;
    int port_ = 0;
    std::string path_;
    std::uint64_t starts_ = 0;
    std::int64_t last_start_ = 0;  ///< seconds of the epoch, 0 never
};

}  // namespace Engine
