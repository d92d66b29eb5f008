#pragma once

#include <sdk/time/CommandInterrupter.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "feature_sentrel/alarms/PinnedFile.h"

namespace Engine {

/// The content difference of one changed file, filled in by DifferenceWorker.
class Difference {
  public:
    /// `path` is the name of the changed file in the text.
    Difference(PinnedFile pinned, std::string copy, std::string path)
        : pinned_(std::move(pinned)), copy_(std::move(copy)), path_(std::move(path)) {}

    /// True when Text may be called. Thread-safe.
    bool IsReady() const { return ready_.load(std::memory_order_acquire); }

    /// At most 1024 bytes; empty for what is no text file.
    const std::string& Text() const { return text_; }
    /// There was not enough time or memory for it.
    bool IsLeftOut() const { return left_out_; }

  private:
    friend class DifferenceWorker;

    PinnedFile pinned_;
    const std::string copy_;
    const std::string path_;
    std::string text_;
    bool left_out_ = false;
    std::atomic<bool> ready_{false};
};

/// Compares contents on a thread of its own, in the order of the requests, so that no restore waits
/// for a difference. It has a time budget: requests beyond it are left out at once. An attacker who
/// changes many huge files only gets shorter alarms.
///
/// One thread makes and uses it. Its own thread lives from the first request to Stop.
class DifferenceWorker {
  public:
    /// The largest time budget, and what each second adds to it.
    static constexpr std::chrono::milliseconds kMostSaved{8000};
    static constexpr std::chrono::milliseconds kAddedPerSecond{250};

    /// The worker's thread calls `finished` after each difference; it must not block.
    explicit DifferenceWorker(std::function<void()> finished);
    ~DifferenceWorker();
    DifferenceWorker(const DifferenceWorker&) = delete;
    DifferenceWorker& operator=(const DifferenceWorker&) = delete;

    /// Requests a difference; `copy` and `path` as for Difference.
    std::shared_ptr<const Difference> Ask(PinnedFile pinned, const std::string& copy,
                                          const std::string& path);

    /// Ends the running command, leaves out waiting requests, and joins. The next request starts a
    /// new thread.
    void Stop();

  private:
    using Clock = std::chrono::steady_clock;

    void Work();
    void FindOut(Difference& difference);
    bool HasTime();

    const std::function<void()> finished_;
    std::thread thread_;
    SDK::CommandInterrupter interrupter_;
    Clock::duration saved_ = kMostSaved;  ///< worker's thread
    Clock::time_point saved_at_ = Clock::now();
    std::mutex mutex_;  ///< guards the next two
    std::deque<std::shared_ptr<Difference>> waiting_;
    bool stopping_ = false;
    std::condition_variable changed_;
};

}  // namespace Engine
