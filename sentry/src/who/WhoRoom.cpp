// Owns the attribution while an agent is connected. Must not answer permission events nor open
// pages: its thread may wait for the shield.
#include "who/WhoRoom.h"

#include <poll.h>
#include <sdk/files/PathUtils.h>
#include <sdk/text/JsonUtils.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstdlib>
#include <utility>

namespace Sentry {

using SDK::JsonUtils;

namespace {

constexpr int kTickMs = 100;
constexpr std::size_t kMostPaths = 1024;
constexpr std::size_t kMostLookups = 256;
constexpr std::size_t kMostLevels = 64;

Json::Value Error(const std::string& text) {
    Json::Value answer(Json::objectValue);
    answer["error"] = text;
    return answer;
}

}  // namespace

WhoRoom::~WhoRoom() {
    WhoRoom::Stop();
}

void WhoRoom::Start(const Json::Value& settings, pid_t agent, Tell) {
    const std::string mode = JsonUtils::GetStringValue(settings, "who", "on");
    is_on_ = mode != "off";
    with_cmdline_ = mode == "on";
    if (!is_on_) return;
    objects_ = std::make_unique<ObjectEvents>();
    if (!objects_->Problem().empty()) return;
    processes_ = {};
    processes_.SetOwn(agent, ::getpid());
    answers_.fill(0);
    reader_ = std::make_unique<EventReader>(objects_->Descriptor());
    process_events_ =
        std::make_unique<ProcessEvents>(processes_, reader_->Thread(), objects_->Descriptor());
    stop_.Reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    thread_ = std::thread([this] { Work(); });
}

void WhoRoom::Stop() {
    if (thread_.joinable()) {
        const std::uint64_t one = 1;
        if (::write(stop_.Get(), &one, sizeof(one)) < 0) return;
        thread_.join();
    }
    process_events_.reset();
    reader_.reset();
    objects_.reset();
    touches_.Clear();
    watched_.clear();
}

void WhoRoom::Work() {
    ::prctl(PR_SET_NAME, "who");
    Nanoseconds next_expiry = 0;
    for (bool must_go_on = false;;) {
        pollfd ready[] = {{reader_->Descriptor(), POLLIN, 0},
                          {process_events_->Descriptor(), POLLIN, 0},
                          {stop_.Get(), POLLIN, 0}};
        ::poll(ready, std::size(ready), must_go_on ? 0 : kTickMs);
        if (ready[2].revents != 0) return;
        const std::lock_guard<std::mutex> lock(mutex_);
        Follow();
        const Nanoseconds now = Now();
        must_go_on = objects_->Trees().Work(now);
        if (now < next_expiry) continue;
        next_expiry = now + kSecond;
        processes_.Expire(now);
        touches_.Expire(now);
    }
}

/// Takes the events that wait. The events of processes are read behind the changes, so that all who
/// made them are known.
void WhoRoom::Follow() {
    const std::deque<EventReader::Chunk> chunks = reader_->TakeAll();
    process_events_->Read();
    for (const EventReader::Chunk& chunk : chunks) Record(chunk);
}

void WhoRoom::Record(const EventReader::Chunk& chunk) {
    Moment moment = chunk.moment;
    objects_->Parse(chunk.bytes, moment.latest, events_);
    for (const ObjectEvents::Event& event : events_) {
        std::optional<ProcessEvents::Wake> wake;
        Moment exact = moment;
        exact.ahead = event.ahead;
        // The first change of a chunk woke the reader, and the others came later.
        if (event.ahead == 0) {
            wake = process_events_->TakeWake(event.pid, moment.earliest, moment.latest);
            if (wake) exact.earliest = exact.latest = moment.earliest = wake->at;
        }
        const ProcessTable::Found found =
            processes_.At(event.pid, exact, wake ? &wake->user : nullptr);
        if (found.process && found.process->is_own) continue;
        touches_.Add(event.path, {found.process, event.pid, exact.latest, exact.latest,
                                  found.is_exact, found.why});
    }
    events_.clear();
}

Json::Value WhoRoom::Answer(const std::string& operation, const Json::Value& request) {
    if (operation != "watch" && operation != "lookup") {
        return Error("There is no operation who." + operation + ".");
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!thread_.joinable()) return Error("attribution is off");
    return operation == "watch" ? Watch(request) : Lookup(request);
}

Json::Value WhoRoom::Watch(const Json::Value& request) {
    std::vector<WatchedPath> paths;
    for (const Json::Value& one : request["paths"]) {
        WatchedPath path{
            SDK::PathUtils::WithoutTrailingSlash(JsonUtils::GetStringValue(one, "path", "")), {}};
        for (const Json::Value& prefix : one["excluded"]) {
            if (prefix.isString()) path.excluded.push_back(prefix.asString());
        }
        if (!path.path.empty() && paths.size() < kMostPaths) paths.push_back(std::move(path));
    }
    if (!(paths == watched_)) {
        watched_ = paths;
        objects_->Trees().Watch(std::move(paths));
    }
    return Json::Value(Json::objectValue);
}

Json::Value WhoRoom::Lookup(const Json::Value& request) {
    Follow();
    const Nanoseconds now = Now();
    Json::Value answer(Json::objectValue);
    answer["who"] = Json::Value(Json::arrayValue);
    for (const Json::Value& one : request["of"]) {
        if (answer["who"].size() >= kMostLookups) break;
        const std::string path =
            SDK::PathUtils::WithoutTrailingSlash(JsonUtils::GetStringValue(one, "path", ""));
        const std::string at = JsonUtils::GetStringValue(one, "at", "0");
        const Verdict verdict = Find(path, std::strtoll(at.c_str(), nullptr, 10), now);
        const Certainty certainty = verdict.certainty == "exact"    ? kExact
                                    : verdict.certainty == "likely" ? kLikely
                                                                    : kUnknown;
        ++answers_[certainty];
        answer["who"].append(ToJson(verdict, with_cmdline_));
    }
    return answer;
}

/// What lies in a new directory may be older than its mark: then who made the directory is named.
Verdict WhoRoom::Find(const std::string& path, Nanoseconds at, Nanoseconds now) const {
    std::string place = path;
    for (std::size_t level = 0; level < kMostLevels; ++level) {
        Verdict verdict = JudgeTouches(touches_.Of(place), at, now);
        if (level == 0 && !touches_.Of(place).empty()) return verdict;
        if (verdict.certainty != "unknown") {
            verdict.certainty = "likely";
            verdict.reason = "it lies in a directory that this process made or changed";
            return verdict;
        }
        place = SDK::PathUtils::GetDirFromPath(place);
        if (place.size() <= 1 || objects_->Trees().IsSettled(place, now)) break;
    }
    Verdict unknown = JudgeTouches({}, at, now);
    if (objects_->Trees().Rested(path, at)) {
        unknown.reason = "so many changes were made that attribution rested";
    }
    return unknown;
}

Json::Value WhoRoom::Status() const {
    Json::Value status(Json::objectValue);
    status["state"] = "off";
    if (!is_on_) return status;
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!thread_.joinable()) {
        status["state"] = "refused";
        if (objects_) status["why"] = objects_->Problem();
        return status;
    }
    status["state"] = "running";
    status["why"] = objects_->Trees().Problem();
    if (process_events_) {
        status["process_events"] = process_events_->Problem().empty();
        status["process_events_why"] = process_events_->Problem();
        status["process_events_lost"] = Json::UInt64{process_events_->Lost()};
    }
    status["processes"] = Json::UInt64{processes_.Size()};
    status["directories"] = Json::UInt64{objects_->Trees().Marks()};
    status["directories_resting"] = Json::UInt64{objects_->Trees().Resting()};
    status["overflows"] = Json::UInt64{objects_->Overflows() + reader_->Dropped()};
    Json::Value& counters = status["counters"];
    counters["who_exact"] = Json::UInt64{answers_[kExact]};
    counters["who_likely"] = Json::UInt64{answers_[kLikely]};
    counters["who_unknown"] = Json::UInt64{answers_[kUnknown]};
    return status;
}

}  // namespace Sentry
