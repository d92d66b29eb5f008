// Compares one page with its copy. It must not print: what it reads is a site user's choice.
#include "ctl/baselines/PageDifference.h"

#include <baseline/TreeVerifier.h>
#include <fcntl.h>
#include <limits.h>
#include <sdk/commands/RunningCommand.h>
#include <sdk/files/PathAnchor.h>
#include <sdk/files/PathUtils.h>
#include <sdk/restore/AttributeComparison.h>
#include <sdk/text/StrUtils.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "ctl/output/Terminal.h"

namespace Ctl {

using SDK::FileDescriptor;

namespace {

constexpr char kDiff[] = "/usr/bin/diff";
constexpr int kDiffTimeoutMs = 30'000;
constexpr std::size_t kMostText = 1024UL * 1024;
// diff reads both files into memory; pages are far smaller.
constexpr off_t kLargestCompared = 64L * 1024 * 1024;
constexpr std::size_t kMostMemory = 512UL * 1024 * 1024;
constexpr int kTrouble = 2;

bool IsGone(int error) {
    return error == ENOENT || error == ENOTDIR || error == ELOOP;
}

const char* TypeName(mode_t mode) {
    switch (mode & S_IFMT) {
        case S_IFREG:
            return "file";
        case S_IFDIR:
            return "directory";
        case S_IFLNK:
            return "symbolic link";
        case S_IFIFO:
            return "pipe";
        case S_IFSOCK:
            return "socket";
        default:
            return "device";
    }
}

/// A path by which another process reads the open file, whatever happens to its name.
std::string PathOf(int file) {
    return "/proc/" + std::to_string(::getpid()) + "/fd/" + std::to_string(file);
}

void AppendLines(std::string_view text, std::vector<std::string>& lines) {
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        lines.emplace_back(text.substr(0, end));
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
}

bool Never() {
    return false;
}

}  // namespace

bool PageDifference::Fail(const std::string& problem) {
    problem_ = problem;
    return false;
}

bool PageDifference::Compare() {
    const Baseline::ManifestInfo& info = part_.generation.manifest->Info();
    Object copy;
    Object page;
    if (IsExcluded(info, part_.below)) {
        return Fail(info.real_path + part_.below + " is excluded from the protection.");
    }
    if (!Open(CopyRoot(info), copy) || !Open(LiveRoot(info), page)) return false;
    if (!copy.is_there && !page.is_there) {
        return Fail("Neither " + page.path + " nor its backup copy is there.");
    }
    CheckCopy(copy);
    return CompareObjects(copy, page);
}

/// False when it cannot be told whether the object is there.
bool PageDifference::Open(const std::string& root, Object& object) {
    const bool is_file = part_.generation.manifest->Info().is_file;
    object.path = root + (part_.below.empty() ? "" : "/" + part_.below);
    const auto anchor =
        SDK::PathAnchor::Open(is_file ? SDK::PathUtils::GetDirFromPath(root) : root);
    const std::string below = is_file ? root.substr(root.rfind('/') + 1) : part_.below;
    const bool is_there = anchor != nullptr && anchor->Stat(below, object.info) == 0;
    if (!is_there) {
        return IsGone(errno) || Fail("Cannot open " + object.path + ": " + std::strerror(errno));
    }
    object.is_there = true;
    if (below.empty()) return true;
    SDK::PathAnchor::Entry entry = anchor->OpenParent(below);
    object.directory = std::move(entry.directory);
    object.name = std::move(entry.name);
    return true;
}

void PageDifference::CheckCopy(const Object& copy) {
    const auto approved = part_.generation.manifest->Find(part_.below);
    if (!approved || approved->IsOpen() || !copy.is_there) {
        is_copy_altered_ = copy.is_there != (approved && !approved->IsOpen());
        return;
    }
    is_copy_altered_ = approved->Type() != (copy.info.st_mode & S_IFMT) ||
                       !Baseline::AttributeDifference(*approved, copy.info).empty();
    if (is_copy_altered_ || !(S_ISREG(approved->mode) || S_ISLNK(approved->mode))) return;
    Baseline::ContentHasher::Result result;
    is_copy_altered_ =
        approved->size != static_cast<std::uint64_t>(copy.info.st_size) ||
        !Baseline::DigestOf(copy.directory.Get(), copy.name, approved->size, Never, result) ||
        result.digest != approved->content;
}

bool PageDifference::CompareObjects(const Object& copy, const Object& page) {
    if (!page.is_there) {
        lines_.push_back("missing: " + page.path + " is not there, its backup copy is");
        return true;
    }
    if (!copy.is_there) {
        lines_.push_back("added: there is no backup copy of " + page.path);
        return true;
    }
    Baseline::ManifestEntry approved;
    approved.mode = copy.info.st_mode;
    approved.user = copy.info.st_uid;
    approved.group = copy.info.st_gid;
    const std::string attributes = Baseline::AttributeDifference(approved, page.info);
    if (!attributes.empty()) lines_.push_back(attributes);
    CompareExtendedAttributes(copy, page);
    if ((copy.info.st_mode & S_IFMT) != (page.info.st_mode & S_IFMT)) {
        lines_.push_back(std::string("type ") + TypeName(copy.info.st_mode) + " -> " +
                         TypeName(page.info.st_mode));
        return true;
    }
    if (S_ISREG(page.info.st_mode)) return CompareFiles(copy, page);
    return !S_ISLNK(page.info.st_mode) || CompareLinks(copy, page);
}

void PageDifference::CompareExtendedAttributes(const Object& copy, const Object& page) {
    if (!copy.directory.IsOpen() || !page.directory.IsOpen()) return;
    using SDK::AttributeComparison;
    const auto kinds = static_cast<unsigned>(part_.generation.manifest->Info().attribute_kinds);
    const SDK::ExtendedAttributes before =
        AttributeComparison::Read(copy.directory.Get(), copy.name, kinds);
    const SDK::ExtendedAttributes after =
        AttributeComparison::Read(page.directory.Get(), page.name, kinds);
    if (!AttributeComparison::Differ(after, before)) return;
    for (const auto& [name, value] : before.values) {
        if (!after.Has(name)) lines_.push_back("missing attribute " + name);
    }
    for (const auto& [name, value] : after.values) {
        if (!before.Has(name)) {
            lines_.push_back("added attribute " + name);
        } else if (before.values.at(name) != value) {
            lines_.push_back("changed attribute " + name);
        }
    }
}

bool PageDifference::CompareLinks(const Object& copy, const Object& page) {
    std::array<std::string, 2> targets;
    const std::array<const Object*, 2> sides = {&copy, &page};
    for (std::size_t i = 0; i < sides.size(); ++i) {
        std::array<char, PATH_MAX> text{};
        const ssize_t length = ::readlinkat(sides.at(i)->directory.Get(), sides.at(i)->name.c_str(),
                                            text.data(), text.size());
        if (length < 0) {
            return Fail("Cannot read " + sides.at(i)->path + ": " + std::strerror(errno));
        }
        targets.at(i).assign(text.data(), static_cast<std::size_t>(length));
    }
    if (targets[0] != targets[1]) lines_.push_back("link to " + targets[0] + " -> " + targets[1]);
    return true;
}

bool PageDifference::CompareFiles(const Object& copy, const Object& page) {
    constexpr int kFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    const FileDescriptor copied(::openat(copy.directory.Get(), copy.name.c_str(), kFlags));
    const FileDescriptor present(::openat(page.directory.Get(), page.name.c_str(), kFlags));
    struct stat copied_info {};
    struct stat present_info {};
    if (!copied.IsOpen() || !present.IsOpen() || ::fstat(copied.Get(), &copied_info) != 0 ||
        ::fstat(present.Get(), &present_info) != 0) {
        return Fail("Cannot open " + page.path + " and its backup copy: " + std::strerror(errno));
    }
    if (!S_ISREG(copied_info.st_mode) || !S_ISREG(present_info.st_mode)) {
        return Fail(page.path + " is being replaced; try again.");
    }
    if (copied_info.st_size <= kLargestCompared && present_info.st_size <= kLargestCompared) {
        return RunDiff(copied.Get(), copy, present.Get(), page);
    }
    return Fail(page.path +
                " or its copy is too large for diff: " + std::to_string(copied_info.st_size) +
                " -> " + std::to_string(present_info.st_size) +
                " bytes. verify --full tells whether it is changed.");
}

bool PageDifference::RunDiff(int copy, const Object& copied, int page, const Object& present) {
    SDK::RunningCommand diff({kDiff, "-u", "--label", Printable(copied.path), "--label",
                              Printable(present.path), "--", PathOf(copy), PathOf(page)},
                             kDiffTimeoutMs, {kMostMemory});
    std::string text;
    int exit_code = 0;
    const int result = diff.Wait(exit_code, text, kMostText);
    const bool is_binary = SDK::StrUtils::BeginsWith(text, "Binary files ");
    if (is_binary) {
        lines_.push_back("content, not text: " + std::to_string(copied.info.st_size) + " -> " +
                         std::to_string(present.info.st_size) + " bytes");
        return true;
    }
    if (result != 0 || exit_code >= kTrouble) {
        return Fail(result != 0 && text.empty() ? std::string(kDiff) + " did not end in time."
                                                : std::string(kDiff) + " failed: " + text);
    }
    AppendLines(text, lines_);
    if (text.size() >= kMostText) lines_.emplace_back("The difference is longer; it is cut here.");
    return true;
}

}  // namespace Ctl
