#pragma once

#include <string>

namespace SDK {

/// Decides whether a place in the file system is safe from other users. Trusted are root and the
/// effective user of this process. Changes nothing; stateless and thread-safe. An answer holds for
/// that moment only: continue with a descriptor that was opened afterwards.
///
/// Every directory on the path must belong to a trusted user and must not be writable for others:
/// no write bit for others, none for a group except gid 0, no access control list that allows
/// writing. This holds for both the link and the target of a symbolic link on the path. A directory
/// with the sticky bit may be writable when the next object on the path belongs to a trusted user.
/// For a missing path its nearest existing parent counts.
///
/// Each operation returns an empty text when the place is safe, else the reason: "the directory
/// /srv/x belongs to user 33". A place that cannot be examined is not safe.
class PlaceTrust {
  public:
    /// Whether others can change or replace the object at `path`.
    static std::string WhyWritable(const std::string& path);

    /// The same, and whether others can reach the content of the directory `path`: unless it or a
    /// parent keeps them out, they can change their own files there. A missing directory counts as
    /// one that will be made with mode 0700.
    static std::string WhyReachable(const std::string& path);

    /// Whether others can replace the object at `path`; its own owner does not matter.
    static std::string WhyReplaceable(const std::string& path);
};

}  // namespace SDK
