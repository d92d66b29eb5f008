// One page modified repeatedly while a user of the site puts load on the agent.
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <thread>

#include "base/FileObserver.h"
#include "products/Sentrel.h"
#include "rows/Row.h"

namespace Bench {
namespace {

constexpr int kPages = 40;  ///< one per run, so that no alarm is merged
constexpr std::size_t kBytes = 4096;
constexpr milliseconds kTimeout{10000};
constexpr microseconds kPauseBetweenRuns{100000};
constexpr microseconds kWarmUp{1000000};  ///< until the load has its effect

constexpr int kSparseFiles = 10;
constexpr std::size_t kSparseText = 64 << 10;
constexpr off_t kSparseBytes = 6L << 30;
constexpr microseconds kSparsePause{20000};

constexpr std::size_t kLoopFiles = 2000;
constexpr char kPagesFolder[] = "/pages";
constexpr char kLoadFolder[] = "/load";

/// Calls `act` with 0, 1, 2, ... on a thread of its own until it is destroyed.
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

/// The load of a row: its files in the site and the threads that change them.
struct Load {
    const char* row;
    TreeShape files;
    bool tmp_is_full;
    Loops (*start)(const std::vector<std::string>& paths);
};

/// Makes a text file with a large hole, so that its difference takes long.
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

/// True when the agent's own /tmp would hide the work directory.
bool LiesInTmp(const std::string& work) {
    return work.rfind("/tmp/", 0) == 0;
}

/// A page that is not restored in time counts with the time-out.
void MeasureOne(Plan& plan, TestBed& bed, const Load& load, const FileState& page) {
    const FileObserver observer(bed.LivePath(page));
    const auto start = Tamper(bed.LivePath(page));
    const auto back = observer.AwaitRestore(page, kTimeout);
    const std::string name = bed.UnderTest().Name();
    plan.results.Add(load.row, name, MsBetween(start, back.value_or(Clock::now())));
    if (!back) plan.results.Note(load.row, name, "some were not back after 10 s");
    if (back && bed.Differing({page}) > 0) plan.results.Note(load.row, name, "wrong content");
    Pause(kPauseBetweenRuns);
}

void Measure(Plan& plan, const Load& load) {
    TestBed bed(plan.machine, std::make_unique<Sentrel>(plan.machine, true));
    ProductSettings settings;
    settings.tmp_is_full = load.tmp_is_full;
    const std::string& live = bed.Paths().live;
    if (!MakeTree(live + kPagesFolder, {1, kPages, kBytes}) ||
        !MakeTree(live + kLoadFolder, load.files) || !bed.ScanAndCopy(false) ||
        !bed.Start(plan, load.row, settings)) {
        return;
    }
    std::vector<FileState> pages;
    std::vector<std::string> others;
    for (const FileState& file : bed.Files()) {
        if (("/" + file.path).rfind(kPagesFolder, 0) == 0) {
            pages.push_back(file);
        } else {
            others.push_back(bed.LivePath(file));
        }
    }
    plan.Print(load.row);
    const Loops loops = load.start(others);
    Pause(kWarmUp);
    const int runs = plan.Runs(kPages, 15);
    for (int run = 0; plan.ShouldRun(run, runs); ++run) {
        MeasureOne(plan, bed, load, pages[static_cast<std::size_t>(run)]);
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
