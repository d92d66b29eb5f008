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
    /// Paths that begin with one of these bytes have low priority: the receiver ignores them. They
    /// are watched and delivered only while kernel watches suffice.
    std::vector<std::string> low_priority_prefixes;
};

}  // namespace Engine::FileNotify
