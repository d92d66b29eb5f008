#pragma once

#include <sdk/files/FilePair.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "feature_sentrel/event_path/FileChange.h"
#include "places/RuleAnchors.h"

namespace Engine {

/// Compares large files with their copies as a whole: the comparison of an event covers only their
/// first part. Works on a thread of its own, which gives way to all others and reads at a limited
/// rate. Files take turns, so that a huge one does not delay the others.
///
/// Remembers the results by the state of both files: an unchanged pair is not read again. A file
/// that has changed just now is read once more later: writes through a mapping set the ctime only
/// once until the kernel has written the page. One thread makes and uses it; its own thread lives
/// from the first request to Stop.
class LargeFileCheck {
  public:
    using Clock = std::chrono::steady_clock;

    struct Limits {
        std::size_t waiting = 1024;  ///< files
        std::size_t results = 65536;
        off_t bytes_per_second = 64 * 1024 * 1024;
        off_t bytes_per_turn = 256 * 1024 * 1024;
        std::chrono::seconds settled_after{60};  ///< since the last change (ctime)
    };
    enum class Answer {
        kEqual,
        kDifferent,
        kLater,  ///< it is or will be compared; TakeDifferent tells when it differs
    };

    /// The worker's thread calls `finished` when a file differs; it must not block.
    explicit LargeFileCheck(std::function<void()> finished)
        : LargeFileCheck(std::move(finished), Limits()) {}
    LargeFileCheck(std::function<void()> finished, Limits limits);
    ~LargeFileCheck();
    LargeFileCheck(const LargeFileCheck&) = delete;
    LargeFileCheck& operator=(const LargeFileCheck&) = delete;

    /// What is known of the content of `path`, whose attributes equal those of its copy. Asks for
    /// a comparison where nothing is known. Does not block.
    Answer Ask(const std::string& watch_id, const std::string& path,
               std::shared_ptr<const AnchoredRule> anchors);

    /// The files that were found to differ since the last call, as changes to be judged.
    std::vector<FileChange> TakeDifferent();

    /// Once few wait: the watches for whose files there was no room. They must be asked for
    /// again.
    std::set<std::string> TakeLeftOut();

    std::size_t Waiting() const;
    std::uint64_t BytesCompared() const { return bytes_; }

    /// Interrupts the comparison under way, drops all that waits, and joins.
    void Stop();

  private:
    struct Job {
        std::string watch_id;
        std::string path;
        std::shared_ptr<const AnchoredRule> anchors;
        Clock::time_point asked{};
        Clock::time_point due{};
        std::time_t begun = 0;  ///< the comparison of `state`, by the wall clock
        SDK::FilePair::State state = {};
        off_t compared = 0;      ///< bytes of `state`
        unsigned unsettled = 0;  ///< how often the file changed meanwhile
    };
    using Name = std::pair<std::string, std::string>;  ///< watch id, path
    enum class Progress { kEqual, kDifferent, kMore, kUnsettled, kGone };

    void Work();
    bool TakeNext(Job& next);
    Progress Compare(Job& job);
    Progress CompareTurn(const SDK::FilePair& pair, Job& job);
    bool Pace(Clock::time_point begun, off_t bytes);
    void Conclude(Job job, Progress progress);
    bool IsSettled(const Job& job) const;
    void Remember(const SDK::FilePair::State& state, bool is_equal);

    const std::function<void()> finished_;
    const Limits limits_;
    std::thread thread_;
    std::atomic<std::uint64_t> bytes_{0};
    mutable std::mutex mutex_;  ///< guards all below
    std::condition_variable changed_;
    bool stopping_ = false;
    std::deque<Job> waiting_;
    std::set<Name> names_;  ///< of waiting_ and of the one under way
    std::vector<FileChange> different_;
    std::set<std::string> left_out_;
    std::map<SDK::FilePair::State, bool> results_;  ///< true: equal
    std::deque<SDK::FilePair::State> by_age_;       ///< the keys of results_
};

}  // namespace Engine
