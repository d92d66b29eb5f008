#pragma once

#include <framework/Message.h>

#include <chrono>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <unordered_map>

#include "feature_sentrel/alarms/AlarmIndex.h"
#include "feature_sentrel/alarms/DifferenceWorker.h"
#include "feature_sentrel/alarms/PinnedFile.h"
#include "feature_sentrel/alarms/SentrelCacheMsg.h"
#include "feature_sentrel/event_path/FileChange.h"

namespace Engine {

/// What an alarm tells.
struct Alarm {
    std::string file;
    alarm_type type = ALARM_UNKNOWN;
    std::string diff;
    std::string diff_attr;
    Framework::ReportNote note;
};

/// Owns the alarms from the moment they are raised: describes each when all that waits is put back,
/// and hands it on in the order of the changes. Merges what the alarm cache has. One thread, the
/// worker that finds out differences aside.
class AlarmReporter {
  public:
    /// Takes an alarm that is described; called by SendNext.
    using Send = std::function<void(const Alarm& alarm)>;

    /// `cache` is borrowed. `wake` is called on another thread when a difference has been found.
    AlarmReporter(std::list<SentrelCacheMsg>& cache, Send send, std::function<void()> wake);

    /// An alarm of that file raised now is merged with an earlier one.
    bool IsMergedAnyway(const std::string& file);

    /// `pinned` that holds something is compared with `copy` first; at most so many at a time
    /// that descriptors are left for all else.
    void Raise(Alarm alarm, PinnedFile pinned, const std::string& copy);

    /// Sends the first that waits; false when it is not described yet, or none waits.
    bool SendNext();

    bool IsEmpty() const { return waiting_.empty(); }
    /// More wait than there should be: some are to be sent, whatever else is to be done.
    bool IsFull() const { return waiting_.size() >= kMostWaiting; }
    /// The first has waited for a second: a change that is always followed by another must not keep
    /// alarms back.
    bool IsOverdue() const;

    /// Leaves out what is not described yet and sends all.
    void Finish();

    // The cache.

    bool MergeIntoCache(const SentrelCacheMsg& msg);
    void AddToCache(SentrelCacheMsg& msg);
    /// Drops entries of 61 seconds and more.
    void AgeCache(std::time_t now);

  private:
    static constexpr std::size_t kMostWaiting = 65536;

    struct Waiting {
        std::chrono::steady_clock::time_point raised;
        Alarm alarm;
        std::shared_ptr<const Difference> difference;  ///< null: described already
    };

    std::list<SentrelCacheMsg>& cache_;
    const Send send_;
    AlarmIndex index_;
    std::deque<Waiting> waiting_;
    std::unordered_map<std::string, int> waiting_files_;  ///< how often each waits
    std::size_t held_ = 0;                                ///< pinned that is kept hold of
    std::size_t most_held_;
    DifferenceWorker worker_;
};

}  // namespace Engine
