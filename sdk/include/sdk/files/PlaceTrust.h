#pragma once

#include <string>

namespace SDK {

/// Tells whether a place on the file system is safe from other users. Those who are trusted: root
/// and the effective user of this process. Only looks, changes nothing, keeps nothing; any thread.
/// What it says holds for the moment: use a descriptor that was opened after it for what follows.
///
/// All directories on the way count, and where a symbolic link lies on the way, those of the link
/// and those of its target. Each must belong to a trusted user, and nobody else may write to it: no
/// write bit for others, none for a group but that of gid 0, and no access control list that lets
/// somebody write. Excepted are directories with the sticky bit where the next object on the way
/// belongs to a trusted user. A path that does not exist is judged by its nearest ancestor.
///
/// Each operation gives an empty text when all is well, else what is wrong in words: "the directory
/// /srv/x belongs to user 33". A place that cannot be looked at is not safe.
class PlaceTrust {
  public:
    /// Whether others can change the object at `path`, or put another one there.
    static std::string WhyWritable(const std::string& path);

    /// The same, and whether others can reach what lies below the directory `path`: where neither
    /// it nor a directory above keeps them out, they can change what belongs to them there. A
    /// directory that does not exist counts as one that is still to be made with mode 0700.
    static std::string WhyReachable(const std::string& path);

    /// Whether others can put another object at `path`; who owns the object itself does not count.
    static std::string WhyReplaceable(const std::string& path);
};

}  // namespace SDK
