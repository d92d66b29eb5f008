// Owns the position of a comparison of a protected path with its copy. It must not undo or report
// anything (its owner does). Children come before their directory, because restoring a directory
// would restore them without an alarm. Inotify task's thread.
#include "feature_sentrel/rejudge/TreeReconciler.h"

#include <sdk/files/PathUtils.h>
#include <sys/inotify.h>
#include <sys/stat.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include "base/DirectoryListing.h"
#include "feature_sentrel/event_path/BackupComparer.h"

namespace Engine {

namespace {

std::uint32_t DirectoryBit(const struct stat& info) {
    return S_ISDIR(info.st_mode) ? IN_ISDIR : 0U;
}

void AddNames(const SDK::FileDescriptor& directory, std::vector<std::string>& names) {
    if (!directory.IsOpen()) return;
    std::vector<std::string> found = NamesIn(directory.Get());
    names.insert(names.end(), std::make_move_iterator(found.begin()),
                 std::make_move_iterator(found.end()));
}

}  // namespace

TreeReconciler::TreeReconciler(RuleAnchors& anchors, SentrelDirRule rule, Ignored ignored,
                               Named named, unsigned attribute_kinds)
    : all_anchors_(anchors),
      rule_(std::move(rule)),
      ignored_(std::move(ignored)),
      named_(std::move(named)),
      attribute_kinds_(attribute_kinds) {}

bool TreeReconciler::Step(std::chrono::steady_clock::time_point until) {
    anchors_ = all_anchors_.Of(rule_).anchors;
    if (anchors_ == nullptr) return false;
    if (!std::exchange(begun_, true) && Look(SDK::PathUtils::WithoutTrailingSlash(rule_.real_path)))
        return true;
    while (!open_.empty() && std::chrono::steady_clock::now() < until) {
        Directory& directory = open_.back();
        if (directory.names.empty()) {
            const std::string path = std::move(directory.path);
            open_.pop_back();
            if (LookAtDirectory(SDK::PathUtils::WithoutTrailingSlash(path))) break;
            continue;
        }
        const std::string path = directory.path + directory.names.back();
        directory.names.pop_back();
        if (Look(path)) break;
    }
    return !open_.empty();
}

void TreeReconciler::Open(const std::string& path) {
    Directory directory{path + "/", {}};
    AddNames(anchors_->OpenLiveDirectory(path), directory.names);
    AddNames(anchors_->OpenCopyDirectory(path), directory.names);
    std::sort(directory.names.begin(), directory.names.end());
    directory.names.erase(std::unique(directory.names.begin(), directory.names.end()),
                          directory.names.end());
    open_.push_back(std::move(directory));
}

/// True when a path was named.
bool TreeReconciler::Look(const std::string& path) {
    const struct stat live = LiveStatus(path);
    const struct stat copy = CopyStatus(path);
    const bool is_directory = S_ISDIR(live.st_mode) || S_ISDIR(copy.st_mode);
    if (ignored_(is_directory ? path + "/" : path)) return false;
    if (live.st_mode == 0 && copy.st_mode == 0) return false;
    if (live.st_mode == 0) return Name(path, IN_DELETE | DirectoryBit(copy));
    if (copy.st_mode == 0) return Name(path, IN_CREATE | DirectoryBit(live));
    if (S_ISDIR(live.st_mode) != S_ISDIR(copy.st_mode)) {
        Name(path, IN_CREATE | DirectoryBit(live));
        // rsync replaces one by the other only when it restores the directory that holds them.
        return open_.empty() ||
               Name(SDK::PathUtils::WithoutTrailingSlash(open_.back().path), IN_ATTRIB | IN_ISDIR);
    }
    if (!is_directory) return Name(path, IN_MODIFY);
    Open(path);
    return false;
}

bool TreeReconciler::LookAtDirectory(const std::string& path) {
    return DirectoryDiffers(*anchors_, path, attribute_kinds_) && Name(path, IN_ATTRIB | IN_ISDIR);
}

/// The attributes of what stands there; mode 0 when there is nothing.
struct stat TreeReconciler::LiveStatus(const std::string& path) const {
    struct stat info {};
    if (anchors_->StatLive(path, info) != 0) info = {};
    return info;
}

struct stat TreeReconciler::CopyStatus(const std::string& path) const {
    struct stat info {};
    if (anchors_->StatCopy(path, info) != 0) info = {};
    return info;
}

bool TreeReconciler::Name(const std::string& path, std::uint32_t raw_mask) {
    named_(path, raw_mask);
    return true;
}

}  // namespace Engine
