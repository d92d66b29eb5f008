#pragma once

#include <string>

namespace SDK {

/// Where the agent lies, and the parts of a path. Any thread.
class PathUtils {
  public:
    /// The installation path, ending in "/": the parent of the folder that holds libsdk.so, or what
    /// SetInstallationPath has set.
    static void GetInstallationPath(std::string& path);
    static std::string GetInstallationPath();

    /// Sets another installation path (a missing trailing "/" is added); empty takes it back.
    static void SetInstallationPath(const std::string& path);

    /// The path up to and without its last "/"; a trailing "/" of `path` is ignored. "/a" gives
    /// "/", a name without "/" gives "".
    static std::string GetDirFromPath(const std::string& path);
};

}  // namespace SDK
