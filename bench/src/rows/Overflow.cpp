// A guard stands still, its queue is filled with events of no meaning, and then 3,000 files are
// changed of which it can hear nothing. What does it find when it goes on?
#include "guards/AgentGuard.h"
#include "guards/Peers.h"
#include "rows/Noise.h"
#include "rows/Row.h"

namespace Bench {
namespace {

constexpr char kRow[] = "overflow_left";
constexpr std::size_t kFiles = 3000;
constexpr std::size_t kMore = 1000;
constexpr char kSuffix[] = ".cache";
constexpr milliseconds kPatience{180000};
constexpr milliseconds kNoProgress{20000};
constexpr microseconds kObserve{20000};

Guards Contestants(const Machine& machine) {
    Guards guards;
    guards.push_back(std::make_unique<AgentGuard>(machine, true));
    guards.push_back(std::make_unique<InotifywaitLoop>(machine));
    guards.push_back(std::make_unique<Lsyncd>(machine, Lsyncd::Way::kBatch));
    guards.push_back(std::make_unique<Watchman>(machine));
    return guards;
}

void MeasureOne(Plan& plan, Post& post, std::size_t capacity) {
    Guard& guard = post.Watch();
    const Noise noise(post.Place().live, kSuffix);
    guard.Freeze();
    noise.Touch(capacity + kMore);
    for (const FileState& file : post.Files()) Tamper(post.Live(file));
    const auto start = Clock::now();
    guard.Thaw();
    Outstanding outstanding(post.Place().live, post.Files());
    std::size_t left = post.Files().size();
    auto last = start;
    WaitUntil(plan.Patience(kPatience), kObserve, [&] {
        const std::size_t now = outstanding.Look();
        if (now < left) last = Clock::now();
        left = now;
        return left == 0 || Clock::now() - last > kNoProgress;
    });
    if (left == 0) plan.results.Add("overflow_back", guard.Name(), MsSince(start));
    plan.results.Add(kRow, guard.Name(), static_cast<double>(left));
    if (!guard.Runs()) plan.results.Note(kRow, guard.Name(), "it ended by itself");
}

}  // namespace

void MeasureOverflow(Plan& plan) {
    for (int run = 0; plan.Goes(run, plan.Runs(2, 1)); ++run) {
        for (auto& guard : Installed(plan, kRow, Contestants(plan.machine))) {
            plan.Say("overflow: " + guard->Name());
            const std::size_t before = QueueCapacity();
            Post post(plan.machine, std::move(guard));
            GuardSettings settings;
            settings.ignored = kSuffix;
            if (!MakeTree(post.Place().live, {kFiles / 10, 10, 4096}) ||
                !post.Survey(post.Good() == post.Place().good) ||
                !MakeNoiseFiles(post.Place().live, kSuffix, 1000) ||
                !post.Start(plan, kRow, settings)) {
                continue;
            }
            post.Watch().Settle();
            const bool ours = dynamic_cast<AgentGuard*>(&post.Watch()) != nullptr;
            MeasureOne(plan, post, ours ? QueueCapacity() : before);
        }
    }
}

}  // namespace Bench
