// Owns: the open directory and its listing. Must not own: the index (WatchedTree).
// Threads: Run on any, one at a time; the rest on the task's.
// Ownership passes: InitialScan takes watch, names and descriptor into the tree.

#include "walk/DirectoryScan.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <new>

#include "kernel/InotifyDescriptor.h"

namespace Engine::FileNotify {

void DirectoryScan::Run(InotifyDescriptor& inotify,
                        const std::function<void()>& drain_events) noexcept {
    try {
        error = Try(inotify, drain_events);
    } catch (const std::exception&) {  // out of memory
        error = ENOMEM;
    }
    if (error != 0 || listing.directories.Count() == 0) directory.Reset();
}

int DirectoryScan::Try(InotifyDescriptor& inotify, const std::function<void()>& drain_events) {
    wd = -1;
    directory.Reset(::openat(parent->Get(), name,
                             O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status {};
    if (!directory.IsOpen() || ::fstat(directory.Get(), &status) != 0) return errno;
    inode = status.st_ino;
    const int added = inotify.Add(directory.Get(), mask);
    if (added < 0) return -added;
    wd = added;
    return ListDirectory(directory.Get(), listing, drain_events);
}

}  // namespace Engine::FileNotify
