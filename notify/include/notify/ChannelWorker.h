#pragma once

#include <json/value.h>
#include <sdk/time/CommandInterrupter.h>

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "notify/Channel.h"
#include "notify/ChannelMark.h"

namespace Notify {

/// Follows the report store for one channel on a thread of its own and delivers what it finds.
///
/// The store is the queue: the mark moves on only when the receiver has taken a delivery, so a
/// start or an outage loses nothing and repeats at most one delivery, with the same id. Status and
/// BeginStop are thread-safe.
class ChannelWorker {
  public:
    /// Answers the query "reports.read"; false when there is no store. Runs on the worker's thread.
    using ReadReports = std::function<bool(const Json::Value& request, Json::Value& answer)>;

    struct Times {
        int poll_ms = 500;
        int first_retry_ms = 5 * 1000;  ///< doubles with each failure
        int longest_retry_ms = 5 * 60 * 1000;
        int degraded_after_s = 10 * 60;  ///< of failures
    };

    /// Starts the thread, which alone uses `read` and `marks` from then on.
    ChannelWorker(const ChannelPlan& plan, ReadReports read, std::unique_ptr<MarkKeeper> marks,
                  const Times& times);
    /// Ends a running delivery and joins.
    ~ChannelWorker();
    ChannelWorker(const ChannelWorker&) = delete;
    ChannelWorker& operator=(const ChannelWorker&) = delete;

    /// Ends a running delivery, without waiting for it.
    void BeginStop();

    /// For the status document; see docs/notifications.md.
    Json::Value Status() const;

  private:
    void Work();
    int Step();
    int Advance();
    bool Begin();
    void Forget();
    bool Collect();
    bool TakePage(const Json::Value& answer);
    void CountLost(const Json::Value& answer);
    void Deliver();
    void Delivered(long long now_s, bool is_taken);
    void Failed(const std::string& error, long long now_s);
    void SaveMark();
    void Note(const std::function<void(Json::Value&)>& change);

    const std::string name_;
    const ReadReports read_;
    const std::unique_ptr<MarkKeeper> marks_;
    const Times times_;
    const Pacing pacing_;
    const std::function<bool()> is_wanted_;  ///< may be null

    // The thread's own.
    const std::unique_ptr<Channel> channel_;
    Pacer pacer_;
    ChannelMark mark_;
    bool is_begun_ = false;
    bool is_forgotten_ = false;  ///< the mark was removed while nobody wanted deliveries
    long long position_ = 0;     ///< the last report that was read
    long long retry_at_ms_ = 0;
    int retry_ms_ = 0;  ///< 0: the last delivery did not fail
    bool is_mark_unwritable_ = false;

    SDK::CommandInterrupter interrupter_;
    mutable std::mutex mutex_;  ///< guards the rest
    std::condition_variable stop_;
    bool is_stopping_ = false;
    Json::Value status_{Json::objectValue};
    std::thread thread_;
};

}  // namespace Notify
