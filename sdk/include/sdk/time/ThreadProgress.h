#pragma once

#include <time.h>

#include <atomic>
#include <chrono>
#include <cstdint>

namespace SDK {

/// Whether one thread gets on with its jobs, for a watchdog.
///
/// A job that works uses processor time. A job that uses none, and waits neither for its events nor
/// for an external command, is stuck: in a lock, or in a file system that does not answer. External
/// commands have limits of their own. A job that works without end is not stuck.
class ThreadProgress {
  public:
    ThreadProgress() = default;
    ~ThreadProgress() = default;
    ThreadProgress(const ThreadProgress&) = delete;
    ThreadProgress& operator=(const ThreadProgress&) = delete;

    /// The calling thread has a job while the object lives. Jobs of one thread must not be nested.
    class Job {
      public:
        explicit Job(ThreadProgress& progress);
        ~Job();
        Job(const Job&) = delete;
        Job& operator=(const Job&) = delete;

      private:
        ThreadProgress& progress_;
        ThreadProgress* const previous_;
    };

    /// The calling thread's job waits, as it should, while the object lives. Does nothing on a
    /// thread without a job.
    class Pause {
      public:
        Pause();
        ~Pause();
        Pause(const Pause&) = delete;
        Pause& operator=(const Pause&) = delete;

      private:
        ThreadProgress* const progress_;
    };

    /// How long the job has made no progress: since which of the former calls it is the same. Zero
    /// when it made some, waits, or when there is no job. Call on one thread, not the watched one.
    std::chrono::milliseconds SinceProgress();

  private:
    using Clock = std::chrono::steady_clock;

    std::int64_t UsedTime() const;

    std::atomic<clockid_t> thread_clock_{};
    std::atomic<bool> in_job_{false};
    std::atomic<int> pauses_{0};
    std::atomic<std::uint64_t> steps_{0};  ///< begins and ends of jobs and pauses

    // The watching thread's.
    std::uint64_t seen_steps_ = 0;
    std::int64_t seen_time_ = 0;
    Clock::time_point unchanged_since_;
};

}  // namespace SDK
