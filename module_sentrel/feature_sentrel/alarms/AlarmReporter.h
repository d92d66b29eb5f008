#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "feature_sentrel/alarms/Alarm.h"
#include "feature_sentrel/alarms/AlarmIndex.h"
#include "feature_sentrel/alarms/DifferenceWorker.h"
#include "feature_sentrel/alarms/MergedAlarms.h"
#include "feature_sentrel/alarms/PinnedFile.h"
#include "feature_sentrel/alarms/SentrelCacheMsg.h"
#include "feature_sentrel/attribution/WhoAsker.h"
#include "feature_sentrel/event_path/FileChange.h"

namespace Engine {

/// Owns the alarms from the moment they are raised until they are described, and hands them on in
/// the order of the changes. Merges repeats by the alarm cache. Not thread-safe; its worker
/// compares contents on a thread of its own.
class AlarmReporter {
  public:
    /// Receives a described alarm; SendNext calls it.
    using Send = std::function<void(const Alarm& alarm)>;

    /// `cache` is borrowed. The worker's thread calls `wake` when it has compared contents.
    AlarmReporter(std::list<SentrelCacheMsg>& cache, Send send, std::function<void()> wake);

    /// A new alarm of that type for that file would repeat an earlier one.
    bool IsRepeat(const std::string& file, alarm_type type);

    /// When `pinned` holds a file, keeps its content first and, unless `copy` is empty, compares it
    /// with `copy`. Leaves both out when too many files are held: descriptors must remain for other
    /// work. The alarm waits for `who`; null: it is not asked.
    void Raise(Alarm alarm, PinnedFile pinned, const std::string& copy,
               std::shared_ptr<const Attribution> who = nullptr);

    /// Keeps the content of an object that has no alarm of its own, behind all alarms. To be called
    /// while CanKeep: each waiting object holds a descriptor.
    void Keep(PinnedFile pinned, const std::string& path);
    bool CanKeep();

    /// As DifferenceWorker::KeepIn.
    void KeepIn(std::unique_ptr<Evidence::EvidenceStore> evidence) {
        worker_.KeepIn(std::move(evidence));
    }

    /// Sends the first waiting alarm. False when it is not described yet, or none waits.
    bool SendNext();

    bool IsEmpty() const { return waiting_.empty(); }
    /// Too many wait: some must be sent before other work.
    bool IsFull() const { return waiting_.size() >= kMostWaiting; }
    /// The first has waited for a second: an endless stream of changes must not delay alarms.
    bool IsOverdue() const;

    /// Sends all; those that are not described yet go without their difference.
    void Finish();

    // The cache.

    bool MergeIntoCache(const SentrelCacheMsg& msg);
    /// To be called with an alarm that MergeIntoCache has merged: it is counted and told later.
    void CountMerged(const Alarm& alarm);
    /// The counted alarms that are due.
    std::vector<Alarm> TakeMerged() { return merged_.Take(MergedAlarms::Clock::now(), kMostTold); }
    std::vector<Alarm> TakeAllMerged() { return merged_.TakeAll(); }
    void AddToCache(SentrelCacheMsg& msg);
    /// Drops entries of 61 seconds and more.
    void AgeCache(std::time_t now);

  private:
    static constexpr std::size_t kMostWaiting = 65536;
    static constexpr std::size_t kMostTold = 64;

    struct Waiting {
        std::chrono::steady_clock::time_point raised;
        Alarm alarm;
        std::shared_ptr<const Difference> difference;  ///< null: it needs none
        std::shared_ptr<const Attribution> who;        ///< the same
    };

    std::list<SentrelCacheMsg>& cache_;
    const Send send_;
    AlarmIndex index_;
    std::deque<Waiting> waiting_;
    MergedAlarms merged_;
    /// Number of waiting alarms by file and type.
    std::map<std::pair<std::string, alarm_type>, int> waiting_files_;
    std::size_t held_ = 0;  ///< number of pinned files of alarms
    std::deque<std::shared_ptr<const Difference>> kept_alone_;
    std::size_t most_held_;
    DifferenceWorker worker_;
};

}  // namespace Engine
