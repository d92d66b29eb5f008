#pragma once

#include <sdk/files/FileDescriptor.h>
#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>

#include "walk/DirLister.h"

namespace Engine::FileNotify {

class InotifyDescriptor;

/// The first visit of one directory: its parameters and its result. Uses no shared state, so Run
/// may run on another thread. Owned by InitialScan. Not thread-safe.
struct DirectoryScan {
    std::shared_ptr<const SDK::FileDescriptor> parent;
    const char* name = nullptr;  ///< in `parent`; borrowed
    std::uint32_t mask = 0;      ///< of the kernel watch

    int error = 0;  ///< 0, or errno; the members below are valid as far as set
    int wd = -1;    ///< the kernel watch, added before the listing
    ino_t inode = 0;
    DirListing listing;
    SDK::FileDescriptor directory;  ///< stays open when it contains directories

    /// Opens, watches and lists the directory. Sets `error` on failure. Blocks on disk reads.
    void Run(InotifyDescriptor& inotify, const std::function<void()>& drain_events) noexcept;

  private:
    int Try(InotifyDescriptor& inotify, const std::function<void()>& drain_events);
};

}  // namespace Engine::FileNotify
