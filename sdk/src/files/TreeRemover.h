#pragma once

#include <sys/types.h>

#include <cstdint>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "sdk/files/FileDescriptor.h"
#include "sdk/files/Shield.h"

namespace SDK {

/// Removes a directory tree through descriptors only, so that a link put in place of a directory
/// meanwhile is removed and not followed, and what is mounted in it is left alone. Holds one
/// directory open however deep the tree is, and no more names than it has directories side by side.
/// One thread; one use.
class TreeRemover {
  public:
    static constexpr std::int64_t kNoLimit = std::numeric_limits<std::int64_t>::max();

    TreeRemover() = default;

    /// Leaves alone what `shield` says, asked with paths that begin with `below`, the tree's own;
    /// the directories above what it keeps stay, too, and that is no failure. An empty one keeps
    /// nothing. Gives up after `limit_ms` (ETIMEDOUT), since somebody may go on filling the tree,
    /// and when the thread's commands are interrupted (ECANCELED).
    TreeRemover(Shield shield, std::string below, std::int64_t limit_ms)
        : shield_(std::move(shield)), root_below_(std::move(below)), limit_ms_(limit_ms) {}

    /// 0 when all is gone, at the latest after half a second of files being added meanwhile. Goes
    /// on past what cannot be removed; -1 then, errno the first failure. Refuses "/".
    int Remove(const std::string& path);

    /// The same for the directory `name` in the directory `parent`, which stays the caller's.
    int RemoveAt(int parent, const std::string& name);

  private:
    struct Level {
        std::string name;  // in the directory above
        dev_t device;
        ino_t inode;
        std::vector<std::string> directories;  // still to be removed
        bool is_kept;                          // holds something that is shielded
    };

    int RemoveOnce(int parent, const std::string& name);
    bool Enter(FileDescriptor directory, const std::string& name);
    bool Leave();
    void Descend(const std::string& name);
    void RemoveEntry(const std::string& name);
    bool IsShielded(const std::string& name, bool is_directory) const;
    bool IsStopped();
    void Failed(int error);

    Shield shield_;
    std::string root_below_;
    std::string below_;  // the current directory, for the shield
    std::int64_t limit_ms_ = kNoLimit;
    std::int64_t end_ms_ = kNoLimit;
    int parent_ = -1;         // borrowed: where the tree's root stands
    FileDescriptor current_;  // the directory of levels_.back()
    std::vector<Level> levels_;
    int first_error_ = 0;
    unsigned looks_ = 0;  // how often it was asked whether to stop
    bool is_stopped_ = false;
};

}  // namespace SDK
