// Describes the open objects that BackupProgress records. It must not change the record. Backup
// task's thread.
#define SDK_LOG_FILE "SentrelBackupTask.cpp"
#include "feature_sentrel/backup/OpenReport.h"

#include <framework/Message.h>
#include <framework/Task.h>
#include <sdk/log/Log.h>

#include <cstring>
#include <vector>

#include "base/ModuleLogger.h"
#include "feature_sentrel/alarms/AlarmDocument.h"
#include "progress/BackupProgress.h"
#include "status/SentrelStatus.h"

namespace Engine {

namespace {

constexpr std::size_t kMostNamed = 10;
constexpr std::size_t kMostBytesOfName = 300;

std::string ReasonOf(const OpenObjects::Entry& entry) {
    return entry.error == 0 ? "too many objects in it" : std::strerror(entry.error);
}

}  // namespace

std::vector<SentrelStatus::OpenObject> OpenReport::FirstOnes(const SentrelDirRule& rule) const {
    std::vector<SentrelStatus::OpenObject> named;
    for (const auto& entry : progress_.OpenEntries(rule, kMostNamed)) {
        std::string path = rule.real_path + entry.below;
        if (path.size() > kMostBytesOfName) path = path.substr(0, kMostBytesOfName) + "...";
        named.push_back({path, ReasonOf(entry)});
    }
    return named;
}

void OpenReport::Publish(const SentrelDirRule& rule) {
    status_.NoteOpenObjects(rule.real_path, progress_.OpenCount(rule), FirstOnes(rule));
}

std::string OpenReport::Describe(const SentrelDirRule& rule) const {
    const std::size_t count = progress_.OpenCount(rule);
    std::string text = std::to_string(count) +
                       " objects could not be copied and are neither restored nor deleted: ";
    const std::vector<SentrelStatus::OpenObject> named = FirstOnes(rule);
    for (const SentrelStatus::OpenObject& one : named) {
        if (&one != named.data()) text += "; ";
        text += one.path + " (" + one.reason + ")";
    }
    if (count > named.size()) text += "; and " + std::to_string(count - named.size()) + " more";
    return text;
}

void OpenReport::Alarm(const SentrelDirRule& rule, Framework::Task& sender) {
    const std::string text = Describe(rule);
    SDK_LOG(ModuleLogger(), PRIO_WARNING, "backup (%s): %s", rule.real_path, text);
    auto* message =
        new Framework::DataMessage("2", AlarmText({rule.real_path, ALARM_UNKNOWN, text, "", {}}));
    message->SetNote({"reported only", -1, true});
    const int result = sender.SendDirectMsg("data_comm_report_task", message);
    status_.Count(result == 0 ? SentrelStatus::kAlarmsSent : SentrelStatus::kAlarmsLost);
}

}  // namespace Engine
