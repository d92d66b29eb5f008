#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace Agent {

/// Reports to the service manager, if there is one: ready, stopping, and, four times in its
/// watchdog interval, that no thread is stuck. Main thread only; with a watchdog it runs its own
/// thread between Ready and Stopping.
class ServiceNotifier {
  public:
    /// Names the thread that is stuck; empty: none.
    using FindStuckThread = std::function<std::string()>;

    /// No watchdog message is sent while `find_stuck_thread` names a thread, or blocks. It runs on
    /// the watchdog's thread.
    explicit ServiceNotifier(FindStuckThread find_stuck_thread);
    ~ServiceNotifier();
    ServiceNotifier(const ServiceNotifier&) = delete;
    ServiceNotifier& operator=(const ServiceNotifier&) = delete;

    void Ready();

    /// Blocks until a running check has returned. Safe to call twice.
    void Stopping();

  private:
    void Watch(std::chrono::microseconds interval);
    void Beat();

    const FindStuckThread find_stuck_thread_;
    std::string last_stuck_;  ///< the watchdog's thread only
    std::mutex mutex_;
    std::condition_variable stop_;
    bool stopping_ = false;
    std::thread watchdog_;
};

}  // namespace Agent
