#pragma once

#include <sdk/restore/AttributeComparison.h>
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
    SDK::ExtendedAttributes extended = {};  ///< of a file or directory
    unsigned attribute_kinds = 0;           ///< that it has
};

/// The first difference between an object and its copy, in the order of the checks. An object is
/// unreachable when a link or another non-directory stands on the way to it.
enum class Deviation {
    kNone,
    kGone,
    kUnreachable,
    kSize,
    kTime,
    kMode,
    kContent,
    kOwner,
    kAttributes
};

/// Compares objects of a rule with their copies, by descriptors. Reads only. Not thread-safe.
class BackupComparer {
  public:
    /// `attribute_kinds`: the extended attributes that the copies have (SDK::AttributeKind).
    explicit BackupComparer(std::shared_ptr<const AnchoredRule> rule, unsigned attribute_kinds = 0)
        : rule_(std::move(rule)), attribute_kinds_(attribute_kinds) {}

    /// Reads the attributes of the backup copy of `path`; `copy_path` is its name in the log. False
    /// when the copy is there but cannot be read.
    bool Describe(const std::string& path, const std::string& copy_path, bool& exists,
                  BackupFileInfo& info) const;

    Deviation Compare(const std::string& path, const BackupFileInfo& info) const;

    /// Names the extended attributes that differ from those of the copy, as " xattr(added:NAME
    /// changed:NAME removed:NAME)"; empty when none does. Of many it names the first.
    std::string DescribeAttributes(const std::string& path) const;

    /// True when the directory lacks an object of its copy. A directory that replaced another
    /// within a second may have equal attributes; its content has events, what it lacks has none.
    /// `ignored` says which objects do not count; it gets a directory's path with a trailing "/".
    bool LacksContent(const std::string& path,
                      const std::function<bool(const std::string&)>& ignored) const;

  private:
    bool HasContentOfCopy(const std::string& path, const SDK::PathAnchor::Entry& live) const;
    static bool HasOwnerOfCopy(const std::string& path, const struct stat& live,
                               const BackupFileInfo& info);

    const std::shared_ptr<const AnchoredRule> rule_;
    const unsigned attribute_kinds_;
};

/// True when the directories differ in mode, owner or extended attributes. Their times and sizes
/// differ wherever something was added and removed again.
bool DirectoryDiffers(const AnchoredRule& rule, const std::string& path, unsigned attribute_kinds);

}  // namespace Engine
