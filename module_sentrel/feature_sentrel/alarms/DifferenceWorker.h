#pragma once

#include <evidence/EvidenceStore.h>
#include <sdk/time/CommandInterrupter.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "feature_sentrel/alarms/PinnedFile.h"

namespace Engine {

/// The content difference of one changed file, and what was kept of it, filled in by
/// DifferenceWorker.
class Difference {
  public:
    /// `path` is the name of the changed file in the text. `is_shown`: the alarm has a difference.
    Difference(PinnedFile pinned, std::string copy, std::string path, bool is_shown)
        : pinned_(std::move(pinned)),
          copy_(std::move(copy)),
          path_(std::move(path)),
          is_shown_(is_shown) {}

    /// True when Text may be called. Thread-safe.
    bool IsReady() const { return ready_.load(std::memory_order_acquire); }

    /// At most 1024 bytes; empty for what is no text file.
    const std::string& Text() const { return text_; }
    /// There was not enough time or memory for it.
    bool IsLeftOut() const { return left_out_; }
    /// The id of the kept content; empty: nothing was kept.
    const std::string& EvidenceId() const { return evidence_id_; }

  private:
    friend class DifferenceWorker;

    PinnedFile pinned_;
    const std::string copy_;
    const std::string path_;
    const bool is_shown_;
    std::string text_;
    std::string evidence_id_;
    bool left_out_ = false;
    std::atomic<bool> ready_{false};
};

/// Keeps and compares contents on a thread of its own, in the order of the requests, so that no
/// restore waits for it. It has a time budget for differences: those beyond it are left out at
/// once. Beyond a budget of bytes only the beginning of an object is kept. An attacker who changes
/// many huge files only gets shorter alarms and evidence.
///
/// One thread makes and uses it. Its own thread lives from the first request to Stop.
class DifferenceWorker {
  public:
    /// The largest time budget, and what each second adds to it.
    static constexpr std::chrono::milliseconds kMostSaved{8000};
    static constexpr std::chrono::milliseconds kAddedPerSecond{250};
    /// The same for bytes that are kept, and what is kept beyond that.
    static constexpr std::uint64_t kMostSavedBytes = 64ULL * 1024 * 1024;
    static constexpr std::uint64_t kAddedBytesPerSecond = 4ULL * 1024 * 1024;
    static constexpr std::uint64_t kAlwaysKeptBytes = 64ULL * 1024;

    /// A page that is written in place is told when its first bytes change; the rest reaches the
    /// held file after the restore. So a request waits until the file has not been written for so
    /// long, at most kMostSettles times as long, while fewer than kMostSettling requests wait.
    static constexpr std::chrono::milliseconds kSettleTime{20};
    static constexpr int kMostSettles = 5;
    static constexpr std::size_t kMostSettling = 16;

    /// The worker's thread calls `finished` after each difference; it must not block.
    explicit DifferenceWorker(std::function<void()> finished,
                              std::chrono::milliseconds settle_time = kSettleTime);
    /// Keeps what changed objects contain there from now on; null: nowhere. No request may wait.
    void KeepIn(std::unique_ptr<Evidence::EvidenceStore> evidence);
    ~DifferenceWorker();
    DifferenceWorker(const DifferenceWorker&) = delete;
    DifferenceWorker& operator=(const DifferenceWorker&) = delete;

    /// Makes a request; the arguments are as for Difference.
    std::shared_ptr<const Difference> Ask(PinnedFile pinned, const std::string& copy,
                                          const std::string& path, bool is_shown);

    /// Keeps the content of an object and compares nothing, when no other request waits.
    std::shared_ptr<const Difference> Keep(PinnedFile pinned, const std::string& path);

    /// Ends the running command, leaves out waiting requests, and joins. The next request starts a
    /// new thread.
    void Stop();

  private:
    using Clock = std::chrono::steady_clock;

    void Work();
    void AwaitRequest(std::unique_lock<std::mutex>& lock);
    void AwaitWriter(const Difference& difference, std::size_t most);
    void FindOut(Difference& difference);
    std::shared_ptr<const Difference> Add(std::deque<std::shared_ptr<Difference>>& queue,
                                          std::shared_ptr<Difference> request);
    void KeepContent(Difference& difference);
    void SaveUp();

    const std::function<void()> finished_;
    const std::chrono::milliseconds settle_time_;
    std::thread thread_;
    SDK::CommandInterrupter interrupter_;
    // The next four belong to the worker's thread.
    std::unique_ptr<Evidence::EvidenceStore> evidence_;
    std::uint64_t saved_bytes_ = kMostSavedBytes;
    Clock::duration saved_ = kMostSaved;
    Clock::time_point saved_at_ = Clock::now();
    std::mutex mutex_;  ///< guards the next three
    std::deque<std::shared_ptr<Difference>> waiting_;
    std::deque<std::shared_ptr<Difference>> later_;  ///< no alarm waits for these
    bool stopping_ = false;
    std::condition_variable changed_;
};

}  // namespace Engine
