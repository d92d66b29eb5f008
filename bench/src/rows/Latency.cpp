// One file modified, one at a time, every guard in turn: from right before the write until the
// content is back.
#include <map>

#include "base/FileObserver.h"
#include "guards/AgentGuard.h"
#include "guards/BareCopy.h"
#include "guards/BareRsync.h"
#include "guards/Peers.h"
#include "rows/Row.h"

namespace Bench {
namespace {

constexpr milliseconds kPatience{10000};

struct Size {
    const char* row;
    const char* folder;
    std::size_t bytes;
    int files;  ///< as many as keep the disk small; of 4 KiB one a run, so that no alarm is merged
};

constexpr Size kSizes[] = {{"restore_4k", "small", 4096, 50},
                           {"restore_1m", "medium", 1 << 20, 10},
                           {"restore_10m", "large", 10 << 20, 5}};

Guards Contestants(const Machine& machine, bool brief) {
    Guards guards;
    guards.push_back(std::make_unique<BareRsync>(machine));
    if (!brief) guards.push_back(std::make_unique<ForkedRsync>(machine));
    guards.push_back(std::make_unique<BareCopy>(machine));
    guards.push_back(std::make_unique<AgentGuard>(machine, true));
    if (AgentGuard::HasPlainForm(machine) && !brief) {
        guards.push_back(std::make_unique<AgentGuard>(machine, false));
    }
    guards.push_back(std::make_unique<InotifywaitLoop>(machine));
    if (!brief) guards.push_back(std::make_unique<Lsyncd>(machine, Lsyncd::Way::kFile));
    guards.push_back(std::make_unique<Lsyncd>(machine, Lsyncd::Way::kBatch));
    guards.push_back(std::make_unique<Watchman>(machine));
    return guards;
}

bool FillSite(const std::string& live) {
    if (!MakeTree(live, {20, 10, 4096})) return false;
    for (const Size& size : kSizes) {
        const std::string folder = live + "/" + size.folder;
        if (::mkdir(folder.c_str(), 0755) != 0) return false;
        for (int i = 0; i < size.files; ++i) {
            const std::string name = folder + "/page" + std::to_string(i);
            if (!MakeFile(name, size.bytes, static_cast<unsigned>(i))) return false;
        }
    }
    return true;
}

void MeasureOne(Plan& plan, Post& post, const Size& size, int run) {
    const std::string path = std::string(size.folder) + "/page" + std::to_string(run % size.files);
    Guard& guard = post.Watch();
    for (const FileState& file : post.Files()) {
        if (file.path != path) continue;
        const FileObserver observer(post.Live(file));
        const auto tampered = Tamper(post.Live(file));
        const auto start = guard.Told(path).value_or(tampered);
        const auto back = observer.AwaitBack(file, kPatience);
        guard.Settle();
        if (back && post.Differing({file}) == 0) {
            plan.results.Add(size.row, guard.Name(), MsBetween(start, *back));
        } else {
            plan.results.Note(size.row, guard.Name(), "some did not come back");
        }
        if (auto* bare = dynamic_cast<BareRsync*>(&guard)) {
            plan.results.Add(std::string(size.row) + "_exit", guard.Name(), bare->ExitMs());
        }
    }
}

}  // namespace

void MeasureLatency(Plan& plan) {
    Posts posts;
    for (auto& guard : Installed(plan, kSizes[0].row, Contestants(plan.machine, plan.brief))) {
        auto post = std::make_unique<Post>(plan.machine, std::move(guard));
        if (!FillSite(post->Place().live) || !post->Survey(post->Good() == post->Place().good)) {
            plan.results.Note(kSizes[0].row, post->Watch().Name(), "no room for its tree");
        } else if (post->Start(plan, kSizes[0].row, {})) {
            posts.push_back(std::move(post));
        }
    }
    for (const Size& size : kSizes) {
        plan.Say(std::string(size.row) + ", " + std::to_string(posts.size()) + " guards in turn");
        for (int run = 0; plan.Goes(run, plan.Runs(50, 15)); ++run) {
            for (auto& post : posts) MeasureOne(plan, *post, size, run);
        }
    }
}

}  // namespace Bench
