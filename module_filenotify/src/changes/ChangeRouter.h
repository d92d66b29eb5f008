#pragma once

#include <chrono>
#include <cstdint>
#include <string_view>

#include "delivery/Delivery.h"
#include "tree/WatchMatcher.h"

namespace Engine::FileNotify {

/// An object by the directory that holds it and its name there; an empty name is "/" itself.
struct ObjectRef {
    const DirNode* dir = nullptr;
    std::string_view name;
};

/// Tells every watch that covers an object of its change, as far as the watch has asked for it.
/// Task's thread only.
class ChangeRouter {
  public:
    using Time = std::chrono::steady_clock::time_point;

    ChangeRouter(const WatchMatcher& matcher, Delivery& delivery)
        : matcher_(matcher), delivery_(delivery) {}

    /// The read time of what is announced from here on.
    void SetTime(Time time) { time_ = time; }

    /// `moved_to`: where a move goes to, if known.
    void Announce(ObjectRef object, std::uint32_t mask, ObjectRef moved_to = {});

    /// The same about a directory that has a node.
    void AnnounceDirectory(const DirNode& dir, std::uint32_t mask);

    /// To one watch only, about its root.
    void AnnounceRoot(const Watch& watch, std::uint32_t mask);

    /// A name has changed between directory and anything else.
    void AnnounceKindChange(const DirNode& dir, std::string_view name, bool is_directory);

  private:
    void Tell(const Watch& watch, std::string path, std::string moveto, std::uint32_t mask);
    static bool HasExcludedSuffix(const Watch& watch, std::string_view path);
    std::string MoveTarget(const Watch& watch, const ObjectRef& target) const;

    const WatchMatcher& matcher_;
    Delivery& delivery_;
    Time time_{};
    WatchMatcher::Hits hits_;
};

}  // namespace Engine::FileNotify
