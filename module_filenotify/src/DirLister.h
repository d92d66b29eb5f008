#pragma once

#include <functional>
#include <string>
#include <vector>

namespace Engine::FileNotify {

struct DirEntry {
    std::string name;
    bool is_directory = false;
};

/// Appends what the directory holds ("." and ".." excepted) to `entries`. Never follows a link.
/// Calls `between` after each portion, for what must not wait while a huge directory is read. 0, or
/// the errno of what failed; what was read until then is kept.
int ListDirectory(int dir_fd, std::vector<DirEntry>& entries, const std::function<void()>& between);

}  // namespace Engine::FileNotify
