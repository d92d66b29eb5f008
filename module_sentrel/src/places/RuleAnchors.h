#pragma once

#include <sdk/files/FileDescriptor.h>
#include <sdk/files/PathAnchor.h>
#include <sdk/restore/StagingDirectory.h>
#include <sys/stat.h>

#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/SentrelDirRule.h"
#include "places/MountTable.h"

namespace Engine {

/// The held (opened) directories of one rule: what it protects and where its copies lie. Every
/// read, copy and removal starts from these, so that nobody can swap a directory above them.
/// Immutable; thread-safe.
class AnchoredRule {
  public:
    using Anchor = std::shared_ptr<const SDK::PathAnchor>;

    /// `root` is null for a single file and for a directory that is gone, `copies` where there is
    /// no backup folder yet.
    AnchoredRule(const SentrelDirRule& rule, Anchor parent, Anchor root, Anchor copies,
                 std::shared_ptr<MountTable> mounts);

    // `path` is the rule's path or lies below it; a trailing "/" is ignored. Failures set errno:
    // ELOOP for a link on the way, ENOTDIR for anything else that is no directory, ENOENT, EXDEV
    // for a path that lies elsewhere, and for one behind a mount that is not normal.

    /// The object on the site, by its held parent directory.
    SDK::PathAnchor::Entry Live(const std::string& path) const;
    /// As lstat(2): 0 or -1.
    int StatLive(const std::string& path, struct stat& info) const;
    SDK::FileDescriptor OpenLiveDirectory(const std::string& path) const;

    /// The same for its backup copy.
    SDK::PathAnchor::Entry Copy(const std::string& path) const;
    int StatCopy(const std::string& path, struct stat& info) const;
    SDK::FileDescriptor OpenCopyDirectory(const std::string& path) const;

    /// `path` relative to the rule's path; false when it lies elsewhere.
    bool Below(const std::string& path, std::string_view& below) const;

    /// The mounts below the protected path, or at a protected file, that are not normal
    /// (MountTable), as of the last check of RuleAnchors; without those in excluded directories.
    std::vector<MountTable::Difference> UnusualMounts() const;
    /// `path` is at such a mount or behind it. Nothing there must be judged or changed.
    bool IsBehindMount(const std::string& path) const;
    /// The protected path for the path `point` of such a mount.
    std::string PathOfMount(const std::string& point) const;

    const SentrelDirRule& Rule() const { return rule_; }
    const std::string& RootPath() const { return root_path_; }  ///< without a trailing "/"
    bool IsFile() const { return rule_.is_file; }
    const std::string& Place() const { return place_; }  ///< RootPath() without links
    const std::string& PlaceOfCopies() const { return place_of_copies_; }
    const Anchor& Parent() const { return parent_; }  ///< what holds the protected path
    const Anchor& Root() const { return root_; }
    const Anchor& Copies() const { return copies_; }

    /// The directory among the copies that holds unfinished files; only root gets there. Made when
    /// it is missing; not open on failure (errno).
    SDK::FileDescriptor OpenScratch() const;
    /// The same for restores without a process; null where the copies lie on another mount.
    SDK::StagingDirectory* Staging() const;

  private:
    SDK::PathAnchor::Entry OpenEntry(const std::string& path, std::string_view below) const;

    const SentrelDirRule rule_;
    const std::string root_path_;
    const Anchor parent_;
    const Anchor root_;
    const Anchor copies_;
    const std::shared_ptr<MountTable> mounts_;
    const std::string place_;  ///< root_path_ without links, as mounts are named
    const std::string place_of_copies_;
    mutable std::once_flag staging_once_;
    mutable std::unique_ptr<SDK::StagingDirectory> staging_;  ///< set under staging_once_
};

/// A rule's directories as they are at this moment.
struct RulePlaces {
    std::shared_ptr<const AnchoredRule> anchors;  ///< null: they must not be used
    std::string problem;                          ///< why not, in words; else empty
    bool is_mount = false;                        ///< the problem is a mount

    explicit operator bool() const { return anchors != nullptr; }
};

/// Holds the directories of all rules. When a protected path leads to another directory, that one
/// is used only if every directory above it is root's own: otherwise another user could make the
/// agent work in a directory of his choice. A mount that covers a protected path is not followed.
/// Owned by ModuleState. Thread-safe.
class RuleAnchors {
  public:
    /// The rule's directories: opened by the first call, checked again by each.
    RulePlaces Of(const SentrelDirRule& rule);

    /// The same without the check, right after one or where a hint is enough.
    RulePlaces Held(const SentrelDirRule& rule);

    /// The known rule that protects `target` and has its backup copy at `source`. No anchors and no
    /// problem: there is no such rule.
    RulePlaces OfRestore(const std::string& source, const std::string& target);
    /// The known rule that protects `source` and has `target` as its backup path.
    RulePlaces OfBackup(const std::string& source, const std::string& target);

    /// Makes the protected directory anew, empty, in place of nothing or of what is no directory.
    /// Returns the rule's directories with it, or why it cannot be made.
    RulePlaces MakeRoot(const std::shared_ptr<const AnchoredRule>& known);

    /// Closes all; their next use opens them again.
    void Forget();
    /// Closes those of one rule.
    void Forget(const SentrelDirRule& rule);

    MountTable& Mounts() { return *mounts_; }

  private:
    using Key = std::pair<std::string, std::string>;  ///< real_path, backup_path
    using Known = std::shared_ptr<const AnchoredRule>;

    RulePlaces LookUp(const SentrelDirRule& rule);
    RulePlaces Open(const SentrelDirRule& rule);
    RulePlaces Check(const Known& known);
    RulePlaces OpenAgain(const AnchoredRule& known);
    RulePlaces CoveredBy(const AnchoredRule& known) const;
    Known WithPresentCopies(const Known& known);
    RulePlaces Remember(Known anchors);
    RulePlaces FindFormer(const AnchoredRule& present);
    RulePlaces FindLost(const AnchoredRule& present);
    void KeepFormer(const AnchoredRule& held);

    static constexpr std::size_t kMostFormer = 8;

    const std::shared_ptr<MountTable> mounts_ = std::make_shared<MountTable>();

    std::mutex mutex_;  ///< guards all below
    std::map<Key, Known> rules_;
    /// Protected directories that were held before, by path: somebody may move them back.
    std::map<std::string, std::deque<AnchoredRule::Anchor>> former_roots_;
    /// Paths at which MakeRoot made a directory that others moved away at once.
    std::set<std::string> lost_roots_;
};

}  // namespace Engine
