// Decides what a manifest says of each copy. It must not change the copies nor know where manifests
// are kept (BaselineStore does).
#include "baseline/ManifestBuilder.h"

#include <fcntl.h>

#include <algorithm>
#include <iterator>
#include <mutex>
#include <utility>

#include "baseline/ContentHasher.h"

namespace Baseline {

namespace {

bool IsOlder(const std::timespec& a, const std::timespec& b) {
    return a.tv_sec != b.tv_sec ? a.tv_sec < b.tv_sec : a.tv_nsec < b.tv_nsec;
}

/// The two are equal in all that a copy shows without being read.
bool LooksEqual(const struct stat& live, const struct stat& copy) {
    return live.st_mode == copy.st_mode && live.st_uid == copy.st_uid &&
           live.st_gid == copy.st_gid &&
           (S_ISDIR(live.st_mode) ||
            (live.st_size == copy.st_size && live.st_mtim.tv_sec == copy.st_mtim.tv_sec));
}

bool IsBefore(std::string_view a, std::string_view b) {
    return ComparePaths(a, b) < 0;
}

bool HasContent(mode_t mode) {
    return S_ISREG(mode) || S_ISLNK(mode);
}

}  // namespace

ManifestBuilder::ManifestBuilder(Request request) : request_(std::move(request)) {
    std::sort(request_.open.begin(), request_.open.end(), IsBefore);
    if (!request_.parts) return;
    auto& parts = *request_.parts;
    std::sort(parts.begin(), parts.end(), IsBefore);
    parts.erase(std::unique(parts.begin(), parts.end(),
                            [](const std::string& outer, const std::string& inner) {
                                return IsWithin(inner, outer);
                            }),
                parts.end());
    auto& open = request_.open;
    open.erase(std::remove_if(open.begin(), open.end(),
                              [this](const std::string& path) { return !IsInParts(path); }),
               open.end());
}

bool ManifestBuilder::IsInParts(std::string_view path) const {
    if (!request_.parts) return true;
    // A part is ordered before all that lies in it.
    const auto next =
        std::upper_bound(request_.parts->begin(), request_.parts->end(), path, IsBefore);
    return next != request_.parts->begin() && IsWithin(path, *std::prev(next));
}

bool ManifestBuilder::HasPartsBelow(std::string_view directory) const {
    const auto next =
        std::lower_bound(request_.parts->begin(), request_.parts->end(), directory, IsBefore);
    return next != request_.parts->end() && IsWithin(*next, directory);
}

bool ManifestBuilder::Build(ManifestWriter& writer) {
    std::mutex mutex;
    std::vector<ContentHasher::Result> results;
    ContentHasher hasher(
        request_.threads,
        [&](const ContentHasher::Result& result) {
            const std::lock_guard<std::mutex> lock(mutex);
            results.push_back(result);
        },
        request_.is_over);
    for (TreeWalk walk(request_.copies); walk.Next();) {
        if (request_.is_over()) return false;
        const WalkedObject& copy = walk.Object();
        if (!copy.path.empty() && request_.ignored(copy.path, copy.IsDirectory())) {
            walk.SkipBelow();
            continue;
        }
        if (!IsInParts(copy.path)) {
            if (!HasPartsBelow(copy.path)) walk.SkipBelow();
            continue;
        }
        AddUpTo(writer, &copy.path);
        const bool is_open = next_open_ > 0 && IsWithin(copy.path, request_.open[next_open_ - 1]);
        if (is_open) {
            walk.SkipBelow();
            continue;
        }
        const ManifestEntry entry = EntryOf(copy);
        const std::size_t index = writer.Add(entry);
        if (!HasContent(copy.info.st_mode) || entry.content != Digest{}) continue;
        hasher.Add({copy.directory, copy.name, entry.size, index});
    }
    AddUpTo(writer, nullptr);
    hasher.Finish();
    hashed_ = results.size();
    for (const ContentHasher::Result& result : results) {
        if (result.is_read) {
            writer.SetContent(result.tag, result.digest);
        } else {
            writer.SetOpen(result.tag);
        }
    }
    return writer.Size() > 0 && !request_.is_over();
}

/// Goes on to the next entry of the last manifest that stays.
void ManifestBuilder::SkipToKept() {
    if (!request_.parts || request_.last == nullptr) return;
    while (next_kept_ < request_.last->Size() && IsInParts(request_.last->At(next_kept_).path)) {
        ++next_kept_;
    }
}

/// Adds the open objects, and the entries that stay, which are ordered before `path` or are it; all
/// without a path.
void ManifestBuilder::AddUpTo(ManifestWriter& writer, const std::string* path) {
    const bool keeps = request_.parts && request_.last != nullptr;
    for (;;) {
        SkipToKept();
        ManifestEntry open;
        ManifestEntry kept;
        const bool has_open = next_open_ < request_.open.size();
        const bool has_kept = keeps && next_kept_ < request_.last->Size();
        if (has_open) open.path = request_.open[next_open_];
        if (has_kept) kept = request_.last->At(next_kept_);
        if (!has_open && !has_kept) return;
        const bool is_kept = has_kept && (!has_open || IsBefore(kept.path, open.path));
        const ManifestEntry& next = is_kept ? kept : open;
        if (path != nullptr && IsBefore(*path, next.path)) return;
        writer.Add(next);
        ++(is_kept ? next_kept_ : next_open_);
    }
}

ManifestEntry ManifestBuilder::EntryOf(const WalkedObject& copy) {
    const struct stat& info = copy.info;
    ManifestEntry entry;
    entry.path = copy.path;
    entry.mode = info.st_mode;
    entry.user = info.st_uid;
    entry.group = info.st_gid;
    if (request_.live.anchor != nullptr) entry.live = LiveIdentity(copy);
    if (!HasContent(info.st_mode)) return entry;
    entry.size = static_cast<std::uint64_t>(info.st_size);
    entry.modified = info.st_mtim.tv_sec;
    entry.copy = Identity::Of(info);
    const auto known = request_.last == nullptr ? std::nullopt : request_.last->Find(copy.path);
    if (!known || !(known->copy == entry.copy)) return entry;
    entry.content = known->content;
    if (request_.live.anchor == nullptr) entry.live = known->live;
    return entry;
}

/// Known only when the copy was made from the object as it is now.
Identity ManifestBuilder::LiveIdentity(const WalkedObject& copy) {
    if (copy.IsDirectory()) return {};
    const std::size_t slash = copy.path.rfind('/');
    const std::string directory = slash == std::string::npos ? "" : copy.path.substr(0, slash);
    if (!live_directory_.IsOpen() || directory != live_path_) {
        live_directory_ = request_.live.anchor->OpenDirectory(directory);
        live_path_ = directory;
    }
    struct stat live {};
    if (!live_directory_.IsOpen() ||
        ::fstatat(live_directory_.Get(), copy.name.c_str(), &live, AT_SYMLINK_NOFOLLOW) != 0) {
        return {};
    }
    const bool is_copied = IsOlder(live.st_ctim, request_.begun) &&
                           IsOlder(live.st_ctim, copy.info.st_ctim) && LooksEqual(live, copy.info);
    return is_copied ? Identity::Of(live) : Identity{};
}

}  // namespace Baseline
