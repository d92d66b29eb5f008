#include "walk/DirectoryScan.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <new>

#include "kernel/InotifyDescriptor.h"

namespace Engine::FileNotify {

void DirectoryScan::Run(InotifyDescriptor& inotify, const std::function<void()>& between) noexcept {
    try {
        error = Try(inotify, between);
    } catch (const std::exception&) {  // out of memory
        error = ENOMEM;
    }
    if (error != 0 || listing.directories.Count() == 0) directory.Reset();
}

int DirectoryScan::Try(InotifyDescriptor& inotify, const std::function<void()>& between) {
    wd = -1;
    directory.Reset(::openat(parent->Get(), name,
                             O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status {};
    if (!directory.IsOpen() || ::fstat(directory.Get(), &status) != 0) return errno;
    inode = status.st_ino;
    const int added = inotify.Add(directory.Get(), mask);
    if (added < 0) return -added;
    wd = added;
    return ListDirectory(directory.Get(), listing, between);
}

}  // namespace Engine::FileNotify
