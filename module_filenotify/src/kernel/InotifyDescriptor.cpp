#include "kernel/InotifyDescriptor.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace Engine::FileNotify {

int InotifyDescriptor::Open() {
    if (inotify_.IsOpen()) return 0;
    const int fd = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (fd < 0) return errno;
    inotify_.Reset(fd);
    return 0;
}

void InotifyDescriptor::Close() {
    inotify_.Reset();
}

int InotifyDescriptor::Add(int dir_fd, std::uint32_t mask) {
    char path[32];
    std::snprintf(path, sizeof path, "/proc/self/fd/%d", dir_fd);
    const int wd = ::inotify_add_watch(inotify_.Get(), path, mask | IN_ONLYDIR | IN_MASK_ADD);
    return wd >= 0 ? wd : -errno;
}

void InotifyDescriptor::Remove(int wd) {
    ::inotify_rm_watch(inotify_.Get(), wd);
}

ssize_t InotifyDescriptor::Read(char* buffer, std::size_t size) {
    return ::read(inotify_.Get(), buffer, size);
}

}  // namespace Engine::FileNotify
