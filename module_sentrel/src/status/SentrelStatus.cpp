// Owns the counters and the snapshots of the status. It must not read the settings (the caller of
// the query passes them) nor decide anything. Any thread, under a lock.
#include "status/SentrelStatus.h"

#include <sdk/text/JsonUtils.h>
#include <sdk/time/TimeUtils.h>

#include <algorithm>
#include <utility>

#include "status/WatchList.h"

namespace Engine {

namespace {

Json::Value TimeOrNull(std::int64_t seconds) {
    return seconds == 0 ? Json::Value() : Json::Value(static_cast<Json::Int64>(seconds));
}

}  // namespace

void SentrelStatus::CountUndone(Counter counter) {
    Count(counter);
    last_undone_ = SDK::TimeUtils::GetCurrentTimestampS();
}

void SentrelStatus::SetProtectionOn(bool monitor_only, int backup_type,
                                    const std::list<SentrelDirRule>& rules) {
    const std::lock_guard<std::mutex> lock(mutex_);
    on_ = true;
    monitor_only_ = monitor_only;
    backup_type_ = backup_type;
    exclusions_.clear();
    std::map<std::string, History> kept;
    for (const SentrelDirRule& rule : rules) {
        const auto known = history_.find(rule.real_path);
        if (known != history_.end()) kept.insert(*known);
        if (rule.is_file) continue;
        for (const std::string& subdir : rule.ignored_subdir) {
            exclusions_[rule.real_path].push_back(rule.real_path + subdir);
        }
    }
    history_ = std::move(kept);
}

void SentrelStatus::SetProtectionOff() {
    const std::lock_guard<std::mutex> lock(mutex_);
    on_ = false;
    exclusions_.clear();
}

Json::Value SentrelStatus::ExclusionsOf(const Json::Value& request) const {
    Json::Value answer(Json::objectValue);
    Json::Value& prefixes = answer["prefixes"] = Json::Value(Json::arrayValue);
    const std::string path = SDK::JsonUtils::GetStringValue(request, "path", "");
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto known = exclusions_.find(path);
    if (known == exclusions_.end()) return answer;
    for (const std::string& prefix : known->second) prefixes.append(prefix);
    return answer;
}

bool SentrelStatus::IsMonitorOnly() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return monitor_only_;
}

std::vector<SentrelDirRule> SentrelStatus::Rules() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    std::vector<SentrelDirRule> rules;
    for (const ProtectedPath& path : paths_) rules.push_back(path.rule);
    return rules;
}

void SentrelStatus::PublishPaths(std::vector<ProtectedPath> paths) {
    const std::lock_guard<std::mutex> lock(mutex_);
    paths_ = std::move(paths);
}

void SentrelStatus::NoteLocalBackup(const std::string& real_path) {
    const std::lock_guard<std::mutex> lock(mutex_);
    history_[real_path].last_local_backup = SDK::TimeUtils::GetCurrentTimestampS();
}

void SentrelStatus::NoteAdoptedBackup(const std::string& real_path, std::int64_t seconds) {
    const std::lock_guard<std::mutex> lock(mutex_);
    history_[real_path].last_local_backup = seconds;
}

void SentrelStatus::NoteRemoteBackup(const std::string& real_path) {
    const std::lock_guard<std::mutex> lock(mutex_);
    history_[real_path].last_remote_backup = SDK::TimeUtils::GetCurrentTimestampS();
}

void SentrelStatus::PublishBacklog(std::size_t deferred, std::size_t failed, std::size_t trees,
                                   std::size_t given_up) {
    deferred_ = deferred;
    failed_ = failed;
    trees_ = trees;
    given_up_ = given_up;
}

void SentrelStatus::PublishLargeFiles(std::size_t waiting, std::uint64_t bytes_compared) {
    large_files_ = waiting;
    large_bytes_ = bytes_compared;
}

void SentrelStatus::NoteFailure(const std::string& real_path, const std::string& text) {
    const std::lock_guard<std::mutex> lock(mutex_);
    History& history = history_[real_path];
    history.last_failure = text;
    history.last_failure_at = SDK::TimeUtils::GetCurrentTimestampS();
}

void SentrelStatus::NoteOpenObjects(const std::string& real_path, std::size_t count,
                                    std::vector<OpenObject> named) {
    const std::lock_guard<std::mutex> lock(mutex_);
    History& history = history_[real_path];
    history.open_objects = count;
    history.named_open_objects = std::move(named);
}

void SentrelStatus::NoteAttributesLeftOut(const std::string& real_path, const std::string& kinds) {
    const std::lock_guard<std::mutex> lock(mutex_);
    history_[real_path].attributes_left_out = kinds;
}

void SentrelStatus::SetProblem(const std::string& real_path, const std::string& text) {
    const std::lock_guard<std::mutex> lock(mutex_);
    history_[real_path].problem = text;
}

void SentrelStatus::NoteLook(const std::string& real_path, std::chrono::milliseconds duration,
                             std::size_t seen, std::size_t found) {
    counters_[kLooks].fetch_add(1, std::memory_order_relaxed);
    counters_[kFoundByLooks].fetch_add(found, std::memory_order_relaxed);
    const std::lock_guard<std::mutex> lock(mutex_);
    History& history = history_[real_path];
    history.last_look = SDK::TimeUtils::GetCurrentTimestampS();
    history.look_duration = duration;
    history.look_seen = seen;
    history.look_found = found;
}

void SentrelStatus::NoteCheck(const std::string& real_path, const Check& check) {
    const std::lock_guard<std::mutex> lock(mutex_);
    History& history = history_[real_path];
    history.last_check = SDK::TimeUtils::GetCurrentTimestampS();
    history.check = check;
}

Json::Value SentrelStatus::ToJson(const Json::Value& watches, const RunFlags& flags) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    Json::Value answer(Json::objectValue);
    answer["protection"]["on"] = on_;
    answer["protection"]["monitor_only"] = monitor_only_;
    answer["protection"]["working"] = on_ && flags.is_run;
    answer["protection"]["last_undone"] = TimeOrNull(last_undone_);
    answer["protected_paths"] = PathsToJson(watches);
    answer["backup"]["type"] = backup_type_;
    answer["backup"]["local_pending"] = on_ && flags.local_backup_pending;
    answer["backup"]["remote_pending"] = on_ && flags.remote_backup_pending;
    answer["backlog"]["deferred"] = static_cast<Json::UInt64>(deferred_);
    answer["backlog"]["failed"] = static_cast<Json::UInt64>(failed_);
    answer["backlog"]["trees_to_compare"] = static_cast<Json::UInt64>(trees_);
    answer["backlog"]["given_up"] = static_cast<Json::UInt64>(given_up_);
    answer["backlog"]["large_files"] = static_cast<Json::UInt64>(large_files_);
    answer["undo_latency"] = undo_latency_.ToJson();
    answer["counters"] = CountersToJson();
    answer["counters"]["large_file_bytes"] = static_cast<Json::UInt64>(large_bytes_);
    return answer;
}

Json::Value SentrelStatus::PathsToJson(const Json::Value& watches) const {
    Json::Value list(Json::arrayValue);
    for (const ProtectedPath& path : paths_) {
        const Json::Value watch = FindWatch(watches, path.watch_id);
        const auto known = history_.find(path.rule.real_path);
        const History history = known == history_.end() ? History{} : known->second;
        Json::Value entry(Json::objectValue);
        entry["path"] = path.rule.real_path;
        entry["configured_path"] = path.rule.filepath;
        entry["kind"] = path.rule.is_file ? "file" : "tree";
        entry["backup_path"] = path.rule.backup_path;
        entry["auto_restore"] = path.rule.auto_restore;
        entry["watched_directories"] = watch.isNull() ? Json::Value(0) : watch["directories"];
        entry["state"] = watch.isNull() ? Json::Value("unwatched") : watch["state"];
        entry["last_local_backup"] = TimeOrNull(history.last_local_backup);
        entry["last_remote_backup"] = TimeOrNull(history.last_remote_backup);
        entry["last_failure"] = history.last_failure;
        entry["last_failure_at"] = TimeOrNull(history.last_failure_at);
        entry["open_objects"] = OpenObjectsToJson(history);
        entry["problem"] = history.problem;
        entry["attributes_not_compared"] = history.attributes_left_out;
        entry["last_look"] = LookToJson(history);
        entry["last_check"] = CheckToJson(history);
        list.append(std::move(entry));
    }
    return list;
}

Json::Value SentrelStatus::OpenObjectsToJson(const History& history) {
    Json::Value open(Json::objectValue);
    open["count"] = static_cast<Json::UInt64>(history.open_objects);
    open["examples"] = Json::Value(Json::arrayValue);
    for (const OpenObject& one : history.named_open_objects) {
        Json::Value example(Json::objectValue);
        example["path"] = one.path;
        example["reason"] = one.reason;
        open["examples"].append(std::move(example));
    }
    return open;
}

Json::Value SentrelStatus::LookToJson(const History& history) {
    if (history.last_look == 0) return {};
    Json::Value look(Json::objectValue);
    look["ended_at"] = static_cast<Json::Int64>(history.last_look);
    look["duration_ms"] = static_cast<Json::Int64>(history.look_duration.count());
    look["objects"] = static_cast<Json::UInt64>(history.look_seen);
    look["found"] = static_cast<Json::UInt64>(history.look_found);
    return look;
}

Json::Value SentrelStatus::CheckToJson(const History& history) {
    if (history.last_check == 0) return {};
    Json::Value check(Json::objectValue);
    check["ended_at"] = static_cast<Json::Int64>(history.last_check);
    check["full"] = history.check.is_full;
    check["duration_ms"] = static_cast<Json::Int64>(history.check.duration.count());
    check["objects"] = static_cast<Json::UInt64>(history.check.objects);
    check["bytes"] = static_cast<Json::UInt64>(history.check.bytes);
    check["found"] = static_cast<Json::UInt64>(history.check.found);
    return check;
}

Json::Value SentrelStatus::CountersToJson() const {
    static constexpr std::array<const char*, kCounterCount> kNames = {
        "restores_done",   "restores_failed",
        "removals_done",   "removals_failed",
        "alarms_sent",     "alarms_merged",
        "alarms_lost",     "planted_links_removed",
        "events_deferred", "deferred_overflows",
        "retries",         "retries_given_up",
        "trees_compared",  "looks",
        "found_by_looks"};
    Json::Value counters(Json::objectValue);
    for (std::size_t at = 0; at < kNames.size(); ++at) {
        counters[kNames[at]] =
            static_cast<Json::UInt64>(counters_[at].load(std::memory_order_relaxed));
    }
    return counters;
}

void SentrelStatus::Reset() {
    for (auto& counter : counters_) counter = 0;
    undo_latency_.Reset();
    last_undone_ = 0;
    PublishBacklog(0, 0, 0, 0);
    PublishLargeFiles(0, 0);
    const std::lock_guard<std::mutex> lock(mutex_);
    on_ = false;
    monitor_only_ = false;
    backup_type_ = 0;
    paths_.clear();
    history_.clear();
    exclusions_.clear();
}

}  // namespace Engine
