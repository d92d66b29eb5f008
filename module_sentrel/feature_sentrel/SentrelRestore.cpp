// Undoes changes: puts back from the backup copy, removes what is foreign. It must not judge
// whether something is tampering (SentrelEvents.cpp) nor keep what has to wait
// (SentrelBacklog.cpp). Inotify task's thread.
#include <BackupProgress.h>
#include <ProtectedWay.h>
#include <SentrelInotifyTask.h>
#include <SentrelStatus.h>
#include <SentrelUtils.h>
#include <sdk/DirUtils.h>
#include <sdk/FileUtils.h>
#include <sdk/Log.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

namespace Engine {

namespace {

constexpr int kTriesToClear = 4;

/// What stands at `path` itself; 0 when there is nothing.
mode_t TypeAt(const std::string& path) {
    struct stat info {};
    return ::lstat(WithoutTrailingSlash(path).c_str(), &info) == 0 ? info.st_mode & S_IFMT : 0;
}

bool RemoveLink(ProtectedWay& way, mode_t backup_type) {
    if (!way.RemoveEnd()) return false;
    if (backup_type == S_IFLNK) return true;  // one of the site's own
    SDK_LOG(ModuleLogger(), PRIO_WARNING, "removed the planted link %s.", way.EndPath());
    SentrelStatus::Instance().Count(SentrelStatus::kPlantedLinksRemoved);
    return true;
}

/// Clears the way of a link; with one in place of a directory on the way, all below that is gone,
/// so `target` becomes that directory. False: it cannot be cleared.
bool ClearLink(const SentrelDirRule& rule, ProtectedWay& way, std::string& target) {
    const mode_t backup_type = TypeAt(rule.backup_path + way.EndPath());
    if (way.IsLinkLast()) return RemoveLink(way, backup_type);
    if (backup_type != S_IFDIR || !RemoveLink(way, backup_type)) return false;
    target = way.EndPath() + "/";
    return true;
}

bool RemoveWhole(const SentrelDirRule& rule, const std::string& path) {
    if (rule.is_file) {
        return SDK::DirUtils::IsDir(path) ? SDK::DirUtils::DeleteDir(path) == 0
                                          : SDK::FileUtils::TalDeleteFile(path) == 0;
    }
    const std::string below = path.substr(std::min(path.size(), rule.real_path.size()));
    return SDK::DirUtils::DeleteBeneath(rule.real_path, below) == 0;
}

/// Where a directory stands in place of something else, or the other way round: removes it, since
/// rsync copies into the one and fails at the other. True when something was removed.
bool RemoveOtherKind(const SentrelDirRule& rule, ProtectedWay& way) {
    const mode_t backup_type = TypeAt(rule.backup_path + way.EndPath());
    if (way.IsBlocked()) return backup_type == S_IFDIR && way.RemoveEnd();
    return backup_type != 0 && backup_type != S_IFDIR && RemoveWhole(rule, way.EndPath());
}

/// Makes the way to `target` fit for rsync, which goes through a link that stands there or on the
/// way, and copies into the directory that a link in its place leads to. A directory that is gone
/// is made before rsync runs, so that nobody can plant a link there meanwhile, and becomes the
/// `target`: with it comes all that was below. False: the way cannot be cleared.
///
/// A link that takes a directory's place after this and before rsync gets there is for rsync to
/// refuse: 3.5.0 and later do not follow one that belongs to another user.
bool ClearWay(const SentrelDirRule& rule, bool copy_is_complete, std::string& target) {
    for (int tries = 0; tries < kTriesToClear; ++tries) {
        ProtectedWay way(rule, target);
        if (way.HasLink()) {
            const bool has_copy = TypeAt(rule.backup_path + way.EndPath()) != 0;
            if (!has_copy) return !way.IsBarred();
            if (!ClearLink(rule, way, target)) return false;
        } else if (way.IsMissing()) {
            if (!copy_is_complete || TypeAt(rule.backup_path + way.EndPath()) != S_IFDIR) {
                return !way.IsBarred();
            }
            target = way.EndPath() + "/";
            if (way.MakeMissing() || errno != EEXIST) return true;
        } else if (!copy_is_complete || !RemoveOtherKind(rule, way)) {
            return !way.IsBarred();
        }
    }
    return false;
}

/// An excluded subdirectory of several levels is named from the rule's path on, and rsync knows it
/// only when it starts there: below that it would take the excluded content for foreign.
bool HoldsExclusion(const SentrelDirRule& rule, const std::string& directory) {
    const std::string inside = WithoutTrailingSlash(directory) + "/";
    const auto lies_there = [&](const std::string& subdir) {
        return (rule.real_path + subdir).compare(0, inside.size(), inside) == 0;
    };
    return !rule.is_file &&
           std::any_of(rule.ignored_subdir.begin(), rule.ignored_subdir.end(), lies_there);
}

/// One file or link that was copied since the policy or the end of a pause, which rsync puts back
/// without deleting anything. An older copy may lack an update that is still to be copied.
bool IsRestoredAlone(const SentrelDirRule& rule, const std::string& path) {
    struct stat copy {};
    return ::lstat((rule.backup_path + path).c_str(), &copy) == 0 && !S_ISDIR(copy.st_mode) &&
           BackupProgress::Instance().IsOfThisRound(copy) && TypeAt(path) != S_IFDIR &&
           !ProtectedWay(rule, path).IsBarred();
}

}  // namespace

void SentrelInotifyTask::AutoRestoreFile(const SentrelDirRule& rule, bool restore, bool remove,
                                         const std::string& path) {
    const SentrelUtils* utils = SentrelUtils::GetInstance();
    if (utils->diff_content || utils->diff_attr) current_event_.evidence = Evidence(rule, path);
    NoteOtherNames(path);
    if (utils->monitor_only || !rule.auto_restore) return;
    if (!restore && !remove) return;
    if (AwaitsBackup(rule) && !(restore && IsRestoredAlone(rule, path))) {
        Defer(path);
    } else if (restore) {
        RestoreFromBackup(rule, path);
        SDK_LOG(ModuleLogger(), PRIO_DEBUG, "auto restore %s ", path);
    } else {
        RemoveForeign(rule, path);
        SDK_LOG(ModuleLogger(), PRIO_DEBUG, "delete : %s", path);
    }
}

/// While more changes wait one file goes back beside the next. Directories, and what had to be made
/// room for, have the place for themselves.
bool SentrelInotifyTask::MayOverlap(mode_t backup_type, const std::string& path,
                                    const std::string& target) const {
    return QueueLength() > 0 && target == path &&
           (backup_type == S_IFREG || backup_type == S_IFLNK);
}

/// What happens to a path comes after what is still under way for it.
void SentrelInotifyTask::SettleBefore(const std::string& path) {
    if (pending_alarm_ && pending_alarm_->file == WithoutTrailingSlash(path)) SendPendingAlarm();
}

void SentrelInotifyTask::RestoreFromBackup(const SentrelDirRule& rule, const std::string& path) {
    SentrelUtils* utils = SentrelUtils::GetInstance();
    const mode_t backup_type = TypeAt(rule.backup_path + path);
    std::string target = backup_type == S_IFDIR ? path : WithoutTrailingSlash(path);
    const bool clear = ClearWay(rule, !AwaitsBackup(rule), target);
    if (WithoutTrailingSlash(target) != WithoutTrailingSlash(path)) {
        current_event_.lost_directory = target;
    }
    if (HoldsExclusion(rule, target)) target = rule.real_path;
    const bool overlaps = MayOverlap(backup_type, path, target);
    if (!overlaps) SendPendingAlarm();
    auto restore = std::make_unique<RestoreUnderWay>();
    restore->source = current_event_.source;
    restore->path = path;
    restore->target = target;
    restore->rule_path = rule.real_path;
    restore->begun = OwnRestores::Clock::now();
    restore->is_way_clear = clear;
    if (clear) {
        restore->copy = utils->BeginRestore(target, rule.backup_path, rule.ignored_postfix,
                                            rule.ignored_subdir);
    }
    if (overlaps && restore->copy) {
        current_event_.restore = std::move(restore);
    } else {
        current_event_.outcome = ConcludeRestore(*restore);
    }
}

std::string SentrelInotifyTask::ConcludeRestore(const RestoreUnderWay& restore) {
    SentrelUtils* utils = SentrelUtils::GetInstance();
    SentrelStatus& status = SentrelStatus::Instance();
    const bool restored = restore.is_way_clear && utils->FinishLocal(restore.copy);
    own_restores_.Note(restore.target, restore.begun, OwnRestores::Clock::now());
    if (restored) {
        status.Count(SentrelStatus::kRestoresDone);
        return "restored";
    }
    status.Count(SentrelStatus::kRestoresFailed);
    status.NoteFailure(restore.rule_path,
                       "restore of " + restore.path + ": " +
                           (restore.is_way_clear ? utils->LastCopyError()
                                                 : "what stands on the way cannot be removed"));
    KeepFailed(restore.source, restore.path, restore.target);
    return "restore failed";
}

void SentrelInotifyTask::RemoveForeign(const SentrelDirRule& rule, const std::string& path) {
    const auto begun = OwnRestores::Clock::now();
    bool removed = false;
    ProtectedWay way(rule, path);
    if (way.IsBarred()) {
        // Beyond the link nothing is ours. Where it took a directory's place, that comes back when
        // the loss of the link is told.
        const mode_t backup_type = TypeAt(rule.backup_path + way.EndPath());
        if (!way.HasLink() || backup_type != S_IFDIR) return;
        removed = RemoveLink(way, backup_type);
    } else {
        removed = RemoveWhole(rule, path);
    }
    if (removed) {
        own_restores_.Note(path, begun, OwnRestores::Clock::now());
        current_event_.outcome = "removed";
        SentrelStatus::Instance().Count(SentrelStatus::kRemovalsDone);
    } else if (errno != ENOENT) {  // else it went by itself
        current_event_.outcome = "removal failed";
        SentrelStatus::Instance().Count(SentrelStatus::kRemovalsFailed);
        KeepFailed(current_event_.source, path, "");
    }
}

}  // namespace Engine
