// Owns the watchdog thread. Must not decide what healthy means (its health check does). Ready
// and Stopping run on the main thread.
#include "process/ServiceNotifier.h"

#include <sdk/log/Log.h>
#include <sdk/log/LoggerUtils.h>
#include <systemd/sd-daemon.h>

#include <cstdint>
#include <utility>

namespace Agent {

ServiceNotifier::ServiceNotifier(std::function<void()> health_check)
    : health_check_(std::move(health_check)) {}

ServiceNotifier::~ServiceNotifier() {
    Stopping();
}

void ServiceNotifier::Ready() {
    sd_notify(0, "READY=1");
    std::uint64_t timeout_us = 0;
    if (sd_watchdog_enabled(0, &timeout_us) > 0) {
        watchdog_ =
            std::thread(&ServiceNotifier::Watch, this, std::chrono::microseconds(timeout_us / 2));
    }
}

void ServiceNotifier::Stopping() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (stopping_) return;
        stopping_ = true;
    }
    stop_.notify_all();
    if (watchdog_.joinable()) watchdog_.join();
    sd_notify(0, "STOPPING=1");
}

void ServiceNotifier::Watch(std::chrono::microseconds interval) {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!stopping_) {
        lock.unlock();
        try {
            health_check_();
            sd_notify(0, "WATCHDOG=1");
        } catch (const std::exception& e) {
            SDK_LOG(SDK::LoggerUtils::GetInstance()->GetRootLogger(), PRIO_ERROR,
                    "the framework thread did not answer: %s", std::string(e.what()));
        }
        lock.lock();
        stop_.wait_for(lock, interval, [this] { return stopping_; });
    }
}

}  // namespace Agent
