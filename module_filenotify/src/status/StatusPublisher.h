#pragma once

#include <json/value.h>

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "status/Counters.h"

namespace Engine::FileNotify {

/// A directory that should be watched and is not.
struct UnwatchedDirectory {
    std::string path;
    std::string reason;
};

struct WatchStatus {
    std::string id;
    std::string receiver;
    bool is_tree = false;
    std::uint32_t directories = 0;
    std::uint32_t files = 0;
    std::uint32_t unwatched = 0;
    const char* state = "waiting";
};

/// The last snapshot of the watches, for any thread to read without disturbing the task.
class StatusPublisher {
  public:
    struct Snapshot {
        std::vector<WatchStatus> watches;
        std::size_t watched_directories = 0;
        std::size_t indexed_names = 0;
        std::size_t unwatched = 0;
        std::size_t unneeded_unwatched = 0;  ///< excluded directories that gave way
        std::size_t walk_queue = 0;
        std::size_t in_flight = 0;                           ///< posted, and not dealt with yet
        std::vector<UnwatchedDirectory> unwatched_examples;  ///< some of them
    };

    Counters& Count() { return counters_; }
    void Publish(Snapshot snapshot);

    /// How many events the kernel keeps for us (0: not known), and why not as many as wanted.
    void SetQueueLimit(std::uint32_t limit, const std::string& problem);

    // A watch is told as it is only when the snapshot was made after the request for it.
    void NoteRequest();                        ///< one more was taken in; any thread
    std::uint64_t Requests() const;            ///< so many were taken in; any thread
    void NoteApplied(std::uint64_t requests);  ///< pictures show the first so many; task's thread

    /// The answer to "filenotify.watches". While the snapshot lacks a request, no watch is "ready".
    Json::Value Watches() const;

    /// The answer to "status.filenotify".
    Json::Value Status() const;

  private:
    Counters counters_;
    mutable std::mutex mutex_;
    Snapshot snapshot_;
    std::uint32_t queue_limit_ = 0;
    std::string queue_limit_problem_;
    std::uint64_t requests_ = 0;
    std::uint64_t applied_ = 0;
    std::uint64_t shown_ = 0;  ///< of the requests, those that snapshot_ shows
};

}  // namespace Engine::FileNotify
