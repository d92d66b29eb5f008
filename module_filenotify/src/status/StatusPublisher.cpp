// Owns: the counters and the last snapshot. Must not own: what they describe (NotifyCore).
// Threads: the task's publishes, any thread reads. Ownership passes: Publish takes the snapshot
// over.

#include "status/StatusPublisher.h"

#include <string_view>
#include <utility>

namespace Engine::FileNotify {

namespace {

Json::Value Number(std::uint64_t value) {
    return Json::Value(Json::UInt64(value));
}

}  // namespace

void StatusPublisher::Publish(Snapshot snapshot) {
    const std::lock_guard lock(mutex_);
    snapshot_ = std::move(snapshot);
    published_requests_ = applied_requests_;
}

void StatusPublisher::CountRequest() {
    const std::lock_guard lock(mutex_);
    ++received_requests_;
}

std::uint64_t StatusPublisher::ReceivedRequests() const {
    const std::lock_guard lock(mutex_);
    return received_requests_;
}

void StatusPublisher::SetAppliedRequests(std::uint64_t requests) {
    const std::lock_guard lock(mutex_);
    applied_requests_ = requests;
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
        const bool is_outdated =
            published_requests_ != received_requests_ && std::string_view(watch.state) == "ready";
        one["state"] = is_outdated ? "walking" : watch.state;
        list.append(std::move(one));
    }
    Json::Value answer;
    answer["watches"] = std::move(list);
    return answer;
}

Json::Value StatusPublisher::Status() const {
    Json::Value answer;
    Json::Value& own = answer["filenotify"];
    AddSnapshot(own);
    own["pending_events"] = Number(counters_.pending);
    own["watch_failures"] = Number(counters_.watch_failures);
    Json::Value& counters = answer["counters"];
    counters["events_received"] = Number(counters_.events_received);
    counters["events_delivered"] = Number(counters_.events_delivered);
    counters["events_dropped"] = Number(counters_.events_dropped);
    counters["events_merged"] = Number(counters_.events_merged);
    counters["deletions_settled"] = Number(counters_.deletions_debounced);
    counters["directories_announced"] = Number(counters_.directories_announced);
    counters["overflows"] = Number(counters_.overflows);
    return answer;
}

void StatusPublisher::AddSnapshot(Json::Value& own) const {
    const std::lock_guard lock(mutex_);
    own["watches"] = Number(snapshot_.watches.size());
    own["watched_directories"] = Number(snapshot_.watched_directories);
    own["indexed_names"] = Number(snapshot_.indexed_names);
    own["unwatched_directories"] = Number(snapshot_.unwatched);
    own["walk_queue"] = Number(snapshot_.walk_queue);
    own["events_in_flight"] = Number(snapshot_.in_flight);
    own["unwatched_examples"] = Json::Value(Json::arrayValue);
    for (const UnwatchedDirectory& directory : snapshot_.unwatched_examples) {
        Json::Value one;
        one["path"] = directory.path;
        one["reason"] = directory.reason;
        own["unwatched_examples"].append(std::move(one));
    }
    own["queue_limit"] = Number(queue_limit_);
    own["queue_limit_problem"] = queue_limit_problem_;
}

}  // namespace Engine::FileNotify
