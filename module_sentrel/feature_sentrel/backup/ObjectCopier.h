#pragma once

#include <sys/stat.h>

#include <string>

namespace Engine {

class ReplacedCopies;

/// Copies single objects that rsync has not copied from their directory on the site to that among
/// the copies, both held open. Follows no link and blocks on no pipe and no lease. An object that
/// changes meanwhile is not copied. Stateless; backup task's thread.
///
/// Results are 0 or an errno: ESTALE when the object changed meanwhile, EFBIG when its size exceeds
/// the space left, EOPNOTSUPP for what is neither file nor link, ECANCELED when interrupted.
class ObjectCopier {
  public:
    /// An object: its directory on the site and that among the copies, its name in both, and its
    /// path relative to the protected path.
    struct Place {
        int live_directory;
        int copy_directory;
        const std::string& name;
        const std::string& below;
    };

    /// Copies the file or link, whose attributes are `live`. Takes the place of what has its name
    /// among the copies, also of a whole directory, and gives that to `replaced`.
    static int CopyObject(const Place& place, const struct stat& live, ReplacedCopies& replaced);

    /// Makes an empty directory among the copies, in place of another object, with the owner and
    /// mode in `live`.
    static int MakeDirectory(const Place& place, const struct stat& live, ReplacedCopies& replaced);

    /// Gives the copy, an open directory, the extended attributes of the live directory, and the
    /// owner, mode and time in `found`. Skips what the file system of the copies cannot keep.
    static void AlignDirectory(int live, int copy, const struct stat& found);

    /// Gives the copy of a file, whose content is copied already, the owner and mode in `live`, and
    /// the extended attributes unless the live file changes meanwhile.
    static void AlignObject(int live_directory, int copy_directory, const std::string& name,
                            const struct stat& live, const struct stat& copy);
};

}  // namespace Engine
