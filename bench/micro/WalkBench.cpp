// Measures how long it takes to watch a whole tree, and how much memory the watches need. Compares
// the minimum (RawWalk) with the file-notify module; the runs of both alternate. Prints one line of
// medians, or one JSON object with --json.

#include <malloc.h>
#include <sdk/files/FileDescriptor.h>
#include <sys/inotify.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "OwnCore.h"
#include "base/RawWalk.h"

namespace bench {

namespace {

namespace fs = std::filesystem;

constexpr int kFanOut = 32;

// Directory i lies in directory (i - 1) / kFanOut. All directories have `files` files.
void MakeTree(const std::string& root, int directories, int files) {
    std::vector<std::string> paths{root};
    for (int i = 0; i < directories; ++i) {
        if (i > 0) {
            const std::string& parent = paths[static_cast<std::size_t>((i - 1) / kFanOut)];
            paths.push_back(parent + "/directory" + std::to_string(i));
        }
        fs::create_directory(paths.back());
        for (int f = 0; f < files; ++f) {
            std::ofstream(paths.back() + "/file-" + std::to_string(f) + ".html");
        }
    }
}

struct Memory {
    double heap = 0;
    double resident = 0;
    double peak = 0;
};

double StatusKiB(const char* key) {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind(key, 0) == 0) return std::atof(line.c_str() + std::strlen(key));
    }
    return 0;
}

// Bytes per directory. A child process measures them, so that other runs do not affect them.
Memory MeasureMemory(const std::string& root, int directories) {
    int pipe[2];
    if (::pipe(pipe) != 0) return {};
    const pid_t child = ::fork();
    if (child == 0) {
        ::malloc_trim(0);  // free what MakeTree has left
        OwnCore own(root);
        const double heap = static_cast<double>(mallinfo2().uordblks);
        const double resident = StatusKiB("VmRSS:");
        own.WalkUntilReady();
        Memory each{(static_cast<double>(mallinfo2().uordblks) - heap),
                    (StatusKiB("VmRSS:") - resident) * 1024,
                    (StatusKiB("VmHWM:") - resident) * 1024};
        for (double* value : {&each.heap, &each.resident, &each.peak}) *value /= directories;
        const bool written = ::write(pipe[1], &each, sizeof each) == sizeof each;
        ::_exit(written ? 0 : 1);
    }
    Memory each;
    if (::read(pipe[0], &each, sizeof each) != sizeof each) each = {};
    ::waitpid(child, nullptr, 0);
    ::close(pipe[0]);
    ::close(pipe[1]);
    return each;
}

// The time does not include the removal of the watches. Returns false when a directory is not
// watched.
bool TimeRawWalk(const std::string& root, int threads, int directories, double& milliseconds) {
    const SDK::FileDescriptor inotify(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    const auto start = std::chrono::steady_clock::now();
    const std::size_t count = Bench::RawWalk(inotify.Get(), root, threads);
    const auto end = std::chrono::steady_clock::now();
    milliseconds = std::chrono::duration<double, std::milli>(end - start).count();
    return count == static_cast<std::size_t>(directories);
}

int Measure(const std::string& root, int directories, int files, int rounds, bool json) {
    std::vector<double> raw;
    std::vector<double> raw_two;
    std::vector<double> ours;
    const Memory memory = MeasureMemory(root, directories);
    for (int round = -1; round < rounds; ++round) {
        double one = 0;
        double two = 0;
        bool complete =
            TimeRawWalk(root, 1, directories, one) && TimeRawWalk(root, 2, directories, two);
        OwnCore own(root);
        const double took = own.WalkUntilReady();
        complete = complete && own.IsReady(directories);
        if (!complete) {
            std::fprintf(stderr, "not all directories could be watched\n");
            return 1;
        }
        if (round < 0) continue;  // warms the cache
        raw.push_back(one);
        raw_two.push_back(two);
        ours.push_back(took);
    }
    const double ratio = Median(ours) / Median(raw);
    std::printf(
        json ? "{\"directories\":%d,\"files_each\":%d,\"raw_ms\":%.1f,\"raw_two_threads_ms\":%.1f,"
               "\"own_ms\":%.1f,\"own_to_raw\":%.3f,\"heap_bytes_each\":%.0f,"
               "\"resident_bytes_each\":%.0f,\"peak_bytes_each\":%.0f}\n"
             : "%d directories, %d files each: raw %.1f ms, on two threads %.1f ms; ours %.1f ms, "
               "%.3f of raw; bytes a directory: heap %.0f, resident %.0f, at the peak %.0f\n",
        directories, files, Median(raw), Median(raw_two), Median(ours), ratio, memory.heap,
        memory.resident, memory.peak);
    return 0;
}

}  // namespace

}  // namespace bench

int main(int argc, char** argv) {
    CLI::App app("Time and memory of watching a tree");
    int directories = 10000;
    int files = 10;
    int rounds = 5;
    bool json = false;
    std::string tree;
    app.add_option("--directories", directories)->check(CLI::Range(1, 1000000));
    app.add_option("--files", files, "in each directory")->check(CLI::Range(0, 1000));
    app.add_option("--rounds", rounds)->check(CLI::Range(1, 1000));
    app.add_option("--tree", tree, "made there, or used again if it is there, and left");
    app.add_flag("--json", json);
    CLI11_PARSE(app, argc, argv);
    const bench::TempTree temporary;
    if (tree.empty()) tree = temporary.Path() + "/tree";
    if (!std::filesystem::exists(tree)) bench::MakeTree(tree, directories, files);
    return bench::Measure(tree, directories, files, rounds, json);
}
