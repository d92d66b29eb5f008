#pragma once

#include <json/value.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "base/SentrelDirRule.h"

namespace Engine {

/// Who changed one object, filled in by WhoAsker.
class Attribution {
  public:
    using TimePoint = std::chrono::steady_clock::time_point;

    /// `read_time`: when the change was read from the kernel; the epoch of the clock: not known.
    Attribution(std::string path, TimePoint read_time)
        : path_(std::move(path)), read_time_(read_time) {}

    /// True when Text may be called. Thread-safe.
    bool IsReady() const { return ready_.load(std::memory_order_acquire); }

    /// The sentry's answer as a JSON object.
    const std::string& Text() const { return text_; }

  private:
    friend class WhoAsker;

    const std::string path_;
    const TimePoint read_time_;
    std::string text_;
    std::atomic<bool> ready_{false};
};

/// Asks the sentry who changed objects, on a thread of its own, so that no restore waits for it.
/// The answer to a request comes within kWait, or says that there is none. One thread makes and
/// uses it. Its own thread lives from the first request to Stop.
class WhoAsker {
  public:
    static constexpr std::chrono::milliseconds kWait{250};
    static constexpr std::size_t kMostWaiting = 4096;
    static constexpr std::size_t kAskedAtOnce = 64;

    /// Hands a request to the sentry: {"op", …, "wait_ms"}. Gives {"answer"} or {"error"}. False:
    /// there is no sentry.
    using Send = std::function<bool(const Json::Value& request, Json::Value& reply)>;

    /// Its thread calls `answered` after answers; it must not block. `send` is called by several
    /// threads.
    WhoAsker(Send send, std::function<void()> answered);
    ~WhoAsker();
    WhoAsker(const WhoAsker&) = delete;
    WhoAsker& operator=(const WhoAsker&) = delete;

    /// Sends what is asked of the agent's sentry.
    static bool ToSentry(const Json::Value& request, Json::Value& reply);

    /// The sentry has to watch these rules.
    void Watch(const std::list<SentrelDirRule>& rules);

    /// What the sentry says of itself, each time it is asked. A new process knows no paths yet. On
    /// one thread at a time, does not block.
    void Tick(const Json::Value& sentry);

    /// Null when no sentry has connected, or attribution is off. Does not block.
    std::shared_ptr<const Attribution> Ask(const std::string& path,
                                           Attribution::TimePoint read_time);

    /// Answers all requests and joins. The next request starts a new thread.
    void Stop();

  private:
    using Requests = std::deque<std::shared_ptr<Attribution>>;

    void Work();
    bool SendPaths();
    bool AskSentry(const Requests& requests, std::string& error);
    void AnswerAll(const std::string& error);
    static void Answer(Attribution& request, const Json::Value& who);

    const Send send_;
    const std::function<void()> answered_;
    std::atomic<bool> is_connected_{false};
    int process_ = 0;   ///< of Tick
    std::mutex mutex_;  ///< guards the next three
    Json::Value paths_;
    Requests waiting_;
    bool is_stopping_ = false;
    std::condition_variable changed_;
    std::thread thread_;
};

}  // namespace Engine
