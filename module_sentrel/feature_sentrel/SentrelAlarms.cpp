// Owns the alarms of the last minute, as a burst of changes of one file gives one report, and the
// one that is still being described. It must not decide what is tampering (SentrelEvents.cpp). A
// report belongs to the framework once it is sent. Inotify task's thread.
#include <Poco/String.h>
#include <SentrelInotifyTask.h>
#include <SentrelStatus.h>
#include <SentrelUtils.h>
#include <WorkClock.h>
#include <json/value.h>
#include <sdk/CryptoCodeUtils.h>
#include <sdk/JsonUtils.h>
#include <sdk/Log.h>
#include <sdk/TimeUtils.h>

#include <utility>

namespace Engine {

namespace {

constexpr std::size_t kCacheLimit = 1024;
constexpr std::time_t kMergeSeconds = 61;

const char* ActionOf(alarm_type type) {
    switch (type) {
        case ALARM_ADD:
            return "add";
        case ALARM_DELETE:
            return "delete";
        case ALARM_MODIFY:
            return "modify";
        case ALARM_ATTRIBUTE:
            return "attribute";
        default:
            return "unknown";
    }
}

SentrelCacheMsg CacheRecord(const std::string& file_path, alarm_type type) {
    SentrelCacheMsg record;
    record.occur_time = SDK::TimeUtils::GetCurrentTimestampS();
    record.count = 1;
    record.type = type;
    for (const alarm_type any :
         {ALARM_ADD, ALARM_DELETE, ALARM_MODIFY, ALARM_ATTRIBUTE, ALARM_UNKNOWN}) {
        record.type_counts[any] = 0;
    }
    record.file_path = file_path;
    return record;
}

Json::Value AlarmDocument(const std::string& file_path, alarm_type type, const std::string& diff,
                          const std::string& diff_attr) {
    Json::Value alarm(Json::objectValue);
    alarm["event_id"] = SDK::CryptoCodeUtils::GenerateUUID();
    alarm["event_classid"] = "sentrel_0001";
    alarm["event_name"] = "Linux web tamper protection";
    alarm["occur_time"] = static_cast<Json::Int64>(SDK::TimeUtils::GetCurrentTimestampS());
    alarm["event_category"] = 8000;
    alarm["event_type"] = 8003;
    alarm["severity"] = 2;
    alarm["event_count"] = 1;
    alarm["attack_phase"] = 4;
    alarm["attack_tag"] = 3;
    alarm["confidence"] = 70;
    alarm["detect_module"] = "sentrel_module";
    Json::Value file(Json::objectValue);
    file["file_path"] = file_path;
    file["action"] = ActionOf(type);
    file["diff"] = diff;
    file["diff_attr"] = diff_attr;
    alarm["file_info"].append(std::move(file));
    return alarm;
}

double MillisecondsSince(std::chrono::steady_clock::time_point start) {
    if (start == std::chrono::steady_clock::time_point{}) return -1;
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
        .count();
}

}  // namespace

bool SentrelInotifyTask::IsMessageMerged(const SentrelCacheMsg& msg) {
    for (SentrelCacheMsg* cached : alarm_index_.Find(alarm_cache, msg.file_path)) {
        if (cached->merge_key != msg.merge_key) continue;
        const auto counter = cached->type_counts.find(msg.type);
        if (counter == cached->type_counts.end()) continue;
        ++cached->count;
        ++counter->second;
        return true;
    }
    return false;
}

void SentrelInotifyTask::AddMessageToCache(SentrelCacheMsg& msg) {
    if (alarm_cache.size() > kCacheLimit) alarm_index_.PopFront(alarm_cache);
    SDK_LOG(ModuleLogger(), PRIO_DEBUG, "add msg to cache: [%?d] %s", msg.occur_time,
            msg.file_path);
    msg.type_counts[msg.type] = 1;
    alarm_index_.PushBack(alarm_cache, msg);
}

void SentrelInotifyTask::CleanOldMessageFromCache() {
    const std::time_t now = WorkClock::Now();
    while (!alarm_cache.empty()) {
        const SentrelCacheMsg& oldest = alarm_cache.front();
        const std::time_t age =
            now > oldest.occur_time ? now - oldest.occur_time : oldest.occur_time - now;
        if (age < kMergeSeconds) return;
        SDK_LOG(ModuleLogger(), PRIO_DEBUG, "clean old msg from cache: [%?d] %s [%?u]",
                oldest.occur_time, oldest.file_path, oldest.count);
        alarm_index_.PopFront(alarm_cache);
    }
}

/// When more changes wait, how this one differed is found out while the next is put back; the
/// evidence lasts as long as that takes.
void SentrelInotifyTask::RaiseAlarm(const SentrelDirRule& rule, const std::string& file,
                                    alarm_type type) {
    SendPendingAlarm();
    const SentrelUtils* utils = SentrelUtils::GetInstance();
    PendingAlarm alarm;
    alarm.file = file;
    alarm.type = type;
    alarm.lost_directory = current_event_.lost_directory;
    alarm.note = NoteOfEvent();
    alarm.evidence = std::move(current_event_.evidence);
    alarm.restore = std::move(current_event_.restore);
    const std::string backup = rule.backup_path + file;
    const std::string changed = alarm.evidence.Path();
    if (utils->diff_attr) alarm.diff_attr = HandleFileAttrDiff(backup, changed);
    const bool more_wait = QueueLength() > 0;
    if (utils->diff_content && !changed.empty()) {
        alarm.diff = more_wait ? ContentDiff(backup, changed)
                               : ContentDiff(HandleFileContentDiff(backup, changed));
    }
    pending_alarm_ = std::move(alarm);
    if (!more_wait) SendPendingAlarm();
}

void SentrelInotifyTask::SendPendingAlarm() {
    if (!pending_alarm_) return;
    PendingAlarm alarm = std::move(*pending_alarm_);
    pending_alarm_.reset();
    if (alarm.restore) {
        alarm.note.outcome = ConcludeRestore(*alarm.restore);
        alarm.note.duration_ms = MillisecondsSince(alarm.restore->source.read_time);
    }
    // diff names the files that it calls different without showing how.
    std::string diff = alarm.diff.Take();
    const std::string held = alarm.evidence.Path();
    if (!held.empty()) Poco::replaceInPlace(diff, held, alarm.file);
    SendAlarm(alarm.file, alarm.type, diff, alarm.diff_attr, alarm.note);
    // Its own event will find it put right.
    if (!alarm.lost_directory.empty()) {
        SendAlarm(alarm.lost_directory, ALARM_DELETE, "", "", alarm.note);
    }
}

Framework::ReportNote SentrelInotifyTask::NoteOfEvent() const {
    return {current_event_.outcome, MillisecondsSince(current_event_.source.read_time), true};
}

void SentrelInotifyTask::SentrelSendAlarm(const std::string& file_path, alarm_type type,
                                          const std::string& diff, const std::string& diff_attr) {
    SendAlarm(file_path, type, diff, diff_attr, NoteOfEvent());
}

void SentrelInotifyTask::SendAlarm(const std::string& file_path, alarm_type type,
                                   const std::string& diff, const std::string& diff_attr,
                                   const Framework::ReportNote& note) {
    SentrelStatus& status = SentrelStatus::Instance();
    SentrelCacheMsg record = CacheRecord(file_path, type);
    if (IsMessageMerged(record)) {
        status.Count(SentrelStatus::kAlarmsMerged);
        return;
    }
    AddMessageToCache(record);
    const std::string text =
        SDK::JsonUtils::JsonToString(AlarmDocument(file_path, type, diff, diff_attr));
    SDK_LOG(ModuleLogger(), PRIO_INFORMATION, "sentrel alarm:%s", text);
    auto* message = new Framework::DataMessage("2", text);
    message->SetNote(note);
    const int result = SendDirectMsg("data_comm_report_task", message);
    status.Count(result == 0 ? SentrelStatus::kAlarmsSent : SentrelStatus::kAlarmsLost);
}

}  // namespace Engine
