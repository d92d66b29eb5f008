// Takes a deploy's changes into the copies. It must not decide what is deployed (an operator does)
// nor write manifests (RuleBaselines does).
#include "feature_sentrel/backup/StagedAcceptance.h"

#include <baseline/TreeWalk.h>
#include <fcntl.h>
#include <sdk/files/DirUtils.h>
#include <sdk/restore/TreeRestorer.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "baseline/RuleBaselines.h"
#include "feature_sentrel/backup/ObjectCopier.h"
#include "rsync/RsyncExclusions.h"

namespace Engine {

namespace {

using Kind = Baseline::Difference::Kind;
using SDK::PathAnchor;

constexpr int kDirectoryFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

/// Added, changed, attributes, missing.
int OrderOf(const Baseline::Difference& change) {
    constexpr std::array<int, 4> kOrder = {1, 2, 0, 3};
    return kOrder.at(static_cast<std::size_t>(change.kind));
}

void RemoveMarksAt(int directory, const std::string& name) {
    const SDK::FileDescriptor object(::openat(
        directory, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (object.IsOpen()) Baseline::StagedChanges::RemoveMarks(object.Get());
}

bool IsReplacedAsAWhole(const Baseline::Difference& change) {
    return change.kind == Kind::kAdded || change.detail == "type";
}

}  // namespace

void RemoveOverlayMarks(const PathAnchor& staged, const std::string& path) {
    for (Baseline::TreeWalk walk({&staged, ""}, path); walk.Next();) {
        const Baseline::WalkedObject& object = walk.Object();
        if (!S_ISREG(object.info.st_mode) && !object.IsDirectory()) continue;
        RemoveMarksAt(object.directory->Get(), object.name);
    }
}

StagedAcceptance::StagedAcceptance(const AnchoredRule& rule, const PathAnchor& staged,
                                   ReplacedCopies& replaced, std::string name,
                                   std::function<bool()> is_over)
    : rule_(rule),
      staged_(staged),
      replaced_(replaced),
      name_(std::move(name)),
      is_over_(std::move(is_over)) {}

StagedAcceptance::~StagedAcceptance() {
    prepared_.Reset();
    if (scratch_.IsOpen()) SDK::DirUtils::DeleteAt(scratch_.Get(), name_);
}

std::string StagedAcceptance::PathOf(const std::string& below) const {
    return PathIn(rule_, below);
}

PathAnchor::Entry StagedAcceptance::Staged(const std::string& path) const {
    return path.empty() ? PathAnchor::Entry{staged_.OpenDirectory(""), "."}
                        : staged_.OpenParent(path);
}

std::vector<std::string> StagedAcceptance::Paths() const {
    std::vector<Difference> changes = found_.changes;
    std::stable_sort(changes.begin(), changes.end(), [](const Difference& a, const Difference& b) {
        return OrderOf(a) < OrderOf(b);
    });
    std::vector<std::string> paths;
    paths.reserve(changes.size());
    for (const Difference& change : changes) paths.push_back(change.path);
    return paths;
}

std::string StagedAcceptance::Prepare() {
    const RsyncExclusions exclusions(rule_.Rule());
    const SDK::FileDescriptor copies = rule_.OpenCopyDirectory(rule_.RootPath());
    const int own = ::fcntl(copies.Get(), F_DUPFD_CLOEXEC, 0);
    const std::unique_ptr<PathAnchor> base =
        PathAnchor::Hold(SDK::FileDescriptor(own), rule_.RootPath());
    if (base == nullptr) return "The backup copies cannot be opened.";
    Baseline::StagedChanges::Request request;
    request.staged = &staged_;
    request.base = base.get();
    request.ignored = [&](const std::string& below, bool is_directory) {
        return exclusions.Match(PathOf(below), is_directory);
    };
    request.is_over = is_over_;
    found_ = Baseline::StagedChanges(std::move(request)).Read();
    if (!found_.problem.empty()) return found_.problem;
    scratch_ = rule_.OpenScratch();
    if (!scratch_.IsOpen()) return "The directory for unfinished copies cannot be made.";
    SDK::DirUtils::DeleteAt(scratch_.Get(), name_);
    if (::mkdirat(scratch_.Get(), name_.c_str(), S_IRWXU) == 0) {
        prepared_.Reset(::openat(scratch_.Get(), name_.c_str(), kDirectoryFlags));
    }
    if (!prepared_.IsOpen()) return "The directory for unfinished copies cannot be made.";
    for (std::size_t i = 0; i < found_.changes.size(); ++i) {
        std::string problem =
            is_over_() ? "It was interrupted." : PrepareOne(found_.changes[i], std::to_string(i));
        if (!problem.empty()) return problem;
    }
    return "";
}

std::string StagedAcceptance::PrepareOne(const Difference& change, const std::string& number) {
    const bool is_directory_alone = change.is_directory && !IsReplacedAsAWhole(change);
    if (change.kind == Kind::kMissing || is_directory_alone) return "";
    const PathAnchor::Entry from = Staged(change.path);
    struct stat info {};
    if (!from.IsOpen() ||
        ::fstatat(from.directory.Get(), from.name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0 ||
        ::mkdirat(prepared_.Get(), number.c_str(), S_IRWXU) != 0) {
        return PathOf(change.path) + ": " + std::strerror(errno) + ".";
    }
    const SDK::FileDescriptor to(::openat(prepared_.Get(), number.c_str(), kDirectoryFlags));
    RemoveOverlayMarks(staged_, change.path);
    int error = 0;
    if (change.is_directory) {
        error = PrepareTree(change, to.Get(), from.name);
    } else if (::fstatat(from.directory.Get(), from.name.c_str(), &info, AT_SYMLINK_NOFOLLOW) ==
               0) {
        ReplacedCopies nothing(rule_, 0);  // the place is new
        error = ObjectCopier::CopyObject({from.directory.Get(), to.Get(), from.name, change.path},
                                         info, nothing);
    }
    return error == 0 ? "" : PathOf(change.path) + ": " + std::strerror(error) + ".";
}

int StagedAcceptance::PrepareTree(const Difference& change, int directory,
                                  const std::string& name) {
    const RsyncExclusions exclusions(rule_.Rule());
    const PathAnchor::Entry to{SDK::FileDescriptor(::fcntl(directory, F_DUPFD_CLOEXEC, 0)), name};
    const SDK::ObjectRestorer::Result copied = SDK::TreeRestorer::Restore(
        Staged(change.path), to, [&](const std::string& below, bool is_directory) {
            return exclusions.Match(PathOf(change.path) + "/" + below, is_directory);
        });
    if (copied.outcome == SDK::ObjectRestorer::Outcome::kRestored) return 0;
    return copied.error != 0 ? copied.error : EIO;
}

// Attributes of directories come last: taking them removes the marks by which an opaque directory
// is recognised.
std::string StagedAcceptance::Take() {
    std::string problem;
    const auto note = [&](const Difference& change, int error) {
        if (error == 0 || !problem.empty()) return;
        problem = PathOf(change.path) + ": " + std::strerror(error) + ".";
    };
    for (std::size_t i = 0; i < found_.changes.size(); ++i) {
        note(found_.changes[i], TakeOne(found_.changes[i], std::to_string(i)));
    }
    for (const Difference& change : found_.changes) {
        const bool has_attributes = change.is_directory && change.kind == Kind::kAttributes;
        if (has_attributes) note(change, TakeAttributes(change.path));
    }
    return problem;
}

int StagedAcceptance::TakeOne(const Difference& change, const std::string& number) {
    if (change.is_directory && change.kind == Kind::kAttributes) return 0;
    const PathAnchor::Entry copy = rule_.Copy(PathOf(change.path));
    if (!copy.IsOpen()) return errno;
    if (change.kind == Kind::kMissing) {
        return replaced_.Remove(copy.directory.Get(), copy.name, change.path);
    }
    const SDK::FileDescriptor from(::openat(prepared_.Get(), number.c_str(), kDirectoryFlags));
    if (!from.IsOpen()) return errno;
    return PutInPlace(from.Get(), copy, change.path);
}

/// Puts the prepared object in the place of whatever is there.
int StagedAcceptance::PutInPlace(int from, const PathAnchor::Entry& copy,
                                 const std::string& below) {
    const int to = copy.directory.Get();
    const char* const name = copy.name.c_str();
    struct stat info {};
    if (::fstatat(from, name, &info, AT_SYMLINK_NOFOLLOW) != 0) return errno;
    // A directory cannot be renamed over anything else.
    const int error = S_ISDIR(info.st_mode) ? replaced_.Remove(to, copy.name, below)
                                            : replaced_.Keep(to, copy.name, below);
    if (error != 0) return error;
    return ::renameat(from, name, to, name) == 0 ? 0 : errno;
}

int StagedAcceptance::TakeAttributes(const std::string& path) {
    const SDK::FileDescriptor staged = staged_.OpenDirectory(path);
    const SDK::FileDescriptor copy = rule_.OpenCopyDirectory(PathOf(path));
    struct stat info {};
    if (!staged.IsOpen() || !copy.IsOpen() || ::fstat(staged.Get(), &info) != 0) return errno;
    Baseline::StagedChanges::RemoveMarks(staged.Get());
    ObjectCopier::AlignDirectory(staged.Get(), copy.Get(), info);
    return 0;
}

}  // namespace Engine
