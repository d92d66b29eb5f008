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

/// How the content of one changed file differs from its copy, found out by DifferenceWorker.
class Difference {
  public:
    /// `path` is how the changed file is called in the text.
    Difference(PinnedFile pinned, std::string copy, std::string path)
        : pinned_(std::move(pinned)), copy_(std::move(copy)), path_(std::move(path)) {}

    /// From then on Text may be called. Any thread.
    bool IsReady() const { return ready_.load(std::memory_order_acquire); }

    /// At most 1024 bytes; empty for what is no text file.
    const std::string& Text() const { return text_; }
    /// There was no time or memory for all of it.
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

/// Finds out differences on a thread of its own, in the order in which they are asked for, so that
/// no restore waits for one. It may use a share of the time only: what is asked for beyond that is
/// left out at once, so whoever changes many huge files gains nothing but shorter alarms.
///
/// Made and used by one thread; the thread of its own lives from the first request to Stop.
class DifferenceWorker {
  public:
    /// The time that is saved up at most, and what is added to it a second.
    static constexpr std::chrono::milliseconds kMostSaved{8000};
    static constexpr std::chrono::milliseconds kAddedPerSecond{250};

    /// `finished` is called on the worker's thread after each difference; it must not block.
    explicit DifferenceWorker(std::function<void()> finished);
    ~DifferenceWorker();
    DifferenceWorker(const DifferenceWorker&) = delete;
    DifferenceWorker& operator=(const DifferenceWorker&) = delete;

    /// `copy` and `path` as Difference has them.
    std::shared_ptr<const Difference> Ask(PinnedFile pinned, const std::string& copy,
                                          const std::string& path);

    /// Ends the command that runs and leaves out what waits; joins. The next request starts anew.
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
