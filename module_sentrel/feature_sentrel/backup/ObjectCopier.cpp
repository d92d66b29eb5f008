// Copies single objects by the object restorer, used here in the other direction. It must not
// decide what is copied (CopyComparison does). Backup task's thread.
#include "feature_sentrel/backup/ObjectCopier.h"

#include <fcntl.h>
#include <sdk/files/FileDescriptor.h>
#include <sdk/restore/AttributeComparison.h>
#include <sdk/restore/ObjectRestorer.h>
#include <sys/random.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <limits>

#include "baseline/ReplacedCopies.h"

namespace Engine {

namespace {

using SDK::AttributeComparison;
using SDK::ObjectRestorer;

/// The name of a copy until it is certain that its original has not changed meanwhile.
std::string WaitingName() {
    std::uint64_t number = 0;
    if (::getrandom(&number, sizeof(number), 0) < 0)
        number = static_cast<std::uint64_t>(::getpid());
    std::array<char, 48> name{};
    std::snprintf(name.data(), name.size(), ".morvane-backup-%016llx",
                  static_cast<unsigned long long>(number));
    return name.data();
}

SDK::PathAnchor::Entry EntryOf(int directory, const std::string& name) {
    return {SDK::FileDescriptor(::fcntl(directory, F_DUPFD_CLOEXEC, 0)), name};
}

bool IsTooLarge(int copy_directory, const struct stat& live) {
    struct statvfs space {};
    if (!S_ISREG(live.st_mode) || ::fstatvfs(copy_directory, &space) != 0) return false;
    return static_cast<std::uint64_t>(live.st_size) / space.f_frsize >= space.f_bavail;
}

bool IsUnchanged(int directory, const std::string& name, const struct stat& before) {
    struct stat now {};
    return ::fstatat(directory, name.c_str(), &now, AT_SYMLINK_NOFOLLOW) == 0 &&
           now.st_dev == before.st_dev && now.st_ino == before.st_ino &&
           now.st_ctim.tv_sec == before.st_ctim.tv_sec &&
           now.st_ctim.tv_nsec == before.st_ctim.tv_nsec;
}

int PutInPlace(const std::string& from, const ObjectCopier::Place& place,
               ReplacedCopies& replaced) {
    const int kept = replaced.Keep(place.copy_directory, place.name, place.below);
    if (kept != 0) return kept;
    const int moved =
        ::renameat(place.copy_directory, from.c_str(), place.copy_directory, place.name.c_str());
    return moved == 0 ? 0 : errno;
}

int ErrorOf(const ObjectRestorer::Result& result) {
    switch (result.outcome) {
        case ObjectRestorer::Outcome::kRestored:
            return 0;
        case ObjectRestorer::Outcome::kUnusual:
            return EOPNOTSUPP;
        case ObjectRestorer::Outcome::kInterrupted:
            return ECANCELED;
        default:
            return result.error != 0 ? result.error : EIO;
    }
}

/// The owner and mode in `live`, of the object `name`.
void AlignOwner(int directory, const std::string& name, const struct stat& live,
                const struct stat& copy) {
    const bool is_equal =
        live.st_mode == copy.st_mode && live.st_uid == copy.st_uid && live.st_gid == copy.st_gid;
    if (is_equal) return;
    const bool owned =
        ::fchownat(directory, name.c_str(), live.st_uid, live.st_gid, AT_SYMLINK_NOFOLLOW) == 0;
    if (owned && !S_ISLNK(live.st_mode)) {
        ::fchmodat(directory, name.c_str(), live.st_mode & ALLPERMS, 0);
    }
}

}  // namespace

int ObjectCopier::CopyObject(const Place& place, const struct stat& live,
                             ReplacedCopies& replaced) {
    const auto& [live_directory, copy_directory, name, below] = place;
    if (IsTooLarge(copy_directory, live)) return EFBIG;
    const std::string waiting = WaitingName();
    const int error = ErrorOf(ObjectRestorer::Restore(EntryOf(live_directory, name),
                                                      EntryOf(copy_directory, waiting),
                                                      std::numeric_limits<off_t>::max()));
    struct stat made {};
    // The copy counts also when only an attribute could not be kept.
    if (::fstatat(copy_directory, waiting.c_str(), &made, AT_SYMLINK_NOFOLLOW) != 0) {
        return error != 0 ? error : EIO;
    }
    const bool is_good = error == 0 || error == EPERM || error == EOPNOTSUPP;
    int result = is_good ? 0 : error;
    if (result == 0 && !IsUnchanged(live_directory, name, live)) result = ESTALE;
    if (result == 0) result = PutInPlace(waiting, place, replaced);
    if (result != 0) ::unlinkat(copy_directory, waiting.c_str(), 0);
    return result;
}

int ObjectCopier::MakeDirectory(const Place& place, const struct stat& live,
                                ReplacedCopies& replaced) {
    const int copy_directory = place.copy_directory;
    const std::string& name = place.name;
    if (::mkdirat(copy_directory, name.c_str(), S_IRWXU) != 0) {
        if (errno != EEXIST) return errno;
        const int error = replaced.Remove(copy_directory, name, place.below);
        if (error != 0) return error;
        if (::mkdirat(copy_directory, name.c_str(), S_IRWXU) != 0) return errno;
    }
    struct stat made {};
    made.st_mode = S_IFDIR | S_IRWXU;
    made.st_uid = static_cast<uid_t>(-1);
    AlignOwner(copy_directory, name, live, made);
    return 0;
}

// Owner and mode come first: a change of owner clears capabilities.
void ObjectCopier::AlignDirectory(int live, int copy, const struct stat& found) {
    struct stat present {};
    if (::fstat(copy, &present) != 0) return;
    const auto wanted = AttributeComparison::Read(live, ".", SDK::kAllAttributes);
    const auto kept = AttributeComparison::Read(copy, ".", SDK::kAllAttributes);
    const bool has_attributes = !AttributeComparison::Differ(kept, wanted);
    const bool is_equal = found.st_mode == present.st_mode && found.st_uid == present.st_uid &&
                          found.st_gid == present.st_gid &&
                          found.st_mtim.tv_sec == present.st_mtim.tv_sec;
    if (is_equal && has_attributes) return;
    if (!is_equal && ::fchown(copy, found.st_uid, found.st_gid) == 0) {
        ::fchmod(copy, found.st_mode & ALLPERMS);
    }
    if (!has_attributes) AttributeComparison::Make(copy, ".", wanted, SDK::kAllAttributes);
    const std::array<timespec, 2> times{timespec{0, UTIME_OMIT}, found.st_mtim};
    ::futimens(copy, times.data());
}

void ObjectCopier::AlignObject(int live_directory, int copy_directory, const std::string& name,
                               const struct stat& live, const struct stat& copy) {
    AlignOwner(copy_directory, name, live, copy);
    if (!S_ISREG(live.st_mode)) return;
    const auto wanted = AttributeComparison::Read(live_directory, name, SDK::kAllAttributes);
    const auto kept = AttributeComparison::Read(copy_directory, name, SDK::kAllAttributes);
    // Another file with that name may have a capability.
    if (AttributeComparison::Differ(kept, wanted) && IsUnchanged(live_directory, name, live)) {
        AttributeComparison::Make(copy_directory, name, wanted, SDK::kAllAttributes);
    }
}

}  // namespace Engine
