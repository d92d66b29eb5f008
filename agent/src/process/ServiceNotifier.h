#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace Agent {

/// Reports to the service manager, if there is one: ready, stopping, and, at half of its watchdog
/// interval, that the framework still answers. Main thread only; with a watchdog it runs its own
/// thread between Ready and Stopping.
class ServiceNotifier {
  public:
    /// `health_check` returns when the framework thread has answered. It may block; no watchdog
    /// message is sent meanwhile.
    explicit ServiceNotifier(std::function<void()> health_check);
    ~ServiceNotifier();
    ServiceNotifier(const ServiceNotifier&) = delete;
    ServiceNotifier& operator=(const ServiceNotifier&) = delete;

    void Ready();

    /// Blocks until a running health check has returned. Safe to call twice.
    void Stopping();

  private:
    void Watch(std::chrono::microseconds interval);

    const std::function<void()> health_check_;
    std::mutex mutex_;
    std::condition_variable stop_;
    bool stopping_ = false;
    std::thread watchdog_;
};

}  // namespace Agent
