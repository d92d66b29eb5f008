#include "SimulatedFleet.h"

#include <sdk/time/TimeUtils.h>
#include <sys/epoll.h>

#include <algorithm>
#include <array>
#include <map>

namespace test {

namespace {

constexpr int kWaitMs = 5;
constexpr std::int64_t kSweepMs = 500;  ///< each host gets a Step as often as in the agent
constexpr std::int64_t kAskEveryMs = 20;
constexpr std::int64_t kPage = 1000;

std::int64_t NowMs() {
    return SDK::TimeUtils::GetMonotonicMs();
}

}  // namespace

std::vector<std::string> SimulatedFleet::MakeIds(int count) {
    std::vector<std::string> ids;
    for (int i = 0; i < count; ++i) ids.push_back("host-" + std::to_string(i));
    return ids;
}

SimulatedFleet::SimulatedFleet(const Broker& broker, const std::vector<std::string>& ids,
                               unsigned seed)
    : sockets_(ids.size(), -1), poll_(::epoll_create1(EPOLL_CLOEXEC)), random_(seed) {
    for (const std::string& id : ids) {
        hosts_.push_back(std::make_unique<SimulatedHost>(id, broker.SettingsOf(id)));
    }
}

void SimulatedFleet::RaiseAt(std::size_t host, std::int64_t count) {
    hosts_[host]->Raise(count, NowMs());
}

bool SimulatedFleet::RunFor(std::chrono::milliseconds time, const std::function<bool()>& done) {
    std::int64_t now_ms = NowMs();
    const std::int64_t end_ms = now_ms + time.count();
    std::int64_t ask_due_ms = now_ms;
    last_raise_ms_ = last_sweep_ms_ = now_ms;
    while (now_ms < end_ms) {
        StepReady(now_ms);
        RaiseByRate(now_ms);
        Sweep(now_ms);
        if (done && now_ms >= ask_due_ms) {
            ask_due_ms = now_ms + kAskEveryMs;
            if (done()) return true;
        }
        now_ms = NowMs();
    }
    return done && done();
}

void SimulatedFleet::StepReady(std::int64_t now_ms) {
    std::array<epoll_event, 256> events{};
    const int count =
        ::epoll_wait(poll_.Get(), events.data(), static_cast<int>(events.size()), kWaitMs);
    for (int i = 0; i < count; ++i)
        StepOne(events.at(static_cast<std::size_t>(i)).data.u64, now_ms);
}

void SimulatedFleet::StepOne(std::size_t index, std::int64_t now_ms) {
    SimulatedHost& host = *hosts_[index];
    host.Step(now_ms);
    const int socket = host.Socket();
    if (socket == sockets_[index]) return;
    sockets_[index] = socket;
    epoll_event event{};
    event.events = EPOLLIN | EPOLLOUT | EPOLLET;
    event.data.u64 = index;
    if (socket >= 0) ::epoll_ctl(poll_.Get(), EPOLL_CTL_ADD, socket, &event);
}

void SimulatedFleet::RaiseByRate(std::int64_t now_ms) {
    owed_ += rate_ * static_cast<double>(now_ms - last_raise_ms_) / 1000;
    last_raise_ms_ = now_ms;
    for (; owed_ >= 1; owed_ -= 1) {
        const std::size_t index = random_() % hosts_.size();
        hosts_[index]->Raise(1, now_ms);
        StepOne(index, now_ms);
    }
}

/// A part of the hosts, so that each has its turn in time.
void SimulatedFleet::Sweep(std::int64_t now_ms) {
    const auto share = static_cast<std::size_t>(static_cast<std::int64_t>(hosts_.size()) *
                                                (now_ms - last_sweep_ms_) / kSweepMs);
    if (share == 0) return;
    last_sweep_ms_ = now_ms;
    for (std::size_t i = 0; i < std::min(share, hosts_.size()); ++i) {
        StepOne(next_swept_, now_ms);
        next_swept_ = (next_swept_ + 1) % hosts_.size();
    }
}

std::size_t SimulatedFleet::Connected() const {
    return static_cast<std::size_t>(std::count_if(
        hosts_.begin(), hosts_.end(), [](const auto& host) { return host->IsConnected(); }));
}

std::int64_t SimulatedFleet::Raised() const {
    std::int64_t sum = 0;
    for (const auto& host : hosts_) sum += host->Raised();
    return sum;
}

std::int64_t SimulatedFleet::Acknowledged() const {
    std::int64_t sum = 0;
    for (const auto& host : hosts_) sum += host->Acknowledged();
    return sum;
}

std::vector<std::int64_t> SimulatedFleet::TakeLatencies() {
    std::vector<std::int64_t> all;
    for (const auto& host : hosts_) {
        const std::vector<std::int64_t> some = host->TakeLatencies();
        all.insert(all.end(), some.begin(), some.end());
    }
    std::sort(all.begin(), all.end());
    return all;
}

std::string SimulatedFleet::FaultIn(Collector::FleetStore& store) const {
    std::map<std::string, std::int64_t> last;
    std::string fault;
    std::int64_t after = 0;
    std::int64_t read = 0;
    const auto check = [&](const Json::Value& row) {
        const std::string id = row["agent_id"].asString();
        const std::int64_t seq = row["seq"].asInt64();
        after = row["id"].asInt64();
        ++read;
        if (seq != ++last[id]) {
            fault = id + ": " + std::to_string(seq) + " instead of " + std::to_string(last[id]);
        } else if (row["body"].asString() != SimulatedHost::BodyOf(id, seq)) {
            fault = id + ": another body in " + std::to_string(seq);
        }
        return fault.empty();
    };
    do {
        read = 0;
        if (!store.ReadReportsAfter(after, kPage, check)) return store.Error();
    } while (fault.empty() && read == kPage);
    for (const auto& host : hosts_) {
        if (!fault.empty()) break;
        if (last[host->AgentId()] != host->Raised()) {
            fault = host->AgentId() + ": " + std::to_string(last[host->AgentId()]) + " of " +
                    std::to_string(host->Raised());
        }
    }
    return fault;
}

}  // namespace test
