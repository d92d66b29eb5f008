#pragma once

#include <sys/stat.h>

#include <string>

namespace Engine {

/// Copies single objects of the site into their directory among the copies, both held open, where
/// rsync has not done it. Follows no link and blocks on no pipe and no lease. An object is copied
/// as it was when it was looked at, or not at all. Stateless; the backup task's thread.
///
/// Results are 0 or an errno: ESTALE when the object changed meanwhile, EFBIG when its size exceeds
/// the space left, EOPNOTSUPP for what is neither file nor link, ECANCELED when interrupted.
class ObjectCopier {
  public:
    /// The file or link `name`, described by `live`. What bore the name among the copies is
    /// replaced, a directory with all that it holds included.
    static int CopyObject(int live_directory, int copy_directory, const std::string& name,
                          const struct stat& live);

    /// Makes an empty directory `name` among the copies, in place of another object, with the owner
    /// and mode of the live one, described by `live`.
    static int MakeDirectory(int copy_directory, const std::string& name, const struct stat& live);

    /// Gives the copy, open as a directory, the extended attributes of the live directory, and its
    /// owner, mode and time as `found`. What the file system of the copies cannot keep is left out.
    static void AlignDirectory(int live, int copy, const struct stat& found);

    /// The same for the owner and mode of a file whose content is copied already.
    static void AlignObject(int copy_directory, const std::string& name, const struct stat& live,
                            const struct stat& copy);
};

}  // namespace Engine
