// Owns the status of this host as a backup server. It must not look for the daemon (RsyncDaemon
// does). Any thread, under a lock.
#include "status/BackUpServerStatus.h"

#include <sdk/time/TimeUtils.h>

namespace Engine {

void BackUpServerStatus::SetOn(const std::string& address, int port, const std::string& path) {
    const std::lock_guard<std::mutex> lock(mutex_);
    on_ = true;
    address_ = address;
    port_ = port;
    path_ = path;
    starts_ = 0;
    last_start_ = 0;
}

void BackUpServerStatus::SetOff() {
    const std::lock_guard<std::mutex> lock(mutex_);
    on_ = false;
    address_.clear();
    port_ = 0;
    path_.clear();
    starts_ = 0;
    last_start_ = 0;
}

void BackUpServerStatus::NoteStart() {
    const std::lock_guard<std::mutex> lock(mutex_);
    ++starts_;
    last_start_ = SDK::TimeUtils::GetCurrentTimestampS();
}

Json::Value BackUpServerStatus::ToJson(std::optional<int> pid) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    Json::Value answer(Json::objectValue);
    answer["on"] = on_;
    answer["address"] = address_;
    answer["port"] = port_;
    answer["path"] = path_;
    answer["running"] = pid.has_value();
    answer["pid"] = pid ? Json::Value(*pid) : Json::Value();
    answer["restarts"] = static_cast<Json::UInt64>(starts_ > 0 ? starts_ - 1 : 0);
    answer["last_start"] =
        last_start_ > 0 ? Json::Value(static_cast<Json::Int64>(last_start_)) : Json::Value();
    return answer;
}

}  // namespace Engine
