// Owns the held directories of all rules. It must not read what lies below them (BackupComparer
// does) nor change it (Undoer does), except that it makes a lost protected directory anew. Any
// thread, under a lock.
#include "places/RuleAnchors.h"

#include <fcntl.h>
#include <sdk/files/PathUtils.h>
#include <sdk/files/PlaceTrust.h>
#include <sdk/text/StrUtils.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "base/DirectoryListing.h"
#include "base/PathText.h"

namespace Engine {

namespace {

std::string_view Relative(const std::string& path) {
    std::string_view below(path);
    while (!below.empty() && below.front() == '/') below.remove_prefix(1);
    return below;
}

int Fail(int error) {
    errno = error;
    return -1;
}

/// The directory is the one that was made just now. Another user's directory in its place would
/// have another owner or mode, or hold something.
bool IsFreshAndOurs(int directory) {
    struct stat info {};
    return ::fstat(directory, &info) == 0 && info.st_uid == ::geteuid() &&
           (info.st_mode & ALLPERMS) == S_IRWXU && NamesIn(directory).empty();
}

constexpr const char* kScratchName = ".morvane-tmp";

/// Which mount the open directory lies on: a file can be linked within one only. 0: not known.
std::uint64_t MountOf(int directory) {
    struct statx info {};
    const int result = ::statx(directory, "", AT_EMPTY_PATH, STATX_MNT_ID, &info);
    return result == 0 && (info.stx_mask & STATX_MNT_ID) != 0 ? info.stx_mnt_id : 0;
}

}  // namespace

AnchoredRule::AnchoredRule(const SentrelDirRule& rule, Anchor parent, Anchor root, Anchor copies)
    : rule_(rule),
      root_path_(SDK::PathUtils::WithoutTrailingSlash(rule.real_path)),
      parent_(std::move(parent)),
      root_(std::move(root)),
      copies_(std::move(copies)) {}

SDK::FileDescriptor AnchoredRule::OpenScratch() const {
    if (copies_ == nullptr) return {};
    const int copies = copies_->Descriptor();
    if (::mkdirat(copies, kScratchName, S_IRWXU) != 0 && errno != EEXIST) return {};
    return SDK::FileDescriptor(
        ::openat(copies, kScratchName, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

SDK::StagingDirectory* AnchoredRule::Staging() const {
    std::call_once(staging_once_, [this] {
        const std::uint64_t mount = copies_ == nullptr ? 0 : MountOf(copies_->Descriptor());
        const Anchor& live = root_ != nullptr ? root_ : parent_;
        if (mount == 0 || mount != MountOf(live->Descriptor())) return;
        staging_ = std::make_unique<SDK::StagingDirectory>(OpenScratch());
    });
    return staging_.get();
}

bool AnchoredRule::Below(const std::string& path, std::string_view& below) const {
    if (!SDK::StrUtils::BeginsWith(path, root_path_)) return false;
    below = std::string_view(path).substr(root_path_.size());
    if (!below.empty() && below.front() != '/' && root_path_ != "/") return false;
    while (!below.empty() && below.front() == '/') below.remove_prefix(1);
    while (!below.empty() && below.back() == '/') below.remove_suffix(1);
    return true;
}

SDK::PathAnchor::Entry AnchoredRule::Live(const std::string& path) const {
    std::string_view below;
    if (!Below(path, below)) {
        errno = EXDEV;
        return {};
    }
    if (below.empty()) return parent_->OpenParent(FileName(root_path_));
    if (root_ != nullptr) return root_->OpenParent(below);
    errno = IsFile() ? ENOTDIR : ENOENT;
    return {};
}

int AnchoredRule::StatLive(const std::string& path, struct stat& info) const {
    std::string_view below;
    if (!Below(path, below)) return Fail(EXDEV);
    if (below.empty()) return parent_->Stat(FileName(root_path_), info);
    return root_ != nullptr ? root_->Stat(below, info) : Fail(IsFile() ? ENOTDIR : ENOENT);
}

SDK::FileDescriptor AnchoredRule::OpenLiveDirectory(const std::string& path) const {
    std::string_view below;
    if (Below(path, below) && root_ != nullptr) return root_->OpenDirectory(below);
    errno = ENOENT;
    return {};
}

SDK::PathAnchor::Entry AnchoredRule::Copy(const std::string& path) const {
    if (copies_ != nullptr) return copies_->OpenParent(Relative(path));
    errno = ENOENT;
    return {};
}

int AnchoredRule::StatCopy(const std::string& path, struct stat& info) const {
    return copies_ != nullptr ? copies_->Stat(Relative(path), info) : Fail(ENOENT);
}

SDK::FileDescriptor AnchoredRule::OpenCopyDirectory(const std::string& path) const {
    if (copies_ != nullptr) return copies_->OpenDirectory(Relative(path));
    errno = ENOENT;
    return {};
}

RulePlaces RuleAnchors::Of(const SentrelDirRule& rule) {
    const std::lock_guard<std::mutex> lock(mutex_);
    return LookUp(rule);
}

RulePlaces RuleAnchors::Held(const SentrelDirRule& rule) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto known = rules_.find({rule.real_path, rule.backup_path});
    return known == rules_.end() ? LookUp(rule) : RulePlaces{known->second, ""};
}

RulePlaces RuleAnchors::LookUp(const SentrelDirRule& rule) {
    const auto known = rules_.find({rule.real_path, rule.backup_path});
    const bool fits = known != rules_.end() && known->second->IsFile() == rule.is_file;
    return fits ? Check(Known(known->second)) : Open(rule);
}

RulePlaces RuleAnchors::OfRestore(const std::string& source, const std::string& target) {
    const std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& [key, known] : rules_) {
        std::string_view below;
        if (known->Below(target, below) && source == key.second + target) {
            return Check(Known(known));
        }
    }
    return {};
}

RulePlaces RuleAnchors::OfBackup(const std::string& source, const std::string& target) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto known = rules_.find({source, target});
    return known == rules_.end() ? RulePlaces() : Check(Known(known->second));
}

RulePlaces RuleAnchors::Remember(Known anchors) {
    const auto held = rules_.find({anchors->Rule().real_path, anchors->Rule().backup_path});
    if (held != rules_.end() && held->second->Root() != anchors->Root()) KeepFormer(*held->second);
    rules_[{anchors->Rule().real_path, anchors->Rule().backup_path}] = anchors;
    return {std::move(anchors), ""};
}

RulePlaces RuleAnchors::Open(const SentrelDirRule& rule) {
    const std::string root_path = SDK::PathUtils::WithoutTrailingSlash(rule.real_path);
    const std::string unsafe = SDK::PlaceTrust::WhyReachable(rule.backup_path);
    if (!unsafe.empty()) return {nullptr, "the backup path is not safe: " + unsafe};
    AnchoredRule::Anchor parent = SDK::PathAnchor::Open(ParentPath(root_path));
    if (parent == nullptr) {
        return {nullptr, "cannot open " + ParentPath(root_path) + ": " + std::strerror(errno)};
    }
    AnchoredRule::Anchor root;
    if (!rule.is_file) root = SDK::PathAnchor::Open(root_path);
    return Remember(std::make_shared<const AnchoredRule>(rule, std::move(parent), std::move(root),
                                                         SDK::PathAnchor::Open(rule.backup_path)));
}

/// `known` with the backup folder that stands there now.
RuleAnchors::Known RuleAnchors::WithPresentCopies(const Known& known) {
    if (known->Copies() != nullptr && known->Copies()->IsInPlace()) return known;
    AnchoredRule::Anchor copies;
    if (SDK::PlaceTrust::WhyReachable(known->Rule().backup_path).empty()) {
        copies = SDK::PathAnchor::Open(known->Rule().backup_path);
    }
    if (copies == nullptr && known->Copies() == nullptr) return known;
    return Remember(std::make_shared<const AnchoredRule>(known->Rule(), known->Parent(),
                                                         known->Root(), std::move(copies)))
        .anchors;
}

RulePlaces RuleAnchors::Check(const Known& known) {
    if (!known->Parent()->IsInPlace()) return OpenAgain(known->Rule());
    Known present = WithPresentCopies(known);
    if (present->IsFile() || (present->Root() != nullptr && present->Root()->IsInPlace())) {
        return {std::move(present), ""};
    }
    struct stat info {};
    const bool stands = present->Parent()->Stat(FileName(present->RootPath()), info) == 0;
    if (stands && S_ISDIR(info.st_mode)) {
        RulePlaces returned = FindFormer(*present);
        if (!returned) returned = FindLost(*present);
        return returned ? std::move(returned) : OpenAgain(present->Rule());
    }
    if (present->Root() == nullptr) return {std::move(present), ""};
    // The map still holds it, so that it is recognised when it was only moved aside.
    return {std::make_shared<const AnchoredRule>(present->Rule(), present->Parent(), nullptr,
                                                 present->Copies()),
            ""};
}

/// A directory that was held before, moved aside, and is back.
RulePlaces RuleAnchors::FindFormer(const AnchoredRule& present) {
    for (const AnchoredRule::Anchor& root : former_roots_[present.RootPath()]) {
        if (!root->IsInPlace()) continue;
        return Remember(std::make_shared<const AnchoredRule>(present.Rule(), present.Parent(), root,
                                                             present.Copies()));
    }
    return {};
}

/// A directory that MakeRoot made and that was moved away before it could be opened. Only root can
/// have made what is still empty and private to root.
RulePlaces RuleAnchors::FindLost(const AnchoredRule& present) {
    if (lost_roots_.count(present.RootPath()) == 0) return {};
    SDK::FileDescriptor found(::openat(present.Parent()->Descriptor(),
                                       FileName(present.RootPath()).c_str(),
                                       O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!found.IsOpen() || !IsFreshAndOurs(found.Get())) return {};
    return Remember(std::make_shared<const AnchoredRule>(
        present.Rule(), present.Parent(),
        SDK::PathAnchor::Hold(std::move(found), present.RootPath()), present.Copies()));
}

void RuleAnchors::KeepFormer(const AnchoredRule& held) {
    if (held.Root() == nullptr) return;
    std::deque<AnchoredRule::Anchor>& former = former_roots_[held.RootPath()];
    former.push_back(held.Root());
    if (former.size() > kMostFormer) former.pop_front();
}

/// Another directory than the held one stands at the protected path now.
RulePlaces RuleAnchors::OpenAgain(const SentrelDirRule& rule) {
    const std::string unsafe =
        SDK::PlaceTrust::WhyReplaceable(SDK::PathUtils::WithoutTrailingSlash(rule.real_path));
    if (unsafe.empty()) return Open(rule);
    return {nullptr, "it leads to another directory than before and is not followed: " + unsafe};
}

RulePlaces RuleAnchors::MakeRoot(const std::shared_ptr<const AnchoredRule>& known) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const std::string name = FileName(known->RootPath());
    const int parent = known->Parent()->Descriptor();
    const auto failed = [](const std::string& step) {
        return RulePlaces{nullptr, step + ": " + std::strerror(errno)};
    };
    if (::unlinkat(parent, name.c_str(), 0) != 0 && errno != ENOENT) return failed("remove");
    if (::mkdirat(parent, name.c_str(), S_IRWXU) != 0) return failed("make");
    SDK::FileDescriptor made(
        ::openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!made.IsOpen() || !IsFreshAndOurs(made.Get())) {
        lost_roots_.insert(known->RootPath());
        if (!made.IsOpen()) return failed("open");
        return {nullptr, "somebody put another directory there"};
    }
    return Remember(std::make_shared<const AnchoredRule>(
        known->Rule(), known->Parent(), SDK::PathAnchor::Hold(std::move(made), known->RootPath()),
        known->Copies()));
}

void RuleAnchors::Forget() {
    const std::lock_guard<std::mutex> lock(mutex_);
    rules_.clear();
    former_roots_.clear();
    lost_roots_.clear();
}

}  // namespace Engine
