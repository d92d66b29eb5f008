// The steps of one change, in their order. An event is only a hint: the present object is compared
// with its backup copy. This file must not undo (Undoer does), describe (AlarmReporter does) nor
// keep changes (Rejudge does). Inotify task's thread.
#define SDK_LOG_FILE "SentrelInotifyTask.cpp"
#include <module_filenotify/FileNotifyMessage.h>
#include <sdk/files/DirUtils.h>
#include <sdk/files/PathUtils.h>
#include <sdk/log/Log.h>
#include <sdk/restore/ObjectRestorer.h>
#include <sdk/text/StrUtils.h>
#include <sys/inotify.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <utility>

#include "base/FileComparison.h"
#include "base/ModuleLogger.h"
#include "base/PathText.h"
#include "feature_sentrel/SentrelInotifyTask.h"
#include "state/ModuleState.h"
#include "utils/SentrelUtils.h"

namespace Engine {

namespace {

constexpr std::uint32_t kMoved = IN_MOVED_FROM | IN_MOVED_TO;
constexpr std::uint32_t kArrived = IN_CREATE | IN_MOVED_TO;

/// A change of an object that is gone by now is reported as its loss.
alarm_type AlarmTypeOf(std::uint32_t mask, Deviation deviation) {
    if (deviation == Deviation::kGone && (mask & kArrived) == 0) return ALARM_DELETE;
    if ((mask & IN_ATTRIB) != 0 || deviation == Deviation::kAttributes) return ALARM_ATTRIBUTE;
    if ((mask & (IN_DELETE | kMoved)) != 0) return ALARM_DELETE;
    return ALARM_MODIFY;
}

/// Adds the "/" to the path of a protected directory that came without it.
void AdjustToRule(const SentrelDirRule& rule, std::string& file) {
    if (rule.is_file || SDK::StrUtils::EndsWith(file, "/") || file + "/" != rule.real_path) return;
    file += '/';
    SDK_LOG(ModuleLogger(), PRIO_DEBUG, "edit root path %s ", file);
}

/// The directory that a rule's exclusions are relative to, ending in "/".
std::string RulePath(const SentrelDirRule& rule) {
    if (!rule.is_file) return rule.real_path;
    std::string directory = SDK::PathUtils::GetDirFromPath(rule.real_path);
    directory = SDK::PathUtils::WithTrailingSlash(std::move(directory));
    return directory;
}

bool HasIgnoredSuffix(const SentrelDirRule& rule, const std::string& file) {
    const std::string name = FileName(file);
    for (const std::string& postfix : rule.ignored_postfix) {
        SDK_LOG(ModuleLogger(), PRIO_DEBUG, "HandleEventMainFile1 check ext:%s, fileName:%s.",
                postfix, name);
        if (!SDK::StrUtils::EndsWith(name, postfix)) continue;
        SDK_LOG(ModuleLogger(), PRIO_DEBUG, "%s is ignored in ext rules %s.", file, postfix);
        return true;
    }
    return false;
}

/// Notes that the object was changed through this name, which is gone: it may still have another.
void NoteVanished(const AnchoredRule& anchors, std::uint32_t mask, const std::string& file,
                  Handling& handling) {
    struct stat info {};
    if ((mask & (IN_MODIFY | IN_ATTRIB)) == 0) return;
    handling.vanished = anchors.StatLive(file, info) != 0 && errno == ENOENT;
}

double MillisecondsSince(std::chrono::steady_clock::time_point start) {
    if (start == std::chrono::steady_clock::time_point{}) return -1;
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
        .count();
}

}  // namespace

void SentrelInotifyTask::FileNotifyMessageAction(FileNotifyMessage* msg) {
    // Gate.
    if (!SentrelUtils::GetInstance()->is_run || msg == nullptr) {
        SDK_LOG(ModuleLogger(), PRIO_DEBUG, "inot not run");
        return;
    }
    ReleaseIfChanged(*msg);
    const Handling handling = Judge(*msg);
    rejudge_.Take({msg->GetWatchFile(), msg->GetEventFilePath(), msg->GetRawMask(),
                   msg->GetReadTime(), 0, ChangeOrigin::kLive},
                  handling, undoer_.Recent());
    if (IsLeftOut(msg->GetEventFilePath())) {
        reconciler_.LookSoon(msg->GetWatchFile(), msg->GetEventFilePath());
    }
    SendAlarms();
}

Handling SentrelInotifyTask::Judge(FileNotifyMessage& msg, bool is_told) {
    Handling handling;
    handling.is_told = is_told;
    // Paths.
    const std::uint32_t mask = msg.GetEventMask();
    const bool is_dir = (msg.GetRawMask() & IN_ISDIR) != 0;
    const std::string& watch_file = msg.GetWatchFile();
    std::string file1;
    std::string file2;
    if (!HandleEventBuildStr(msg.GetEventFilePath(), msg.GetMovetoFile(), is_dir, mask, file1,
                             file2)) {
        return handling;
    }
    SDK_LOG(ModuleLogger(), PRIO_DEBUG,
            "WatchFile %s, file1 (%s), file2 (%s), dir (%s), optype (0x%x)", watch_file, file1,
            file2, std::string(is_dir ? "true" : "false"), mask);
    // Rule.
    const auto found = watch_rules.find(watch_file);
    if (found == watch_rules.end()) {
        SDK_LOG(ModuleLogger(), PRIO_DEBUG, "Find watch file (%s) faild.", watch_file);
        return handling;
    }
    const SentrelDirRule& rule = found->second;
    // Root path. A restore of "" would be a restore of the whole file system.
    AdjustToRule(rule, file1);
    if (file1.empty()) return handling;
    if (IsBehindMount(rule, file1)) return handling;
    if (IsGoneTransient(rule, file1)) {
        handling.vanished = IsChangeOfUnnamed(rule, mask, file1);
        return handling;
    }
    // Moves.
    if (!HandleMoveEvent(rule, &msg, file1, handling)) return handling;
    // Ignored paths.
    SDK_LOG(ModuleLogger(), PRIO_DEBUG, "HandleEventMainFile1 check file %s.", file1);
    if (IsIgnored(rule, file1)) {
        if ((mask & (IN_MODIFY | IN_ATTRIB)) != 0) NoteOtherNames(rule, file1, {}, handling);
        return handling;
    }
    JudgeFile(rule, mask, file1, msg.GetReadTime(), handling);
    return handling;
}

/// The steps of an event leave out names that end in ".".
bool SentrelInotifyTask::IsLeftOut(const std::string& path) {
    return SDK::StrUtils::EndsWith(path, ".");
}

/// Such a name is judged with the directory that holds it: the reconciler has found that it differs
/// from its copy.
Handling SentrelInotifyTask::JudgeLeftOut(const FileNotifyMessage& msg, bool is_told) {
    Handling handling;
    handling.is_told = is_told;
    const auto found = watch_rules.find(msg.GetWatchFile());
    if (found == watch_rules.end()) return handling;
    const bool is_dir = (msg.GetRawMask() & IN_ISDIR) != 0;
    const std::string path = msg.GetEventFilePath() + (is_dir ? "/" : "");
    if (!IsIgnored(found->second, path) && !IsBehindMount(found->second, path)) {
        JudgeFile(found->second, msg.GetEventMask(), path, msg.GetReadTime(), handling);
    }
    return handling;
}

/// What a mount hides is compared when the mount is gone.
bool SentrelInotifyTask::IsBehindMount(const SentrelDirRule& rule, const std::string& path) const {
    if (!state_.anchors.Mounts().Differs()) return false;
    const RulePlaces places = state_.anchors.Held(rule);
    return places && places.anchors->IsBehindMount(path);
}

/// The temporary name of one of our restores, gone already; or below such a name, where a restore
/// moved a directory that stood in the place of a page.
bool SentrelInotifyTask::IsGoneTransient(const SentrelDirRule& rule,
                                         const std::string& file) const {
    struct stat info {};
    const std::size_t above = file.find(std::string("/") + SDK::ObjectRestorer::kTemporaryPrefix);
    if (above == std::string::npos && !IsTransientName(FileName(file))) return false;
    const std::string name =
        above == std::string::npos ? file : file.substr(0, file.find('/', above + 1));
    const RulePlaces places = state_.anchors.Held(rule);
    return places && places.anchors->StatLive(name, info) != 0 && errno == ENOENT;
}

/// The kernel reports a change through a descriptor that was opened without a name as "#" and the
/// inode number. The object may have the name of a page by now.
bool SentrelInotifyTask::IsChangeOfUnnamed(const SentrelDirRule& rule, std::uint32_t mask,
                                           const std::string& file) const {
    const std::string name = FileName(file);
    if (name.front() != '#' || (mask & (IN_MODIFY | IN_ATTRIB)) == 0) return false;
    const RulePlaces places = state_.anchors.Held(rule);
    const ino_t inode = std::strtoull(name.c_str() + 1, nullptr, 10);
    return places && !undoer_.IsOwnObject(*places.anchors, inode);
}

void SentrelInotifyTask::JudgeFile(const SentrelDirRule& rule, std::uint32_t mask,
                                   const std::string& file,
                                   std::chrono::steady_clock::time_point read_time,
                                   Handling& handling) {
    const bool arrived = (mask & kArrived) != 0;
    // Backup copy.
    bool exists = false;
    BackupFileInfo info;
    if (!GetBackupFileInfo(file, rule, exists, info)) {
        SDK_LOG(ModuleLogger(), PRIO_ERROR, "Get file/dir %s attar failed.", file);
        handling.Add(Outcome::kNotJudged);
        return;
    }
    const RulePlaces places = state_.anchors.Held(rule);
    if (!places) return handling.Add(Outcome::kNotJudged);
    NoteVanished(*places.anchors, mask, file, handling);
    // No backup copy.
    if (!exists) {
        if ((mask & IN_DELETE) != 0) {
            SDK_LOG(ModuleLogger(), PRIO_DEBUG, "File/Dir %s deleted by update or restore.", file);
            return;
        }
        UndoAndReport(rule, file, ALARM_ADD, false, arrived, read_time, handling);
        return;
    }
    // Comparison.
    const BackupComparer comparer = Comparer(rule, places);
    const auto lacks_content = [&] {
        return (arrived || (mask & IN_DELETE) != 0) &&
               comparer.LacksContent(
                   file, [&](const std::string& path) { return IsIgnored(rule, path); });
    };
    const Deviation deviation = Compare(rule, places, file, info);
    if (deviation == Deviation::kNone && !lacks_content()) {
        SDK_LOG(ModuleLogger(), PRIO_DEBUG, "File/Dir %s updated.", file);
        return;
    }
    // Undo and alarm.
    UndoAndReport(rule, file, AlarmTypeOf(mask, deviation), true, arrived, read_time, handling);
}

void SentrelInotifyTask::UndoAndReport(const SentrelDirRule& rule, const std::string& file,
                                       alarm_type type, bool restore, bool remove,
                                       std::chrono::steady_clock::time_point read_time,
                                       Handling& handling) {
    Description description = Describe(rule, file, type);
    NoteOtherNames(rule, file, description.pinned, handling);
    const UndoResult undoing = AutoRestoreFile(rule, restore, remove, file);
    handling.Add(undoing.outcome);
    if (handling.is_told && IsFailure(undoing.outcome)) return;
    Alarm alarm;
    alarm.file = file;
    alarm.type = type;
    alarm.diff_attr = std::move(description.diff_attr);
    alarm.note = {OutcomeText(undoing.outcome), MillisecondsSince(read_time), true};
    const Framework::ReportNote note = alarm.note;
    if (undoing.outcome == Outcome::kRestored || undoing.outcome == Outcome::kRemoved) {
        state_.status.NoteUndoLatency(note.duration_ms);
    }
    alarms_.Raise(std::move(alarm), std::move(description.pinned), description.copy,
                  who_.Ask(file, read_time));
    if (undoing.lost_directory.empty()) return;
    // Its own event will find it restored.
    alarms_.Raise({undoing.lost_directory, ALARM_DELETE, "", "", note}, PinnedFile(), "",
                  who_.Ask(undoing.lost_directory, read_time));
}

/// To be called before the change is undone: the alarm describes the object as the attack left it.
SentrelInotifyTask::Description SentrelInotifyTask::Describe(const SentrelDirRule& rule,
                                                             const std::string& file,
                                                             alarm_type type) {
    const SentrelUtils* utils = SentrelUtils::GetInstance();
    // What a repeat would show is kept all the same.
    const bool is_shown = !alarms_.IsRepeat(file, type);
    const bool has_content = utils->diff_content && is_shown;
    const bool has_attributes = utils->diff_attr && is_shown;
    if (!has_content && !has_attributes && !evidence_.is_kept) return {};
    const RulePlaces places = state_.anchors.Held(rule);
    if (!places) return {};
    Description description;
    description.pinned = PinnedFile(*places.anchors, file);
    if (has_attributes) {
        description.diff_attr =
            HandleFileAttrDiff(rule.backup_path + file, description.pinned.Path()) +
            Comparer(rule, places).DescribeAttributes(file);
    }
    if (has_content && !evidence_.IsSecret(file)) {
        description.copy = rule.backup_path + file;
    } else if (!evidence_.is_kept) {
        description.pinned = PinnedFile();
    }
    return description;
}

bool SentrelInotifyTask::HandleMoveEvent(const SentrelDirRule& rule, FileNotifyMessage* msg,
                                         const std::string& path, Handling& handling) {
    if (path.empty() || (msg->GetEventMask() & kMoved) == 0) return true;
    if (IsMoveIgnored(rule, path)) return true;
    bool exists = false;
    BackupFileInfo info;
    if (!GetBackupFileInfo(path, rule, exists, info)) {
        SDK_LOG(ModuleLogger(), PRIO_ERROR, "Get file/dir %s attar failed.", path);
        handling.Add(Outcome::kNotJudged);
        return false;
    }
    // A restore also ends with a move; restoring again would double each restore. The object is
    // compared all the same: it may have been moved away, changed and moved back. No restore moves
    // a directory, except one that stands in the place of something else.
    if (exists && undoer_.Recent().MayEcho(path, msg->GetReadTime())) {
        const RulePlaces places = state_.anchors.Held(rule);
        struct stat live {};
        const bool is_directory =
            SDK::StrUtils::EndsWith(path, "/") &&
            !(places && places.anchors->StatLive(path, live) == 0 && !S_ISDIR(live.st_mode));
        if (places && !is_directory && Compare(rule, places, path, info) == Deviation::kNone) {
            SDK_LOG(ModuleLogger(), PRIO_DEBUG, "File/Dir %s updated.", path);
            return false;
        }
    }
    UndoAndReport(rule, path, exists ? ALARM_MODIFY : ALARM_ADD, exists, !exists,
                  msg->GetReadTime(), handling);
    return true;
}

bool SentrelInotifyTask::IsMoveIgnored(const SentrelDirRule& rule, const std::string& path) {
    bool ignored = false;
    if (!rule.is_file) {
        for (const std::string& subdir : rule.ignored_subdir) {
            if (!SDK::StrUtils::BeginsWith(path, rule.real_path + subdir)) continue;
            SDK_LOG(ModuleLogger(), PRIO_DEBUG, "%s is a ignored.", path);
            ignored = true;
        }
    }
    for (const std::string& prefix : SentrelUtils::GetInstance()->other_rule_prefixes) {
        if (!SDK::StrUtils::BeginsWith(path, prefix)) continue;
        SDK_LOG(ModuleLogger(), PRIO_DEBUG, "%s is ignored in other rules.", path);
        ignored = true;
    }
    // A rotated log has no copy and would be removed.
    return ignored || HasIgnoredSuffix(rule, path);
}

bool SentrelInotifyTask::IsIgnored(const SentrelDirRule& rule, const std::string& file) {
    const std::string rule_path = RulePath(rule);
    for (const std::string& subdir : rule.ignored_subdir) {
        const std::string full = rule_path + subdir;
        SDK_LOG(ModuleLogger(), PRIO_DEBUG,
                "HandleEventMainFile1 check ignore dir real:%s, full:%s.", subdir, full);
        if (!SDK::StrUtils::BeginsWith(file, full)) continue;
        SDK_LOG(ModuleLogger(), PRIO_DEBUG, "%s is a ignored %s.", file, subdir);
        return true;
    }
    for (const std::string& prefix : SentrelUtils::GetInstance()->other_rule_prefixes) {
        if (!SDK::StrUtils::BeginsWith(file, prefix)) continue;
        SDK_LOG(ModuleLogger(), PRIO_DEBUG, "%s is ignored in other rules %s.", file, prefix);
        return true;
    }
    return HasIgnoredSuffix(rule, file);
}

/// A change through one name of an object changes it at all its names. `pinned` may hold nothing.
void SentrelInotifyTask::NoteOtherNames(const SentrelDirRule& rule, const std::string& file,
                                        const PinnedFile& pinned, Handling& handling) const {
    struct stat info {};
    if (pinned.Descriptor() >= 0) {
        if (::fstat(pinned.Descriptor(), &info) != 0) return;
    } else {
        const RulePlaces places = state_.anchors.Held(rule);
        if (!places || places.anchors->StatLive(file, info) != 0) return;
    }
    if (S_ISDIR(info.st_mode) || info.st_nlink < 2) return;
    handling.other_names = ObjectId(info.st_dev, info.st_ino);
}

/// A file or link whose copy was made since the policy or the end of a pause, or is approved.
/// Restoring it deletes nothing. An older copy may lack an update that has not been copied yet.
bool SentrelInotifyTask::IsRestoredAlone(const SentrelDirRule& rule,
                                         const std::string& path) const {
    const RulePlaces places = state_.anchors.Held(rule);
    struct stat copy {};
    struct stat live {};
    if (!places || places.anchors->StatCopy(path, copy) != 0 || S_ISDIR(copy.st_mode) ||
        !(state_.progress.IsOfThisRound(rule, copy) || state_.progress.IsChecking(rule))) {
        return false;
    }
    if (places.anchors->StatLive(path, live) == 0) return !S_ISDIR(live.st_mode);
    return errno == ENOENT && FirstObstacle(*places.anchors, path).empty();
}

UndoResult SentrelInotifyTask::AutoRestoreFile(const SentrelDirRule& rule, bool restore,
                                               bool remove, const std::string& path) {
    if (SentrelUtils::GetInstance()->monitor_only || !rule.auto_restore) return {};
    if (!restore && !remove) return {};
    // An object that could not be backed up is neither known to be good nor to be foreign.
    BackupProgress& progress = state_.progress;
    if (progress.IsHeld(rule, path) || IsHeldByPause(rule, path)) return {Outcome::kHeld};
    if (progress.IsOpen(rule, path) || (!restore && progress.HasOpenIn(rule, path))) return {};
    if (AwaitsBackup(rule, progress) && !(restore && IsRestoredAlone(rule, path))) {
        return {Outcome::kDeferred};
    }
    // What was approved would look foreign.
    if (!restore && !state_.baselines.HasBackup(rule)) return {Outcome::kRemovalFailed};
    if (!restore && HasLostItsCopy(rule, path)) return {Outcome::kHeld};
    UndoResult undoing;
    if (restore) {
        undoing = undoer_.Restore(rule, path);
        SDK_LOG(ModuleLogger(), PRIO_DEBUG, "auto restore %s ", path);
    } else {
        undoing = undoer_.Remove(rule, path, KeeperOf(path));
        SDK_LOG(ModuleLogger(), PRIO_DEBUG, "delete : %s", path);
    }
    ReportCopyFaults(rule, undoing);
    return undoing;
}

/// Keeps what lies in a foreign directory; null where nothing is kept.
SDK::RemovalVisitor SentrelInotifyTask::KeeperOf(const std::string& directory) {
    if (!evidence_.is_kept) return nullptr;
    return [this, top = SDK::PathUtils::WithTrailingSlash(directory)](
               int parent, const std::string& name, const std::string& below) {
        if (alarms_.CanKeep()) alarms_.Keep(PinnedFile(parent, name), top + below);
    };
}

bool SentrelInotifyTask::GetBackupFileInfo(const std::string& path, const SentrelDirRule& rule,
                                           bool& exists, BackupFileInfo& info) {
    exists = false;
    const std::string backup = rule.backup_path + path;
    SDK_LOG(ModuleLogger(), PRIO_DEBUG, "compare file:%s, comparepath:%s", path, backup);
    const RulePlaces places = state_.anchors.Of(rule);
    if (!places) {
        state_.status.NoteFailure(rule.real_path, places.problem);
        return false;
    }
    return Comparer(rule, places).Describe(path, backup, exists, info);
}

Deviation SentrelInotifyTask::Compare(const SentrelDirRule& rule, const RulePlaces& places,
                                      const std::string& file, const BackupFileInfo& info) {
    const Deviation deviation = Comparer(rule, places).Compare(file, info);
    const bool is_whole = info.size <= kDigestLimit || deviation != Deviation::kNone;
    return is_whole ? deviation : CompareWhole(rule, places, file);
}

/// The digests cover the first part of a large file. The rest is compared in the background: its
/// result comes as a change of its own, which finds it here.
Deviation SentrelInotifyTask::CompareWhole(const SentrelDirRule& rule, const RulePlaces& places,
                                           const std::string& file) {
    for (const auto& [watch_id, known] : watch_rules) {
        if (&known != &rule) continue;
        const LargeFileCheck::Answer answer = large_files_.Ask(watch_id, file, places.anchors);
        if (answer != LargeFileCheck::Answer::kDifferent) break;
        SDK_LOG(ModuleLogger(), PRIO_DEBUG, "File %s not matched behind its first part. ", file);
        return Deviation::kContent;
    }
    return Deviation::kNone;
}

BackupComparer SentrelInotifyTask::Comparer(const SentrelDirRule& rule,
                                            const RulePlaces& places) const {
    return BackupComparer(places.anchors, state_.progress.AttributeKinds(rule));
}

}  // namespace Engine
