#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace Sentry {

/// Opens the probe file on a thread of its own: only a kill of the guard ends an open that the
/// guard does not answer. Not thread-safe.
class Probe {
  public:
    using Clock = std::chrono::steady_clock;

    explicit Probe(std::string file);
    /// Waits for a running open.
    ~Probe();
    Probe(const Probe&) = delete;
    Probe& operator=(const Probe&) = delete;

    /// Begins an open. Only when the last one has ended.
    void Begin();

    bool IsRunning() const { return is_running_; }

    /// Since when the last open runs or ran.
    Clock::time_point Begun() const { return begun_; }

  private:
    void Work();

    const std::string file_;
    Clock::time_point begun_;
    std::mutex mutex_;
    std::condition_variable changed_;
    bool is_stopping_ = false;  ///< guarded by mutex_
    std::atomic<bool> is_running_{false};
    std::thread thread_;
};

}  // namespace Sentry
