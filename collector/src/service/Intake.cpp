// Owns the rules by which reports of hosts are stored: order, duplicates, new numbering, silence.
// Must not know the broker (CollectorService does) or SQL (FleetStore does).
#include "service/Intake.h"

#include <Poco/NumberParser.h>
#include <sdk/text/JsonUtils.h>

#include <algorithm>
#include <utility>

#include "base/ServiceLog.h"

namespace Collector {

namespace {

constexpr std::size_t kMostMessages = 2000;
constexpr std::size_t kLargeBatch = 100;
constexpr std::size_t kMostBytes = 16 * 1024 * 1024;
constexpr int kMostReportsOfOneHost = 500;
constexpr std::size_t kMostStateBytes = 16 * 1024;
constexpr std::size_t kMostResultBytes = 64 * 1024;
constexpr std::int64_t kLeastBetweenEventsMs = 1'000;
constexpr int kRowsPerStep = 1000;

}  // namespace

Intake::Intake(FleetStore& store, const CollectorSettings& settings)
    : store_(store),
      settings_(settings),
      hosts_(store, static_cast<std::size_t>(settings.max_hosts)) {}

void Intake::Add(Fleet::Message&& message) {
    auto topic = Fleet::ParseTopic(message.topic);
    const bool is_report = topic && topic->channel == "report";
    const bool is_known =
        is_report || (topic && (topic->channel == "state" || topic->channel == "result" ||
                                topic->channel == "act_result"));
    if (!is_known || IsFull() ||
        (is_report && ++reports_in_batch_[topic->agent_id] > kMostReportsOfOneHost)) {
        ++counters_.refused;
        return;
    }
    batch_bytes_ += message.payload.size();
    batch_.push_back({std::move(*topic), std::move(message)});
}

bool Intake::IsFull() const {
    return batch_.size() >= kMostMessages || batch_bytes_ >= kMostBytes;
}

bool Intake::IsLarge() const {
    return batch_.size() >= kLargeBatch;
}

bool Intake::Store(std::int64_t now_ms, std::vector<Reply>& replies) {
    replies.clear();
    answers_.clear();
    const IntakeCounters before = counters_;
    const bool good = hosts_.IsFresh() && store_.Begin() && StoreBatch(now_ms) && hosts_.Write() &&
                      store_.Commit();
    batch_.clear();
    batch_bytes_ = 0;
    reports_in_batch_.clear();
    if (good) {
        for (auto& [agent_id, answer] : answers_) replies.push_back({agent_id, std::move(answer)});
        return true;
    }
    counters_ = before;
    return Undo();
}

/// After a lost connection nobody knows whether the transaction was committed: the hosts are read
/// again before anything else is stored.
bool Intake::Undo() {
    error_ = store_.Error();
    store_.Rollback();
    hosts_.Load();
    return false;
}

bool Intake::StoreBatch(std::int64_t now_ms) {
    return std::all_of(batch_.begin(), batch_.end(),
                       [&](Item& item) { return StoreItem(item, now_ms); });
}

/// False only when the store fails; a malformed message is counted and left out.
bool Intake::StoreItem(Item& item, std::int64_t now_ms) {
    HostRecord* const host = hosts_.Change(item.topic.agent_id, now_ms);
    if (host == nullptr) {
        ++counters_.refused;
        return hosts_.All().size() >= static_cast<std::size_t>(settings_.max_hosts);
    }
    if (item.topic.channel == "state") return StoreState(*host, item.message, now_ms);
    host->last_seen_ms = std::max(host->last_seen_ms, item.message.retain ? 0 : now_ms);
    if (item.topic.channel != "report") return StoreResult(*host, item, now_ms);
    const auto report = Fleet::ReadReport(item.topic.leaf, std::move(item.message));
    if (!report || report->body.size() > Fleet::kMaxBodyBytes) {
        ++counters_.refused;
        return true;
    }
    return StoreReport(*host, *report, now_ms);
}

bool Intake::StoreResult(const HostRecord& host, const Item& item, std::int64_t now_ms) {
    const bool is_act = item.topic.channel == "act_result";
    Poco::Int64 number = 0;
    if (item.message.payload.size() > kMostResultBytes ||
        (is_act && !Poco::NumberParser::tryParse64(item.topic.leaf, number))) {
        ++counters_.refused;
        return true;
    }
    if (is_act) return store_.SaveActResult(host.id, number, item.message.payload, now_ms);
    return store_.SaveResult(host.id, item.topic.leaf, item.message.payload, now_ms);
}

bool Intake::StoreReport(HostRecord& host, const Fleet::Report& report, std::int64_t now_ms) {
    const bool is_first_in_window = report.previous == report.acknowledged;
    if (host.stream != report.stream) {
        if (is_first_in_window) return BeginStream(host, report, now_ms);
        ++counters_.too_early;
        Answer(host, report.stream, report.acknowledged, true);
        return true;
    }
    if (report.seq <= host.acknowledged) return Renumber(host, report, now_ms);
    if (report.previous > host.acknowledged && !is_first_in_window) {
        ++counters_.too_early;
        Answer(host, host.stream, host.acknowledged, true);
        return true;
    }
    return AddReport(host, report, now_ms);
}

bool Intake::BeginStream(HostRecord& host, const Fleet::Report& report, std::int64_t now_ms) {
    const bool is_new = host.stream.empty();
    host.stream = report.stream;
    host.acknowledged = report.previous;
    ++host.epoch;
    return (is_new ||
            AddEvent(host, "renumbered",
                     "the host has a new report store; its reports are numbered anew", now_ms)) &&
           AddReport(host, report, now_ms);
}

/// A number that is stored already. The host repeats a report, or it has lost the end of its store,
/// as after a loss of power, and uses the number for another one.
bool Intake::Renumber(HostRecord& host, const Fleet::Report& report, std::int64_t now_ms) {
    const FleetStore::Match match = store_.Compare(host, report);
    if (match == FleetStore::Match::kFailed) return false;
    if (match != FleetStore::Match::kOther) {
        ++counters_.repeated;
        Answer(host, host.stream, host.acknowledged, false);
        return true;
    }
    host.acknowledged = report.seq - 1;
    ++host.epoch;
    return AddEvent(host, "renumbered",
                    "the host uses the numbers from " + std::to_string(report.seq) +
                        " on again, as after a loss of the end of its report store",
                    now_ms) &&
           AddReport(host, report, now_ms);
}

bool Intake::AddReport(HostRecord& host, const Fleet::Report& report, std::int64_t now_ms) {
    const std::int64_t from = std::max(host.acknowledged, std::int64_t{0}) + 1;
    if (report.seq > from && !AddEvent(host, "gap",
                                       "the reports " + std::to_string(from) + " to " +
                                           std::to_string(report.seq - 1) + " are missing",
                                       now_ms)) {
        return false;
    }
    if (!store_.AddReport(host, report, now_ms)) return false;
    ++counters_.stored;
    host.acknowledged = report.seq;
    host.bytes += static_cast<std::int64_t>(report.body.size());
    Answer(host, host.stream, host.acknowledged, false);
    return SetSilent(host, false, "the host reports again", now_ms) && KeepWithinSize(host);
}

bool Intake::StoreState(HostRecord& host, const Fleet::Message& message, std::int64_t now_ms) {
    Json::Value state;
    const std::string& text = message.payload;
    if (text.size() > kMostStateBytes ||
        SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), state) != 0 || !state.isObject()) {
        ++counters_.refused;
        return true;
    }
    host.online = SDK::JsonUtils::GetBoolValue(state, "online", false);
    if (host.online) host.state = SDK::JsonUtils::JsonToString(state);
    if (!host.online) {
        const bool stopped = SDK::JsonUtils::GetBoolValue(state, "stopped", false);
        return SetSilent(host, true,
                         stopped ? "the agent was stopped" : "the connection of the host is lost",
                         now_ms);
    }
    if (message.retain) return true;  // says nothing about now
    host.last_seen_ms = now_ms;
    return SetSilent(host, false, "the host reports again", now_ms);
}

bool Intake::SetSilent(HostRecord& host, bool silent, const std::string& text,
                       std::int64_t now_ms) {
    if (host.silent == silent) return true;
    host.silent = silent;
    return AddEvent(host, silent ? "silent" : "back", text, now_ms);
}

/// A host that makes many events has only some of them recorded.
bool Intake::AddEvent(const HostRecord& host, const std::string& kind, const std::string& text,
                      std::int64_t now_ms) {
    std::int64_t& last = last_event_ms_[host.id];
    const bool is_too_soon =
        kind != "silent" && kind != "back" && now_ms - last < kLeastBetweenEventsMs;
    if (is_too_soon) return true;
    last = now_ms;
    Log(kind == "back" ? Severity::kNotice : Severity::kWarning,
        "host " + host.agent_id + ": " + kind + ": " + text);
    return store_.AddEvent(host.id, kind, text, now_ms);
}

bool Intake::KeepWithinSize(HostRecord& host) {
    if (host.bytes <= settings_.MaxBytesPerHost()) return true;
    return store_.PruneHost(host.id, kRowsPerStep, [&host](std::int64_t, std::int64_t bytes) {
        host.bytes = std::max<std::int64_t>(host.bytes - bytes, 0);
    });
}

void Intake::Answer(const HostRecord& host, const std::string& stream, std::int64_t seq,
                    bool again) {
    Fleet::Acknowledgement& answer = answers_[host.agent_id];
    again = again || (answer.again && answer.stream == stream && answer.seq >= seq);
    answer = {stream, seq, again};
}

std::vector<Reply> Intake::AskForMissing() {
    std::vector<Reply> replies;
    // What a failed transaction has changed in memory is not stored: to name it would acknowledge
    // it.
    if (!hosts_.IsFresh()) return replies;
    for (const auto& [agent_id, host] : hosts_.All()) {
        if (!host.stream.empty())
            replies.push_back({agent_id, {host.stream, host.acknowledged, true}});
    }
    return replies;
}

bool Intake::CheckSilence(std::int64_t now_ms, std::int64_t since_ms) {
    std::vector<std::string> silent;
    if (!hosts_.IsFresh()) return Undo();
    for (const auto& [agent_id, host] : hosts_.All()) {
        const std::int64_t last = std::max(host.last_seen_ms, since_ms);
        if (!host.silent && now_ms - last > settings_.SilentAfterMs()) silent.push_back(agent_id);
    }
    if (silent.empty()) return true;
    bool good = store_.Begin();
    for (const std::string& agent_id : silent) {
        HostRecord* const host = good ? hosts_.Change(agent_id, now_ms) : nullptr;
        good =
            host != nullptr && SetSilent(*host, true, "nothing has arrived from the host", now_ms);
    }
    if (good && hosts_.Write() && store_.Commit()) return true;
    return Undo();
}

bool Intake::Prune(std::int64_t now_ms) {
    const auto removed = [this](std::int64_t host_id, std::int64_t bytes) {
        Removed(host_id, bytes);
    };
    if (hosts_.IsFresh() && store_.Begin() &&
        store_.PruneOlderThan(now_ms - settings_.KeepMs(), kRowsPerStep, removed) &&
        hosts_.Write() && store_.Commit()) {
        return true;
    }
    return Undo();
}

void Intake::Removed(std::int64_t host_id, std::int64_t bytes) {
    HostRecord* const host = hosts_.Find(host_id);
    if (host != nullptr) host->bytes = std::max<std::int64_t>(host->bytes - bytes, 0);
}

}  // namespace Collector
