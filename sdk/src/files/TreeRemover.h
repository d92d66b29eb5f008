#pragma once

#include <sys/types.h>

#include <cstdint>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "sdk/files/ExclusionFilter.h"
#include "sdk/files/FileDescriptor.h"
#include "sdk/files/TreeRemoval.h"

namespace SDK {

/// Removes a directory tree through descriptors only: a link that replaces a directory is removed,
/// not followed, and mounted file systems are left alone. Keeps one directory open at any depth,
/// and the names of the directories still to visit. One use; not thread-safe.
class TreeRemover {
  public:
    static constexpr std::int64_t kNoLimit = std::numeric_limits<std::int64_t>::max();

    TreeRemover() = default;

    /// Leaves alone what `filter` excludes. It is asked with paths that begin with `below`, the
    /// tree's own path. Directories above excluded objects stay; that is no failure. Stops after
    /// `limit_ms` (ETIMEDOUT), since another process may keep filling the tree, and when the thread
    /// is interrupted (ECANCELED).
    TreeRemover(ExclusionFilter filter, std::string below, std::int64_t limit_ms)
        : filter_(std::move(filter)), root_below_(std::move(below)), limit_ms_(limit_ms) {}

    /// `visit` may be empty.
    explicit TreeRemover(RemovalVisitor visit) : visit_(std::move(visit)) {}

    /// 0 when everything is removed; retries for half a second while files are being added.
    /// Continues after failures: -1, errno of the first one. Refuses "/".
    int Remove(const std::string& path);

    /// The same for the directory `name` in the open directory `parent`, which the caller keeps.
    int RemoveAt(int parent, const std::string& name);

  private:
    struct Level {
        std::string name;  // in the parent directory
        dev_t device;
        ino_t inode;
        std::vector<std::string> directories;  // still to be removed
        bool is_kept;                          // holds an excluded object
    };

    int RemoveOnce(int parent, const std::string& name);
    bool Enter(FileDescriptor directory, const std::string& name);
    bool Leave();
    void Descend(const std::string& name);
    void Visit(const std::string& name) const;
    void RemoveEntry(const std::string& name);
    bool IsStopped();
    void Failed(int error);

    ExclusionFilter filter_;
    RemovalVisitor visit_;
    std::string root_below_;
    std::string below_;  // the current directory, for the filter
    std::int64_t limit_ms_ = kNoLimit;
    std::int64_t end_ms_ = kNoLimit;
    int parent_ = -1;         // borrowed: the parent of the tree's root
    FileDescriptor current_;  // the directory of levels_.back()
    std::vector<Level> levels_;
    int first_error_ = 0;
    unsigned checks_ = 0;  // calls of IsStopped
    bool is_stopped_ = false;
};

}  // namespace SDK
