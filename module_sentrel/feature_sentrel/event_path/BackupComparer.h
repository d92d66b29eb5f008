#pragma once

#include <sys/types.h>

#include <ctime>
#include <functional>
#include <memory>
#include <string>

#include "places/RuleAnchors.h"

namespace Engine {

/// The attributes of a backup copy.
struct BackupFileInfo {
    off_t size = 0;
    std::time_t mtime = 0;
    std::string mode;
    uid_t uid = 0;
    gid_t gid = 0;
};

/// The first difference between an object and its copy, in the order of the checks. An object is
/// unreachable when a link or another non-directory stands on the way to it.
enum class Deviation { kNone, kGone, kUnreachable, kSize, kTime, kMode, kContent, kOwner };

/// Compares objects of a rule with their copies, by descriptors. Reads only. Not thread-safe.
class BackupComparer {
  public:
    explicit BackupComparer(std::shared_ptr<const AnchoredRule> rule) : rule_(std::move(rule)) {}

    /// Reads the attributes of the backup copy of `path`; `copy_path` is its name in the log. False
    /// when the copy is there but cannot be read.
    bool Describe(const std::string& path, const std::string& copy_path, bool& exists,
                  BackupFileInfo& info) const;

    Deviation Compare(const std::string& path, const BackupFileInfo& info) const;

    /// True when the directory lacks an object of its copy. A directory that replaced another
    /// within a second may have equal attributes; its content has events, what it lacks has none.
    /// `ignored` says which objects do not count; it gets a directory's path with a trailing "/".
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
