#pragma once

#include <sdk/time/CommandInterrupter.h>

#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <mutex>
#include <thread>

namespace Framework {

/// The thread that runs module code which must not overlap: one job at a time, in the order they
/// came. Owned by the engine; Start and Stop are for one thread, Run for any.
class FrameworkThread {
  public:
    FrameworkThread() = default;
    ~FrameworkThread();
    FrameworkThread(const FrameworkThread&) = delete;
    FrameworkThread& operator=(const FrameworkThread&) = delete;

    void Start();

    /// Runs what is queued, then ends the thread. May be called twice.
    void Stop();

    /// Ends the external commands of its jobs early, from now until the next Start. Any thread.
    void InterruptCommands();

    /// Runs `job` and waits for it; at once when called from the thread itself. What it throws is
    /// thrown here; Poco::IllegalStateException when the thread is not running.
    void Run(const std::function<void()>& job);

  private:
    void Loop();

    SDK::CommandInterrupter commands_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<std::packaged_task<void()>> jobs_;
    bool running_ = false;
    std::thread thread_;
    std::thread::id id_;
};

}  // namespace Framework
