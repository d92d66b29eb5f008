// One page modified, again and again, while somebody who may write to the site does his worst.
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <thread>

#include "base/FileObserver.h"
#include "guards/AgentGuard.h"
#include "rows/Row.h"

namespace Bench {
namespace {

constexpr int kPages = 40;  ///< one a run, so that no alarm is merged
constexpr std::size_t kBytes = 4096;
constexpr milliseconds kPatience{10000};
constexpr microseconds kBetween{100000};
constexpr microseconds kFirst{1000000};  ///< for the load to take hold

constexpr int kSparseFiles = 10;
constexpr std::size_t kSparseText = 64 << 10;
constexpr off_t kSparseBytes = 6L << 30;
constexpr microseconds kSparsePause{20000};

constexpr std::size_t kLoopFiles = 2000;
constexpr char kPagesFolder[] = "/pages";
constexpr char kLoadFolder[] = "/load";

/// Calls `act` with 0, 1, 2, ... on a thread of its own until the object goes.
class Loop {
  public:
    explicit Loop(std::function<void(std::size_t)> act)
        : thread_([this, act = std::move(act)] {
              for (std::size_t i = 0; !stop_; ++i) act(i);
          }) {}
    ~Loop() {
        stop_ = true;
        thread_.join();
    }
    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;

  private:
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

using Loops = std::vector<std::unique_ptr<Loop>>;

/// A load by its row: what lies in the site for it, and what is done with that.
struct Load {
    const char* row;
    TreeShape files;
    bool tmp_is_full;
    Loops (*start)(const std::vector<std::string>& paths);
};

/// A text that goes on as a hole, so that its difference is long in the making.
void MakeSparse(const std::string& path) {
    Tamper(path);
    const int fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0) return;
    if (::ftruncate(fd, kSparseBytes) == 0) {
        static constexpr char kEnd[] = "changed\n";
        (void)!::pwrite(fd, kEnd, sizeof kEnd - 1, kSparseBytes);
    }
    ::close(fd);
}

Loops StartSparse(const std::vector<std::string>& paths) {
    Loops loops;
    loops.push_back(std::make_unique<Loop>([paths](std::size_t i) {
        MakeSparse(paths[i % paths.size()]);
        ::usleep(kSparsePause.count());
    }));
    return loops;
}

Loops StartLoops(const std::vector<std::string>& paths) {
    Loops loops;
    for (const std::size_t first : {std::size_t{0}, paths.size() / 2}) {
        loops.push_back(std::make_unique<Loop>(
            [paths, first](std::size_t i) { Tamper(paths[(first + i) % paths.size()]); }));
    }
    return loops;
}

Loops StartNothing(const std::vector<std::string>& /*paths*/) {
    return {};
}

constexpr Load kLoads[] = {
    {"hostile_sparse", {1, kSparseFiles, kSparseText}, false, StartSparse},
    {"hostile_loops", {20, kLoopFiles / 20, kBytes}, false, StartLoops},
    {"hostile_tmp", {1, 10, kBytes}, true, StartNothing},
};

/// True when the agent's /tmp would hide the place where this runs.
bool LiesInTmp(const std::string& work) {
    return work.rfind("/tmp/", 0) == 0;
}

/// One that does not come back in time counts with the time that was waited for it.
void MeasureOne(Plan& plan, Post& post, const Load& load, const FileState& page) {
    const FileObserver observer(post.Live(page));
    const auto start = Tamper(post.Live(page));
    const auto back = observer.AwaitBack(page, kPatience);
    const std::string name = post.Watch().Name();
    plan.results.Add(load.row, name, MsBetween(start, back.value_or(Clock::now())));
    if (!back) plan.results.Note(load.row, name, "some were not back after 10 s");
    if (back && post.Differing({page}) > 0) plan.results.Note(load.row, name, "wrong content");
    Pause(kBetween);
}

void Measure(Plan& plan, const Load& load) {
    Post post(plan.machine, std::make_unique<AgentGuard>(plan.machine, true));
    GuardSettings settings;
    settings.tmp_is_full = load.tmp_is_full;
    const std::string& live = post.Place().live;
    if (!MakeTree(live + kPagesFolder, {1, kPages, kBytes}) ||
        !MakeTree(live + kLoadFolder, load.files) || !post.Survey(false) ||
        !post.Start(plan, load.row, settings)) {
        return;
    }
    std::vector<FileState> pages;
    std::vector<std::string> others;
    for (const FileState& file : post.Files()) {
        if (("/" + file.path).rfind(kPagesFolder, 0) == 0) {
            pages.push_back(file);
        } else {
            others.push_back(post.Live(file));
        }
    }
    plan.Say(load.row);
    const Loops loops = load.start(others);
    Pause(kFirst);
    const int runs = plan.Runs(kPages, 15);
    for (int run = 0; plan.Goes(run, runs); ++run) {
        MeasureOne(plan, post, load, pages[static_cast<std::size_t>(run)]);
    }
}

}  // namespace

void MeasureHostile(Plan& plan) {
    for (const Load& load : kLoads) {
        if (load.tmp_is_full && LiesInTmp(plan.machine.work)) {
            plan.results.Note(load.row, "Sentrel", "skipped: TMPDIR lies in /tmp");
        } else {
            Measure(plan, load);
        }
    }
}

}  // namespace Bench
