// Builds the texts of alarms and sends them. It must not decide what is tampering
// (SentrelEvents.cpp does) nor when an alarm is due (AlarmReporter does). A sent report belongs to
// the framework. Inotify task's thread.
#define SDK_LOG_FILE "SentrelInotifyTask.cpp"
#include <sdk/files/DirUtils.h>
#include <sdk/files/FileUtils.h>
#include <sdk/files/PathUtils.h>
#include <sdk/log/Log.h>
#include <sys/inotify.h>
#include <sys/stat.h>

#include <array>
#include <cstdio>
#include <utility>

#include "base/ModuleLogger.h"
#include "base/WorkClock.h"
#include "feature_sentrel/SentrelInotifyTask.h"
#include "feature_sentrel/alarms/AlarmDocument.h"
#include "feature_sentrel/alarms/ContentDiff.h"
#include "state/ModuleState.h"

namespace Engine {

namespace {

// Upper bound of the delay for the task's other work.
constexpr std::chrono::seconds kLongestWait{1};
constexpr int kWaitMs = 1000;

/// The text of one side of the attribute difference; `label` is "before" or " after".
std::string DescribeAttributes(const char* label, const std::string& path) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) return std::string(label) + "(uid: gid: mode: size:)";
    std::array<char, 128> text{};
    std::snprintf(text.data(), text.size(), "%s(uid:%u gid:%u mode:%s size:%ld)", label,
                  info.st_uid, info.st_gid, SDK::FileUtils::StModeToStr(info.st_mode).c_str(),
                  static_cast<long>(info.st_size));
    return text.data();
}

}  // namespace

bool SentrelInotifyTask::HandleEventBuildStr(std::string event_path, std::string moveto_file,
                                             bool is_dir, unsigned int mask, std::string& file1,
                                             std::string& file2) {
    std::string directory;
    if (!event_path.empty()) {
        file1 = std::move(event_path);
        if (file1.back() == '.') return false;
        if (is_dir) {
            file1 = SDK::PathUtils::WithTrailingSlash(std::move(file1));
            directory = file1.substr(0, file1.size() - 1);
        }
    }
    if (!moveto_file.empty()) {
        file2 = std::move(moveto_file);
        if (is_dir) file2 = SDK::PathUtils::WithTrailingSlash(std::move(file2));
    }
    if ((mask & IN_DELETE) != 0) {
        const std::string parent = SDK::PathUtils::GetDirFromPath(directory);
        if (!parent.empty() && !SDK::DirUtils::IsDir(parent)) {
            SDK_LOG(ModuleLogger(), PRIO_DEBUG, "Parent dir %s maybe deleted, filePath:%s.", parent,
                    file1);
            return false;
        }
    }
    return true;
}

std::string SentrelInotifyTask::HandleFileAttrDiff(const std::string& backup,
                                                   const std::string& changed) {
    std::string diff_attr = DescribeAttributes("before", backup);
    diff_attr += DescribeAttributes(" after", changed);
    SDK_LOG(ModuleLogger(), PRIO_DEBUG, "backup: %s, changed:%s, diff_attr:%s.", backup, changed,
            diff_attr);
    return diff_attr;
}

std::string SentrelInotifyTask::HandleFileContentDiff(const std::string& backup,
                                                      const std::string& changed) {
    return ContentDiff(backup, changed).Take();
}

bool SentrelInotifyTask::IsMessageMerged(const SentrelCacheMsg& msg) {
    return alarms_.MergeIntoCache(msg);
}

void SentrelInotifyTask::AddMessageToCache(SentrelCacheMsg& msg) {
    alarms_.AddToCache(msg);
}

void SentrelInotifyTask::CleanOldMessageFromCache() {
    alarms_.AgeCache(WorkClock::Now());
}

/// Sends alarms when no change waits: restores come first. Then it waits for alarms that are still
/// being described, unless the next change comes.
void SentrelInotifyTask::SendAlarms() {
    const auto until = std::chrono::steady_clock::now() + kLongestWait;
    while (alarms_.IsFull() && alarms_.SendNext()) {
    }
    if (alarms_.IsOverdue()) alarms_.SendNext();
    while (!alarms_.IsEmpty() && QueueLength() == 0 && !ShouldYield() &&
           std::chrono::steady_clock::now() < until) {
        if (!alarms_.SendNext()) Waiter().WaitAndHandleEvent(kWaitMs, 1);
    }
}

void SentrelInotifyTask::SentrelSendAlarm(const std::string& file_path, alarm_type type,
                                          const std::string& diff, const std::string& diff_attr) {
    SendAlarm({file_path, type, diff, diff_attr, {OutcomeText(Outcome::kNone), -1, true}});
}

void SentrelInotifyTask::SendAlarm(const Alarm& alarm) {
    SentrelStatus& status = state_.status;
    SentrelCacheMsg record = AlarmRecord(alarm.file, alarm.type);
    if (IsMessageMerged(record)) {
        status.Count(SentrelStatus::kAlarmsMerged);
        alarms_.CountMerged(alarm);
        return;
    }
    AddMessageToCache(record);
    Deliver(alarm);
}

void SentrelInotifyTask::DeliverMerged(const std::vector<Alarm>& merged) {
    for (const Alarm& alarm : merged) Deliver(alarm);
}

void SentrelInotifyTask::Deliver(const Alarm& alarm) {
    const std::string text = AlarmText(alarm);
    SDK_LOG(ModuleLogger(), PRIO_INFORMATION, "sentrel alarm:%s", text);
    auto* message = new Framework::DataMessage("2", text);
    message->SetNote(alarm.note);
    const int result = SendDirectMsg("data_comm_report_task", message);
    state_.status.Count(result == 0 ? SentrelStatus::kAlarmsSent : SentrelStatus::kAlarmsLost);
}

}  // namespace Engine
