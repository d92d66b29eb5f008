#pragma once

#include <string>

#include "files/OpenBeneath.h"
#include "restore/object/ObjectAttributes.h"
#include "sdk/files/FileDescriptor.h"

namespace SDK {

/// Opens the directory `name` in `parent` for listing. Makes it when it is missing, and removes any
/// other object of that name first. Not open on failure (errno). Thread-safe.
FileDescriptor OpenOrMakeDirectory(int parent, const std::string& name, MountPoints mount_points);

enum class DirectoryTime { kLeft, kRestored };

/// Gives the open directory `live` the owner, mode and extended attributes of `wanted`, and its
/// time where `time` asks for it. A directory that is equal already is not changed. Thread-safe.
FailedStep RestoreDirectoryAttributes(int live, const ObjectAttributes& wanted, DirectoryTime time);

}  // namespace SDK
