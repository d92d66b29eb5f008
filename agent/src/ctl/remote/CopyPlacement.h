#pragma once

#include <sdk/files/FileDescriptor.h>
#include <sdk/files/PathAnchor.h>

#include <functional>
#include <string>
#include <vector>

#include "ctl/remote/LostCopies.h"
#include "ctl/remote/ServerCopies.h"

namespace Ctl {

/// Puts fetched copies among the backup copies, each in one step, after it was found to be what the
/// manifest says. Works by held directories and follows no link. For one use.
class CopyPlacement {
  public:
    struct Fault {
        std::string path;  ///< of the copy
        std::string why;   ///< in words
    };
    struct Result {
        std::size_t placed = 0;
        std::size_t contents = 0;  ///< those of them that were fetched
        std::vector<Fault> faults;
    };

    /// `backup` is the backup path, `made` an empty directory on the same file system to which
    /// only root can write. All are borrowed. `is_over` is asked often; true ends the work.
    CopyPlacement(const ApprovedPart& part, const SDK::PathAnchor& backup,
                  const SDK::PathAnchor& made, const ServerCopies& fetched,
                  std::function<bool()> is_over);

    /// Blocks; reads every content.
    Result Place(const std::vector<LostCopy>& lost);

  private:
    using Entry = Baseline::ManifestEntry;
    using ObjectPlace = SDK::PathAnchor::Entry;

    std::string PlaceOne(const LostCopy& lost);
    std::string PlaceFile(const Entry& entry, const std::string& path, const ObjectPlace& copy);
    std::string PlaceLink(const Entry& entry, const std::string& path, const ObjectPlace& copy);
    std::string PlaceDirectory(const Entry& entry, const ObjectPlace& copy);
    std::string MoveInto(const Entry& entry, const ObjectPlace& copy);
    bool MakeParents(const std::string& below);

    const ApprovedPart& part_;
    const SDK::PathAnchor& backup_;
    const SDK::PathAnchor& made_;
    const ServerCopies& fetched_;
    const std::function<bool()> is_over_;
};

}  // namespace Ctl
