#pragma once

#include <sys/stat.h>

#include <utility>

#include "restore/object/ExtendedAttributes.h"

namespace SDK {

/// The first failed step of a restore and its errno; 0: none.
struct FailedStep {
    const char* step = "";
    int error = 0;

    bool IsNone() const { return error == 0; }
    /// Keeps the earlier failure.
    void Note(const FailedStep& later) {
        if (IsNone()) *this = later;
    }
};

/// Device and inode number.
using ObjectId = std::pair<dev_t, ino_t>;

inline ObjectId IdOf(const struct stat& info) {
    return {info.st_dev, info.st_ino};
}

/// The attributes of an object: fstat(2) and extended attributes.
struct ObjectAttributes {
    struct stat info {};
    ExtendedAttributes extended;
};

/// Opened for reading, or with O_PATH as links and special files are.
enum class OpenedAs { kFile, kPath };

/// Reads the attributes of the open object.
FailedStep ReadAttributes(int fd, OpenedAs opened_as, ObjectAttributes& found);

/// True when a restore must change the owner. Only root can change owners, so others do not try.
bool OwnerDiffers(const struct stat& copy, const struct stat& live);

/// True when a restore must set owner, mode or modification time. Times within the same second
/// count as equal, as in rsync: a backup does not copy such a difference.
bool StatDiffers(const struct stat& copy, const struct stat& live);

/// Sets owner, mode, extended attributes and time of the open object, in this order: a change of
/// owner clears setuid bits and capabilities. Continues after failures. When the owner cannot be
/// set, the object gets no setuid or setgid bit.
FailedStep ApplyAttributes(int fd, OpenedAs opened_as, const ObjectAttributes& wanted);

/// Sets only the modification time.
FailedStep ApplyTime(int fd, OpenedAs opened_as, const struct stat& wanted);

}  // namespace SDK
