#pragma once

#include <sys/types.h>

#include <ctime>
#include <functional>
#include <memory>
#include <string>

#include "places/RuleAnchors.h"

namespace Engine {

/// What a backup copy says of a file.
struct BackupFileInfo {
    off_t size = 0;
    std::time_t mtime = 0;
    std::string mode;
    uid_t uid = 0;
    gid_t gid = 0;
};

/// The first way, in the order of looking, in which an object is not as its copy. Unreachable is
/// what a link or something else than a directory stands in the way of.
enum class Deviation { kNone, kGone, kUnreachable, kSize, kTime, kMode, kContent, kOwner };

/// Compares what a rule protects with its copies, by descriptors. Reads only; one thread.
class BackupComparer {
  public:
    explicit BackupComparer(std::shared_ptr<const AnchoredRule> rule) : rule_(std::move(rule)) {}

    /// Looks at the backup copy of `path`; `copy_path` is its name in the log. False when it is
    /// there but cannot be read.
    bool Describe(const std::string& path, const std::string& copy_path, bool& exists,
                  BackupFileInfo& info) const;

    Deviation Compare(const std::string& path, const BackupFileInfo& info) const;

    /// A directory that took the place of its like within a second may look the same from outside.
    /// What it holds is announced by itself, what it lacks is not. `ignored` tells of which objects
    /// nothing is to be said; it gets a directory's path with a "/" at its end.
    bool LacksContent(const std::string& path,
                      const std::function<bool(const std::string&)>& ignored) const;

  private:
    Deviation CompareContent(const std::string& path, const struct stat& live,
                             const BackupFileInfo& info) const;
    Deviation CompareOwner(const std::string& path, const struct stat& live,
                           const BackupFileInfo& info) const;

    const std::shared_ptr<const AnchoredRule> rule_;
};

}  // namespace Engine
