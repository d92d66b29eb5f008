#include "status/StatusPublisher.h"

#include <string_view>
#include <utility>

namespace Engine::FileNotify {

void StatusPublisher::Publish(Snapshot snapshot) {
    const std::lock_guard lock(mutex_);
    snapshot_ = std::move(snapshot);
    shown_ = applied_;
}

void StatusPublisher::NoteRequest() {
    const std::lock_guard lock(mutex_);
    ++requests_;
}

std::uint64_t StatusPublisher::Requests() const {
    const std::lock_guard lock(mutex_);
    return requests_;
}

void StatusPublisher::NoteApplied(std::uint64_t requests) {
    const std::lock_guard lock(mutex_);
    applied_ = requests;
}

void StatusPublisher::SetQueueLimit(std::uint32_t limit, const std::string& problem) {
    const std::lock_guard lock(mutex_);
    queue_limit_ = limit;
    queue_limit_problem_ = problem;
}

Json::Value StatusPublisher::Watches() const {
    Json::Value list(Json::arrayValue);
    const std::lock_guard lock(mutex_);
    for (const WatchStatus& watch : snapshot_.watches) {
        Json::Value one;
        one["id"] = watch.id;
        one["receiver"] = watch.receiver;
        one["kind"] = watch.is_tree ? "tree" : "file";
        one["directories"] = watch.directories;
        one["files"] = watch.files;
        one["unwatched"] = watch.unwatched;
        const bool is_old = shown_ != requests_ && std::string_view(watch.state) == "ready";
        one["state"] = is_old ? "walking" : watch.state;
        list.append(std::move(one));
    }
    Json::Value answer;
    answer["watches"] = std::move(list);
    return answer;
}

Json::Value StatusPublisher::Status() const {
    const auto number = [](std::uint64_t value) { return Json::Value(Json::UInt64(value)); };
    Json::Value answer;
    Json::Value& own = answer["filenotify"];
    {
        const std::lock_guard lock(mutex_);
        own["watches"] = number(snapshot_.watches.size());
        own["watched_directories"] = number(snapshot_.watched_directories);
        own["indexed_names"] = number(snapshot_.indexed_names);
        own["unwatched_directories"] = number(snapshot_.unwatched);
        own["excluded_unwatched"] = number(snapshot_.unneeded_unwatched);
        own["walk_queue"] = number(snapshot_.walk_queue);
        own["events_in_flight"] = number(snapshot_.in_flight);
        own["unwatched_examples"] = Json::Value(Json::arrayValue);
        for (const UnwatchedDirectory& directory : snapshot_.unwatched_examples) {
            Json::Value one;
            one["path"] = directory.path;
            one["reason"] = directory.reason;
            own["unwatched_examples"].append(std::move(one));
        }
        own["queue_limit"] = number(queue_limit_);
        own["queue_limit_problem"] = queue_limit_problem_;
    }
    own["pending_events"] = number(counters_.pending);
    own["watch_failures"] = number(counters_.watch_failures);
    own["watches_given_up"] = number(counters_.watches_given_up);
    Json::Value& counters = answer["counters"];
    counters["events_received"] = number(counters_.events_received);
    counters["events_delivered"] = number(counters_.events_delivered);
    counters["events_dropped"] = number(counters_.events_dropped);
    counters["events_merged"] = number(counters_.events_merged);
    counters["deletions_settled"] = number(counters_.deletions_settled);
    counters["directories_announced"] = number(counters_.directories_announced);
    counters["overflows"] = number(counters_.overflows);
    return answer;
}

}  // namespace Engine::FileNotify
