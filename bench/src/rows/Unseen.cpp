// Changes of which the kernel tells the watchers nothing, or not at once: from the change until it
// is undone, with the agent's default settings.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <utility>

#include "products/Sentrel.h"
#include "rows/Row.h"

namespace Bench {
namespace {

namespace fs = std::filesystem;

constexpr char kRow[] = "unseen";
constexpr milliseconds kTimeout{130000};
constexpr microseconds kStep{1000};
constexpr std::size_t kPagesEach = 8;  ///< of a run

/// A page mapped for writing by an attacker.
class Mapping {
  public:
    explicit Mapping(const std::string& path) {
        const int file = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
        void* const memory = ::mmap(nullptr, kBytes, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
        ::close(file);
        if (memory != MAP_FAILED) memory_ = static_cast<char*>(memory);
    }
    ~Mapping() { Unmap(); }
    Mapping(const Mapping&) = delete;
    Mapping& operator=(const Mapping&) = delete;

    bool Write() {
        if (memory_ == nullptr) return false;
        memory_[0] ^= 1;
        return ::msync(memory_, kBytes, MS_SYNC) == 0;
    }
    void Unmap() {
        if (memory_ != nullptr) ::munmap(memory_, kBytes);
        memory_ = nullptr;
    }

  private:
    static constexpr std::size_t kBytes = 4096;
    char* memory_ = nullptr;
};

/// One way to change the site, and how to see that it is undone.
struct Attack {
    const char* name;
    std::function<bool()> change;
    std::function<bool()> is_undone;
};

bool HasAttribute(const std::string& path) {
    return ::lgetxattr(path.c_str(), "user.attacker", nullptr, 0) >= 0;
}

/// The attacks of one run, each at a file of its own. `outside` has second names of pages, made
/// before the agent looked.
std::vector<Attack> Attacks(const TestBed& bed, const std::string& outside, int run,
                            std::vector<std::unique_ptr<Mapping>>& mappings) {
    const std::size_t first = static_cast<std::size_t>(run) * kPagesEach;
    const auto page = [&](std::size_t kind) { return bed.Files()[first + kind].path; };
    const auto is_equal = [&bed](const std::string& path) {
        return [&bed, path] {
            return SameContent(bed.Paths().live + "/" + path, bed.CopyRoot() + "/" + path);
        };
    };
    const auto mapped = [&](const std::string& path) {
        mappings.push_back(std::make_unique<Mapping>(bed.Paths().live + "/" + path));
        return mappings.back().get();
    };
    Mapping* const closed = mapped(page(0));
    Mapping* const open = mapped(page(1));
    const std::string linked = outside + "/" + std::to_string(first + 2);
    const std::string dotted = bed.Paths().live + "/shell" + std::to_string(run) + ".php.";
    const std::string marked = bed.Paths().live + "/" + page(3);
    return {{"mmap, unmapped",
             [closed] {
                 const bool written = closed->Write();
                 closed->Unmap();
                 return written;
             },
             is_equal(page(0))},
            {"mmap, still mapped", [open] { return open->Write(); }, is_equal(page(1))},
            {"hard link elsewhere",
             [linked] {
                 Tamper(linked);
                 return true;
             },
             is_equal(page(2))},
            {"a name that ends in a dot", [dotted] { return MakeFile(dotted, 64, 1); },
             [dotted] { return !fs::exists(fs::symlink_status(dotted)); }},
            {"an extended attribute",
             [marked] { return ::lsetxattr(marked.c_str(), "user.attacker", "1", 1, 0) == 0; },
             [marked] { return !HasAttribute(marked); }}};
}

bool LinkOutside(const TestBed& bed, const std::string& outside) {
    std::error_code error;
    fs::create_directories(outside, error);
    for (std::size_t index = 0; index < bed.Files().size() && !error; ++index) {
        fs::create_hard_link(bed.LivePath(bed.Files()[index]),
                             outside + "/" + std::to_string(index), error);
    }
    return !error;
}

void MeasureRun(Plan& plan, const TestBed& bed, const std::string& outside, int run) {
    std::vector<std::unique_ptr<Mapping>> mappings;
    std::vector<std::pair<Attack, Clock::time_point>> waiting;
    for (Attack& attack : Attacks(bed, outside, run, mappings)) {
        const auto start = Clock::now();
        if (attack.change()) {
            waiting.emplace_back(std::move(attack), start);
        } else {
            plan.results.Note(kRow, attack.name, "not possible on this file system");
        }
    }
    const auto take_undone = [&] {
        for (auto one = waiting.begin(); one != waiting.end();) {
            if (!one->first.is_undone()) {
                ++one;
                continue;
            }
            plan.results.Add(kRow, one->first.name, MsSince(one->second));
            one = waiting.erase(one);
        }
        return waiting.empty();
    };
    WaitUntil(plan.Timeout(kTimeout), kStep, take_undone);
    for (const auto& [attack, start] : waiting) {
        plan.results.Note(kRow, attack.name, "some were not undone");
    }
}

}  // namespace

void MeasureUnseen(Plan& plan) {
    TestBed bed(plan.machine, std::make_unique<Sentrel>(plan.machine, true));
    const std::string outside = bed.Paths().scratch + "/outside";
    if (!MakeTree(bed.Paths().live, {1, 80, 4096}) || !bed.ScanAndCopy(false) ||
        !LinkOutside(bed, outside) || !bed.Start(plan, kRow, {})) {
        return;
    }
    const auto& agent = dynamic_cast<const Sentrel&>(bed.UnderTest());
    if (!WaitUntil(kTimeout, kStep, [&] { return agent.HasManifest(); })) return;
    for (int run = 0; plan.ShouldRun(run, plan.Runs(5, 1)); ++run) {
        plan.Print("unseen, run " + std::to_string(run + 1));
        MeasureRun(plan, bed, outside, run);
    }
}

}  // namespace Bench
