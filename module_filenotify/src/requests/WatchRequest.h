#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "requests/Subscription.h"

namespace Engine::FileNotify {

/// A request, checked and taken apart. Made on the sender's thread.
struct WatchRequest {
    bool remove = false;
    std::shared_ptr<Subscription> subscription;
    std::vector<std::string> components;  ///< of the path, without "." and ".."
    std::uint32_t mask = 0;
    bool recursive = false;
    bool report_directories = false;
    bool rewatch = false;
    bool names_directory = false;  ///< the path was given with a trailing "/"
    std::vector<std::string> excluded_suffixes;
    std::vector<std::string> excluded_subdirs;  ///< relative, without "/" at either end
    /// The receiver needs nothing of paths that begin with one of these, byte by byte. They are
    /// watched and delivered all the same, as long as there are watches.
    std::vector<std::string> unneeded_prefixes;
};

}  // namespace Engine::FileNotify
