#pragma once

#include <json/value.h>

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "status/Counters.h"

namespace Engine::FileNotify {

/// A directory that needs a kernel watch and has none.
struct UnwatchedDirectory {
    std::string path;
    std::string reason;
};

/// The state of one watch: "waiting" for its root, "walking", "ready" or "degraded".
struct WatchStatus {
    std::string id;
    std::string receiver;
    bool is_tree = false;
    std::uint32_t directories = 0;
    std::uint32_t files = 0;
    std::uint32_t unwatched = 0;
    const char* state = "waiting";
};

/// Publishes the module's status to readers on other threads. Owned by FileNotifyTask, which
/// publishes snapshots of it. Thread-safe.
class StatusPublisher {
  public:
    struct Snapshot {
        std::vector<WatchStatus> watches;
        std::size_t watched_directories = 0;
        std::size_t indexed_names = 0;
        std::size_t unwatched = 0;
        std::size_t walk_queue = 0;
        std::size_t in_flight = 0;                           ///< posted and not handled yet
        std::vector<UnwatchedDirectory> unwatched_examples;  ///< some of them
    };

    Counters& Counts() { return counters_; }

    /// Replaces the snapshot that readers see.
    void Publish(Snapshot snapshot);

    /// `limit`: how many events the kernel queues for us; 0: unknown. `problem`: why it is smaller
    /// than configured, or empty.
    void SetQueueLimit(std::uint32_t limit, const std::string& problem);

    /// Counts a received watch request.
    void CountRequest();
    std::uint64_t ReceivedRequests() const;
    /// The next snapshot includes the first `requests` received requests.
    void SetAppliedRequests(std::uint64_t requests);

    /// The answer to "filenotify.watches". Shows no watch as "ready" while a received request is
    /// missing from the snapshot.
    Json::Value Watches() const;

    /// The answer to "status.filenotify".
    Json::Value Status() const;

  private:
    void AddSnapshot(Json::Value& own) const;

    Counters counters_;
    mutable std::mutex mutex_;
    Snapshot snapshot_;
    std::uint32_t queue_limit_ = 0;
    std::string queue_limit_problem_;
    std::uint64_t received_requests_ = 0;
    std::uint64_t applied_requests_ = 0;
    std::uint64_t published_requests_ = 0;  ///< included in snapshot_
};

}  // namespace Engine::FileNotify
