#pragma once

#include <Poco/Logger.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "changes/EventTranslator.h"
#include "delivery/Delivery.h"
#include "kernel/InotifyDescriptor.h"
#include "kernel/InotifyReader.h"
#include "kernel/ReadBackoff.h"
#include "status/StatusPublisher.h"
#include "walk/TreeWalker.h"

namespace Engine::FileNotify {

/// The parts of the watching, put together, without the thread that runs them. One thread.
class NotifyCore {
  public:
    NotifyCore(std::unique_ptr<InotifyDescriptor> descriptor, Delivery::Post post,
               StatusPublisher& status, Poco::Logger* logger,
               std::chrono::milliseconds retry_after);
    NotifyCore(const NotifyCore&) = delete;
    NotifyCore& operator=(const NotifyCore&) = delete;
    ~NotifyCore();

    /// 0, or the errno of what failed; may be tried again.
    int Open();
    /// How many events the kernel keeps for us; 0: not known.
    void SetQueueLimit(std::uint32_t events) { backoff_.SetQueueLimit(events); }
    void Close();
    int Fd() const { return descriptor_->Fd(); }

    void Apply(const std::vector<WatchRequest>& requests);

    /// Readable when a receiver has made room; then Woken is to be called.
    int WakeFd() const { return delivery_.Wakes().Fd(); }
    void Woken() { delivery_.Wakes().Drain(); }

    /// Takes over what the kernel has queued.
    void Fill();

    /// The kernel's queue is to be left alone for now; IdleTime says how long.
    bool IsResting() const { return backoff_.IsResting(Clock::now()); }

    /// One bounded portion of everything that is to be done.
    void Work();

    /// How long there is nothing to do but for new events and requests.
    std::chrono::milliseconds IdleTime() const;

    void PublishStatus();

  private:
    using Clock = std::chrono::steady_clock;

    void Flush();
    bool MayTell() const;
    bool MayWalk() const;
    Clock::time_point RetryDue() const;
    bool RetryPending() const;
    void RetryUnwatched();
    void RetryUnneeded();
    std::optional<std::size_t> NamesBelow(const Subscription& subscription,
                                          const std::string& path);
    const char* StateOf(const Watch& watch, std::uint32_t unwatched) const;
    WatchStatus StatusOf(const Watch& watch) const;

    const std::unique_ptr<InotifyDescriptor> descriptor_;
    StatusPublisher& status_;
    const std::chrono::milliseconds retry_after_;
    Delivery delivery_;
    WatchedTree tree_;
    InotifyReader reader_;
    ReadBackoff backoff_;
    ChangeRouter router_;
    RootTracker roots_;
    TreeChanges changes_;
    TreeWalker walker_;
    EventTranslator translator_;
    Clock::time_point next_retry_{};
    std::size_t retry_from_ = 0;
    Clock::time_point prune_at_{};
    Clock::time_point next_publish_{};
    Clock::time_point flush_at_{};  ///< in a storm
};

}  // namespace Engine::FileNotify
