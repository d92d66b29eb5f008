// Owns the connection to the sentry. Must not know what the rooms of the sentry do.
#include "sentry/SentryLink.h"

#include <sdk/log/Log.h>
#include <sdk/log/LoggerUtils.h>
#include <sdk/text/JsonUtils.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <utility>

namespace Agent {

using SDK::JsonUtils;
using std::chrono::milliseconds;

namespace {

constexpr milliseconds kTick{250};
constexpr milliseconds kSilence{2000};  // a sentry that answers nothing is killed
constexpr milliseconds kFirstPause{100};
constexpr milliseconds kLongestPause{10000};
constexpr int kMostWaitMs = 1000;

Poco::Logger* Log() {
    return SDK::LoggerUtils::GetInstance()->GetRootLogger();
}

Json::Value Failed(const std::string& why) {
    Json::Value answer(Json::objectValue);
    answer["error"] = why;
    return answer;
}

}  // namespace

SentryLink::SentryLink(Framework::QueryRegistry& queries, const SentrySettings& settings,
                       const std::string& fault)
    : queries_(queries), settings_(settings) {
    if (!fault.empty()) SetState("refused", "conf/agent.json: " + fault);
    queries_.Register("status.sentry", [this](const Json::Value&) { return Status(); });
    queries_.Register("sentry.request", [this](const Json::Value& body) { return Request(body); });
    if (settings_.enabled) thread_ = std::thread([this] { Work(); });
}

SentryLink::~SentryLink() {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        is_stopping_ = true;
        if (channel_) channel_->Close();
    }
    changed_.notify_all();
    queries_.Unregister("sentry.request");
    queries_.Unregister("status.sentry");
    if (thread_.joinable()) thread_.join();
}

void SentryLink::Work() {
    milliseconds pause = kFirstPause;
    do {
        if (!Connect()) {
            pause = std::min(pause * 2, kLongestPause);
            continue;
        }
        const Clock::time_point begin = Clock::now();
        Serve();
        // The pause stays long for one that dies soon: it must not be started without end.
        if (Clock::now() - begin > kLongestPause) pause = kFirstPause;
    } while (PauseFor(pause));
}

bool SentryLink::PauseFor(milliseconds time) {
    std::unique_lock<std::mutex> lock(mutex_);
    return !changed_.wait_for(lock, time, [this] { return is_stopping_; });
}

void SentryLink::SetState(const std::string& state, const std::string& why) {
    const std::lock_guard<std::mutex> lock(mutex_);
    state_ = state;
    why_ = why;
}

bool SentryLink::Connect() {
    auto channel = Sentry::Channel::Connect(Sentry::SocketPath());
    if (channel == nullptr) {
        std::string why =
            "nobody listens at run/sentry.sock. Is the unit morvane-sentry.service started?";
        if (SentryStarter::MayStart()) why = starter_.Start();
        SetState("refused", why.empty() ? "it starts" : why);
        return false;
    }
    guard_.Reset();
    Json::Value hello(Json::objectValue);
    hello["op"] = "hello";
    hello["settings"] = settings_.section;
    const std::lock_guard<std::mutex> lock(mutex_);
    if (is_stopping_ || !channel->Send(hello)) return false;
    channel_ = std::move(channel);
    heard_ = Clock::now();
    return true;
}

void SentryLink::Serve() {
    const std::shared_ptr<Sentry::Channel> channel = channel_;
    Clock::time_point next_beat = Clock::now() + kTick;
    for (;;) {
        const auto left = std::chrono::duration_cast<milliseconds>(next_beat - Clock::now());
        Sentry::Message message;
        switch (channel->Receive(message, std::max(left, milliseconds(0)))) {
            case Sentry::Channel::Received::kClosed:
                return Lost("it ended");
            case Sentry::Channel::Received::kMessage:
                if (!Take(message)) return Lost("it is no sentry");
                break;
            case Sentry::Channel::Received::kNothing:
                break;
        }
        if (Clock::now() < next_beat) continue;
        if (!Beat()) {
            KillGuard();
            return Lost("it did not answer");
        }
        next_beat = Clock::now() + kTick;
    }
}

/// Asks the sentry how it is and lets others use the period. False when it has been silent for
/// long: then it may hold openers, and its watchdog does not help.
bool SentryLink::Beat() {
    if (Clock::now() - heard_ > kSilence) return false;
    Json::Value request(Json::objectValue);
    request["op"] = "status";
    channel_->Send(request);
    Tick();
    return true;
}

void SentryLink::Tick() {
    Json::Value sentry;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        sentry = rooms_;
    }
    if (!sentry.isObject()) return;  // it has not answered yet
    Json::Value ignored;
    for (const std::string& name : queries_.Names("sentry.tick.")) {
        queries_.Ask(name, sentry, ignored);
    }
}

bool SentryLink::Take(Sentry::Message& message) {
    heard_ = Clock::now();
    if (message.body["event"].isString()) {
        Json::Value ignored;
        message.body["file"] = message.file.Get();
        queries_.Ask(message.body["event"].asString(), message.body, ignored);
        return true;
    }
    const Json::Value& answer = message.body["answer"];
    if (!answer.isObject()) return false;
    if (message.body["id"].isUInt64()) {
        const std::lock_guard<std::mutex> lock(mutex_);
        const auto waiting = answers_.find(message.body["id"].asUInt64());
        if (waiting != answers_.end()) waiting->second = answer;
        changed_.notify_all();
        return true;
    }
    const bool is_first = !guard_.IsOpen();
    if (is_first) {
        const int process = JsonUtils::GetIntValue(answer, "process", 0);
        guard_.Reset(static_cast<int>(::syscall(SYS_pidfd_open, process, 0)));
    }
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        rooms_ = answer;
        state_ = "running";
        why_.clear();
    }
    if (!is_first) return true;
    SDK_LOG(Log(), PRIO_NOTICE, "the sentry runs, process %d",
            JsonUtils::GetIntValue(answer, "process", 0));
    Tick();
    return true;
}

void SentryLink::KillGuard() {
    if (!guard_.IsOpen()) return;
    SDK_LOG(Log(), PRIO_ERROR, "the sentry does not answer and is killed");
    ::syscall(SYS_pidfd_send_signal, guard_.Get(), SIGKILL, nullptr, 0);
}

void SentryLink::Lost(const std::string& why) {
    const std::lock_guard<std::mutex> lock(mutex_);
    channel_.reset();
    rooms_ = Json::Value();
    state_ = "refused";
    why_ = why;
    for (auto& [id, answer] : answers_) answer = Failed("the sentry ended");
    changed_.notify_all();
    if (is_stopping_) return;
    ++lost_;
    SDK_LOG(Log(), PRIO_ERROR, "the sentry is lost: %s", why);
}

Json::Value SentryLink::Request(Json::Value request) {
    const int wait = std::min(JsonUtils::GetIntValue(request, "wait_ms", 0), kMostWaitMs);
    request.removeMember("wait_ms");
    std::unique_lock<std::mutex> lock(mutex_);
    const std::shared_ptr<Sentry::Channel> channel = channel_;
    if (!channel) return Failed("the sentry does not run");
    const Json::UInt64 id = ++last_id_;
    request["id"] = id;
    if (wait > 0) answers_[id] = Json::Value();
    lock.unlock();
    const bool is_sent = channel->Send(request);
    const int error = errno;
    lock.lock();
    if (wait <= 0) return is_sent ? Json::Value(Json::objectValue) : Failed(std::strerror(error));
    if (is_sent) {
        changed_.wait_for(lock, milliseconds(wait), [this, id] { return !answers_[id].isNull(); });
    }
    Json::Value reply(Json::objectValue);
    Json::Value answer = std::move(answers_[id]);
    answers_.erase(id);
    if (!is_sent) return Failed(std::strerror(error));
    if (answer.isNull()) return Failed("the sentry did not answer in time");
    reply["answer"] = std::move(answer);
    return reply;
}

/// {"sentry": {"state": "off"|"running"|"refused", "why", "lost", a member for each room},
/// "counters": those of the rooms}
Json::Value SentryLink::Status() {
    const std::lock_guard<std::mutex> lock(mutex_);
    Json::Value sentry = rooms_.isObject() ? rooms_ : Json::Value(Json::objectValue);
    Json::Value status(Json::objectValue);
    for (const std::string& room : sentry.getMemberNames()) {
        const Json::Value counters =
            sentry[room].isObject() ? sentry[room]["counters"] : Json::Value();
        if (!counters.isObject()) continue;
        for (const std::string& name : counters.getMemberNames()) {
            status["counters"][name] = counters[name];
        }
    }
    sentry["state"] = state_;
    sentry["why"] = why_;
    sentry["lost"] = lost_;
    status["sentry"] = std::move(sentry);
    return status;
}

}  // namespace Agent
