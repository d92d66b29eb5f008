// Owns the position in the report store, its mark and the retries of one channel. It must not know
// what a delivery says or where it goes (the channel does). Runs on its own thread.
#include "notify/ChannelWorker.h"

#include <sdk/log/Log.h>
#include <sdk/log/LoggerUtils.h>
#include <sdk/time/TimeUtils.h>

#include <algorithm>
#include <chrono>
#include <utility>

namespace Notify {

using SDK::TimeUtils;

namespace {

constexpr int kPagePauseMs = 2;
constexpr int kPageSize = 64;  ///< small, since a page holds up the alarms that are stored
/// A larger gap is none: a new store that does not know the last number counts from the time on.
constexpr long long kMostLost = 1LL << 32;

Poco::Logger* Log() {
    return SDK::LoggerUtils::GetInstance()->GetRootLogger();
}

Json::Int64 Number(const Json::Value& object, const char* key) {
    return object[key].isInt64() ? object[key].asInt64() : 0;
}

}  // namespace

ChannelWorker::ChannelWorker(const ChannelPlan& plan, ReadReports read,
                             std::unique_ptr<MarkKeeper> marks, const Times& times)
    : name_(plan.name),
      read_(std::move(read)),
      marks_(std::move(marks)),
      times_(times),
      pacing_(plan.pacing),
      is_wanted_(plan.is_wanted),
      channel_(plan.make()),
      pacer_(plan.pacing) {
    status_["channel"] = plan.name;
    status_["to"] = plan.to;
    status_["working"] = true;
    for (const char* key : {"deliveries", "failures", "lost_reports", "acked_seq", "last_success",
                            "last_failure", "failing_since"}) {
        status_[key] = Json::Int64{0};
    }
    status_["limited"] = false;
    status_["last_error"] = "";
    thread_ = std::thread([this] { Work(); });
}

ChannelWorker::~ChannelWorker() {
    BeginStop();
    thread_.join();
}

void ChannelWorker::BeginStop() {
    interrupter_.Interrupt();
    const std::lock_guard<std::mutex> lock(mutex_);
    is_stopping_ = true;
    stop_.notify_all();
}

Json::Value ChannelWorker::Status() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    Json::Value status = status_;
    const long long since = Number(status, "failing_since");
    status["degraded"] =
        since > 0 && TimeUtils::GetCurrentTimestampS() - since >= times_.degraded_after_s;
    return status;
}

void ChannelWorker::Work() {
    const SDK::CommandInterrupter::Scope scope(interrupter_);
    std::unique_lock<std::mutex> lock(mutex_);
    while (!is_stopping_) {
        lock.unlock();
        const int wait_ms = Step();
        lock.lock();
        stop_.wait_for(lock, std::chrono::milliseconds(wait_ms), [this] { return is_stopping_; });
    }
}

int ChannelWorker::Step() {
    try {
        return Advance();
    } catch (const std::exception& e) {
        SDK_LOG(Log(), PRIO_ERROR, "notifications by %s: %s", name_, std::string(e.what()));
        return times_.poll_ms;
    }
}

/// One read or one delivery; returns how long to wait for the next one.
int ChannelWorker::Advance() {
    if (is_wanted_ && !is_wanted_()) {
        Forget();
        return times_.poll_ms;
    }
    if (!is_begun_ && !Begin()) return times_.poll_ms;
    const long long now_ms = TimeUtils::GetMonotonicMs();
    if (retry_ms_ > 0 && now_ms < retry_at_ms_) return static_cast<int>(retry_at_ms_ - now_ms);
    const long long now_s = TimeUtils::GetCurrentTimestampS();
    // A delivery that failed is made again as it was.
    const bool has_more = retry_ms_ == 0 && !pacer_.IsDue(now_ms, now_s) && Collect();
    if (retry_ms_ > 0 || pacer_.IsDue(TimeUtils::GetMonotonicMs(), now_s)) {
        Deliver();
        return 0;
    }
    // The pause lets the alarms pass that wait for the store.
    return has_more ? std::min(kPagePauseMs, times_.poll_ms) : times_.poll_ms;
}

/// Begins at the end of the store when it is wanted again.
void ChannelWorker::Forget() {
    if (is_begun_ || !is_forgotten_) marks_->Remove();
    is_forgotten_ = true;
    is_begun_ = false;
    channel_->Clear();
    pacer_ = Pacer(pacing_);
}

/// A new channel begins at the end of the store: nobody wants to hear of all that was before.
bool ChannelWorker::Begin() {
    std::string text;
    const MarkKeeper::Found found = marks_->Read(text);
    if (found == MarkKeeper::Found::kFailed) return false;
    if (found == MarkKeeper::Found::kNone || !mark_.Parse(text)) {
        Json::Value request(Json::objectValue);
        request["limit"] = 1;
        Json::Value answer;
        if (!read_(request, answer) || !answer["last_seq"].isInt64()) return false;
        mark_.acked = Number(answer, "last_seq");
        SaveMark();
    }
    pacer_.SetTimes(mark_.times);
    position_ = mark_.acked;
    is_begun_ = true;
    return true;
}

/// False when there is nothing more to read now.
bool ChannelWorker::Collect() {
    Json::Value request(Json::objectValue);
    request["kind"] = "alarm";
    request["after"] = static_cast<Json::Int64>(position_);
    request["limit"] = kPageSize;
    Json::Value answer;
    if (!read_(request, answer) || !answer["reports"].isArray()) return false;
    if (Number(answer, "last_seq") < position_) {
        // A new store counts from the beginning.
        position_ = mark_.acked = mark_.sending = 0;
        return true;
    }
    CountLost(answer);
    const bool is_whole = TakePage(answer);
    if (is_whole) position_ = Number(answer, "last_seq");
    if (mark_.sending > 0 && !pacer_.IsEmpty()) position_ = std::min(position_, mark_.sending);
    if (pacer_.IsEmpty()) mark_.acked = position_;
    const long long now_s = TimeUtils::GetCurrentTimestampS();
    Note([&](Json::Value& status) {
        status["limited"] = pacer_.IsLimited(now_s);
        status["acked_seq"] = static_cast<Json::Int64>(mark_.acked);
    });
    return is_whole && answer["more"].asBool();
}

/// Hands the channel the reports of this delivery; false when some belong to the next one.
bool ChannelWorker::TakePage(const Json::Value& answer) {
    const long long now_ms = TimeUtils::GetMonotonicMs();
    const long long now_s = TimeUtils::GetCurrentTimestampS();
    for (const Json::Value& report : answer["reports"]) {
        const long long seq = Number(report, "seq");
        const long long raised_ms = Number(report, "time_ms");
        if (seq <= mark_.sending) {
            pacer_.AddAgain(raised_ms, now_ms);
        } else {
            if (mark_.sending > 0) pacer_.Close();
            if (!pacer_.Add(raised_ms, now_ms, now_s)) return false;
            mark_.sending = 0;
        }
        channel_->Add(report);
        position_ = seq;
    }
    if (mark_.sending > 0 && Number(answer, "last_seq") >= mark_.sending) pacer_.Close();
    return true;
}

void ChannelWorker::CountLost(const Json::Value& answer) {
    if (!answer["first_seq"].isInt64()) return;
    const long long first = Number(answer, "first_seq");
    const long long dropped = (first > 0 ? first - 1 : Number(answer, "last_seq")) - position_;
    if (dropped <= 0 || dropped > kMostLost) return;
    mark_.lost += dropped;
    SDK_LOG(Log(), PRIO_ERROR,
            "notifications by %s: the store dropped %?d reports before they were sent", name_,
            dropped);
    Note([&](Json::Value& status) {
        status["lost_reports"] = Number(status, "lost_reports") + static_cast<Json::Int64>(dropped);
    });
}

void ChannelWorker::Deliver() {
    if (pacing_.is_repeated_whole && mark_.sending != position_) {
        mark_.sending = position_;
        SaveMark();
    }
    const Delivery delivery{mark_.acked + 1, position_, mark_.lost, pacer_.IsDigest()};
    const std::string error = channel_->Deliver(delivery);
    const long long now_s = TimeUtils::GetCurrentTimestampS();
    if (error.empty()) {
        Delivered(now_s, true);
    } else if (!SDK::CommandInterrupter::IsCurrentInterrupted()) {
        Failed(error, now_s);
        if (!pacing_.is_retried) Delivered(now_s, false);
    }
}

void ChannelWorker::Delivered(long long now_s, bool is_taken) {
    const bool was_failing = retry_ms_ > 0;
    channel_->Clear();
    pacer_.Delivered(now_s);
    retry_ms_ = 0;
    mark_ = {position_, 0, 0, pacer_.Times()};
    SaveMark();
    if (was_failing && is_taken) {
        SDK_LOG(Log(), PRIO_NOTICE, "notifications by %s are delivered again", name_);
    }
    Note([&](Json::Value& status) {
        status["acked_seq"] = static_cast<Json::Int64>(mark_.acked);
        if (!is_taken) return;
        status["deliveries"] = Number(status, "deliveries") + 1;
        status["working"] = true;
        status["failing_since"] = Json::Int64{0};
        status["last_success"] = static_cast<Json::Int64>(now_s);
    });
}

void ChannelWorker::Failed(const std::string& error, long long now_s) {
    // Logged once, not with each try.
    if (retry_ms_ == 0) {
        SDK_LOG(Log(), PRIO_WARNING, "notifications by %s fail: %s", name_, error);
    }
    retry_ms_ =
        retry_ms_ == 0 ? times_.first_retry_ms : std::min(2 * retry_ms_, times_.longest_retry_ms);
    retry_at_ms_ = TimeUtils::GetMonotonicMs() + retry_ms_;
    Note([&](Json::Value& status) {
        status["working"] = false;
        status["failures"] = Number(status, "failures") + 1;
        status["last_error"] = error;
        status["last_failure"] = static_cast<Json::Int64>(now_s);
        if (pacing_.is_retried && Number(status, "failing_since") == 0) {
            status["failing_since"] = static_cast<Json::Int64>(now_s);
        }
    });
}

void ChannelWorker::SaveMark() {
    const std::string error = marks_->Write(mark_.Text());
    if (!error.empty() && !is_mark_unwritable_) {
        SDK_LOG(Log(), PRIO_ERROR,
                "cannot keep the mark of notifications by %s: %s; a start may repeat some", name_,
                error);
    }
    is_mark_unwritable_ = !error.empty();
}

void ChannelWorker::Note(const std::function<void(Json::Value&)>& change) {
    const std::lock_guard<std::mutex> lock(mutex_);
    change(status_);
}

}  // namespace Notify
