#include "restore/tree/DirectorySteps.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace SDK {

namespace {

constexpr int kListing = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
constexpr int kMaxTries = 4;

bool IsSameTime(const struct stat& one, const struct stat& other) {
    return one.st_mtim.tv_sec == other.st_mtim.tv_sec &&
           one.st_mtim.tv_nsec == other.st_mtim.tv_nsec;
}

}  // namespace

FileDescriptor OpenOrMakeDirectory(int parent, const std::string& name, MountPoints mount_points) {
    for (int tries = 0; tries < kMaxTries; ++tries) {
        FileDescriptor directory = OpenBeneath(parent, name, kListing, mount_points);
        if (directory.IsOpen()) return directory;
        int result = -1;
        if (errno == ENOENT) {
            result = ::mkdirat(parent, name.c_str(), S_IRWXU);
        } else if (errno == ENOTDIR || errno == ELOOP) {
            result = ::unlinkat(parent, name.c_str(), 0);
        }
        // Another process may create and remove objects here at the same time: try again.
        if (result != 0 && errno != EEXIST && errno != EISDIR && errno != ENOENT) return {};
    }
    return {};
}

FailedStep RestoreDirectoryAttributes(int live, const ObjectAttributes& wanted,
                                      DirectoryTime time) {
    ObjectAttributes present;
    const FailedStep unread = ReadAttributes(live, OpenedAs::kFile, present);
    if (!unread.IsNone()) return unread;
    struct stat but_time = wanted.info;
    but_time.st_mtim = present.info.st_mtim;
    if (StatDiffers(but_time, present.info) ||
        AttributeComparison::Differ(present.extended, wanted.extended)) {
        return ApplyAttributes(live, OpenedAs::kFile, wanted);
    }
    if (time == DirectoryTime::kLeft || IsSameTime(wanted.info, present.info)) return {};
    return ApplyTime(live, OpenedAs::kFile, wanted.info);
}

}  // namespace SDK
