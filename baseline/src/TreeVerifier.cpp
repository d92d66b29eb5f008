// Decides what differs from a manifest. It must not undo or report anything.
#include "baseline/TreeVerifier.h"

#include <array>
#include <cstdio>
#include <utility>

namespace Baseline {

namespace {

std::string Octal(unsigned int mode) {
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), "%04o", mode);
    return text.data();
}

std::string Owner(unsigned int user, unsigned int group) {
    return std::to_string(user) + ":" + std::to_string(group);
}

}  // namespace

std::string AttributeDifference(const ManifestEntry& approved, const struct stat& present) {
    std::string text;
    const mode_t mode = approved.mode & ALLPERMS;
    if (!S_ISLNK(approved.mode) && mode != (present.st_mode & ALLPERMS)) {
        text = "mode " + Octal(mode) + " -> " + Octal(present.st_mode & ALLPERMS);
    }
    if (approved.user != present.st_uid || approved.group != present.st_gid) {
        text += (text.empty() ? "" : ", ") + ("owner " + Owner(approved.user, approved.group)) +
                " -> " + Owner(present.st_uid, present.st_gid);
    }
    return text;
}

TreeVerifier::TreeVerifier(Request request)
    : request_(std::move(request)),
      hasher_(
          request_.threads, [this](const ContentHasher::Result& result) { TakeResult(result); },
          [this] { return request_.is_over(); }) {}

TreeVerifier::Summary TreeVerifier::Run() {
    next_ = request_.manifest->LowerBound(request_.below);
    for (TreeWalk walk(request_.root, request_.below); !request_.is_over() && walk.Next();) {
        const WalkedObject& object = walk.Object();
        ++objects_;
        AddMissingUpTo(&object.path);
        if (next_ < request_.manifest->Size()) {
            const ManifestEntry entry = request_.manifest->At(next_);
            if (entry.path == object.path) {
                CompareWith(entry, walk);
                continue;
            }
        }
        walk.SkipBelow();
        if (object.path.empty() || request_.ignored(object.path, object.IsDirectory())) continue;
        Report({Difference::Kind::kAdded, object.path, object.IsDirectory()});
    }
    if (!request_.is_over()) AddMissingUpTo(nullptr);
    hasher_.Finish();
    return {objects_, hasher_.Bytes(), !request_.is_over()};
}

void TreeVerifier::CompareWith(const ManifestEntry& entry, TreeWalk& walk) {
    const WalkedObject& object = walk.Object();
    const std::size_t index = next_++;
    if (entry.IsOpen()) {
        walk.SkipBelow();
        return SkipBelow(object.path);
    }
    if (entry.Type() != (object.info.st_mode & S_IFMT)) {
        walk.SkipBelow();
        SkipBelow(object.path);
        return Report({Difference::Kind::kChanged, object.path, object.IsDirectory(), "type"});
    }
    const Identity known = KnownIdentity(entry);
    const bool is_known = known.IsKnown() && known == Identity::Of(object.info);
    if (is_known && !request_.full) return;
    const std::string attributes = AttributeDifference(entry, object.info);
    if (!attributes.empty()) {
        Report({Difference::Kind::kAttributes, object.path, object.IsDirectory(), attributes});
    }
    CompareContent(entry, index, object);
}

void TreeVerifier::CompareContent(const ManifestEntry& entry, std::size_t index,
                                  const WalkedObject& object) {
    if (entry.Type() != S_IFREG && entry.Type() != S_IFLNK) return;
    // What a site's user lets a file grow to is not read.
    if (entry.size != static_cast<std::uint64_t>(object.info.st_size)) {
        return Report({Difference::Kind::kChanged, object.path, false, "size"});
    }
    hasher_.Add({object.directory, object.name, entry.size, index});
}

void TreeVerifier::TakeResult(const ContentHasher::Result& result) {
    const ManifestEntry entry = request_.manifest->At(result.tag);
    // What is being written has an event of its own.
    if (result.is_read && result.digest == entry.content) return;
    Report({Difference::Kind::kChanged, std::string(entry.path), false,
            result.is_read ? "content" : "unreadable"});
}

/// Lists the entries that are ordered before `path`; the rest of `below` without one.
void TreeVerifier::AddMissingUpTo(const std::string* path) {
    while (next_ < request_.manifest->Size()) {
        const ManifestEntry entry = request_.manifest->At(next_);
        if (path != nullptr ? ComparePaths(entry.path, *path) >= 0
                            : !IsWithin(entry.path, request_.below)) {
            return;
        }
        ++next_;
        if (entry.IsOpen()) continue;
        Report({Difference::Kind::kMissing, std::string(entry.path), S_ISDIR(entry.mode)});
        SkipBelow(entry.path);
    }
}

void TreeVerifier::SkipBelow(std::string_view path) {
    while (next_ < request_.manifest->Size() && IsWithin(request_.manifest->At(next_).path, path)) {
        ++next_;
    }
}

void TreeVerifier::Report(const Difference& difference) {
    const std::lock_guard<std::mutex> lock(found_mutex_);
    request_.found(difference);
}

}  // namespace Baseline
