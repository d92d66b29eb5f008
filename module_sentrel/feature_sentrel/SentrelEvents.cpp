// Decides for every change whether it is tampering. An event is only a hint: what counts is the
// file as it is now against its backup copy. Undoing is SentrelRestore.cpp's, merging of alarms
// SentrelAlarms.cpp's. Inotify task's thread.
#include <SentrelInotifyTask.h>
#include <SentrelUtils.h>
#include <module_filenotify/FileNotifyMessage.h>
#include <sdk/Log.h>
#include <sdk/PathUtils.h>
#include <sys/inotify.h>

namespace Engine {

namespace {

constexpr std::uint32_t kMoved = IN_MOVED_FROM | IN_MOVED_TO;
constexpr std::uint32_t kArrived = IN_CREATE | IN_MOVED_TO;

bool BeginsWith(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

bool EndsWith(const std::string& text, const std::string& suffix) {
    return text.size() >= suffix.size() &&
           text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

void AppendSlash(std::string& path) {
    if (path.empty() || path.back() != '/') path += '/';
}

/// The last component; of a directory as well, whose path ends in "/".
std::string FileName(const std::string& file) {
    const std::size_t last = file.find_last_not_of('/');
    if (last == std::string::npos) return file;
    const std::size_t slash = file.rfind('/', last);
    const std::size_t begin = slash == std::string::npos ? 0 : slash + 1;
    return file.substr(begin, last + 1 - begin);
}

alarm_type AlarmTypeOf(std::uint32_t mask) {
    if ((mask & IN_ATTRIB) != 0) return ALARM_ATTRIBUTE;
    if ((mask & (IN_DELETE | kMoved)) != 0) return ALARM_DELETE;
    return ALARM_MODIFY;
}

/// Names a root that was given without its "/".
void AdjustToRule(const SentrelDirRule& rule, std::string& file) {
    if (rule.is_file || EndsWith(file, "/") || file + "/" != rule.real_path) return;
    file += '/';
    SDK_LOG(ModuleLogger(), PRIO_DEBUG, "edit root path %s ", file);
}

}  // namespace

void SentrelInotifyTask::FileNotifyMessageAction(FileNotifyMessage* msg) {
    if (!SentrelUtils::GetInstance()->is_run || msg == nullptr) {
        SDK_LOG(ModuleLogger(), PRIO_DEBUG, "inot not run");
        return;
    }
    current_event_ = CurrentEvent();
    current_event_.source = {msg->GetWatchFile(), msg->GetEventFilePath(), msg->GetRawMask(),
                             msg->GetReadTime()};
    const std::uint32_t mask = msg->GetEventMask();
    const bool is_dir = (msg->GetRawMask() & IN_ISDIR) != 0;
    const std::string& watch_file = msg->GetWatchFile();
    std::string file1;
    std::string file2;
    if (!HandleEventBuildStr(msg->GetEventFilePath(), msg->GetMovetoFile(), is_dir, mask, file1,
                             file2)) {
        return;
    }
    SDK_LOG(ModuleLogger(), PRIO_DEBUG,
            "WatchFile %s, file1 (%s), file2 (%s), dir (%s), optype (0x%x)", watch_file, file1,
            file2, std::string(is_dir ? "true" : "false"), mask);
    const auto found = watch_rules.find(watch_file);
    if (found == watch_rules.end()) {
        SDK_LOG(ModuleLogger(), PRIO_DEBUG, "Find watch file (%s) faild.", watch_file);
        return;
    }
    const SentrelDirRule& rule = found->second;
    AdjustToRule(rule, file1);
    // A restore of "" would be one of the whole file system.
    if (file1.empty() || !HandleMoveEvent(rule, msg, file1)) return;
    HandleFileEvent(rule, RulePath(rule), mask, file1);
}

std::string SentrelInotifyTask::RulePath(const SentrelDirRule& rule) {
    if (!rule.is_file) return rule.real_path;
    std::string directory = SDK::PathUtils::GetDirFromPath(rule.real_path);
    AppendSlash(directory);
    return directory;
}

bool SentrelInotifyTask::HandleMoveEvent(const SentrelDirRule& rule, FileNotifyMessage* msg,
                                         const std::string& path) {
    if (path.empty() || (msg->GetEventMask() & kMoved) == 0) return true;
    if (IsMoveIgnored(rule, path)) return true;
    SettleBefore(path);
    bool exists = false;
    BackupFileInfo info;
    if (!GetBackupFileInfo(path, rule, exists, info)) {
        SDK_LOG(ModuleLogger(), PRIO_ERROR, "Get file/dir %s attar failed.", path);
        KeepFailed(current_event_.source, path, "");
        return false;
    }
    // A restore ends with a move as well: to answer that with a restore would double each of them.
    if (exists && own_restores_.MayEcho(path, msg->GetReadTime()) &&
        !DiffersFromBackup(path, info)) {
        SDK_LOG(ModuleLogger(), PRIO_DEBUG, "File/Dir %s updated.", path);
        return false;
    }
    AutoRestoreFile(rule, exists, !exists, path);
    RaiseAlarm(rule, path, exists ? ALARM_MODIFY : ALARM_ADD);
    return true;
}

bool SentrelInotifyTask::IsMoveIgnored(const SentrelDirRule& rule, const std::string& path) {
    bool ignored = false;
    if (!rule.is_file) {
        for (const std::string& subdir : rule.ignored_subdir) {
            if (!BeginsWith(path, rule.real_path + subdir)) continue;
            SDK_LOG(ModuleLogger(), PRIO_DEBUG, "%s is a ignored.", path);
            ignored = true;
        }
    }
    for (const std::string& prefix : SentrelUtils::GetInstance()->other_rule_prefixes) {
        if (!BeginsWith(path, prefix)) continue;
        SDK_LOG(ModuleLogger(), PRIO_DEBUG, "%s is ignored in other rules.", path);
        ignored = true;
    }
    return ignored;
}

void SentrelInotifyTask::HandleFileEvent(const SentrelDirRule& rule, const std::string& rule_path,
                                         std::uint32_t mask, const std::string& file) {
    SDK_LOG(ModuleLogger(), PRIO_DEBUG, "HandleEventMainFile1 check file %s.", file);
    if (IsIgnored(rule, rule_path, file)) {
        if ((mask & (IN_MODIFY | IN_ATTRIB)) != 0) NoteOtherNames(file);
        return;
    }
    SettleBefore(file);
    NoteVanished(mask, file);
    bool exists = false;
    BackupFileInfo info;
    if (!GetBackupFileInfo(file, rule, exists, info)) {
        SDK_LOG(ModuleLogger(), PRIO_ERROR, "Get file/dir %s attar failed.", file);
        KeepFailed(current_event_.source, file, "");
        return;
    }
    if (!exists) {
        HandleUnknownFile(rule, mask, file);
        return;
    }
    const bool came_or_went = (mask & (kArrived | IN_DELETE)) != 0;
    if (!DiffersFromBackup(file, info) && !(came_or_went && LacksContent(rule, file))) {
        SDK_LOG(ModuleLogger(), PRIO_DEBUG, "File/Dir %s updated.", file);
        return;
    }
    AutoRestoreFile(rule, true, (mask & kArrived) != 0, file);
    RaiseAlarm(rule, file, AlarmTypeOf(mask));
}

bool SentrelInotifyTask::IsIgnored(const SentrelDirRule& rule, const std::string& rule_path,
                                   const std::string& file) {
    for (const std::string& subdir : rule.ignored_subdir) {
        const std::string full = rule_path + subdir;
        SDK_LOG(ModuleLogger(), PRIO_DEBUG,
                "HandleEventMainFile1 check ignore dir real:%s, full:%s.", subdir, full);
        if (!BeginsWith(file, full)) continue;
        SDK_LOG(ModuleLogger(), PRIO_DEBUG, "%s is a ignored %s.", file, subdir);
        return true;
    }
    for (const std::string& prefix : SentrelUtils::GetInstance()->other_rule_prefixes) {
        if (!BeginsWith(file, prefix)) continue;
        SDK_LOG(ModuleLogger(), PRIO_DEBUG, "%s is ignored in other rules %s.", file, prefix);
        return true;
    }
    const std::string name = FileName(file);
    for (const std::string& postfix : rule.ignored_postfix) {
        SDK_LOG(ModuleLogger(), PRIO_DEBUG, "HandleEventMainFile1 check ext:%s, fileName:%s.",
                postfix, name);
        if (!EndsWith(name, postfix)) continue;
        SDK_LOG(ModuleLogger(), PRIO_DEBUG, "%s is ignored in ext rules %s.", file, postfix);
        return true;
    }
    return false;
}

void SentrelInotifyTask::HandleUnknownFile(const SentrelDirRule& rule, std::uint32_t mask,
                                           const std::string& file) {
    if ((mask & IN_DELETE) != 0) {
        SDK_LOG(ModuleLogger(), PRIO_DEBUG, "File/Dir %s deleted by update or restore.", file);
        return;
    }
    AutoRestoreFile(rule, false, (mask & kArrived) != 0, file);
    RaiseAlarm(rule, file, ALARM_ADD);
}

}  // namespace Engine
