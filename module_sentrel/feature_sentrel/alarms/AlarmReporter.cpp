// Owns the waiting alarms and the index of the alarm cache. It must not decide what is tampering
// (the inotify task does) nor build documents (AlarmDocument does). Inotify task's thread.
#define SDK_LOG_FILE "SentrelInotifyTask.cpp"
#include "feature_sentrel/alarms/AlarmReporter.h"

#include <sdk/log/Log.h>
#include <sys/resource.h>

#include <algorithm>
#include <utility>

#include "base/ModuleLogger.h"

namespace Engine {

namespace {

constexpr std::size_t kCacheLimit = 1024;
constexpr std::time_t kMergeSeconds = 61;
constexpr std::size_t kMostHeld = 4096;
constexpr std::chrono::seconds kLongestWait{1};

/// Half of the process's limit of descriptors, and kMostHeld at most.
std::size_t MostHeld() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return kMostHeld / 16;
    return std::min<std::size_t>(kMostHeld, limit.rlim_cur / 2);
}

}  // namespace

AlarmReporter::AlarmReporter(std::list<SentrelCacheMsg>& cache, Send send,
                             std::function<void()> wake)
    : cache_(cache), send_(std::move(send)), most_held_(MostHeld()), worker_(std::move(wake)) {}

bool AlarmReporter::IsRepeat(const std::string& file, alarm_type type) {
    if (waiting_files_.count({file, type}) != 0) return true;
    const AlarmIndex::Entries& cached = index_.Find(cache_, file);
    return std::any_of(cached.begin(), cached.end(), [&](const SentrelCacheMsg* entry) {
        const auto counter = entry->type_counts.find(type);
        return counter != entry->type_counts.end() && counter->second > 0;
    });
}

void AlarmReporter::Raise(Alarm alarm, PinnedFile pinned, const std::string& copy,
                          std::shared_ptr<const Attribution> who) {
    Waiting waiting{std::chrono::steady_clock::now(), std::move(alarm), nullptr, std::move(who)};
    if (!pinned.Path().empty()) {
        if (held_ < most_held_) {
            waiting.difference =
                worker_.Ask(std::move(pinned), copy, waiting.alarm.file, !copy.empty());
            ++held_;
        } else if (!copy.empty()) {
            waiting.alarm.note.outcome += "; difference left out";
        }
    }
    ++waiting_files_[{waiting.alarm.file, waiting.alarm.type}];
    waiting_.push_back(std::move(waiting));
}

void AlarmReporter::Keep(PinnedFile pinned, const std::string& path) {
    kept_alone_.push_back(worker_.Keep(std::move(pinned), path));
}

bool AlarmReporter::CanKeep() {
    while (!kept_alone_.empty() && kept_alone_.front()->IsReady()) kept_alone_.pop_front();
    return kept_alone_.size() < most_held_ / 2;
}

bool AlarmReporter::IsOverdue() const {
    return !waiting_.empty() &&
           std::chrono::steady_clock::now() - waiting_.front().raised >= kLongestWait;
}

bool AlarmReporter::SendNext() {
    if (waiting_.empty()) return false;
    Waiting& first = waiting_.front();
    if (first.who != nullptr) {
        if (!first.who->IsReady()) return false;
        first.alarm.note.who = first.who->Text();
    }
    if (first.difference != nullptr) {
        if (!first.difference->IsReady()) return false;
        --held_;
        first.alarm.diff = first.difference->Text();
        first.alarm.note.evidence = first.difference->EvidenceId();
        if (first.difference->IsLeftOut()) first.alarm.note.outcome += "; difference left out";
    }
    const Waiting done = std::move(first);
    waiting_.pop_front();
    const auto same = waiting_files_.find({done.alarm.file, done.alarm.type});
    if (--same->second == 0) waiting_files_.erase(same);
    send_(done.alarm);
    return true;
}

void AlarmReporter::Finish() {
    worker_.Stop();
    while (SendNext()) {
    }
}

bool AlarmReporter::MergeIntoCache(const SentrelCacheMsg& msg) {
    for (SentrelCacheMsg* cached : index_.Find(cache_, msg.file_path)) {
        if (cached->merge_key != msg.merge_key) continue;
        const auto counter = cached->type_counts.find(msg.type);
        if (counter == cached->type_counts.end()) continue;
        ++cached->count;
        ++counter->second;
        return true;
    }
    return false;
}

void AlarmReporter::CountMerged(const Alarm& alarm) {
    const AlarmIndex::Entries& cached = index_.Find(cache_, alarm.file);
    const bool is_new_type =
        std::none_of(cached.begin(), cached.end(), [&](const SentrelCacheMsg* entry) {
            const auto counter = entry->type_counts.find(alarm.type);
            return counter != entry->type_counts.end() && counter->second > 1;
        });
    merged_.Add(alarm, is_new_type, MergedAlarms::Clock::now());
}

void AlarmReporter::AddToCache(SentrelCacheMsg& msg) {
    if (cache_.size() > kCacheLimit) index_.PopFront(cache_);
    SDK_LOG(ModuleLogger(), PRIO_DEBUG, "add msg to cache: [%?d] %s", msg.occur_time,
            msg.file_path);
    msg.type_counts[msg.type] = 1;
    index_.PushBack(cache_, msg);
}

void AlarmReporter::AgeCache(std::time_t now) {
    while (!cache_.empty()) {
        const SentrelCacheMsg& oldest = cache_.front();
        const std::time_t age =
            now > oldest.occur_time ? now - oldest.occur_time : oldest.occur_time - now;
        if (age < kMergeSeconds) return;
        SDK_LOG(ModuleLogger(), PRIO_DEBUG, "clean old msg from cache: [%?d] %s [%?u]",
                oldest.occur_time, oldest.file_path, oldest.count);
        index_.PopFront(cache_);
    }
}

}  // namespace Engine
