#pragma once

#include <sys/stat.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include "places/RuleAnchors.h"

namespace Engine {

/// Walks a protected path, a portion at a time, and names each object whose ctime is not older than
/// a given moment. The kernel sets the ctime with every change, and nobody can set it back. So the
/// scan finds changes that inotify does not tell. In a changed directory it also names what the
/// directory lacks and what has no copy. Reads only. Not thread-safe.
class ChangeScan {
  public:
    using Clock = std::chrono::steady_clock;

    struct Owner {
        /// True for a path that must be neither named nor entered; a directory's ends in "/".
        std::function<bool(const std::string& path)> ignored;
        /// Takes a path without a trailing "/", and the event bits that fit how it stands.
        std::function<void(const std::string& path, std::uint32_t raw_mask)> named;
        /// True when the scan should pause; asked every few objects.
        std::function<bool()> should_pause;
        unsigned attribute_kinds = 0;  ///< the extended attributes that the copies have
    };

    ChangeScan(Owner owner, std::timespec since) : owner_(std::move(owner)), since_(since) {}

    /// Scans only `path`, without a trailing "/", and what lies below it. Names the object at
    /// `path` whenever it may differ from its copy, whatever its ctime.
    ChangeScan(Owner owner, std::timespec since, std::string path)
        : owner_(std::move(owner)), since_(since), start_(std::move(path)) {}

    /// Continues the scan, with the directories that the rule holds now, until `until` or
    /// a pause. False when it has seen everything.
    bool Step(const AnchoredRule& rule, Clock::time_point until);

    /// Objects seen so far.
    std::size_t Seen() const { return seen_; }

  private:
    struct Directory {
        std::string path;  ///< ends in "/"
        bool changed = false;
        std::vector<std::string> names = {};  ///< still to be looked at, from the back
    };

    void Begin(const AnchoredRule& rule);
    void BeginAt(const AnchoredRule& rule, const std::string& path);
    void Enter(const AnchoredRule& rule, const std::string& path, bool changed);
    void Leave(const AnchoredRule& rule);
    void LookAtEntries(const AnchoredRule& rule, Clock::time_point until);
    void LookAt(const AnchoredRule& rule, int directory, const std::string& name);
    void NameDeviation(const AnchoredRule& rule, const std::string& path, const struct stat& live);
    bool IsChanged(const struct stat& info) const;
    bool IsIgnored(const std::string& path, bool is_directory) const {
        return owner_.ignored(is_directory ? path + "/" : path);
    }

    const Owner owner_;
    const std::timespec since_;
    const std::string start_;  ///< empty: the rule's path
    bool begun_ = false;
    std::vector<Directory> open_;
    std::size_t seen_ = 0;
};

}  // namespace Engine
