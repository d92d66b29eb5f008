// Owns the walk through a protected path and its copy. It must not copy (ObjectCopier does) nor
// change the protected path. The result belongs to the caller. Backup task's thread.
#include "feature_sentrel/backup/CopyComparison.h"

#include <fcntl.h>
#include <sdk/files/PathAnchor.h>
#include <sdk/files/PathUtils.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <tuple>
#include <utility>

#include "base/DirectoryListing.h"
#include "base/PathText.h"
#include "baseline/ReplacedCopies.h"
#include "feature_sentrel/backup/ObjectCopier.h"
#include "places/RuleAnchors.h"

namespace Engine {

namespace {

constexpr std::size_t kLooksBetweenAsking = 64;
constexpr int kDirectoryFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;

/// The protected directory, or the one that holds the protected file.
SDK::FileDescriptor OpenHeld(const AnchoredRule& anchors) {
    return anchors.IsFile() ? anchors.Parent()->OpenDirectory("")
                            : anchors.OpenLiveDirectory(anchors.RootPath());
}

bool StatAt(int directory, const std::string& name, struct stat& info) {
    return ::fstatat(directory, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0;
}

bool IsEqual(const struct stat& live, const struct stat& copy) {
    if ((live.st_mode & S_IFMT) != (copy.st_mode & S_IFMT)) return false;
    switch (live.st_mode & S_IFMT) {
        case S_IFDIR:
            return true;
        case S_IFREG:
        case S_IFLNK:
            return live.st_size == copy.st_size && live.st_mtim.tv_sec == copy.st_mtim.tv_sec;
        default:
            return live.st_rdev == copy.st_rdev;
    }
}

}  // namespace

CopyComparison::CopyComparison(RuleAnchors& anchors, const SentrelDirRule& rule,
                               ReplacedCopies& replaced, std::timespec round_begin,
                               std::function<bool()> is_over)
    : anchors_(anchors),
      replaced_(replaced),
      rule_(rule),
      exclusions_(rule),
      round_begin_(round_begin),
      is_over_(std::move(is_over)) {}

CopyComparison::Result CopyComparison::Run() {
    const std::string root = SDK::PathUtils::WithoutTrailingSlash(rule_.real_path);
    const std::string held = rule_.is_file ? ParentPath(root) : root;
    const RulePlaces places = anchors_.Of(rule_);
    if (!places) {
        result_.error = EXDEV;
        return result_;
    }
    const SDK::FileDescriptor live = OpenHeld(*places.anchors);
    const SDK::FileDescriptor copy = places.anchors->OpenCopyDirectory(held);
    if (!live.IsOpen() || !copy.IsOpen()) {
        result_.error = errno;
        return result_;
    }
    const Level level{live.Get(), copy.Get(), "", 0};
    struct stat found {};
    if (rule_.is_file) {
        const std::string name = FileName(root);
        CompareObject(level, name);
        if (!IsFileCopied(level, name)) root_error_ = ESTALE;
    } else if (::fstat(level.live, &found) == 0) {
        CompareDirectory(level, found);
    }
    return Conclude();
}

CopyComparison::Result CopyComparison::Conclude() {
    if (is_interrupted_) {
        result_.outcome = Outcome::kInterrupted;
    } else if (root_error_ != 0) {
        result_.error = root_error_;
    } else {
        result_.outcome = Outcome::kCompared;
    }
    return std::move(result_);
}

bool CopyComparison::IsFileCopied(const Level& level, const std::string& name) {
    struct stat live {};
    struct stat copy {};
    return StatAt(level.live, name, live) && StatAt(level.copy, name, copy) && IsEqual(live, copy);
}

CopyComparison::Result CopyComparison::RunAgain(const std::string& below) {
    changed_ = Changed::kStaysOpen;
    if (below.empty()) return Run();
    const RulePlaces places = anchors_.Of(rule_);
    result_.open.Add(below, 0);
    if (!places) return result_;
    const std::size_t slash = below.rfind('/');
    const std::string directory = slash == std::string::npos ? "" : below.substr(0, slash);
    const std::string path =
        SDK::PathUtils::WithoutTrailingSlash(rule_.real_path) + "/" + directory;
    const SDK::FileDescriptor in_live = places.anchors->OpenLiveDirectory(path);
    const SDK::FileDescriptor in_copy = places.anchors->OpenCopyDirectory(path);
    if (!in_live.IsOpen() || !in_copy.IsOpen()) return result_;
    result_.open.Remove(below);
    CompareObject({in_live.Get(), in_copy.Get(), directory, 0},
                  slash == std::string::npos ? below : below.substr(slash + 1));
    return Conclude();
}

/// Only the kernel sets the time of the last change (ctime).
bool CopyComparison::IsUnchanged(const struct stat& info) const {
    return std::tie(info.st_ctim.tv_sec, info.st_ctim.tv_nsec) <
           std::tie(round_begin_.tv_sec, round_begin_.tv_nsec);
}

bool CopyComparison::IsOver() {
    if (!is_interrupted_ && ++looks_ % kLooksBetweenAsking == 0) is_interrupted_ = is_over_();
    return is_interrupted_;
}

/// `found`: the live directory before anything in it was read.
void CopyComparison::CompareDirectory(const Level& level, const struct stat& found) {
    CompareLiveNames(level);
    if (!is_interrupted_) CompareCopyNames(level);
    if (!is_interrupted_ && IsUnchanged(found)) {
        ObjectCopier::AlignDirectory(level.live, level.copy, found);
    }
}

void CopyComparison::CompareLiveNames(const Level& level) {
    DirectoryListing listing(level.live);
    if (!listing.IsOpen()) {
        Open(level.below, errno);
        return;
    }
    while (const char* name = listing.Next()) {
        if (IsOver()) return;
        CompareObject(level, name);
    }
    if (errno != 0) Open(level.below, errno);
}

/// Removes the copies of objects that were gone before the round began.
void CopyComparison::CompareCopyNames(const Level& level) {
    DirectoryListing listing(level.copy);
    if (!listing.IsOpen()) return;
    while (const char* name = listing.Next()) {
        if (IsOver()) return;
        struct stat live {};
        if (!StatAt(level.live, name, live) && errno == ENOENT) DropFromCopy(level, name);
    }
}

void CopyComparison::DropFromCopy(const Level& level, const std::string& name) {
    struct stat copy {};
    struct stat directory {};
    if (!StatAt(level.copy, name, copy)) return;
    if (exclusions_.Match(rule_.real_path + Path(level, name), S_ISDIR(copy.st_mode))) return;
    // A later loss has also changed the directory, and its event handles it.
    if (::fstat(level.live, &directory) != 0 || !IsUnchanged(directory)) return;
    const std::string below = Path(level, name);
    const int error = replaced_.Remove(level.copy, name, below);
    if (error != 0) Open(below, error);
}

void CopyComparison::CompareObject(const Level& level, const std::string& name) {
    struct stat live {};
    struct stat copy {};
    const bool has_copy = StatAt(level.copy, name, copy);
    if (!StatAt(level.live, name, live)) {
        const bool is_gone = errno == ENOENT;
        const bool stays = changed_ == Changed::kStaysOpen && has_copy;
        if (!is_gone || stays) Open(Path(level, name), errno);
        return;
    }
    const bool is_excluded =
        !rule_.is_file &&
        exclusions_.Match(rule_.real_path + Path(level, name), S_ISDIR(live.st_mode));
    if (is_excluded) return;
    if (has_copy && IsEqual(live, copy)) {
        if (S_ISDIR(live.st_mode)) {
            Descend(level, name, live);
        } else if (IsUnchanged(live)) {
            ObjectCopier::AlignObject(level.live, level.copy, name, live, copy);
        }
    } else if (IsUnchanged(live)) {
        CopyMissing(level, name, live, has_copy);
    } else if (changed_ == Changed::kStaysOpen) {
        Open(Path(level, name), ESTALE);
    }
}

void CopyComparison::Descend(const Level& level, const std::string& name, const struct stat& live) {
    const auto give_up = [&](int error) {
        if (IsUnchanged(live)) Open(Path(level, name), error);
    };
    if (level.depth >= kDeepest) {
        give_up(ELOOP);
        return;
    }
    const SDK::FileDescriptor in_live(::openat(level.live, name.c_str(), kDirectoryFlags));
    const SDK::FileDescriptor in_copy(
        in_live.IsOpen() ? ::openat(level.copy, name.c_str(), kDirectoryFlags) : -1);
    if (!in_copy.IsOpen()) {
        give_up(errno);
        return;
    }
    struct stat found {};
    const bool is_same = ::fstat(in_live.Get(), &found) == 0 && found.st_ino == live.st_ino;
    // Another directory by now: its event handles that change.
    if (!is_same) return;
    CompareDirectory({in_live.Get(), in_copy.Get(), Path(level, name), level.depth + 1}, live);
}

void CopyComparison::CopyMissing(const Level& level, const std::string& name,
                                 const struct stat& live, bool has_copy) {
    const std::string below = Path(level, name);
    // Nobody could push or read a copy whose path is too long.
    const std::size_t length = rule_.backup_path.size() + rule_.real_path.size() + below.size();
    int error = length + 1 >= PATH_MAX ? ENAMETOOLONG : 0;
    const ObjectCopier::Place place{level.live, level.copy, name, below};
    if (error == 0 && S_ISDIR(live.st_mode)) {
        error = ObjectCopier::MakeDirectory(place, live, replaced_);
        if (error == 0) Descend(level, name, live);
    } else if (error == 0) {
        error = ObjectCopier::CopyObject(place, live, replaced_);
    }
    if (error == 0) {
        ++result_.copied;
    } else if (error == ECANCELED) {
        is_interrupted_ = true;
    } else if (error == ENOENT || error == ESTALE) {  // it went or changed meanwhile
        const bool stays = error == ESTALE || has_copy;
        if (stays && changed_ == Changed::kStaysOpen) Open(below, error);
    } else {
        Open(below, error);
    }
}

std::string CopyComparison::Path(const Level& level, const std::string& name) const {
    return level.below.empty() ? name : level.below + "/" + name;
}

void CopyComparison::Open(const std::string& below, int error) {
    if (below.empty()) {
        root_error_ = error != 0 ? error : EIO;
    } else {
        result_.open.Add(below, error);
    }
}

}  // namespace Engine
