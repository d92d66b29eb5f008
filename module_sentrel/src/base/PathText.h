#pragma once

#include <string>
#include <string_view>

namespace Engine {

// Helpers for the text of paths. Stateless; thread-safe.

/// `path` without a trailing "/", which would make lstat follow a link; "/" stays.
inline std::string WithoutTrailingSlash(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

inline void AppendSlash(std::string& path) {
    if (path.empty() || path.back() != '/') path += '/';
}

inline bool BeginsWith(std::string_view text, std::string_view prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

inline bool EndsWith(std::string_view text, std::string_view suffix) {
    return text.size() >= suffix.size() &&
           text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

/// The last component, also of a directory's path that ends in "/".
inline std::string FileName(const std::string& path) {
    const std::string plain = WithoutTrailingSlash(path);
    const std::size_t slash = plain.rfind('/');
    return slash == std::string::npos || plain.size() == 1 ? plain : plain.substr(slash + 1);
}

/// The directory that holds `path`, without a trailing "/" unless it is "/".
inline std::string ParentPath(const std::string& path) {
    const std::string plain = WithoutTrailingSlash(path);
    const std::size_t slash = plain.rfind('/');
    return slash == 0 || slash == std::string::npos ? "/" : plain.substr(0, slash);
}

}  // namespace Engine
