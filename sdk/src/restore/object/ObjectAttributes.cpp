#include "restore/object/ObjectAttributes.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string>

namespace SDK {

namespace {

constexpr mode_t kModeBits = 07777;

bool IsRoot() {
    return ::geteuid() == 0;
}

int SetOwner(int fd, const struct stat& wanted) {
    const uid_t owner = IsRoot() ? wanted.st_uid : static_cast<uid_t>(-1);
    const int result = ::fchownat(fd, "", owner, wanted.st_gid, AT_EMPTY_PATH);
    return result != 0 && !IsRoot() && errno == EPERM ? 0 : result;
}

int SetMode(int fd, OpenedAs opened_as, mode_t mode) {
    if (S_ISLNK(mode)) return 0;  // links have no mode of their own
    if (opened_as == OpenedAs::kFile) return ::fchmod(fd, mode & kModeBits);
    // This path leads to the open object itself.
    return ::chmod(("/proc/self/fd/" + std::to_string(fd)).c_str(), mode & kModeBits);
}

}  // namespace

FailedStep ReadAttributes(int fd, OpenedAs opened_as, ObjectAttributes& found) {
    if (::fstat(fd, &found.info) != 0) return {"stat", errno};
    const ExtendedAttributeAccess access(fd, opened_as == OpenedAs::kPath);
    if (access.Read(found.extended) != 0) return {"read the extended attributes", errno};
    return {};
}

bool OwnerDiffers(const struct stat& copy, const struct stat& live) {
    return IsRoot() && (copy.st_uid != live.st_uid || copy.st_gid != live.st_gid);
}

bool StatDiffers(const struct stat& copy, const struct stat& live) {
    return OwnerDiffers(copy, live) || copy.st_mtim.tv_sec != live.st_mtim.tv_sec ||
           (!S_ISLNK(copy.st_mode) && (copy.st_mode & kModeBits) != (live.st_mode & kModeBits));
}

FailedStep ApplyAttributes(int fd, OpenedAs opened_as, const ObjectAttributes& wanted) {
    FailedStep failed;
    mode_t mode = wanted.info.st_mode;
    if (SetOwner(fd, wanted.info) != 0) {
        failed.Note({"set the owner", errno});
        mode &= ~static_cast<mode_t>(S_ISUID | S_ISGID);
    }
    if (SetMode(fd, opened_as, mode) != 0) failed.Note({"set the mode", errno});
    const ExtendedAttributeAccess access(fd, opened_as == OpenedAs::kPath);
    if (access.Make(wanted.extended) != 0) failed.Note({"set the extended attributes", errno});
    failed.Note(ApplyTime(fd, opened_as, wanted.info));
    return failed;
}

FailedStep ApplyTime(int fd, OpenedAs opened_as, const struct stat& wanted) {
    const std::array<timespec, 2> times{timespec{0, UTIME_OMIT}, wanted.st_mtim};
    const int result = opened_as == OpenedAs::kFile
                           ? ::futimens(fd, times.data())
                           : ::utimensat(fd, "", times.data(), AT_EMPTY_PATH);
    if (result != 0) return {"set the time", errno};
    return {};
}

}  // namespace SDK
