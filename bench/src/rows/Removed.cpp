// rm -rf of a subtree with 10,000 files by a real rm, which races with the guard: from the end of
// rm until every file is back.
#include "guards/AgentGuard.h"
#include "guards/BareRsync.h"
#include "guards/Peers.h"
#include "rows/Row.h"

namespace Bench {
namespace {

constexpr milliseconds kPatience{60000};
constexpr microseconds kObserve{5000};
constexpr microseconds kSecondLook{1000000};

struct Form {
    const char* row;
    TreeShape shape;
};

constexpr Form kForms[] = {{"removed_nested", {100, 100, 1024}},
                           {"removed_flat", {1, 10000, 1024}}};

Guards Contestants(const Machine& machine, bool brief) {
    Guards guards;
    guards.push_back(std::make_unique<BareRsync>(machine));
    guards.push_back(std::make_unique<AgentGuard>(machine, true));
    if (!brief) guards.push_back(std::make_unique<InotifywaitLoop>(machine));
    guards.push_back(std::make_unique<Lsyncd>(machine, Lsyncd::Way::kBatch));
    guards.push_back(std::make_unique<Watchman>(machine));
    return guards;
}

/// False when it did not come back in full: more runs would only wait again.
bool MeasureOne(Plan& plan, Post& post, const Form& form) {
    Guard& guard = post.Watch();
    const auto begin = Clock::now();
    const auto ended =
        Run({{"/bin/rm", "-rf", post.Place().live + "/shop"}, {}, "", "", ""}, kPatience);
    if (!ended) plan.results.Note(form.row, guard.Name(), "a run's rm did not end within 60 s");
    const auto gone = Clock::now();
    const auto start = guard.Told("shop/").value_or(gone);
    Outstanding outstanding(post.Place().live, post.Files());
    std::size_t left = outstanding.Wait(kPatience, kObserve);
    const auto end = Clock::now();
    guard.Settle();
    // Once more: a guard that goes on restoring could take some away again.
    Pause(kSecondLook);
    left += post.Differing(post.Files());
    plan.results.Add(std::string(form.row) + "_rm", guard.Name(), MsBetween(begin, gone));
    if (left == 0) {
        plan.results.Add(form.row, guard.Name(), MsBetween(start, end));
        return true;
    }
    plan.results.Note(form.row, guard.Name(),
                      std::to_string(left) + " of 10,000 left after " +
                          std::to_string(kPatience.count() / 1000) + " s");
    return false;
}

}  // namespace

void MeasureRemoved(Plan& plan) {
    for (const Form& form : kForms) {
        Posts posts;
        for (auto& guard : Installed(plan, form.row, Contestants(plan.machine, plan.brief))) {
            auto post = std::make_unique<Post>(plan.machine, std::move(guard));
            if (MakeTree(post->Place().live + "/shop", form.shape) &&
                MakeTree(post->Place().live + "/rest", {10, 10, 1024}) &&
                post->Survey(post->Good() == post->Place().good) &&
                post->Start(plan, form.row, {})) {
                posts.push_back(std::move(post));
            }
        }
        for (int run = 0; plan.Goes(run, plan.Runs(5, 2)); ++run) {
            for (auto& post : posts) {
                if (!post) continue;
                plan.Say(std::string(form.row) + ": " + post->Watch().Name());
                if (!MeasureOne(plan, *post, form)) post.reset();
            }
        }
    }
}

}  // namespace Bench
