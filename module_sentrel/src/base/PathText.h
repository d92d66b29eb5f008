#pragma once

#include <sdk/files/PathUtils.h>

#include <string>

namespace Engine {

// Helpers for the text of paths. Stateless; thread-safe.

/// The last component, also of a directory's path that ends in "/".
inline std::string FileName(const std::string& path) {
    const std::string plain = SDK::PathUtils::WithoutTrailingSlash(path);
    const std::size_t slash = plain.rfind('/');
    return slash == std::string::npos || plain.size() == 1 ? plain : plain.substr(slash + 1);
}

/// The directory that holds `path`, without a trailing "/" unless it is "/".
inline std::string ParentPath(const std::string& path) {
    const std::string plain = SDK::PathUtils::WithoutTrailingSlash(path);
    const std::size_t slash = plain.rfind('/');
    return slash == 0 || slash == std::string::npos ? "/" : plain.substr(0, slash);
}

/// `path` is `directory` or lies below it. Both without a trailing "/" unless they are "/".
inline bool IsAtOrBelow(const std::string& path, const std::string& directory) {
    if (path.compare(0, directory.size(), directory) != 0) return false;
    return path.size() == directory.size() || directory == "/" || path[directory.size()] == '/';
}

}  // namespace Engine
