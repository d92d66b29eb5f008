// Decides what a staged tree changes. It must not take the changes over (the module does).
#include "baseline/StagedChanges.h"

#include <dirent.h>
#include <fcntl.h>
#include <sdk/restore/AttributeComparison.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <utility>

#include "baseline/ContentHasher.h"

namespace Baseline {

namespace {

constexpr std::string_view kMarks = "user.overlay.";
constexpr char kOpaque[] = "user.overlay.opaque";

using SDK::AttributeComparison;

bool StartsWith(std::string_view text, std::string_view prefix) {
    return text.substr(0, prefix.size()) == prefix;
}

SDK::ExtendedAttributes WithoutMarks(SDK::ExtendedAttributes attributes) {
    auto& values = attributes.values;
    for (auto one = values.begin(); one != values.end();) {
        one = StartsWith(one->first, kMarks) ? values.erase(one) : std::next(one);
    }
    return attributes;
}

/// The directory hides what the tree below has in its place.
bool IsOpaque(int directory) {
    char value = 0;
    return ::fgetxattr(directory, kOpaque, &value, 1) == 1 && value == 'y';
}

std::vector<std::string> NamesIn(const SDK::FileDescriptor& directory) {
    std::vector<std::string> names;
    const int own = ::openat(directory.Get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const std::unique_ptr<DIR, int (*)(DIR*)> stream(::fdopendir(own), ::closedir);
    if (stream == nullptr) return names;
    while (const dirent* entry = ::readdir(stream.get())) {
        const std::string_view name = entry->d_name;
        if (name != "." && name != "..") names.emplace_back(name);
    }
    return names;
}

bool HasEqualContent(const WalkedObject& staged, const SDK::PathAnchor::Entry& base,
                     const std::function<bool()>& is_over) {
    const auto size = static_cast<std::uint64_t>(staged.info.st_size);
    ContentHasher::Result one;
    ContentHasher::Result other;
    return base.IsOpen() && DigestOf(staged.directory->Get(), staged.name, size, is_over, one) &&
           DigestOf(base.directory.Get(), base.name, size, is_over, other) &&
           one.digest == other.digest;
}

}  // namespace

bool StagedChanges::IsWhiteout(const struct stat& info) {
    return S_ISCHR(info.st_mode) && info.st_rdev == 0;
}

void StagedChanges::RemoveMarks(int object) {
    std::string names(64 * 1024, '\0');
    const ssize_t size = ::flistxattr(object, names.data(), names.size());
    for (ssize_t at = 0; at < size;) {
        const std::string name = names.c_str() + at;
        if (StartsWith(name, kMarks)) ::fremovexattr(object, name.c_str());
        at += static_cast<ssize_t>(name.size()) + 1;
    }
}

StagedChanges::Result StagedChanges::Read() {
    for (TreeWalk walk({request_.staged, ""}); result_.problem.empty() && walk.Next();) {
        if (request_.is_over()) {
            result_.problem = "It was interrupted.";
            break;
        }
        Compare(walk.Object(), walk);
    }
    std::sort(result_.changes.begin(), result_.changes.end());
    return std::move(result_);
}

void StagedChanges::Compare(const WalkedObject& staged, TreeWalk& walk) {
    if (!staged.path.empty() && request_.ignored(staged.path, staged.IsDirectory())) {
        walk.SkipBelow();
        if (!IsWhiteout(staged.info)) result_.ignored.push_back(staged.path);
        return;
    }
    const mode_t type = staged.info.st_mode & S_IFMT;
    if (type != S_IFREG && type != S_IFLNK && type != S_IFDIR && !IsWhiteout(staged.info)) {
        result_.problem =
            "It made an object that is neither a file, a directory nor a link: " + staged.path +
            ".";
        return;
    }
    const bool is_in_added = !added_.empty() && StartsWith(staged.path, added_);
    if (is_in_added) return;  // it belongs to the directory that was added
    struct stat base {};
    if (request_.base->Stat(staged.path, base) != 0) {
        if (!IsWhiteout(staged.info)) Add(Difference::Kind::kAdded, staged);
        return;
    }
    CompareWith(staged, base);
}

void StagedChanges::CompareWith(const WalkedObject& staged, const struct stat& base) {
    if (IsWhiteout(staged.info)) {
        return Add({Difference::Kind::kMissing, staged.path, S_ISDIR(base.st_mode)});
    }
    if ((staged.info.st_mode & S_IFMT) != (base.st_mode & S_IFMT)) {
        return Add(Difference::Kind::kChanged, staged, "type");
    }
    if (staged.IsDirectory()) {
        AddHidden(staged);
    } else {
        CompareContent(staged, base);
    }
    const std::string attributes = AttributesOf(staged, base);
    const bool is_told = !result_.changes.empty() && result_.changes.back().path == staged.path;
    if (!attributes.empty() && !is_told) Add(Difference::Kind::kAttributes, staged, attributes);
}

void StagedChanges::CompareContent(const WalkedObject& staged, const struct stat& base) {
    if (staged.info.st_size != base.st_size) {
        return Add(Difference::Kind::kChanged, staged, "size");
    }
    if (!HasEqualContent(staged, request_.base->OpenParent(staged.path), request_.is_over)) {
        Add(Difference::Kind::kChanged, staged, "content");
    }
}

/// An opaque directory has nothing of what the tree below it has.
void StagedChanges::AddHidden(const WalkedObject& directory) {
    const SDK::FileDescriptor opened(::openat(directory.directory->Get(), directory.name.c_str(),
                                              O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!opened.IsOpen() || !IsOpaque(opened.Get())) return;
    for (const std::string& name : NamesIn(request_.base->OpenDirectory(directory.path))) {
        const std::string path = directory.path.empty() ? name : directory.path + "/" + name;
        struct stat staged {};
        struct stat base {};
        if (::fstatat(opened.Get(), name.c_str(), &staged, AT_SYMLINK_NOFOLLOW) == 0 ||
            request_.base->Stat(path, base) != 0 || request_.ignored(path, S_ISDIR(base.st_mode))) {
            continue;
        }
        Add({Difference::Kind::kMissing, path, S_ISDIR(base.st_mode)});
    }
}

/// What differs, in words; empty when nothing does.
std::string StagedChanges::AttributesOf(const WalkedObject& staged, const struct stat& base) const {
    ManifestEntry approved;
    approved.mode = base.st_mode;
    approved.user = base.st_uid;
    approved.group = base.st_gid;
    std::string text = AttributeDifference(approved, staged.info);
    const auto add = [&text](const char* what) {
        text += (text.empty() ? "" : ", ") + std::string(what);
    };
    if (!staged.IsDirectory() && staged.info.st_mtim.tv_sec != base.st_mtim.tv_sec) add("time");
    if (S_ISLNK(base.st_mode)) return text;
    const bool is_root = staged.path.empty();
    const SDK::PathAnchor::Entry below =
        is_root ? SDK::PathAnchor::Entry{request_.base->OpenDirectory(""), "."}
                : request_.base->OpenParent(staged.path);
    if (!below.IsOpen()) return text;
    const auto before =
        AttributeComparison::Read(below.directory.Get(), below.name, SDK::kAllAttributes);
    const auto after = WithoutMarks(
        AttributeComparison::Read(staged.directory->Get(), staged.name, SDK::kAllAttributes));
    if (AttributeComparison::Differ(before, after)) add("extended attributes");
    return text;
}

void StagedChanges::Add(Difference::Kind kind, const WalkedObject& staged,
                        const std::string& detail) {
    // All of a directory that was not there is one change.
    const bool is_new = kind == Difference::Kind::kAdded || detail == "type";
    if (is_new && staged.IsDirectory()) added_ = staged.path + "/";
    Add({kind, staged.path, staged.IsDirectory(), detail});
}

void StagedChanges::Add(Difference difference) {
    bytes_ += difference.path.size();
    result_.changes.push_back(std::move(difference));
    if (result_.changes.size() > kMostChanges || bytes_ > kMostBytes) {
        result_.problem = "It changed too much to be deployed at once.";
    }
}

}  // namespace Baseline
