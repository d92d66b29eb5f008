// Measures how much time the command runner adds to a command. It runs /bin/true with ExecuteCmd,
// with and without a shell, and compares that with a bare posix_spawn and a plain fork. The size of
// the process is an option. It also measures the restore of one 4 KiB file by rsync, with and
// without rsync's short sleeps. The runs of all ways alternate.
#include <sdk/commands/ExecuteCmdUtils.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using SDK::ExecuteCmdUtils;

constexpr char kTrue[] = "/bin/true";
constexpr std::size_t kMegabyte = 1 << 20;

struct Way {
    std::string name;
    std::function<bool()> run;
    std::vector<double> microseconds;
};

bool Reaped(pid_t pid) {
    int status = -1;
    return pid > 0 && ::waitpid(pid, &status, 0) == pid && status == 0;
}

bool BareSpawn() {
    char* const arguments[] = {const_cast<char*>(kTrue), nullptr};
    char* const environment[] = {nullptr};
    pid_t pid = -1;
    return ::posix_spawn(&pid, kTrue, nullptr, nullptr, arguments, environment) == 0 && Reaped(pid);
}

bool PlainFork() {
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::execl(kTrue, kTrue, nullptr);
        ::_exit(127);
    }
    return Reaped(pid);
}

bool Execute(const std::string& command) {
    std::string output;
    return ExecuteCmdUtils::ExecuteCmd(command, output, 4096) == 0;
}

/// Changes `to` and lets `rsync` restore it from `from`.
bool Restore(const std::string& rsync, const std::string& from, const std::string& to) {
    std::ofstream(to, std::ios::app) << "tampered";
    return Execute(rsync + " -az -H -X --links --delete-excluded --temp-dir=/tmp " + from + " " +
                   to);
}

/// Runs all ways in turn. Returns false when a command fails.
bool Measure(std::vector<Way>& ways, int rounds) {
    for (int round = -3; round < rounds; ++round) {  // negative rounds warm up
        for (Way& way : ways) {
            const auto start = Clock::now();
            if (!way.run()) {
                std::fprintf(stderr, "%s failed\n", way.name.c_str());
                return false;
            }
            const std::chrono::duration<double, std::micro> took = Clock::now() - start;
            if (round >= 0) way.microseconds.push_back(took.count());
        }
    }
    return true;
}

double Quantile(std::vector<double> values, double share) {
    std::sort(values.begin(), values.end());
    return values[static_cast<std::size_t>(share * static_cast<double>(values.size() - 1))];
}

void Print(const std::vector<Way>& ways) {
    const double first = Quantile(ways.front().microseconds, 0.5);
    for (const Way& way : ways) {
        const double median = Quantile(way.microseconds, 0.5);
        std::printf("  %-44s median %8.0f us  p10 %8.0f us  p99 %8.0f us  ratio %5.2f\n",
                    way.name.c_str(), median, Quantile(way.microseconds, 0.1),
                    Quantile(way.microseconds, 0.99), median / first);
    }
}

/// Resident memory that makes this process as large as an agent. A fork copies its page tables.
class Ballast {
  public:
    explicit Ballast(std::size_t bytes)
        : bytes_(bytes),
          memory_(::mmap(nullptr, bytes, PROT_READ | PROT_WRITE,
                         MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE, -1, 0)) {}
    ~Ballast() { ::munmap(memory_, bytes_); }
    Ballast(const Ballast&) = delete;
    Ballast& operator=(const Ballast&) = delete;

  private:
    std::size_t bytes_;
    void* memory_;
};

bool MeasureStarts(std::size_t megabytes, int rounds) {
    const Ballast ballast(megabytes * kMegabyte);
    std::vector<Way> ways = {
        {"bare posix_spawn", BareSpawn, {}},
        {"ExecuteCmd", [] { return Execute(kTrue); }, {}},
        {"ExecuteCmd, by the shell", [] { return Execute("'/bin/true'"); }, {}},
        {"fork and exec", PlainFork, {}},
    };
    if (!Measure(ways, rounds)) return false;
    std::printf("/bin/true, from a process of %zu MiB:\n", megabytes);
    Print(ways);
    return true;
}

bool MeasureRestore(const std::string& stage, int rounds) {
    const fs::path place =
        fs::temp_directory_path() / ("command-bench-" + std::to_string(::getpid()));
    fs::create_directories(place);
    const std::string from = place / "copy";
    const std::string to = place / "page";
    std::ofstream(from) << std::string(4096, 'x');
    // Two links to one program: the environment of a command depends on the program's path.
    const auto program = [&](const char* name, const std::vector<std::string>& variables) {
        const std::string path = place / name;
        fs::create_symlink("/usr/bin/rsync", path);
        ExecuteCmdUtils::SetProgramEnvironment(path, variables);
        return [=] { return Restore(path, from, to); };
    };
    const std::string library = "LD_PRELOAD=" + stage + "/lib/librsync_preload.so";
    const std::string home = "HOME=" + stage + "/conf/home";
    std::vector<Way> ways = {
        {"rsync without our options and library", program("bare", {"HOME=/nonexistent"}), {}},
        {"with conf/home", program("aliases", {home}), {}},
        {"with the library", program("preload", {"HOME=/nonexistent", library}), {}},
        {"with conf/home and the library", program("both", {home, library}), {}},
        {"with conf/home/sha1 and the library", program("all", {home + "/sha1", library}), {}},
    };
    const bool done = Measure(ways, rounds);
    fs::remove_all(place);
    if (!done) return false;
    std::printf("restore of one file of 4 KiB, start to end:\n");
    Print(ways);
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"What the command runner and rsync's surroundings cost"};
    int rounds = 200;
    std::vector<std::size_t> megabytes = {10, 500};
    app.add_option("--rounds", rounds, "Runs of each way")->check(CLI::Range(10, 100000));
    app.add_option("--megabytes", megabytes, "Sizes of the starting process");
    CLI11_PARSE(app, argc, argv);
    bool done = true;
    for (const std::size_t size : megabytes) done = done && MeasureStarts(size, rounds);
    return done && MeasureRestore(SENTREL_STAGE_DIR, rounds) ? 0 : 1;
}
