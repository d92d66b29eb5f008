#pragma once

#include <string>

#include "restore/tree/RestoreProgress.h"
#include "sdk/files/ExclusionFilter.h"

namespace SDK {

/// Two open directories, and their common path below the roots of their trees. Borrowed.
struct DirectoryPair {
    int copy;
    int live;
    const std::string& below;
};

/// Removes the objects of one live directory that its copy does not have, but not excluded ones.
/// Not thread-safe; all references are borrowed.
class ForeignObjects {
  public:
    ForeignObjects(DirectoryPair directory, const ExclusionFilter& filter,
                   RestoreProgress& progress)
        : directory_(directory), filter_(filter), progress_(progress) {}

    /// Continues after failures and notes them. Stops after ten seconds (ETIMEDOUT), since another
    /// process may keep adding objects.
    void Remove();

  private:
    bool IsForeign(const std::string& name, bool is_directory);
    void RemoveObject(const std::string& name);

    const DirectoryPair directory_;
    const ExclusionFilter& filter_;
    RestoreProgress& progress_;
};

}  // namespace SDK
