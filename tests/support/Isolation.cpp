#include "support/Isolation.h"

#include <sched.h>
#include <sys/mount.h>

namespace test {

bool UnshareMounts() {
    return ::unshare(CLONE_NEWNS) == 0 &&
           ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

bool IsolateFiles(const char* stand_in, const char* queue_limit, const char* temporary) {
    for (const char* path : {"/etc/sysctl.conf", "/proc/sys/fs/inotify/max_user_watches"}) {
        if (::mount(stand_in, path, nullptr, MS_BIND, nullptr) != 0) return false;
    }
    constexpr const char* kQueueLimit = "/proc/sys/fs/inotify/max_queued_events";
    if (::mount(queue_limit, kQueueLimit, nullptr, MS_BIND, nullptr) != 0) return false;
    return ::mount(temporary, temporary, nullptr, MS_BIND | MS_REC, nullptr) == 0 &&
           ::mount("none", "/", nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) == 0;
}

}  // namespace test
