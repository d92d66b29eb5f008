// Undoes changes and owns the record of recent restores. It must not judge what is tampering (the
// inotify task does), keep changes that have to wait (Rejudge does), nor know how a restore is
// carried out (RsyncLauncher does). Inotify task's thread.
#define SDK_LOG_FILE "SentrelInotifyTask.cpp"
#include "feature_sentrel/event_path/Undoer.h"

#include <fcntl.h>
#include <sdk/files/PathUtils.h>
#include <sdk/log/Log.h>
#include <sdk/restore/ObjectRestorer.h>
#include <sdk/text/StrUtils.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <utility>

#include "base/ModuleLogger.h"
#include "base/PathText.h"
#include "state/ModuleState.h"
#include "utils/SentrelUtils.h"

namespace Engine {

namespace {

// Each try examines the path anew; the next event handles an attacker who goes on changing it.
constexpr int kTries = 4;

/// The type of what stands there; 0 when there is nothing, or it cannot be reached.
mode_t LiveType(const AnchoredRule& rule, const std::string& path) {
    struct stat info {};
    return rule.StatLive(path, info) == 0 ? info.st_mode & S_IFMT : 0;
}

mode_t CopyType(const AnchoredRule& rule, const std::string& path) {
    struct stat info {};
    return rule.StatCopy(path, info) == 0 ? info.st_mode & S_IFMT : 0;
}

std::optional<RecentRestores::Identity> IdentityAt(const AnchoredRule& rule,
                                                   const std::string& path) {
    const SDK::PathAnchor::Entry entry = rule.Live(path);
    struct statx info {};
    if (!entry.IsOpen() || ::statx(entry.directory.Get(), entry.name.c_str(), AT_SYMLINK_NOFOLLOW,
                                   STATX_INO | STATX_BTIME, &info) != 0) {
        return std::nullopt;
    }
    constexpr std::int64_t kNanosPerSecond = 1000000000;
    const bool is_told = (info.stx_mask & STATX_BTIME) != 0;
    return RecentRestores::Identity{
        makedev(info.stx_dev_major, info.stx_dev_minor), info.stx_ino,
        is_told ? info.stx_btime.tv_sec * kNanosPerSecond + info.stx_btime.tv_nsec : 0};
}

/// An excluded subdirectory of several levels is given relative to the rule's path, and rsync
/// matches it only when it starts there: started below, rsync would take the excluded content for
/// foreign.
bool HoldsExclusion(const SentrelDirRule& rule, const std::string& directory) {
    const std::string inside = SDK::PathUtils::WithoutTrailingSlash(directory) + "/";
    return !rule.is_file &&
           std::any_of(rule.ignored_subdir.begin(), rule.ignored_subdir.end(),
                       [&](const std::string& subdir) {
                           return SDK::StrUtils::BeginsWith(rule.real_path + subdir, inside);
                       });
}

}  // namespace

bool IsTransientName(const std::string& name) {
    if (SDK::StrUtils::BeginsWith(name, SDK::ObjectRestorer::kTemporaryPrefix)) return true;
    return name.size() > 1 && name.front() == '#' &&
           name.find_first_not_of("0123456789", 1) == std::string::npos;
}

std::string FirstObstacle(const AnchoredRule& rule, const std::string& path) {
    const std::string wanted = SDK::PathUtils::WithoutTrailingSlash(path);
    const std::string& root = rule.RootPath();
    if (rule.IsFile() || wanted.size() <= root.size()) return "";
    if (LiveType(rule, root) != S_IFDIR) return root;
    // Usually the way is free.
    if (rule.OpenLiveDirectory(ParentPath(wanted)).IsOpen()) return "";
    for (std::size_t slash = wanted.find('/', root.size() + 1); slash != std::string::npos;
         slash = wanted.find('/', slash + 1)) {
        std::string above = wanted.substr(0, slash);
        if (LiveType(rule, above) != S_IFDIR) return above;
    }
    return "";
}

UndoResult Undoer::Restore(const SentrelDirRule& rule, const std::string& path) {
    SentrelStatus& status = state_.status;
    Attempt attempt;
    for (int tries = 0; tries < kTries && !attempt.restored && attempt.copy_faults.empty();
         ++tries) {
        attempt = TryToRestore(rule, path);
    }
    if (!attempt.restored) {
        status.Count(SentrelStatus::kRestoresFailed);
        status.NoteFailure(rule.real_path, "restore of " + path + ": " + attempt.error);
        return {Outcome::kRestoreFailed, "", std::move(attempt.copy_faults)};
    }
    status.CountUndone(SentrelStatus::kRestoresDone);
    return {Outcome::kRestored, attempt.is_above ? attempt.target : std::string(),
            std::move(attempt.copy_faults)};
}

Undoer::Attempt Undoer::TryToRestore(const SentrelDirRule& rule, const std::string& path) {
    state_.launcher.Install();
    const RulePlaces places = state_.anchors.Of(rule);
    if (!places) return {false, path, false, places.problem};
    const AnchoredRule& anchors = *places.anchors;
    Attempt attempt;
    attempt.target = SDK::PathUtils::WithoutTrailingSlash(path);
    const std::string obstacle = FirstObstacle(anchors, path);
    if (!obstacle.empty()) {
        if (CopyType(anchors, obstacle) != S_IFDIR) {
            return {false, path, false, "what stands on the way cannot be removed: " + obstacle};
        }
        attempt.target = obstacle;
        attempt.is_above = true;
    }
    if (!HasGoodCopy(anchors, attempt)) return attempt;
    const mode_t live = LiveType(anchors, attempt.target);
    const mode_t copy = CopyType(anchors, attempt.target);
    if (copy == S_IFDIR) attempt.target += '/';
    if (copy == S_IFDIR && !RsyncLauncher::RestoresInProcess() &&
        HoldsExclusion(rule, attempt.target)) {
        attempt.target = rule.real_path;
    }
    SentrelUtils* utils = SentrelUtils::GetInstance();
    const auto begun = RecentRestores::Clock::now();
    attempt.restored = utils->DoRsyncLocal(attempt.target, rule.backup_path, rule.ignored_postfix,
                                           rule.ignored_subdir, RSYNC_RESTORE);
    attempt.error = attempt.restored ? "" : utils->LastCopyError();
    const bool is_single = attempt.restored && copy == S_IFREG;
    recent_.Note(attempt.target, begun, RecentRestores::Clock::now(),
                 is_single ? IdentityAt(anchors, attempt.target) : std::nullopt);
    if (attempt.restored && live == S_IFLNK && copy != S_IFLNK) CountPlantedLink(attempt.target);
    return attempt;
}

/// Copies that are not what was approved are held back with the objects that they belong to. False
/// when the target's own copy is one of them.
bool Undoer::HasGoodCopy(const AnchoredRule& rule, Attempt& attempt) {
    std::vector<RuleBaselines::Fault> faults = state_.baselines.CheckCopies(rule, attempt.target);
    if (faults.empty()) return true;
    if (!state_.baselines.HasBackup(rule.Rule())) {
        attempt.error = "the backup copies are gone";
        return false;
    }
    const std::string target = SDK::PathUtils::WithoutTrailingSlash(attempt.target);
    bool is_good = true;
    for (const RuleBaselines::Fault& fault : faults) {
        std::string_view below;
        if (rule.Below(fault.path, below)) {
            state_.progress.Hold(rule.Rule(), std::string(below), true);
        }
        if (fault.path == target) is_good = false;
    }
    if (!is_good) attempt.error = "the backup copy differs from its manifest";
    attempt.copy_faults = std::move(faults);
    return is_good;
}

UndoResult Undoer::Remove(const SentrelDirRule& rule, const std::string& path,
                          const SDK::RemovalVisitor& visit) {
    SentrelStatus& status = state_.status;
    const RulePlaces places = state_.anchors.Of(rule);
    const auto begun = RecentRestores::Clock::now();
    int error = 0;
    if (places) {
        const SDK::PathAnchor::Entry live = places.anchors->Live(path);
        if (!live.IsOpen() && (errno == ELOOP || errno == ENOTDIR)) {
            return RemoveBlockingLink(*places.anchors, path);
        }
        // Only the administrator removes the protected path itself, and without a backup folder
        // nothing is known to be foreign.
        const bool is_root =
            SDK::PathUtils::WithoutTrailingSlash(path) == places.anchors->RootPath();
        if ((is_root && !rule.is_file) || places.anchors->Copies() == nullptr) {
            return {Outcome::kNone};
        }
        const bool removed =
            live.IsOpen() && SDK::RemoveTreeAt(live.directory.Get(), live.name, visit) == 0;
        error = removed ? 0 : errno;
        if (removed) recent_.Note(path, begun, RecentRestores::Clock::now());
    }
    if (places && error == 0) {
        status.CountUndone(SentrelStatus::kRemovalsDone);
        return {Outcome::kRemoved};
    }
    if (error == ENOENT) return {Outcome::kNone};  // it is gone already
    status.Count(SentrelStatus::kRemovalsFailed);
    status.NoteFailure(rule.real_path, "removal of " + path + ": " +
                                           (places ? std::strerror(error) : places.problem));
    return {Outcome::kRemovalFailed};
}

/// Nothing behind the link is touched. When it replaced a directory, the event of its removal
/// restores that directory.
UndoResult Undoer::RemoveBlockingLink(const AnchoredRule& rule, const std::string& path) {
    const std::string obstacle = FirstObstacle(rule, path);
    if (obstacle.empty() || LiveType(rule, obstacle) != S_IFLNK ||
        CopyType(rule, obstacle) != S_IFDIR) {
        return {Outcome::kNone};
    }
    const SDK::PathAnchor::Entry link = rule.Live(obstacle);
    if (!link.IsOpen() || ::unlinkat(link.directory.Get(), link.name.c_str(), 0) != 0) {
        return {Outcome::kNone};
    }
    CountPlantedLink(obstacle);
    state_.status.CountUndone(SentrelStatus::kRemovalsDone);
    return {Outcome::kRemoved};
}

void Undoer::CountPlantedLink(const std::string& path) {
    SDK_LOG(ModuleLogger(), PRIO_WARNING, "removed the planted link %s.", path);
    state_.status.Count(SentrelStatus::kPlantedLinksRemoved);
}

bool Undoer::IsOwnObject(const AnchoredRule& rule, ino_t inode) const {
    const auto* known = recent_.FindInode(inode);
    return known != nullptr && IdentityAt(rule, known->first) == known->second;
}

}  // namespace Engine
