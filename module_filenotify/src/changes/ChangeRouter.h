#pragma once

#include <chrono>
#include <cstdint>
#include <string_view>

#include "delivery/Delivery.h"
#include "tree/WatchMatcher.h"

namespace Engine::FileNotify {

/// An object: its parent directory and its name. An empty name means "/".
struct ObjectRef {
    const DirNode* dir = nullptr;
    std::string_view name;
};

/// Delivers a change to every watch that covers the object and requests such changes. Owned by
/// NotifyCore. Not thread-safe.
class ChangeRouter {
  public:
    using Time = std::chrono::steady_clock::time_point;

    ChangeRouter(const WatchMatcher& matcher, Delivery& delivery)
        : matcher_(matcher), delivery_(delivery) {}

    /// Sets the read time of the following announcements.
    void SetTime(Time time) { time_ = time; }

    /// `moved_to`: the target of a move, if known.
    void Announce(ObjectRef object, std::uint32_t mask, ObjectRef moved_to = {});

    /// Announces a change of a directory that has a node.
    void AnnounceDirectory(const DirNode& dir, std::uint32_t mask);

    /// Announces a change of the root to its watch only. Does nothing when the watch has ended.
    void AnnounceRoot(const Watch& watch, std::uint32_t mask);

    /// Announces a change of the parent, because `name` turned from a directory into another kind
    /// of object or the reverse.
    void AnnounceKindChange(const DirNode& dir, std::string_view name, bool is_directory);

  private:
    void Deliver(const Watch& watch, std::string path, std::string moveto, std::uint32_t mask);
    static bool HasExcludedSuffix(const Watch& watch, std::string_view path);
    std::string MoveTarget(const Watch& watch, const ObjectRef& target) const;

    const WatchMatcher& matcher_;
    Delivery& delivery_;
    Time time_{};
    WatchMatcher::Hits hits_;
};

}  // namespace Engine::FileNotify
