#pragma once

#include <sdk/time/CommandInterrupter.h>
#include <sdk/time/ThreadProgress.h>

#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <mutex>
#include <thread>

namespace Framework {

/// The thread for module code that must not overlap: one job at a time, in order. Owned by the
/// engine. Run is thread-safe; call Start and Stop on one thread.
class FrameworkThread {
  public:
    FrameworkThread() = default;
    ~FrameworkThread();
    FrameworkThread(const FrameworkThread&) = delete;
    FrameworkThread& operator=(const FrameworkThread&) = delete;

    void Start();

    /// Runs the queued jobs, then ends the thread. Safe to call twice.
    void Stop();

    /// Interrupts the external commands of its jobs from now until the next Start. Thread-safe.
    void InterruptCommands();

    /// Runs `job` and blocks until it ends; runs it directly when called on this thread. Rethrows
    /// its exception; Poco::IllegalStateException when the thread is not running.
    void Run(const std::function<void()>& job);

    /// How long its job has made no progress. For one thread, the watchdog's.
    std::chrono::milliseconds SinceProgress() { return progress_.SinceProgress(); }

  private:
    void Loop();

    SDK::CommandInterrupter commands_;
    SDK::ThreadProgress progress_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<std::packaged_task<void()>> jobs_;
    bool running_ = false;
    std::thread thread_;
    std::thread::id id_;
};

}  // namespace Framework
