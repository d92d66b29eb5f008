// Owns the watchdog thread. Must not decide which thread is stuck (the engine does). Ready and
// Stopping run on the main thread.
#include "process/ServiceNotifier.h"

#include <sdk/log/Log.h>
#include <sdk/log/LoggerUtils.h>
#include <systemd/sd-daemon.h>

#include <cstdint>
#include <utility>

namespace Agent {

namespace {

constexpr std::uint64_t kBeats = 4;  // in a watchdog interval

}  // namespace

ServiceNotifier::ServiceNotifier(FindStuckThread find_stuck_thread)
    : find_stuck_thread_(std::move(find_stuck_thread)) {}

ServiceNotifier::~ServiceNotifier() {
    Stopping();
}

void ServiceNotifier::Ready() {
    sd_notify(0, "READY=1");
    std::uint64_t timeout_us = 0;
    if (sd_watchdog_enabled(0, &timeout_us) > 0) {
        watchdog_ = std::thread(&ServiceNotifier::Watch, this,
                                std::chrono::microseconds(timeout_us / kBeats));
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
        Beat();
        lock.lock();
        stop_.wait_for(lock, interval, [this] { return stopping_; });
    }
}

void ServiceNotifier::Beat() {
    const std::string stuck = find_stuck_thread_();
    if (stuck.empty()) {
        sd_notify(0, "WATCHDOG=1");
    } else if (stuck != last_stuck_) {
        SDK_LOG(SDK::LoggerUtils::GetInstance()->GetRootLogger(), PRIO_CRITICAL,
                "%s is stuck: it has work and makes no progress. The service manager is not told "
                "that all is well.",
                stuck);
    }
    last_stuck_ = stuck;
}

}  // namespace Agent
