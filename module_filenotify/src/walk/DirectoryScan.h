#pragma once

#include <sdk/files/FileDescriptor.h>
#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>

#include "walk/DirLister.h"

namespace Engine::FileNotify {

class InotifyDescriptor;

/// A directory that is visited for the first time: what to do, and what came of it. Touches nothing
/// but itself, so that it can be done on another thread than the tree's.
struct DirectoryScan {
    std::shared_ptr<const SDK::FileDescriptor> parent;
    const char* name = nullptr;  ///< within `parent`; borrowed
    std::uint32_t mask = 0;      ///< for the kernel watch

    int error = 0;  ///< errno of what failed; the rest below holds as far as it got
    int wd = -1;    ///< the kernel watch, placed before the listing
    ino_t inode = 0;
    DirListing listing;
    SDK::FileDescriptor directory;  ///< left open when there are directories in it

    /// Opens, watches, lists; blocks as long as that takes. Throws nothing.
    void Run(InotifyDescriptor& inotify, const std::function<void()>& between) noexcept;

  private:
    int Try(InotifyDescriptor& inotify, const std::function<void()>& between);
};

}  // namespace Engine::FileNotify
