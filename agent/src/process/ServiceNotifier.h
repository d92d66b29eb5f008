#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace Agent {

/// Tells the service manager how the agent is, if there is one: ready, stopping, and, at half of
/// its watchdog's time, that the framework still answers. Main thread; runs one thread of its own
/// between Ready and Stopping where a watchdog is set.
class ServiceNotifier {
  public:
    /// `proof` returns when the framework thread has answered; it may block for long, and the
    /// watchdog then hears nothing.
    explicit ServiceNotifier(std::function<void()> proof);
    ~ServiceNotifier();
    ServiceNotifier(const ServiceNotifier&) = delete;
    ServiceNotifier& operator=(const ServiceNotifier&) = delete;

    void Ready();

    /// Waits until a running proof has returned. May be called twice.
    void Stopping();

  private:
    void Watch(std::chrono::microseconds interval);

    const std::function<void()> proof_;
    std::mutex mutex_;
    std::condition_variable stop_;
    bool stopping_ = false;
    std::thread watchdog_;
};

}  // namespace Agent
