// Restores directories. It owns the way through both trees and what belongs to directories; single
// objects are put back by RestoreSteps, foreign trees removed by TreeRemover. Both trees are gone
// through with one directory of each open; a directory above is found again from the roots, which
// stay open, and recognised by its inode, as those below a site may be moved meanwhile.
#include "sdk/restore/TreeRestorer.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <map>
#include <utility>
#include <vector>

#include "files/DirectoryListing.h"
#include "files/FileContent.h"
#include "files/OpenBeneath.h"
#include "files/TreeRemover.h"
#include "restore/ObjectAttributes.h"
#include "restore/PendingObject.h"
#include "restore/RestoreSteps.h"
#include "sdk/files/FileDescriptor.h"
#include "sdk/time/TimeUtils.h"

namespace SDK {

namespace {

using ObjectId = std::pair<dev_t, ino_t>;

constexpr int kListing = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
constexpr std::int64_t kPatienceMs = 10'000;  // for the foreign objects of one directory
constexpr unsigned kEntriesPerLook = 64;      // between two looks at clock and interrupter
constexpr int kMaxTries = 4;

ObjectId IdOf(const struct stat& info) {
    return {info.st_dev, info.st_ino};
}

bool IsSameTime(const struct stat& one, const struct stat& other) {
    return one.st_mtim.tv_sec == other.st_mtim.tv_sec &&
           one.st_mtim.tv_nsec == other.st_mtim.tv_nsec;
}

bool IsEarlier(const timespec& one, const timespec& other) {
    return one.tv_sec != other.tv_sec ? one.tv_sec < other.tv_sec : one.tv_nsec < other.tv_nsec;
}

/// Opens the directory `name`, which is made where there is none, in place of what else bears the
/// name. Not open on failure (errno).
FileDescriptor OpenOrMake(int parent, const std::string& name, MountPoints mount_points) {
    for (int tries = 0; tries < kMaxTries; ++tries) {
        FileDescriptor directory = OpenBeneath(parent, name, kListing, mount_points);
        if (directory.IsOpen()) return directory;
        int result = -1;
        if (errno == ENOENT) {
            result = ::mkdirat(parent, name.c_str(), S_IRWXU);
        } else if (errno == ENOTDIR || errno == ELOOP) {
            result = ::unlinkat(parent, name.c_str(), 0);
        }
        // Somebody may make and remove things there at the same moment.
        if (result != 0 && errno != EEXIST && errno != EISDIR && errno != ENOENT) return {};
    }
    return {};
}

/// The restore of one tree. One use.
class TreeRestore {
  public:
    TreeRestore(const Shield& shield, TreeRestorer::Look look, StagingDirectory* staging)
        : shield_(shield), look_(look), staging_(staging) {}

    ObjectRestorer::Result Run(Place copy, Place live);

  private:
    struct Level {
        std::size_t above;  // the length of the path of the directory above
        ObjectAttributes copy;
        ObjectId live;
        std::vector<std::string> directories;  // of the copy, still to be restored
    };
    struct LinkedObject {
        std::string path;  // of its first name in the live tree
        ObjectId live;
    };

    void Enter(FileDescriptor copy, FileDescriptor live, const std::string& name);
    void Descend(const std::string& name);
    void Leave();
    bool ReturnTo(const Level& level);
    FailedStep ApplyToDirectory(const ObjectAttributes& wanted, bool is_done) const;
    bool RestoreEntries();
    void RestoreEntry(const std::string& name);
    bool IsAsCopy(const std::string& name, const struct stat& copy) const;
    FailedStep RestoreLinked(const std::string& name, const struct stat& info);
    FailedStep RestoreSingle(const std::string& name, mode_t mode) const {
        return RestoreObject({copy_.Get(), name}, {live_.Get(), name}, mode, staging_);
    }
    bool IsLinkedTo(const std::string& name, const LinkedObject& object) const;
    void RemoveForeign();
    bool IsForeign(const std::string& name, bool is_directory);
    void Remove(const std::string& name);
    bool IsShielded(const std::string& name, bool is_directory) const;
    bool IsStopped();
    std::string PathOf(const std::string& name) const;

    const Shield& shield_;
    const TreeRestorer::Look look_;
    StagingDirectory* const staging_;  // may be null
    FileDescriptor root_copy_;
    FileDescriptor root_live_;
    FileDescriptor copy_;  // the directories of levels_.back()
    FileDescriptor live_;
    std::string below_;  // their path from the roots
    std::vector<Level> levels_;
    std::map<ObjectId, LinkedObject> linked_;  // by the copy's object
    FailedStep failed_;
    unsigned looks_ = 0;
    bool is_interrupted_ = false;
};

ObjectRestorer::Result TreeRestore::Run(Place copy, Place live) {
    root_copy_ = OpenBeneath(copy.directory, copy.name, kListing);
    if (!root_copy_.IsOpen()) return ResultOf({"open the copy", errno});
    root_live_ = OpenOrMake(live.directory, live.name, MountPoints::kCrossed);
    if (!root_live_.IsOpen()) return ResultOf({"open the directory", errno});
    Enter(OpenBeneath(root_copy_.Get(), "", kListing), OpenBeneath(root_live_.Get(), "", kListing),
          "");
    while (!levels_.empty() && !is_interrupted_) {
        std::vector<std::string>& waiting = levels_.back().directories;
        if (waiting.empty()) {
            Leave();
        } else {
            const std::string name = std::move(waiting.back());
            waiting.pop_back();
            Descend(name);
        }
    }
    return ResultOf(is_interrupted_ ? FailedStep{"restore", ECANCELED} : failed_);
}

/// Makes the two the current directories and restores what they hold but directories, which wait.
/// What they may be used for by others is settled first.
void TreeRestore::Enter(FileDescriptor copy, FileDescriptor live, const std::string& name) {
    Level level{below_.size(), {}, {}, {}};
    struct stat info {};
    if (!copy.IsOpen() || !live.IsOpen() || ::fstat(live.Get(), &info) != 0) {
        failed_.Note({"open the directory", errno});
        return;
    }
    const FailedStep unread = ReadAttributes(copy.Get(), OpenedAs::kFile, level.copy);
    if (!unread.IsNone()) {
        failed_.Note(unread);
        return;
    }
    copy_ = std::move(copy);
    live_ = std::move(live);
    below_ = PathOf(name);
    level.live = IdOf(info);
    levels_.push_back(std::move(level));
    // Who is not root could not write to all of these.
    ObjectAttributes wanted = levels_.back().copy;
    if (::geteuid() != 0) wanted.info.st_mode |= S_IRWXU;
    failed_.Note(ApplyToDirectory(wanted, false));
    if (RestoreEntries()) RemoveForeign();
}

/// Touches the directory only where something differs; its time comes with the second call, when
/// its content is done.
FailedStep TreeRestore::ApplyToDirectory(const ObjectAttributes& wanted, bool is_done) const {
    ObjectAttributes present;
    const FailedStep unread = ReadAttributes(live_.Get(), OpenedAs::kFile, present);
    if (!unread.IsNone()) return unread;
    struct stat but_time = wanted.info;
    but_time.st_mtim = present.info.st_mtim;
    if (StatDiffers(but_time, present.info) || present.extended != wanted.extended) {
        return ApplyAttributes(live_.Get(), OpenedAs::kFile, wanted);
    }
    if (!is_done || IsSameTime(wanted.info, present.info)) return {};
    return ApplyTime(live_.Get(), OpenedAs::kFile, wanted.info);
}

void TreeRestore::Descend(const std::string& name) {
    FileDescriptor copy = OpenBeneath(copy_.Get(), name, kListing);
    if (!copy.IsOpen()) {
        failed_.Note({"open the copy", errno});
        return;
    }
    FileDescriptor live = OpenOrMake(live_.Get(), name, MountPoints::kRefused);
    if (!live.IsOpen()) {
        failed_.Note({"open the directory", errno});
        return;
    }
    Enter(std::move(copy), std::move(live), name);
}

/// Gives the current directory its attributes, which its content has changed, and goes back to the
/// nearest one above that is still where it was.
void TreeRestore::Leave() {
    failed_.Note(ApplyToDirectory(levels_.back().copy, true));
    do {
        below_.resize(levels_.back().above);
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
        failed_.Note({"find the directory again", EAGAIN});
        return false;
    }
    copy_ = std::move(copy);
    live_ = std::move(live);
    return true;
}

/// False when the copy could not be listed to its end.
bool TreeRestore::RestoreEntries() {
    DirectoryListing listing(copy_.Get());
    while (!IsStopped() && listing.Next()) RestoreEntry(listing.Name());
    if (listing.Error() != 0) failed_.Note({"list the copy", listing.Error()});
    return listing.Error() == 0 && !is_interrupted_;
}

void TreeRestore::RestoreEntry(const std::string& name) {
    struct stat info {};
    if (::fstatat(copy_.Get(), name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) {
        if (errno != ENOENT) failed_.Note({"look at the copy", errno});
        return;
    }
    if (IsShielded(name, S_ISDIR(info.st_mode))) return;
    if (S_ISDIR(info.st_mode)) {
        levels_.back().directories.push_back(name);
        return;
    }
    if (IsAsCopy(name, info)) return;
    const FailedStep failed =
        info.st_nlink > 1 ? RestoreLinked(name, info) : RestoreSingle(name, info.st_mode);
    is_interrupted_ = is_interrupted_ || failed.error == ECANCELED;
    failed_.Note(failed);
}

/// Without reading it; false also where a closer look is wanted.
bool TreeRestore::IsAsCopy(const std::string& name, const struct stat& copy) const {
    struct stat live {};
    if (look_ != TreeRestorer::Look::kChanged || !S_ISREG(copy.st_mode) || copy.st_nlink > 1) {
        return false;
    }
    return ::fstatat(live_.Get(), name.c_str(), &live, AT_SYMLINK_NOFOLLOW) == 0 &&
           S_ISREG(live.st_mode) && live.st_nlink == 1 && live.st_size == copy.st_size &&
           IsEarlier(live.st_ctim, copy.st_ctim) && !StatDiffers(copy, live);
}

/// Restores an object that has several names in the copy: the first as any other, the others become
/// names of that one.
FailedStep TreeRestore::RestoreLinked(const std::string& name, const struct stat& info) {
    const auto first = linked_.find(IdOf(info));
    if (first != linked_.end()) {
        if (IsLinkedTo(name, first->second)) return {};
        const FileDescriptor object =
            OpenBeneath(root_live_.Get(), first->second.path, O_PATH | O_NOFOLLOW | O_CLOEXEC,
                        MountPoints::kRefused);
        struct stat found {};
        if (object.IsOpen() && ::fstat(object.Get(), &found) == 0 &&
            IdOf(found) == first->second.live) {
            PendingObject pending(live_.Get());
            if (pending.CreateHardLink(object.Get()) != 0) return {"link", errno};
            return pending.PutInPlace(name, true);
        }
    }
    const FailedStep failed = RestoreSingle(name, info.st_mode);
    struct stat restored {};
    if (failed.IsNone() &&
        ::fstatat(live_.Get(), name.c_str(), &restored, AT_SYMLINK_NOFOLLOW) == 0) {
        linked_[IdOf(info)] = {PathOf(name), IdOf(restored)};
    }
    return failed;
}

bool TreeRestore::IsLinkedTo(const std::string& name, const LinkedObject& object) const {
    struct stat info {};
    return ::fstatat(live_.Get(), name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 &&
           IdOf(info) == object.live;
}

void TreeRestore::RemoveForeign() {
    const std::int64_t end = TimeUtils::GetMonotonicMs() + kPatienceMs;
    DirectoryListing listing(live_.Get());
    for (unsigned seen = 1; !IsStopped() && listing.Next(); ++seen) {
        const std::string name = listing.Name();
        if (IsForeign(name, listing.IsDirectory())) Remove(name);
        if (seen % kEntriesPerLook == 0 && TimeUtils::GetMonotonicMs() > end) {
            failed_.Note({"remove", ETIMEDOUT});
            return;
        }
    }
    if (listing.Error() != 0) failed_.Note({"list the directory", listing.Error()});
}

bool TreeRestore::IsForeign(const std::string& name, bool is_directory) {
    struct stat info {};
    const bool has_copy = ::fstatat(copy_.Get(), name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0;
    if (!has_copy && errno != ENOENT) {
        failed_.Note({"look at the copy", errno});
        return false;
    }
    if (has_copy && !IsShielded(name, S_ISDIR(info.st_mode))) return false;
    return !IsShielded(name, is_directory);
}

void TreeRestore::Remove(const std::string& name) {
    int result = ::unlinkat(live_.Get(), name.c_str(), 0);
    if (result != 0 && errno == EISDIR) {
        result = TreeRemover(shield_, PathOf(name), kPatienceMs).RemoveAt(live_.Get(), name);
        is_interrupted_ = is_interrupted_ || (result != 0 && errno == ECANCELED);
    }
    if (result != 0 && errno != ENOENT) failed_.Note({"remove", errno});
}

bool TreeRestore::IsShielded(const std::string& name, bool is_directory) const {
    if (!shield_) return false;
    const std::string path = PathOf(name);
    return path.size() < PATH_MAX && shield_(path, is_directory);
}

bool TreeRestore::IsStopped() {
    if (!is_interrupted_ && ++looks_ % kEntriesPerLook == 0) {
        is_interrupted_ = FileContent::IsInterrupted();
    }
    return is_interrupted_;
}

std::string TreeRestore::PathOf(const std::string& name) const {
    return below_.empty() ? name : below_ + "/" + name;
}

}  // namespace

ObjectRestorer::Result TreeRestorer::Restore(const PathAnchor::Entry& copy,
                                             const PathAnchor::Entry& live, const Shield& shield,
                                             Look look, StagingDirectory* staging) {
    if (!copy.IsOpen() || !live.IsOpen()) return ResultOf({"find", EBADF});
    if (FileContent::IsInterrupted()) return ResultOf({"start", ECANCELED});
    return TreeRestore(shield, look, staging)
        .Run({copy.directory.Get(), copy.name}, {live.directory.Get(), live.name});
}

}  // namespace SDK
