#pragma once

#include <string>

namespace SDK {

/// The installation path, and the text of paths. Thread-safe.
class PathUtils {
  public:
    /// The installation path with a trailing "/": the parent of the folder of libsdk.so, or the
    /// path set by SetInstallationPath.
    static void GetInstallationPath(std::string& path);
    static std::string GetInstallationPath();

    /// Sets another installation path; a missing trailing "/" is added. Empty restores the default.
    static void SetInstallationPath(const std::string& path);

    /// `path` up to its last "/", without it; a trailing "/" of `path` is ignored. "/a" gives "/",
    /// a name without "/" gives "".
    static std::string GetDirFromPath(const std::string& path);

    /// `path` with a "/" at its end, added when it is missing.
    static std::string WithTrailingSlash(std::string path);

    /// `path` without "/" at its end: lstat(2) and open(2) would follow a link before it. "/"
    /// stays.
    static std::string WithoutTrailingSlash(std::string path);

    /// `path` when it is absolute, else the path below the installation path.
    static std::string BelowInstallation(const std::string& path);
};

}  // namespace SDK
