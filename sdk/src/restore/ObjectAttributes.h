#pragma once

#include <sys/stat.h>

#include "restore/ExtendedAttributes.h"

namespace SDK {

/// Which step of a restore failed first, and with which errno; 0: none.
struct FailedStep {
    const char* step = "";
    int error = 0;

    bool IsNone() const { return error == 0; }
    /// Keeps the earlier one.
    void Note(const FailedStep& later) {
        if (IsNone()) *this = later;
    }
};

/// What an object has besides its content: what fstat(2) says and the extended attributes.
struct ObjectAttributes {
    struct stat info {};
    ExtendedAttributes extended;
};

/// Opened how: for reading, or by O_PATH as links and special files are.
enum class OpenedAs { kFile, kPath };

/// Reads both of the open object.
FailedStep ReadAttributes(int fd, OpenedAs opened_as, ObjectAttributes& found);

/// True when a restore has to change the owner. Only root gives objects away, so others do not try.
bool OwnerDiffers(const struct stat& copy, const struct stat& live);

/// True when owner, mode or time of modification differ so that a restore has to set them. Times
/// of the same second are the same, as rsync has it: a backup does not copy such a difference.
bool StatDiffers(const struct stat& copy, const struct stat& live);

/// Gives the open object the owner, mode, extended attributes and time of `wanted`, in that order,
/// since a change of owner takes setuid bits and capabilities. Goes on past what fails; without the
/// owner the object gets no setuid or setgid bit.
FailedStep ApplyAttributes(int fd, OpenedAs opened_as, const ObjectAttributes& wanted);

/// Only the time of modification.
FailedStep ApplyTime(int fd, OpenedAs opened_as, const struct stat& wanted);

}  // namespace SDK
