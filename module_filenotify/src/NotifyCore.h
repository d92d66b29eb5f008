#pragma once

#include <Poco/Logger.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <vector>

#include "StatusCollector.h"
#include "changes/EventTranslator.h"
#include "delivery/Delivery.h"
#include "kernel/InotifyDescriptor.h"
#include "kernel/InotifyReader.h"
#include "kernel/ReadBackoff.h"
#include "status/StatusPublisher.h"
#include "walk/TreeWalker.h"
#include "walk/UnwatchedRetry.h"

namespace Engine::FileNotify {

/// Creates and connects the module's parts and gives each its turn; has no thread of its own. Owned
/// by FileNotifyTask. Not thread-safe.
class NotifyCore {
  public:
    /// `retry_after`: the interval between retries for directories without a kernel watch.
    NotifyCore(std::unique_ptr<InotifyDescriptor> descriptor, Delivery::Post post,
               StatusPublisher& status, Poco::Logger* logger,
               std::chrono::milliseconds retry_after);
    NotifyCore(const NotifyCore&) = delete;
    NotifyCore& operator=(const NotifyCore&) = delete;
    ~NotifyCore();

    /// Opens inotify. Returns 0, or errno; may be called again after a failure.
    int Open();
    /// `events`: capacity of the kernel's queue; 0: unknown.
    void SetQueueLimit(std::uint32_t events) { backoff_.SetQueueLimit(events); }
    /// Removes all watches and closes inotify.
    void Close();
    /// The inotify descriptor; -1 while closed.
    int Fd() const { return descriptor_->Fd(); }

    /// Applies watch requests in their order. Blocks on disk reads.
    void Apply(const std::vector<WatchRequest>& requests);

    /// Becomes readable when a receiver has room again; then call ClearWake and Work.
    int WakeFd() const { return delivery_.WakeUp().Fd(); }
    void ClearWake() { delivery_.WakeUp().Drain(); }

    /// Reads all queued kernel events into memory. Does not block.
    void ReadEvents();

    /// True while the kernel's queue must not be read (ReadBackoff).
    bool IsPaused() const { return backoff_.IsPaused(Clock::now()); }

    /// Does a bounded portion of all pending work: events, delivery, walks, retries, pruning.
    /// Blocks on disk reads.
    void Work();

    /// How long the caller may wait for events before it must call Work; 0: call it now.
    std::chrono::milliseconds IdleTime() const;

    void PublishStatus();

  private:
    using Clock = std::chrono::steady_clock;

    void Flush();
    bool MayAnnounce() const;
    bool MayWalk() const;

    const std::unique_ptr<InotifyDescriptor> descriptor_;
    StatusPublisher& status_;
    Delivery delivery_;
    WatchedTree tree_;
    InotifyReader reader_;
    ReadBackoff backoff_;
    ChangeRouter router_;
    TreePruner pruner_;
    RootTracker roots_;
    TreeChanges changes_;
    TreeWalker walker_;
    UnwatchedRetry retry_;
    EventTranslator translator_;
    StatusCollector collector_;
    Clock::time_point next_publish_{};
    Clock::time_point next_flush_{};  ///< in a storm
};

}  // namespace Engine::FileNotify
