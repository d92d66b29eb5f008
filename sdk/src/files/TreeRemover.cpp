// Owns the walk through a tree that is removed. Must not decide what is excluded (the filter
// does). Runs on the caller's thread.
#include "files/TreeRemover.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <utility>

#include "files/DirectoryListing.h"
#include "files/OpenBeneath.h"
#include "files/TreePath.h"
#include "sdk/time/CommandInterrupter.h"
#include "sdk/time/TimeUtils.h"

namespace SDK {

namespace {

constexpr std::int64_t kRetryMs = 500;
constexpr unsigned kEntriesPerCheck = 256;  // between two checks of clock and interrupter
constexpr int kDirectoryFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

}  // namespace

int TreeRemover::Remove(const std::string& path) {
    if (path == "/") {
        errno = EBUSY;
        return -1;
    }
    return RemoveAt(AT_FDCWD, path);
}

// Repeats the walk when another process keeps adding files.
int TreeRemover::RemoveAt(int parent, const std::string& name) {
    const std::int64_t start = TimeUtils::GetMonotonicMs();
    if (limit_ms_ != kNoLimit) end_ms_ = start + limit_ms_;
    int result = RemoveOnce(parent, name);
    const std::int64_t end = TimeUtils::GetMonotonicMs() + kRetryMs;
    while (result != 0 && errno == ENOTEMPTY && TimeUtils::GetMonotonicMs() < end) {
        result = RemoveOnce(parent, name);
        if (result != 0 && errno == ENOENT) return 0;
    }
    return result;
}

int TreeRemover::RemoveOnce(int parent, const std::string& name) {
    first_error_ = 0;
    levels_.clear();
    below_ = root_below_;
    parent_ = parent;
    FileDescriptor top =
        parent == AT_FDCWD
            ? FileDescriptor(::openat(parent, name.c_str(), kDirectoryFlags))
            : OpenBeneath(parent, name, kDirectoryFlags & ~O_NOFOLLOW, MountPoints::kRefused);
    if (!Enter(std::move(top), name)) {
        errno = first_error_;
        return -1;
    }
    while (!levels_.empty() && !is_stopped_) {
        std::vector<std::string>& waiting = levels_.back().directories;
        if (!waiting.empty()) {
            const std::string child = std::move(waiting.back());
            waiting.pop_back();
            Descend(child);
        } else if (!Leave()) {
            break;
        }
    }
    errno = first_error_;
    return first_error_ == 0 ? 0 : -1;
}

/// Makes `directory` the current one and removes its entries; subdirectories are kept for later.
bool TreeRemover::Enter(FileDescriptor directory, const std::string& name) {
    struct stat info {};
    if (!directory.IsOpen() || ::fstat(directory.Get(), &info) != 0) {
        Failed(errno);
        return false;
    }
    current_ = std::move(directory);
    if (!levels_.empty()) below_ += "/" + name;
    levels_.push_back({name, info.st_dev, info.st_ino, {}, false});
    DirectoryListing listing(current_.Get());
    while (!IsStopped() && listing.Next()) {
        if (filter_ && IsExcluded(filter_, below_, listing.Name(), listing.IsDirectory())) {
            levels_.back().is_kept = true;
        } else {
            if (visit_ && !listing.IsDirectory()) Visit(listing.Name());
            RemoveEntry(listing.Name());
        }
    }
    if (listing.Error() != 0) Failed(listing.Error());
    return true;
}

void TreeRemover::Visit(const std::string& name) const {
    visit_(current_.Get(), name, below_.empty() ? name : below_.substr(1) + "/" + name);
}

void TreeRemover::RemoveEntry(const std::string& name) {
    if (::unlinkat(current_.Get(), name.c_str(), 0) == 0 || errno == ENOENT) return;
    if (errno == EISDIR) {
        levels_.back().directories.push_back(name);
    } else {
        Failed(errno);
    }
}

void TreeRemover::Descend(const std::string& name) {
    FileDescriptor child = OpenBeneath(current_.Get(), name, O_RDONLY | O_DIRECTORY | O_CLOEXEC,
                                       MountPoints::kRefused);
    if (child.IsOpen()) {
        Enter(std::move(child), name);
    } else if (errno == ENOTDIR || errno == ELOOP) {
        // It is no directory any more: remove it as an entry, without another try.
        if (::unlinkat(current_.Get(), name.c_str(), 0) != 0) Failed(errno);
    } else if (errno != ENOENT) {
        Failed(errno);
    }
}

/// Removes the current directory and returns to its parent; false at the end. Checks the parent's
/// inode, since ".." may lead elsewhere after a move.
bool TreeRemover::Leave() {
    const Level done = std::move(levels_.back());
    levels_.pop_back();
    FileDescriptor above;
    if (!levels_.empty()) {
        below_.resize(below_.size() - done.name.size() - 1);
        above.Reset(::openat(current_.Get(), "..", kDirectoryFlags));
        struct stat info {};
        if (!above.IsOpen() || ::fstat(above.Get(), &info) != 0 ||
            info.st_dev != levels_.back().device || info.st_ino != levels_.back().inode) {
            Failed(above.IsOpen() ? EAGAIN : errno);
            return false;
        }
    }
    current_ = std::move(above);
    const int directory = levels_.empty() ? parent_ : current_.Get();
    if (::unlinkat(directory, done.name.c_str(), AT_REMOVEDIR) == 0) return true;
    if (done.is_kept && errno == ENOTEMPTY) {
        if (!levels_.empty()) levels_.back().is_kept = true;
    } else {
        Failed(errno);
    }
    return true;
}

bool TreeRemover::IsStopped() {
    if (limit_ms_ == kNoLimit || is_stopped_ || ++checks_ % kEntriesPerCheck != 0)
        return is_stopped_;
    if (CommandInterrupter::IsCurrentInterrupted()) {
        Failed(ECANCELED);
        is_stopped_ = true;
    } else if (TimeUtils::GetMonotonicMs() > end_ms_) {
        Failed(ETIMEDOUT);
        is_stopped_ = true;
    }
    return is_stopped_;
}

void TreeRemover::Failed(int error) {
    if (first_error_ == 0) first_error_ = error;
}

int RemoveTreeAt(int directory, const std::string& name, const RemovalVisitor& visit) {
    if (::unlinkat(directory, name.c_str(), 0) == 0) return 0;
    return errno == EISDIR ? TreeRemover(visit).RemoveAt(directory, name) : -1;
}

}  // namespace SDK
