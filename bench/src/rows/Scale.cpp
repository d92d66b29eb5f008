// What grows with the tree: set-up, memory, the time of one restore, and the rest at the largest.
// One tree for all, one guard at a time: the kernel's limit of watches allows no more.
#include <filesystem>

#include "base/FileObserver.h"
#include "guards/AgentGuard.h"
#include "guards/BareRsync.h"
#include "guards/Peers.h"
#include "guards/RawWatch.h"
#include "rows/Row.h"

namespace Bench {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kSmallest = 10;  ///< what memory is counted from
constexpr std::size_t kLargest = 100000;
constexpr std::size_t kSamples = 20;
constexpr milliseconds kPatience{10000};
constexpr microseconds kBeforeRest{3000000};
constexpr char kTargets[] = "targets";

struct Contestant {
    std::unique_ptr<Guard> guard;
    bool restores;
};

std::vector<Contestant> Contestants(const Machine& machine) {
    std::vector<Contestant> all;
    all.push_back({std::make_unique<BareRsync>(machine), true});
    all.push_back({std::make_unique<RawWatch>(machine, 1), false});
    all.push_back({std::make_unique<RawWatch>(machine, 2), false});
    all.push_back({std::make_unique<AgentGuard>(machine, true), true});
    all.push_back({std::make_unique<Inotifywait>(machine), false});
    all.push_back({std::make_unique<InotifywaitLoop>(machine), true});
    all.push_back({std::make_unique<Lsyncd>(machine, Lsyncd::Way::kBatch), true});
    all.push_back({std::make_unique<Watchman>(machine), true});
    return all;
}

/// The tree and, as copies, what is changed in it; all else in the copy is a link to the tree.
struct SharedTree {
    std::string live;
    std::vector<FileState> targets;

    bool Make(const std::string& root, std::size_t directories) {
        live = root + "/live";
        if (!MakeTree(live, {directories, 10, 0})) return false;
        ::mkdir((live + "/" + kTargets).c_str(), 0755);
        for (std::size_t i = 0; i < kSamples; ++i) {
            const std::string name = std::string(kTargets) + "/page" + std::to_string(i);
            if (!MakeFile(live + "/" + name, 4096, static_cast<unsigned>(i))) return false;
        }
        for (const FileState& file : Survey(live + "/" + kTargets)) {
            targets.push_back({std::string(kTargets) + "/" + file.path, file.size, file.mtime});
        }
        return true;
    }

    bool MakeGood(const std::string& good) const {
        std::error_code error;
        fs::create_directories(good, error);
        for (const auto& entry : fs::directory_iterator(live)) {
            if (entry.path().filename() == kTargets) continue;
            fs::create_directory_symlink(entry.path(),
                                         good + "/" + entry.path().filename().string(), error);
        }
        return !error && CopyTree(live + "/" + kTargets, good + "/" + kTargets);
    }
};

class ScaleRow {
  public:
    ScaleRow(Plan& plan, std::size_t directories)
        : plan_(plan),
          directories_(directories),
          suffix_("_" + std::to_string(directories)),
          folder_(plan.machine.work + "/scale") {}

    ~ScaleRow() { RemoveTree(folder_); }
    ScaleRow(const ScaleRow&) = delete;
    ScaleRow& operator=(const ScaleRow&) = delete;

    void Run(std::map<std::string, std::size_t>& smallest) {
        plan_.Say("making " + std::to_string(directories_) + " directories");
        if (!tree_.Make(folder_, directories_)) return;
        Warm();
        const bool counts = directories_ > kSmallest;
        const int runs = counts ? plan_.Runs(5, directories_ == kLargest ? 1 : 3) : 1;
        for (Contestant& one : Contestants(plan_.machine)) {
            const std::string name = one.guard->Name();
            if (!one.guard->Missing().empty()) {
                plan_.results.Note("ready" + suffix_, name, "skipped: " + one.guard->Missing());
                continue;
            }
            plan_.Say(name);
            for (int run = 0; plan_.Goes(run, runs); ++run) {
                if (!MeasureOne(*one.guard, one.restores, run + 1 == runs, smallest)) break;
            }
        }
    }

  private:
    /// Each guard finds the kernel's caches as the one before left them; so does the first.
    void Warm() const {
        Bench::Run({{"/usr/bin/find", tree_.live, "-size", "+1G"}, {}, "", "", ""});
    }

    bool MeasureOne(Guard& guard, bool restores, bool last,
                    std::map<std::string, std::size_t>& smallest) {
        const Site site{tree_.live, folder_ + "/good", folder_ + "/scratch"};
        RemoveTree(site.scratch);
        fs::create_directories(site.scratch);
        if (!fs::exists(guard.GoodRoot(site)) && !tree_.MakeGood(guard.GoodRoot(site)))
            return false;
        GuardSettings settings;
        settings.makes_copy = false;
        if (!guard.Start(site, settings)) {
            plan_.results.Note("ready" + suffix_, guard.Name(), guard.Problem());
            return false;
        }
        if (directories_ == kSmallest) {
            guard.Settle();
            smallest[guard.Name()] = guard.MemoryBytes();
        } else {
            if (guard.Runs()) plan_.results.Add("ready" + suffix_, guard.Name(), guard.ReadyMs());
            if (last) MeasureRunning(guard, restores, smallest[guard.Name()]);
        }
        guard.Stop();
        return true;
    }

    void MeasureRunning(Guard& guard, bool restores, std::size_t smallest) {
        guard.Settle();
        if (guard.Runs()) {
            const double bytes =
                static_cast<double>(guard.MemoryBytes()) - static_cast<double>(smallest);
            plan_.results.Add("memory" + suffix_, guard.Name(),
                              bytes / static_cast<double>(directories_ - kSmallest));
        }
        const bool ours = dynamic_cast<AgentGuard*>(&guard) != nullptr;
        if (directories_ == kLargest && guard.Runs() && (ours || !plan_.brief)) MeasureRest(guard);
        if (restores) MeasureLatency(guard);
    }

    void MeasureRest(Guard& guard) {
        const microseconds time = std::chrono::seconds(plan_.Runs(30, 10));
        Pause(kBeforeRest);
        const auto cpu = guard.CpuTime();
        const auto start = Clock::now();
        Pause(time);
        const double used =
            std::chrono::duration<double, std::milli>(guard.CpuTime() - cpu).count();
        plan_.results.Add("rest" + suffix_, guard.Name(), 100 * used / MsSince(start));
    }

    void MeasureLatency(Guard& guard) {
        const std::string row = "latency" + suffix_;
        for (const FileState& file : tree_.targets) {
            const std::string path = tree_.live + "/" + file.path;
            const FileObserver observer(path);
            const auto tampered = Tamper(path);
            const auto start = guard.Told(file.path).value_or(tampered);
            const auto back = observer.AwaitBack(file, kPatience);
            guard.Settle();
            if (back) plan_.results.Add(row, guard.Name(), MsBetween(start, *back));
            if (!back) {
                plan_.results.Note(row, guard.Name(), "one did not come back");
                return;
            }
        }
    }

    Plan& plan_;
    const std::size_t directories_;
    const std::string suffix_;
    const std::string folder_;
    SharedTree tree_;
};

}  // namespace

void MeasureScale(Plan& plan) {
    std::map<std::string, std::size_t> smallest;
    for (const std::size_t directories :
         {kSmallest, std::size_t{1000}, std::size_t{10000}, kLargest}) {
        ScaleRow(plan, directories).Run(smallest);
    }
}

}  // namespace Bench
