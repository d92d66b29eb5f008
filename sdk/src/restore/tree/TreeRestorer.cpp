// Restores directories. Owns the walk through both trees, with one directory of each open. Single
// objects are RestoreSteps', directories DirectorySteps', further names HardLinks', foreign objects
// ForeignObjects'. Runs on the caller's thread. Directories may be moved during the walk: a parent
// is opened again from the root, which stays open, and recognised by its inode.
#include "sdk/restore/TreeRestorer.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>
#include <vector>

#include "files/DirectoryListing.h"
#include "files/OpenBeneath.h"
#include "files/TreePath.h"
#include "restore/object/RestoreSteps.h"
#include "restore/tree/DirectorySteps.h"
#include "restore/tree/ForeignObjects.h"
#include "restore/tree/HardLinks.h"
#include "restore/tree/RestoreProgress.h"
#include "sdk/files/FileDescriptor.h"
#include "sdk/time/CommandInterrupter.h"

namespace SDK {

namespace {

constexpr int kListing = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

bool IsEarlier(const timespec& one, const timespec& other) {
    return one.tv_sec != other.tv_sec ? one.tv_sec < other.tv_sec : one.tv_nsec < other.tv_nsec;
}

/// The restore of one tree. Call Run once.
class TreeRestore {
  public:
    TreeRestore(const ExclusionFilter& filter, TreeRestorer::Comparison comparison,
                StagingDirectory* staging)
        : filter_(filter), comparison_(comparison), staging_(staging), hard_links_(staging) {}

    ObjectRestorer::Result Run(EntryRef copy, EntryRef live);

  private:
    struct Level {
        std::size_t parent_length;  // of the path of the parent directory
        ObjectAttributes copy;
        ObjectId live;
        std::vector<std::string> directories;  // of the copy, still to be restored
    };

    void Enter(FileDescriptor copy, FileDescriptor live, const std::string& name);
    void Descend(const std::string& name);
    void Leave();
    bool ReturnTo(const Level& level);
    bool RestoreEntries();
    void RestoreEntry(const std::string& name);
    bool IsUnchanged(const std::string& name, const struct stat& copy) const;

    const ExclusionFilter& filter_;
    const TreeRestorer::Comparison comparison_;
    StagingDirectory* const staging_;  // may be null
    FileDescriptor root_copy_;
    FileDescriptor root_live_;
    FileDescriptor copy_;  // the directories of levels_.back()
    FileDescriptor live_;
    std::string below_;  // their path from the roots
    std::vector<Level> levels_;
    HardLinks hard_links_;
    RestoreProgress progress_;
};

ObjectRestorer::Result TreeRestore::Run(EntryRef copy, EntryRef live) {
    root_copy_ = OpenBeneath(copy.directory, copy.name, kListing);
    if (!root_copy_.IsOpen()) return ResultOf({"open the copy", errno});
    root_live_ = OpenOrMakeDirectory(live.directory, live.name, MountPoints::kCrossed);
    if (!root_live_.IsOpen()) return ResultOf({"open the directory", errno});
    Enter(OpenBeneath(root_copy_.Get(), "", kListing), OpenBeneath(root_live_.Get(), "", kListing),
          "");
    while (!levels_.empty() && !progress_.IsInterrupted()) {
        std::vector<std::string>& waiting = levels_.back().directories;
        if (waiting.empty()) {
            Leave();
        } else {
            const std::string name = std::move(waiting.back());
            waiting.pop_back();
            Descend(name);
        }
    }
    return progress_.Result();
}

/// Makes the two the current directories and restores all objects in them but directories, which
/// wait. The owner and mode come first, since they decide who may use what follows.
void TreeRestore::Enter(FileDescriptor copy, FileDescriptor live, const std::string& name) {
    Level level{below_.size(), {}, {}, {}};
    struct stat info {};
    if (!copy.IsOpen() || !live.IsOpen() || ::fstat(live.Get(), &info) != 0) {
        progress_.Note({"open the directory", errno});
        return;
    }
    const FailedStep unread = ReadAttributes(copy.Get(), OpenedAs::kFile, level.copy);
    if (!unread.IsNone()) {
        progress_.Note(unread);
        return;
    }
    copy_ = std::move(copy);
    live_ = std::move(live);
    below_ = JoinPath(below_, name);
    level.live = IdOf(info);
    levels_.push_back(std::move(level));
    // Other users than root could not write to every directory.
    ObjectAttributes wanted = levels_.back().copy;
    if (::geteuid() != 0) wanted.info.st_mode |= S_IRWXU;
    progress_.Note(RestoreDirectoryAttributes(live_.Get(), wanted, DirectoryTime::kLeft));
    if (RestoreEntries()) {
        ForeignObjects({copy_.Get(), live_.Get(), below_}, filter_, progress_).Remove();
    }
}

void TreeRestore::Descend(const std::string& name) {
    FileDescriptor copy = OpenBeneath(copy_.Get(), name, kListing);
    if (!copy.IsOpen()) {
        progress_.Note({"open the copy", errno});
        return;
    }
    FileDescriptor live = OpenOrMakeDirectory(live_.Get(), name, MountPoints::kRefused);
    if (!live.IsOpen()) {
        progress_.Note({"open the directory", errno});
        return;
    }
    Enter(std::move(copy), std::move(live), name);
}

/// Restores the time of the current directory, which its entries have changed, and returns to the
/// nearest parent that is still in its place.
void TreeRestore::Leave() {
    progress_.Note(
        RestoreDirectoryAttributes(live_.Get(), levels_.back().copy, DirectoryTime::kRestored));
    do {
        below_.resize(levels_.back().parent_length);
        levels_.pop_back();
    } while (!levels_.empty() && !ReturnTo(levels_.back()));
}

bool TreeRestore::ReturnTo(const Level& level) {
    FileDescriptor copy = OpenBeneath(root_copy_.Get(), below_, kListing);
    FileDescriptor live = OpenBeneath(root_live_.Get(), below_, kListing, MountPoints::kRefused);
    struct stat copy_info {};
    struct stat live_info {};
    if (!copy.IsOpen() || !live.IsOpen() || ::fstat(copy.Get(), &copy_info) != 0 ||
        ::fstat(live.Get(), &live_info) != 0 || IdOf(copy_info) != IdOf(level.copy.info) ||
        IdOf(live_info) != level.live) {
        progress_.Note({"find the directory again", EAGAIN});
        return false;
    }
    copy_ = std::move(copy);
    live_ = std::move(live);
    return true;
}

/// False when the copy could not be listed completely: nothing may be removed then.
bool TreeRestore::RestoreEntries() {
    DirectoryListing listing(copy_.Get());
    while (!progress_.MustStop() && listing.Next()) RestoreEntry(listing.Name());
    if (listing.Error() != 0) progress_.Note({"list the copy", listing.Error()});
    return listing.Error() == 0 && !progress_.IsInterrupted();
}

void TreeRestore::RestoreEntry(const std::string& name) {
    struct stat info {};
    if (::fstatat(copy_.Get(), name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) {
        if (errno != ENOENT) progress_.Note({"look at the copy", errno});
        return;
    }
    if (IsExcluded(filter_, below_, name, S_ISDIR(info.st_mode))) return;
    if (S_ISDIR(info.st_mode)) {
        levels_.back().directories.push_back(name);
        return;
    }
    if (IsUnchanged(name, info)) return;
    const EntryRef copy{copy_.Get(), name};
    const EntryRef live{live_.Get(), name};
    progress_.Note(info.st_nlink > 1 ? hard_links_.Restore(root_live_.Get(), copy, live,
                                                           JoinPath(below_, name), info)
                                     : RestoreObject(copy, live, info.st_mode, staging_));
}

/// Decides without reading content; false where the content has to be compared.
bool TreeRestore::IsUnchanged(const std::string& name, const struct stat& copy) const {
    struct stat live {};
    if (comparison_ != TreeRestorer::Comparison::kChanged || !S_ISREG(copy.st_mode) ||
        copy.st_nlink > 1) {
        return false;
    }
    return ::fstatat(live_.Get(), name.c_str(), &live, AT_SYMLINK_NOFOLLOW) == 0 &&
           S_ISREG(live.st_mode) && live.st_nlink == 1 && live.st_size == copy.st_size &&
           IsEarlier(live.st_ctim, copy.st_ctim) && !StatDiffers(copy, live);
}

}  // namespace

ObjectRestorer::Result TreeRestorer::Restore(const PathAnchor::Entry& copy,
                                             const PathAnchor::Entry& live,
                                             const ExclusionFilter& filter, Comparison comparison,
                                             StagingDirectory* staging) {
    if (!copy.IsOpen() || !live.IsOpen()) return ResultOf({"find", EBADF});
    if (CommandInterrupter::IsCurrentInterrupted()) return ResultOf({"start", ECANCELED});
    return TreeRestore(filter, comparison, staging)
        .Run({copy.directory.Get(), copy.name}, {live.directory.Get(), live.name});
}

}  // namespace SDK
