// Owns how far a walk through one protected path has come. It must not judge (the inotify task
// does) nor decide when to walk (Reconciler does). Inotify task's thread.
#include "feature_sentrel/reconcile/ChangeScan.h"

#include <fcntl.h>
#include <sdk/files/PathUtils.h>
#include <sys/inotify.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <utility>

#include "base/DirectoryListing.h"
#include "feature_sentrel/event_path/BackupComparer.h"

namespace Engine {

namespace {

constexpr int kObjectsPerCheck = 32;

std::uint32_t DirectoryBit(mode_t mode) {
    return S_ISDIR(mode) ? IN_ISDIR : 0U;
}

/// Type 0 when there is none.
struct stat CopyOf(const AnchoredRule& rule, const std::string& path) {
    struct stat info {};
    if (rule.StatCopy(path, info) != 0) info = {};
    return info;
}

}  // namespace

bool ChangeScan::Step(const AnchoredRule& rule, Clock::time_point until) {
    if (!std::exchange(begun_, true)) start_.empty() ? Begin(rule) : BeginAt(rule, start_);
    while (!open_.empty()) {
        if (open_.back().names.empty()) {
            Leave(rule);
        } else {
            LookAtEntries(rule, until);
        }
        if (owner_.should_pause() || Clock::now() >= until) break;
    }
    return !open_.empty();
}

void ChangeScan::Begin(const AnchoredRule& rule) {
    const std::string& root = rule.RootPath();
    struct stat live {};
    if (rule.StatLive(root, live) != 0) live = {};
    ++seen_;
    if (S_ISDIR(live.st_mode) && !rule.IsFile()) {
        Enter(rule, root, IsChanged(live));
    } else if (live.st_mode == 0 || IsChanged(live)) {
        NameDeviation(rule, root, live);
    }
}

void ChangeScan::BeginAt(const AnchoredRule& rule, const std::string& path) {
    struct stat live {};
    if (rule.StatLive(path, live) != 0) {
        if (errno != ENOENT) return;
        live = {};
    }
    ++seen_;
    const bool is_directory = S_ISDIR(live.st_mode);
    if (IsIgnored(path, is_directory)) return;
    if (is_directory && S_ISDIR(CopyOf(rule, path).st_mode)) {
        Enter(rule, path, true);
    } else {
        NameDeviation(rule, path, live);
    }
}

void ChangeScan::Enter(const AnchoredRule& rule, const std::string& path, bool changed) {
    Directory directory{path == "/" ? path : path + "/", changed};
    const SDK::FileDescriptor live = rule.OpenLiveDirectory(path);
    if (live.IsOpen()) directory.names = NamesIn(live.Get());
    if (changed) {
        const SDK::FileDescriptor copy = rule.OpenCopyDirectory(path);
        std::vector<std::string> more =
            copy.IsOpen() ? NamesIn(copy.Get()) : std::vector<std::string>();
        std::vector<std::string>& names = directory.names;
        names.insert(names.end(), std::make_move_iterator(more.begin()),
                     std::make_move_iterator(more.end()));
        std::sort(names.begin(), names.end());
        names.erase(std::unique(names.begin(), names.end()), names.end());
    }
    open_.push_back(std::move(directory));
}

void ChangeScan::Leave(const AnchoredRule& rule) {
    const Directory directory = std::move(open_.back());
    open_.pop_back();
    if (!directory.changed) return;
    const std::string path = SDK::PathUtils::WithoutTrailingSlash(directory.path);
    struct stat live {};
    if (rule.StatLive(path, live) != 0 || !S_ISDIR(CopyOf(rule, path).st_mode)) return;
    if (DirectoryDiffers(rule, path, owner_.attribute_kinds))
        owner_.named(path, IN_ATTRIB | IN_ISDIR);
}

void ChangeScan::LookAtEntries(const AnchoredRule& rule, Clock::time_point until) {
    const std::size_t depth = open_.size();
    const SDK::FileDescriptor live = rule.OpenLiveDirectory(open_.back().path);
    if (!live.IsOpen()) {  // gone meanwhile, which changes the directory above
        open_.back().names.clear();
        return;
    }
    for (int count = 1; open_.size() == depth && !open_.back().names.empty(); ++count) {
        const std::string name = std::move(open_.back().names.back());
        open_.back().names.pop_back();
        LookAt(rule, live.Get(), name);
        if (count % kObjectsPerCheck == 0 && (owner_.should_pause() || Clock::now() >= until)) {
            return;
        }
    }
}

void ChangeScan::LookAt(const AnchoredRule& rule, int directory, const std::string& name) {
    ++seen_;
    struct stat live {};
    if (::fstatat(directory, name.c_str(), &live, AT_SYMLINK_NOFOLLOW) != 0) {
        if (errno != ENOENT || !open_.back().changed) return;
        live = {};
    }
    const bool is_directory = S_ISDIR(live.st_mode);
    const bool changed = live.st_mode == 0 || IsChanged(live);
    if (!is_directory && !changed) return;
    const std::string path = open_.back().path + name;
    if (IsIgnored(path, is_directory)) return;
    if (is_directory && S_ISDIR(CopyOf(rule, path).st_mode)) {
        Enter(rule, path, changed);
    } else {
        NameDeviation(rule, path, live);
    }
}

void ChangeScan::NameDeviation(const AnchoredRule& rule, const std::string& path,
                               const struct stat& live) {
    const struct stat copy = CopyOf(rule, path);
    if (live.st_mode == 0) {
        const bool is_directory = S_ISDIR(copy.st_mode);
        if (copy.st_mode == 0 || IsIgnored(path, is_directory)) return;
        owner_.named(path, IN_DELETE | DirectoryBit(copy.st_mode));
    } else if (copy.st_mode == 0 || S_ISDIR(copy.st_mode) != S_ISDIR(live.st_mode)) {
        owner_.named(path, IN_CREATE | DirectoryBit(live.st_mode));
    } else {
        owner_.named(path, IN_MODIFY | DirectoryBit(live.st_mode));
    }
}

bool ChangeScan::IsChanged(const struct stat& info) const {
    const std::timespec& at = info.st_ctim;
    return at.tv_sec != since_.tv_sec ? at.tv_sec > since_.tv_sec : at.tv_nsec >= since_.tv_nsec;
}

}  // namespace Engine
