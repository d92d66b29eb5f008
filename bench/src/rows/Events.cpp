// 598,000 events that need no restore: how fast they can be written while a guard reads, whether
// any are lost, and how fast a backlog is drained.
#include <fcntl.h>
#include <unistd.h>

#include <fstream>

#include "guards/AgentGuard.h"
#include "guards/Peers.h"
#include "guards/RawWatch.h"
#include "rows/Noise.h"
#include "rows/Row.h"

namespace Bench {
namespace {

constexpr std::size_t kEvents = 598000;
constexpr milliseconds kPatience{120000};
constexpr microseconds kObserve{1000};
constexpr char kSuffix[] = ".cache";

Guards Contestants(const Machine& machine) {
    Guards guards;
    guards.push_back(std::make_unique<RawWatch>(machine, 1));
    guards.push_back(std::make_unique<AgentGuard>(machine, true));
    guards.push_back(std::make_unique<Inotifywait>(machine));
    guards.push_back(std::make_unique<Lsyncd>(machine, Lsyncd::Way::kBatch));
    guards.push_back(std::make_unique<Watchman>(machine));
    return guards;
}

double PerSecond(std::size_t events, double milliseconds_taken) {
    return static_cast<double>(events) / milliseconds_taken * 1000;
}

std::int64_t Overflows(const Guard& guard) {
    const auto* agent = dynamic_cast<const AgentGuard*>(&guard);
    return agent == nullptr ? 0 : agent->Status()["counters"]["overflows"].asInt64();
}

bool Drained(Guard& guard) {
    if (guard.Backlog() > 0) return false;
    const auto* agent = dynamic_cast<const AgentGuard*>(&guard);
    return agent == nullptr || agent->Status()["filenotify"]["pending_events"].asInt64() == 0;
}

void MeasureWriter(Plan& plan, Guard& guard, const Noise& noise, const std::string& row,
                   void (Noise::*make)(std::size_t) const) {
    for (int run = 0; plan.Goes(run, plan.Runs(5, 2)); ++run) {
        const std::int64_t before = Overflows(guard);
        const auto start = Clock::now();
        (noise.*make)(kEvents);
        const auto end = Clock::now();
        plan.results.Add(row, guard.Name(), PerSecond(kEvents, MsBetween(start, end)));
        const bool drained = WaitUntil(kPatience, kObserve, [&] { return Drained(guard); });
        if (!drained) {
            plan.results.Note(row, guard.Name(), "not drained after 120 s");
            return;
        }
        if (dynamic_cast<AgentGuard*>(&guard) == nullptr) continue;
        plan.results.Add(row + "_settled", guard.Name(), MsSince(end));
        plan.results.Add(row + "_overflows", guard.Name(),
                         static_cast<double>(Overflows(guard) - before));
    }
}

/// The guard stands still while its queue fills to nine tenths.
void MeasureDrain(Plan& plan, Guard& guard, const Noise& noise, std::size_t capacity) {
    const std::size_t events = std::min(kEvents, capacity / 10 * 9);
    for (int run = 0; plan.Goes(run, plan.Runs(5, 2)); ++run) {
        guard.Freeze();
        noise.Write(events);
        const bool hears = guard.Backlog() > 0;
        const auto start = Clock::now();
        guard.Thaw();
        if (!hears) {
            plan.results.Note("drain_ignored", guard.Name(), "is not told of single writes");
            return;
        }
        const bool drained =
            WaitUntil(kPatience, microseconds(200), [&] { return Drained(guard); });
        const double taken = MsSince(start);
        if (drained) plan.results.Add("drain_ignored", guard.Name(), PerSecond(events, taken));
    }
    plan.results.Note("drain_ignored", guard.Name(), std::to_string(events) + " events a run");
}

bool MakeSite(Post& post) {
    return MakeTree(post.Place().live, {10, 100, 4096}) && post.Survey(false) &&
           MakeNoiseFiles(post.Place().live, kSuffix, 1000);
}

void MeasureNobody(Plan& plan) {
    Post post(plan.machine, std::make_unique<RawWatch>(plan.machine, 1));
    if (!MakeSite(post)) return;
    const Noise ignored(post.Place().live, kSuffix);
    const Noise unchanged(post.Place().live, ".html");
    for (int run = 0; plan.Goes(run, plan.Runs(5, 2)); ++run) {
        auto start = Clock::now();
        ignored.Write(kEvents);
        plan.results.Add("events_ignored", "nobody", PerSecond(kEvents, MsSince(start)));
        start = Clock::now();
        unchanged.Touch(kEvents);
        plan.results.Add("events_unchanged", "nobody", PerSecond(kEvents, MsSince(start)));
    }
}

}  // namespace

void MeasureEvents(Plan& plan) {
    MeasureNobody(plan);
    for (auto& guard : Installed(plan, "events_ignored", Contestants(plan.machine))) {
        plan.Say("events: " + guard->Name());
        Post post(plan.machine, std::move(guard));
        GuardSettings settings;
        settings.ignored = kSuffix;
        const std::size_t before = QueueCapacity();
        if (!MakeSite(post) || !CopyTree(post.Place().live, post.Place().good) ||
            !post.Start(plan, "events_ignored", settings)) {
            continue;
        }
        post.Watch().Settle();
        const bool ours = dynamic_cast<AgentGuard*>(&post.Watch()) != nullptr;
        const Noise ignored(post.Place().live, kSuffix);
        const Noise unchanged(post.Place().live, ".html");
        MeasureWriter(plan, post.Watch(), ignored, "events_ignored", &Noise::Write);
        MeasureWriter(plan, post.Watch(), unchanged, "events_unchanged", &Noise::Touch);
        MeasureDrain(plan, post.Watch(), ignored, ours ? QueueCapacity() : before);
    }
}

}  // namespace Bench
