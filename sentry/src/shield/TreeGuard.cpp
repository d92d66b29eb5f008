// Owns which directories are marked. Must not read files. Its opens of directories raise no events.
#include "shield/TreeGuard.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sdk/files/DirUtils.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <utility>
#include <vector>

namespace Sentry {

namespace {

constexpr int kPeriodMs = 500;  // how soon a tree that was replaced is guarded
constexpr std::size_t kBufferBytes = 65536;

/// Names of the directories in an open one, which is closed.
std::vector<std::string> SubdirectoriesOf(SDK::FileDescriptor directory) {
    std::vector<std::string> names;
    DIR* const stream = ::fdopendir(directory.Release());
    if (stream == nullptr) return names;
    while (const dirent* entry = ::readdir(stream)) {
        const std::string name = entry->d_name;
        if (name == "." || name == "..") continue;
        struct stat info {};
        const bool is_directory =
            entry->d_type == DT_DIR ||
            (entry->d_type == DT_UNKNOWN &&
             ::fstatat(::dirfd(stream), entry->d_name, &info, AT_SYMLINK_NOFOLLOW) == 0 &&
             S_ISDIR(info.st_mode));
        if (is_directory) names.push_back(name);
    }
    ::closedir(stream);
    return names;
}

}  // namespace

TreeGuard::TreeGuard(const ShieldRule& rule, const FanotifyGroup& group, Rooted rooted)
    : rule_(rule),
      group_(group),
      rooted_(std::move(rooted)),
      stop_(::eventfd(0, EFD_CLOEXEC)),
      thread_([this] { Work(); }) {}

TreeGuard::~TreeGuard() {
    const std::uint64_t one = 1;
    while (::write(stop_.Get(), &one, sizeof(one)) < 0 && errno == EINTR) {
    }
    thread_.join();
}

void TreeGuard::Work() {
    pollfd ready[] = {{stop_.Get(), POLLIN, 0}, {-1, POLLIN, 0}};
    do {
        if (root_ == nullptr || !root_->IsInPlace()) Begin();
        if (ready[1].revents != 0) TakeChanges();
        ready[1].fd = changes_.Get();
    } while (::poll(ready, std::size(ready), kPeriodMs) >= 0 && ready[0].revents == 0);
}

void TreeGuard::Begin() {
    is_complete_ = false;
    directories_ = 0;
    names_.clear();
    changes_.Reset(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    root_ = SDK::PathAnchor::Open(rule_.root);
    if (root_ == nullptr) return;
    rooted_(root_);
    Walk("");
    is_complete_ = true;
}

/// `below` is "" or ends in "/".
void TreeGuard::Walk(const std::string& below) {
    std::vector<std::string> todo{below};
    while (!todo.empty()) {
        const std::string next = std::move(todo.back());
        todo.pop_back();
        if (!Guard(next)) continue;
        // Listed after it is watched: no directory is missed.
        for (const std::string& name :
             SubdirectoriesOf(root_->OpenDirectory(next, SDK::MountPoints::kRefused))) {
            todo.push_back(next + name + "/");
        }
    }
}

bool TreeGuard::Guard(const std::string& below) {
    if (rule_.IsLeftOut(rule_.real_path + below)) return false;
    const SDK::FileDescriptor directory = root_->OpenDirectory(below, SDK::MountPoints::kRefused);
    if (!directory.IsOpen() || !group_.GuardDirectory(directory.Get())) return false;
    const std::string path = "/proc/self/fd/" + std::to_string(directory.Get());
    const int watch =
        ::inotify_add_watch(changes_.Get(), path.c_str(), IN_CREATE | IN_MOVED_TO | IN_ONLYDIR);
    if (watch >= 0) names_[watch] = below;
    ++directories_;
    return true;
}

void TreeGuard::TakeChanges() {
    alignas(inotify_event) std::array<char, kBufferBytes> buffer{};
    ssize_t size = 0;
    bool is_lost = false;
    while ((size = ::read(changes_.Get(), buffer.data(), buffer.size())) > 0) {
        const char* const end = buffer.data() + size;
        for (const char* at = buffer.data(); at < end;) {
            const auto* event = reinterpret_cast<const inotify_event*>(at);
            at += sizeof(*event) + event->len;
            is_lost = is_lost || (event->mask & IN_Q_OVERFLOW) != 0;
            if ((event->mask & IN_IGNORED) != 0) names_.erase(event->wd);
            const auto parent = names_.find(event->wd);
            if ((event->mask & IN_ISDIR) == 0 || parent == names_.end()) continue;
            Walk(parent->second + event->name + "/");
        }
    }
    if (is_lost) Walk("");
}

}  // namespace Sentry
