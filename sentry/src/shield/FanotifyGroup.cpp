// Owns the group. Must not decide anything.
#include "shield/FanotifyGroup.h"

#include <fcntl.h>
#include <sys/fanotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

namespace Sentry {

namespace {

constexpr std::uint64_t kAsked = FAN_OPEN_PERM | FAN_ACCESS_PERM | FAN_OPEN_EXEC_PERM;

constexpr unsigned int kIgnore = FAN_MARK_IGNORED_MASK;

}  // namespace

// Events are opened without waiting: a planted pipe, or a file with a lease, must not stop the
// reader. They are opened for reading only: the kernel keeps no ignore mark of a file that is open
// for writing.
FanotifyGroup::FanotifyGroup()
    : group_(::fanotify_init(FAN_CLASS_CONTENT | FAN_CLOEXEC | FAN_NONBLOCK | FAN_UNLIMITED_QUEUE |
                                 FAN_UNLIMITED_MARKS,
                             O_RDONLY | O_LARGEFILE | O_CLOEXEC | O_NONBLOCK | O_NOATIME)) {
    if (!group_.IsOpen()) problem_ = std::string("fanotify: ") + std::strerror(errno);
}

bool FanotifyGroup::GuardDirectory(int directory) const {
    return ::fanotify_mark(group_.Get(), FAN_MARK_ADD | FAN_MARK_ONLYDIR,
                           kAsked | FAN_EVENT_ON_CHILD, directory, nullptr) == 0;
}

bool FanotifyGroup::GuardFile(const std::string& path) const {
    return ::fanotify_mark(group_.Get(), FAN_MARK_ADD | FAN_MARK_DONT_FOLLOW, FAN_OPEN_PERM,
                           AT_FDCWD, path.c_str()) == 0;
}

bool FanotifyGroup::LetThrough(int file) const {
    return ::fanotify_mark(group_.Get(), FAN_MARK_ADD | kIgnore | FAN_MARK_EVICTABLE, kAsked, file,
                           nullptr) == 0;
}

void FanotifyGroup::AskAgain(int file) const {
    ::fanotify_mark(group_.Get(), FAN_MARK_REMOVE | kIgnore, kAsked, file, nullptr);
}

void FanotifyGroup::Answer(int event, bool allow) const {
    fanotify_response response{};
    response.fd = event;
    response.response = allow ? FAN_ALLOW : FAN_DENY;
    while (::write(group_.Get(), &response, sizeof(response)) < 0 && errno == EINTR) {
    }
}

}  // namespace Sentry
