#pragma once

#include <sys/inotify.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "requests/Subscription.h"

namespace Engine::FileNotify {

/// A change that is not posted yet. A plain value. Not thread-safe.
struct PendingChange {
    std::shared_ptr<const Subscription> subscription;
    std::string path;
    std::string moveto;
    std::uint32_t mask = 0;
    std::chrono::steady_clock::time_point read_time;

    bool IsAboutDirectory() const { return (mask & IN_ISDIR) != 0; }
    bool IsDeletion() const { return (mask & (IN_DELETE | IN_MOVED_FROM)) != 0; }
    bool IsArrival() const { return (mask & (IN_CREATE | IN_MOVED_TO)) != 0; }
};

}  // namespace Engine::FileNotify
