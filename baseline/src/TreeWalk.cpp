// Owns how far a walk has come. It must not compare what it sees.
#include "baseline/TreeWalk.h"

#include <dirent.h>
#include <fcntl.h>

#include <algorithm>
#include <utility>

namespace Baseline {

namespace {

constexpr std::size_t kMostOpen =
    32;  // levels with an open directory; the others open theirs again

std::shared_ptr<const SDK::FileDescriptor> Share(SDK::FileDescriptor directory) {
    // Reading names must not change the site's access times.
    if (directory.IsOpen()) ::fcntl(directory.Get(), F_SETFL, O_NOATIME);
    return std::make_shared<const SDK::FileDescriptor>(std::move(directory));
}

/// In reverse order.
std::vector<std::string> SortedNames(int directory) {
    std::vector<std::string> names;
    SDK::FileDescriptor own(::openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (own.IsOpen()) ::fcntl(own.Get(), F_SETFL, O_NOATIME);
    DIR* const stream = own.IsOpen() ? ::fdopendir(own.Get()) : nullptr;
    if (stream == nullptr) return names;
    own.Release();
    while (const dirent* entry = ::readdir(stream)) {
        const std::string_view name = entry->d_name;
        if (name != "." && name != "..") names.emplace_back(name);
    }
    ::closedir(stream);
    std::sort(names.begin(), names.end(), std::greater<>());
    return names;
}

}  // namespace

TreeWalk::TreeWalk(TreeRoot root, const std::string& from) : root_(std::move(root)), from_(from) {}

bool TreeWalk::Next() {
    if (!std::exchange(begun_, true)) return First();
    if (std::exchange(enter_, false)) Enter();
    while (!levels_.empty()) {
        Level& level = levels_.back();
        if (level.names.empty() || !Open(level)) {
            levels_.pop_back();
            continue;
        }
        std::string name = std::move(level.names.back());
        level.names.pop_back();
        std::string path = level.path + name;
        if (LookAt(level.directory, std::move(name), std::move(path))) return true;
    }
    return false;
}

bool TreeWalk::First() {
    if (!root_.file.empty()) return LookAt(Share(root_.anchor->OpenDirectory("")), root_.file, "");
    if (from_.empty()) return LookAt(Share(root_.anchor->OpenDirectory("")), ".", "");
    SDK::PathAnchor::Entry entry = root_.anchor->OpenParent(from_);
    return entry.IsOpen() && LookAt(Share(std::move(entry.directory)), entry.name, from_);
}

void TreeWalk::Enter() {
    if (levels_.size() >= kMostOpen) levels_[levels_.size() - kMostOpen].directory = nullptr;
    Level level;
    level.path = object_.path.empty() ? "" : object_.path + "/";
    if (!Open(level)) return;
    level.names = SortedNames(level.directory->Get());
    levels_.push_back(std::move(level));
}

bool TreeWalk::Open(Level& level) {
    if (level.directory == nullptr) {
        level.directory = Share(root_.anchor->OpenDirectory(level.path));
    }
    return level.directory->IsOpen();
}

bool TreeWalk::LookAt(const std::shared_ptr<const SDK::FileDescriptor>& directory, std::string name,
                      std::string path) {
    if (!directory->IsOpen() ||
        ::fstatat(directory->Get(), name.c_str(), &object_.info, AT_SYMLINK_NOFOLLOW) != 0) {
        return false;
    }
    object_.directory = directory;
    object_.name = std::move(name);
    object_.path = std::move(path);
    enter_ = object_.IsDirectory() && root_.file.empty();
    return true;
}

}  // namespace Baseline
