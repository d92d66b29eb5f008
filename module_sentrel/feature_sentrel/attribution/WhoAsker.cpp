// Owns the questions to the sentry. Must not decide what an alarm says beside their answers
// (AlarmReporter does).
#include "feature_sentrel/attribution/WhoAsker.h"

#include <sdk/files/PathUtils.h>
#include <sdk/text/JsonUtils.h>

#include <algorithm>
#include <utility>

#include "base/RunningEngine.h"

namespace Engine {

namespace {

Json::Value Unknown(const std::string& reason) {
    Json::Value who(Json::objectValue);
    who["certainty"] = "unknown";
    who["reason"] = reason;
    return who;
}

std::string Nanoseconds(Attribution::TimePoint time) {
    const auto since = time.time_since_epoch();
    return std::to_string(std::chrono::duration_cast<std::chrono::nanoseconds>(since).count());
}

}  // namespace

WhoAsker::WhoAsker(Send send, std::function<void()> answered)
    : send_(std::move(send)), answered_(std::move(answered)) {}

WhoAsker::~WhoAsker() {
    Stop();
}

bool WhoAsker::ToSentry(const Json::Value& request, Json::Value& reply) {
    Framework::Engine* engine = RunningEngine();
    return engine != nullptr && engine->Queries().Ask("sentry.request", request, reply);
}

void WhoAsker::Watch(const std::list<SentrelDirRule>& rules) {
    Json::Value paths(Json::arrayValue);
    for (const SentrelDirRule& rule : rules) {
        // The directory of a single file is watched: the file may be replaced.
        const std::string path =
            rule.is_file ? SDK::PathUtils::GetDirFromPath(rule.real_path) : rule.real_path;
        Json::Value one(Json::objectValue);
        one["path"] = path;
        one["excluded"] = Json::Value(Json::arrayValue);
        for (const std::string& below : rule.ignored_subdir) {
            one["excluded"].append(SDK::PathUtils::WithTrailingSlash(path) + below);
        }
        paths.append(std::move(one));
    }
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        paths_ = std::move(paths);
    }
    if (is_connected_) SendPaths();
}

void WhoAsker::Tick(const Json::Value& sentry) {
    const int process = SDK::JsonUtils::GetIntValue(sentry, "process", 0);
    is_connected_ = SDK::JsonUtils::GetStringValue(sentry["who"], "state", "off") != "off";
    if (!is_connected_ || process == process_) return;
    process_ = SendPaths() ? process : 0;
}

/// False when the sentry does not take them now.
bool WhoAsker::SendPaths() {
    Json::Value request(Json::objectValue);
    request["op"] = "who.watch";
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        request["paths"] = paths_.isArray() ? paths_ : Json::Value(Json::arrayValue);
    }
    Json::Value reply;
    return send_(request, reply) && !reply.isMember("error");
}

std::shared_ptr<const Attribution> WhoAsker::Ask(const std::string& path,
                                                 Attribution::TimePoint read_time) {
    if (!is_connected_) return nullptr;
    auto request = std::make_shared<Attribution>(path, read_time);
    bool is_left_out = false;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        is_left_out = waiting_.size() >= kMostWaiting;
        if (!is_left_out) waiting_.push_back(request);
    }
    if (is_left_out) {
        Answer(*request, Unknown("too many changes at once"));
        return request;
    }
    changed_.notify_one();
    if (!thread_.joinable()) thread_ = std::thread([this] { Work(); });
    return request;
}

void WhoAsker::Stop() {
    if (!thread_.joinable()) return;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        is_stopping_ = true;
    }
    changed_.notify_one();
    thread_.join();
    is_stopping_ = false;
}

void WhoAsker::Work() {
    for (;;) {
        Requests next;
        {
            std::unique_lock<std::mutex> lock(mutex_);
            changed_.wait(lock, [this] { return is_stopping_ || !waiting_.empty(); });
            if (waiting_.empty()) return;
            const std::size_t count = std::min(waiting_.size(), kAskedAtOnce);
            const auto end = waiting_.begin() + static_cast<std::ptrdiff_t>(count);
            std::move(waiting_.begin(), end, std::back_inserter(next));
            waiting_.erase(waiting_.begin(), end);
        }
        // A sentry that does not answer must not delay each of many alarms.
        if (std::string error; !AskSentry(next, error)) AnswerAll(error);
        answered_();
    }
}

/// False when the sentry did not answer: `error` says why, and the requests are answered with it.
bool WhoAsker::AskSentry(const Requests& requests, std::string& error) {
    Json::Value request(Json::objectValue);
    request["op"] = "who.lookup";
    request["wait_ms"] = static_cast<int>(kWait.count());
    for (const auto& one : requests) {
        Json::Value of(Json::objectValue);
        of["path"] = one->path_;
        of["at"] = Nanoseconds(one->read_time_);
        request["of"].append(std::move(of));
    }
    Json::Value reply;
    if (!send_(request, reply)) reply["error"] = "there is no sentry";
    error = SDK::JsonUtils::GetStringValue(reply, "error", "");
    if (error.empty()) {
        error = SDK::JsonUtils::GetStringValue(reply["answer"], "error", "the sentry left it out");
    }
    const Json::Value& who = reply["answer"]["who"];
    for (Json::ArrayIndex i = 0; i < requests.size(); ++i) {
        const bool is_there = who.isArray() && i < who.size() && who[i].isObject();
        Answer(*requests[i], is_there ? who[i] : Unknown(error));
    }
    return who.isArray();
}

void WhoAsker::AnswerAll(const std::string& error) {
    Requests rest;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        rest.swap(waiting_);
    }
    for (const auto& request : rest) Answer(*request, Unknown(error));
}

void WhoAsker::Answer(Attribution& request, const Json::Value& who) {
    request.text_ = SDK::JsonUtils::JsonToString(who);
    request.ready_.store(true, std::memory_order_release);
}

}  // namespace Engine
