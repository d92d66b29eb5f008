#pragma once

#include <sys/types.h>

#include <string>

#include "restore/ObjectAttributes.h"
#include "sdk/restore/ObjectRestorer.h"

namespace SDK {

/// An object by the open directory that holds it and its name in there; both are borrowed.
struct Place {
    int directory;
    const std::string& name;
};

/// Makes `live` as `copy`, an object of the kind of `mode` that is no directory, as ObjectRestorer
/// promises it, whatever its size. `staging` may be null.
FailedStep RestoreObject(Place copy, Place live, mode_t mode, StagingDirectory* staging);

/// What is told about a restore whose first failure is `failed`.
ObjectRestorer::Result ResultOf(const FailedStep& failed);

}  // namespace SDK
