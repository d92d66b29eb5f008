// Owns the held directories of all rules. It must not read what lies below them (BackupComparer
// does) nor change it (Undoer does), except that it makes a lost protected directory anew. Any
// thread, under a lock.
#include "places/RuleAnchors.h"

#include <fcntl.h>
#include <sdk/files/PathUtils.h>
#include <sdk/files/PlaceTrust.h>
#include <sdk/text/StrUtils.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <system_error>
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

/// The path of an open directory without links, as it is now.
std::string PlaceOf(const SDK::PathAnchor& anchor) {
    std::error_code error;
    const std::string link = "/proc/self/fd/" + std::to_string(anchor.Descriptor());
    return std::filesystem::read_symlink(link, error).string();
}

std::string PlaceOfRule(const SDK::PathAnchor& parent, const SDK::PathAnchor* root,
                        const std::string& path) {
    if (root != nullptr) return PlaceOf(*root);
    return SDK::PathUtils::WithTrailingSlash(PlaceOf(parent)) + FileName(path);
}

}  // namespace

AnchoredRule::AnchoredRule(const SentrelDirRule& rule, Anchor parent, Anchor root, Anchor copies,
                           std::shared_ptr<MountTable> mounts)
    : rule_(rule),
      root_path_(SDK::PathUtils::WithoutTrailingSlash(rule.real_path)),
      parent_(std::move(parent)),
      root_(std::move(root)),
      copies_(std::move(copies)),
      mounts_(std::move(mounts)),
      place_(PlaceOfRule(*parent_, root_.get(), root_path_)),
      place_of_copies_(copies_ == nullptr ? "" : PlaceOf(*copies_)) {}

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
        staging_->RemoveAbandoned(std::time(nullptr));
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
    if (root_ != nullptr) return OpenEntry(path, below);
    errno = IsFile() ? ENOTDIR : ENOENT;
    return {};
}

/// The kernel refuses mount points; only where the way is known to be normal, they are crossed.
SDK::PathAnchor::Entry AnchoredRule::OpenEntry(const std::string& path,
                                               std::string_view below) const {
    SDK::PathAnchor::Entry entry = root_->OpenParent(below, SDK::MountPoints::kRefused);
    if (!entry.IsOpen() && errno == EXDEV && !(mounts_->Differs() && IsBehindMount(path))) {
        return root_->OpenParent(below);
    }
    return entry;
}

int AnchoredRule::StatLive(const std::string& path, struct stat& info) const {
    std::string_view below;
    if (!Below(path, below)) return Fail(EXDEV);
    if (below.empty()) return parent_->Stat(FileName(root_path_), info);
    if (root_ == nullptr) return Fail(IsFile() ? ENOTDIR : ENOENT);
    if (below.find('/') == std::string_view::npos) return root_->Stat(below, info);
    const SDK::PathAnchor::Entry entry = OpenEntry(path, below);
    return entry.IsOpen() ? ::fstatat(entry.directory.Get(), entry.name.c_str(), &info,
                                      AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT)
                          : -1;
}

SDK::FileDescriptor AnchoredRule::OpenLiveDirectory(const std::string& path) const {
    std::string_view below;
    if (!Below(path, below) || root_ == nullptr) {
        errno = ENOENT;
        return {};
    }
    SDK::FileDescriptor directory = root_->OpenDirectory(below, SDK::MountPoints::kRefused);
    if (!directory.IsOpen() && errno == EXDEV && !(mounts_->Differs() && IsBehindMount(path))) {
        return root_->OpenDirectory(below);
    }
    return directory;
}

std::vector<MountTable::Difference> AnchoredRule::UnusualMounts() const {
    if (!mounts_->DifferedLast()) return {};
    std::vector<MountTable::Difference> mounts = mounts_->Below(place_);
    const MountTable::Difference hiding = mounts_->Hiding(place_);
    if (IsFile() && hiding.point == place_) mounts.push_back(hiding);
    const auto is_excluded = [this](const MountTable::Difference& mount) {
        const std::string path = PathOfMount(mount.point) + "/";
        return std::any_of(rule_.ignored_subdir.begin(), rule_.ignored_subdir.end(),
                           [&](const std::string& subdir) {
                               return SDK::StrUtils::BeginsWith(path, rule_.real_path + subdir);
                           });
    };
    mounts.erase(std::remove_if(mounts.begin(), mounts.end(), is_excluded), mounts.end());
    return mounts;
}

bool AnchoredRule::IsBehindMount(const std::string& path) const {
    std::string_view below;
    if (!mounts_->DifferedLast() || !Below(path, below)) return false;
    std::string place = place_;
    if (!below.empty()) {
        place = SDK::PathUtils::WithTrailingSlash(std::move(place)) + std::string(below);
    }
    const std::vector<MountTable::Difference> mounts = UnusualMounts();
    return std::any_of(mounts.begin(), mounts.end(), [&](const MountTable::Difference& mount) {
        return IsAtOrBelow(place, mount.point);
    });
}

std::string AnchoredRule::PathOfMount(const std::string& point) const {
    return root_path_ + point.substr(std::min(point.size(), place_.size()));
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
                                                         SDK::PathAnchor::Open(rule.backup_path),
                                                         mounts_));
}

/// `known` with the backup folder that stands there now.
RuleAnchors::Known RuleAnchors::WithPresentCopies(const Known& known) {
    if (known->Copies() != nullptr && known->Copies()->IsInPlace()) return known;
    // What is mounted over the copies has none of them: every page would be taken for foreign.
    if (known->Copies() != nullptr && mounts_->Differs() &&
        !mounts_->Hiding(known->PlaceOfCopies()).point.empty()) {
        return known;
    }
    AnchoredRule::Anchor copies;
    if (SDK::PlaceTrust::WhyReachable(known->Rule().backup_path).empty()) {
        copies = SDK::PathAnchor::Open(known->Rule().backup_path);
    }
    if (copies == nullptr && known->Copies() == nullptr) return known;
    return Remember(std::make_shared<const AnchoredRule>(known->Rule(), known->Parent(),
                                                         known->Root(), std::move(copies), mounts_))
        .anchors;
}

RulePlaces RuleAnchors::Check(const Known& known) {
    mounts_->Differs();
    if (!known->Parent()->IsInPlace()) return OpenAgain(*known);
    Known present = WithPresentCopies(known);
    if (present->IsFile()) {
        const std::vector<MountTable::Difference> mounts = present->UnusualMounts();
        return mounts.empty() ? RulePlaces{present, ""}
                              : RulePlaces{nullptr, mounts.front().text, true};
    }
    if (present->Root() != nullptr && present->Root()->IsInPlace()) return {present, ""};
    struct stat info {};
    const bool stands = present->Parent()->Stat(FileName(present->RootPath()), info) == 0;
    if (stands && S_ISDIR(info.st_mode)) {
        RulePlaces returned = FindFormer(*present);
        if (!returned) returned = FindLost(*present);
        return returned ? std::move(returned) : OpenAgain(*present);
    }
    if (present->Root() == nullptr) return {std::move(present), ""};
    // The map still holds it, so that it is recognised when it was only moved aside.
    return {std::make_shared<const AnchoredRule>(present->Rule(), present->Parent(), nullptr,
                                                 present->Copies(), mounts_),
            ""};
}

/// A directory that was held before, moved aside, and is back.
RulePlaces RuleAnchors::FindFormer(const AnchoredRule& present) {
    for (const AnchoredRule::Anchor& root : former_roots_[present.RootPath()]) {
        if (!root->IsInPlace()) continue;
        return Remember(std::make_shared<const AnchoredRule>(present.Rule(), present.Parent(), root,
                                                             present.Copies(), mounts_));
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
        SDK::PathAnchor::Hold(std::move(found), present.RootPath()), present.Copies(), mounts_));
}

void RuleAnchors::KeepFormer(const AnchoredRule& held) {
    if (held.Root() == nullptr) return;
    std::deque<AnchoredRule::Anchor>& former = former_roots_[held.RootPath()];
    former.push_back(held.Root());
    if (former.size() > kMostFormer) former.pop_front();
}

/// Another directory than the held one stands at the protected path now.
RulePlaces RuleAnchors::OpenAgain(const AnchoredRule& known) {
    RulePlaces covered = CoveredBy(known);
    if (covered.is_mount) return covered;
    const SentrelDirRule& rule = known.Rule();
    const std::string unsafe =
        SDK::PlaceTrust::WhyReplaceable(SDK::PathUtils::WithoutTrailingSlash(rule.real_path));
    if (unsafe.empty()) return Open(rule);
    return {nullptr, "it leads to another directory than before and is not followed: " + unsafe};
}

/// Names the mount that covers the protected path or uncovers another one; else an empty value.
RulePlaces RuleAnchors::CoveredBy(const AnchoredRule& known) const {
    if (!mounts_->Differs()) return {};
    const MountTable::Difference mount = mounts_->Hiding(known.Place());
    if (mount.point.empty()) return {};
    return {nullptr, mount.text, true};
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
        known->Copies(), mounts_));
}

void RuleAnchors::Forget(const SentrelDirRule& rule) {
    const std::lock_guard<std::mutex> lock(mutex_);
    rules_.erase({rule.real_path, rule.backup_path});
    former_roots_.erase(SDK::PathUtils::WithoutTrailingSlash(rule.real_path));
    lost_roots_.erase(SDK::PathUtils::WithoutTrailingSlash(rule.real_path));
}

void RuleAnchors::Forget() {
    const std::lock_guard<std::mutex> lock(mutex_);
    rules_.clear();
    former_roots_.clear();
    lost_roots_.clear();
}

}  // namespace Engine
