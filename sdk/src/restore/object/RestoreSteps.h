#pragma once

#include <sys/types.h>

#include <string>

#include "restore/object/ObjectAttributes.h"
#include "sdk/restore/ObjectRestorer.h"

namespace SDK {

/// An object as its open directory and its name there; both are borrowed.
struct EntryRef {
    int directory;
    const std::string& name;
};

/// Makes `live` equal to `copy`, an object of the type in `mode` that is not a directory, of any
/// size; see ObjectRestorer. `staging` may be null. Thread-safe.
FailedStep RestoreObject(EntryRef copy, EntryRef live, mode_t mode, StagingDirectory* staging);

/// The result of a restore whose first failure is `failed`.
ObjectRestorer::Result ResultOf(const FailedStep& failed);

}  // namespace SDK
