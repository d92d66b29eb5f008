#pragma once

#include <functional>
#include <string>
#include <vector>

#include "ctl/remote/BackupServer.h"
#include "ctl/remote/ConfinedRun.h"
#include "ctl/remote/LostCopies.h"

namespace Ctl {

/// Fetches copies from the backup server into a directory of their own. The server may be in the
/// hands of an attacker: nothing that arrives is believed, and rsync runs confined.
class ServerCopies {
  public:
    using Progress = std::function<void(std::uint64_t bytes, std::uint64_t objects)>;

    /// `staging`: an empty directory of root. Both functions as in ConfinedRun.
    ServerCopies(BackupServer server, std::string staging, std::function<bool()> is_over,
                 Progress progress);

    /// Fetches the contents of `lost` files, then of links. Blocks. Empty, or a sentence when not
    /// all that the server has may have arrived.
    std::string Fetch(const ApprovedPart& part, const std::vector<LostCopy>& lost);

    /// Anything has arrived.
    bool HasAny() const;

    /// Where the copy at `path` (absolute) was fetched to, if the server had it; a link has another
    /// place than a file.
    std::string PlaceOf(const std::string& path, bool is_link) const;

  private:
    struct Wanted {
        std::string names;  ///< each ends with NUL
        std::uint64_t bytes = 0;
        std::uint64_t largest = 0;
        std::uint64_t objects = 0;
    };

    Wanted Select(const ApprovedPart& part, const std::vector<LostCopy>& lost, mode_t type) const;
    std::string Transfer(const Wanted& wanted, bool is_link);
    std::vector<std::string> Words(const std::string& list, std::uint64_t largest,
                                   bool is_link) const;
    std::string FolderOf(bool is_link) const { return staging_ + (is_link ? "/links" : "/files"); }

    const BackupServer server_;
    const std::string staging_;
    const std::function<bool()> is_over_;
    const Progress progress_;
};

}  // namespace Ctl
