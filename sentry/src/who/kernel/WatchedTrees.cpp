// Owns the marks of a fanotify group and the names of the marked directories. Must not read the
// group's events (ObjectEvents does). Resolves all names from held directories.
#include "who/kernel/WatchedTrees.h"

#include <dirent.h>
#include <fcntl.h>
#include <sdk/text/StrUtils.h>
#include <sys/fanotify.h>
#include <sys/stat.h>
#include <sys/statfs.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

namespace Sentry {

using SDK::StrUtils;

namespace {

constexpr std::uint64_t kMask = FAN_CREATE | FAN_DELETE | FAN_MODIFY | FAN_ATTRIB | FAN_MOVED_FROM |
                                FAN_MOVED_TO | FAN_EVENT_ON_CHILD | FAN_ONDIR;
constexpr int kMarksAtOnce = 64;
constexpr Nanoseconds kSettling = 5 * kSecond;
constexpr std::size_t kMostWaiting = 65536;

bool IsBelow(const std::string& path, const std::string& top) {
    return path == top || (StrUtils::BeginsWith(path, top) && path[top.size()] == '/');
}

bool IsExcluded(const WatchedPath& watched, const std::string& path) {
    return std::any_of(
        watched.excluded.begin(), watched.excluded.end(),
        [&](const std::string& prefix) { return StrUtils::BeginsWith(path + "/", prefix); });
}

}  // namespace

std::string WatchedTrees::Key(const void* fsid, int type, const unsigned char* handle,
                              std::size_t size) {
    std::string key(static_cast<const char*>(fsid), sizeof(fsid_t));
    key.append(reinterpret_cast<const char*>(&type), sizeof(type));
    return key.append(reinterpret_cast<const char*>(handle), size);
}

void WatchedTrees::Watch(std::vector<WatchedPath> paths) {
    ::fanotify_mark(group_, FAN_MARK_FLUSH, 0, AT_FDCWD, nullptr);
    roots_.clear();
    to_mark_.clear();
    directories_.clear();
    keys_.clear();
    to_rest_.clear();
    resting_.clear();
    problem_.clear();
    next_refresh_ = 0;
    for (WatchedPath& path : paths) roots_.push_back({std::move(path), nullptr});
}

const WatchedTrees::Root* WatchedTrees::RootOf(const std::string& path) const {
    const auto found = std::find_if(roots_.begin(), roots_.end(), [&](const Root& root) {
        return root.anchor != nullptr && IsBelow(path, root.watched.path);
    });
    return found == roots_.end() ? nullptr : &*found;
}

SDK::FileDescriptor WatchedTrees::Open(const std::string& path) const {
    const Root* root = RootOf(path);
    if (root == nullptr) return {};
    const std::size_t top = root->watched.path.size();
    return root->anchor->OpenDirectory(path.size() > top ? path.substr(top + 1) : "");
}

/// A protected path may be replaced as a whole, and may come later.
void WatchedTrees::Refresh(Nanoseconds now) {
    if (now < next_refresh_) return;
    next_refresh_ = now + kSecond;
    for (Root& root : roots_) {
        if (root.anchor != nullptr && root.anchor->IsInPlace()) continue;
        root.anchor = SDK::PathAnchor::Open(root.watched.path);
        if (root.anchor != nullptr) to_mark_.push_back(root.watched.path);
    }
}

bool WatchedTrees::Work(Nanoseconds now) {
    Refresh(now);
    WakeResting(now);
    for (const std::string& key : to_rest_) {
        const auto found = directories_.find(key);
        if (found != directories_.end()) BeginRest(key, found->second, now);
    }
    to_rest_.clear();
    for (int marks = 0; marks < kMarksAtOnce && !to_mark_.empty(); ++marks) {
        const std::string path = std::move(to_mark_.front());
        to_mark_.pop_front();
        Mark(path, now);
    }
    return !to_mark_.empty();
}

void WatchedTrees::Mark(const std::string& path, Nanoseconds now) {
    const Root* root = RootOf(path);
    if (root == nullptr || IsExcluded(root->watched, path)) return;
    const SDK::FileDescriptor directory = Open(path);
    if (!directory.IsOpen()) return;
    if (directories_.size() >= kMostDirectories || to_mark_.size() >= kMostWaiting) {
        problem_ = "there are too many directories";
        return;
    }
    if (::fanotify_mark(group_, FAN_MARK_ADD | FAN_MARK_ONLYDIR, kMask, directory.Get(), nullptr) !=
            0 ||
        !Remember(directory.Get(), path, now)) {
        problem_ = "the kernel refuses to watch " + path + ": " + std::strerror(errno);
        return;
    }
    Descend(directory.Get(), path);
}

bool WatchedTrees::Remember(int directory, const std::string& path, Nanoseconds now) {
    alignas(file_handle) std::array<unsigned char, sizeof(file_handle) + MAX_HANDLE_SZ> space{};
    auto* handle = reinterpret_cast<file_handle*>(space.data());
    handle->handle_bytes = MAX_HANDLE_SZ;
    int mount = 0;
    struct statfs system {};
    if (::name_to_handle_at(directory, "", handle, &mount, AT_EMPTY_PATH) != 0 ||
        ::fstatfs(directory, &system) != 0) {
        return false;
    }
    std::string key =
        Key(&system.f_fsid, handle->handle_type, handle->f_handle, handle->handle_bytes);
    Directory& known = directories_[key];
    if (!known.path.empty() && known.path != path) keys_.erase(known.path);
    if (known.path.empty()) known.marked = now;
    known.path = path;
    keys_[path] = std::move(key);
    return true;
}

void WatchedTrees::Descend(int directory, const std::string& path) {
    DIR* listing = ::fdopendir(::openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (listing == nullptr) return;
    while (const dirent* entry = ::readdir(listing)) {
        const std::string name = entry->d_name;
        const bool may_be_one = entry->d_type == DT_DIR || entry->d_type == DT_UNKNOWN;
        if (may_be_one && name != "." && name != "..") to_mark_.push_back(path + "/" + name);
    }
    ::closedir(listing);
}

void WatchedTrees::Vanished(const std::string& path) {
    auto below = keys_.lower_bound(path);
    while (below != keys_.end() && StrUtils::BeginsWith(below->first, path)) {
        const bool is_below = IsBelow(below->first, path);
        if (is_below) directories_.erase(below->second);
        below = is_below ? keys_.erase(below) : std::next(below);
    }
}

std::string WatchedTrees::PathOf(const std::string& key, const std::string& name, Nanoseconds now) {
    const auto found = directories_.find(key);
    if (found == directories_.end()) return "";
    Directory& directory = found->second;
    if (now - directory.window > kPart) {
        directory.window = now;
        directory.events = 0;
    }
    if (++directory.events == kMostEvents) to_rest_.push_back(key);
    return name.empty() || name == "." ? directory.path : directory.path + "/" + name;
}

void WatchedTrees::BeginRest(const std::string& key, Directory& directory, Nanoseconds now) {
    const SDK::FileDescriptor open = Open(directory.path);
    if (!open.IsOpen() ||
        ::fanotify_mark(group_, FAN_MARK_REMOVE, kMask, open.Get(), nullptr) != 0) {
        return;
    }
    directory.rest_begin = now;
    directory.rest_end = now + kSecond - kPart;
    resting_.push_back(key);
}

void WatchedTrees::WakeResting(Nanoseconds now) {
    const auto is_over = [&](const std::string& key) {
        const auto found = directories_.find(key);
        if (found == directories_.end()) return true;
        if (found->second.rest_end > now) return false;
        // Directories of the meantime are found, too.
        to_mark_.push_front(found->second.path);
        return true;
    };
    resting_.erase(std::remove_if(resting_.begin(), resting_.end(), is_over), resting_.end());
}

bool WatchedTrees::IsSettled(const std::string& directory, Nanoseconds now) const {
    const auto key = keys_.find(directory);
    return key != keys_.end() && directories_.at(key->second).marked + kSettling < now;
}

bool WatchedTrees::Rested(const std::string& path, Nanoseconds at) const {
    const auto key = keys_.find(path.substr(0, path.rfind('/')));
    if (key == keys_.end()) return false;
    const Directory& directory = directories_.at(key->second);
    return directory.rest_begin <= at && at <= directory.rest_end;
}

}  // namespace Sentry
