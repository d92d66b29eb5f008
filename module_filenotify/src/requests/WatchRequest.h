#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "requests/Subscription.h"

namespace Engine::FileNotify {

/// A checked and parsed request. Created on the sender's thread, applied on the task's.
struct WatchRequest {
    bool remove = false;
    std::shared_ptr<Subscription> subscription;
    std::vector<std::string> components;  ///< of the path, "." and ".." resolved
    std::uint32_t mask = 0;
    bool recursive = false;
    bool report_directories = false;
    bool rewatch = false;
    bool names_directory = false;  ///< the path had a trailing "/"
    std::vector<std::string> excluded_suffixes;
    std::vector<std::string> excluded_subdirs;  ///< relative, without "/" at either end
    /// The receiver ignores paths that begin with one of these bytes. Directories there have no
    /// kernel watch.
    std::vector<std::string> ignored_prefixes;
};

}  // namespace Engine::FileNotify
