// Owns the thread of the heartbeat. It must not know when the protection works (its user does).
#include "notify/Heartbeat.h"

#include <notify/Senders.h>
#include <sdk/log/Log.h>
#include <sdk/log/LoggerUtils.h>
#include <sdk/net/HttpExchange.h>
#include <sdk/time/TimeUtils.h>

#include <chrono>
#include <utility>

namespace Notify {

Heartbeat::Heartbeat(const Settings::Heartbeat& settings, std::function<bool()> is_alive)
    : settings_(settings), is_alive_(std::move(is_alive)) {
    status_["channel"] = "heartbeat";
    status_["to"] = SDK::HttpOrigin(settings.url);
    status_["working"] = true;
    for (const char* key : {"deliveries", "failures", "last_success", "last_failure"}) {
        status_[key] = Json::Int64{0};
    }
    status_["last_error"] = "";
    thread_ = std::thread([this] { Work(); });
}

Heartbeat::~Heartbeat() {
    BeginStop();
    thread_.join();
}

void Heartbeat::BeginStop() {
    interrupter_.Interrupt();
    const std::lock_guard<std::mutex> lock(mutex_);
    is_stopping_ = true;
    stop_.notify_all();
}

Json::Value Heartbeat::Status() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return status_;
}

void Heartbeat::Work() {
    const SDK::CommandInterrupter::Scope scope(interrupter_);
    std::unique_lock<std::mutex> lock(mutex_);
    while (!is_stopping_) {
        lock.unlock();
        BeatOnce();
        lock.lock();
        stop_.wait_for(lock, std::chrono::seconds(settings_.seconds),
                       [this] { return is_stopping_; });
    }
}

void Heartbeat::BeatOnce() {
    std::string error;
    try {
        if (!is_alive_()) return;
        error = SendHeartbeat(settings_);
    } catch (const std::exception& e) {
        error = e.what();
    }
    if (SDK::CommandInterrupter::IsCurrentInterrupted()) return;
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!error.empty() && status_["working"].asBool()) {
        SDK_LOG(SDK::LoggerUtils::GetInstance()->GetRootLogger(), PRIO_WARNING,
                "the heartbeat fails: %s", error);
    }
    const char* const counter = error.empty() ? "deliveries" : "failures";
    status_["working"] = error.empty();
    status_["last_error"] = error;
    status_[counter] = status_[counter].asInt64() + 1;
    status_[error.empty() ? "last_success" : "last_failure"] =
        static_cast<Json::Int64>(SDK::TimeUtils::GetCurrentTimestampS());
}

}  // namespace Notify
