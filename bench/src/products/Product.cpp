// What all products share: end, memory, processor time and queue length of their processes.
#include "products/Product.h"

#include <signal.h>
#include <unistd.h>

#include <fstream>
#include <iterator>

namespace Bench {
namespace {

constexpr milliseconds kSettleDeadline{60000};
constexpr microseconds kPollInterval{10000};
constexpr milliseconds kStopDeadline{30000};
constexpr int kQuietLooks = 3;

}  // namespace

void Product::Settle() {
    if (!Runs()) return;
    int quiet = 0;
    WaitUntil(kSettleDeadline, kPollInterval, [&] {
        const bool idle = ProcessTree(main_.Pid()).size() <= permanent_.size() && Backlog() <= 0;
        quiet = idle ? quiet + 1 : 0;
        return quiet >= kQuietLooks;
    });
}

void Product::Stop() {
    main_.Stop(kStopDeadline);
    permanent_.clear();
}

std::size_t Product::MemoryBytes() const {
    std::size_t total = 0;
    for (const pid_t pid : permanent_) total += ResidentBytes(pid);
    return total;
}

std::size_t Product::PeakMemoryBytes() const {
    std::size_t total = 0;
    for (const pid_t pid : permanent_) total += PeakBytes(pid);
    return total;
}

std::chrono::nanoseconds Product::CpuTime() const {
    std::chrono::nanoseconds total{0};
    for (const pid_t pid : permanent_) total += ProcessorTime(pid);
    return total;
}

void Product::Suspend() const {
    for (const pid_t pid : permanent_) ::kill(pid, SIGSTOP);
}

void Product::Resume() const {
    for (const pid_t pid : permanent_) ::kill(pid, SIGCONT);
}

long Product::Backlog() const {
    for (const pid_t pid : permanent_) {
        const long bytes = WaitingEventBytes(pid);
        if (bytes >= 0) return bytes;
    }
    return -1;
}

bool Product::Fail(const std::string& problem) {
    problem_ = problem;
    Stop();
    return false;
}

bool Product::Ready(Clock::time_point asked) {
    ready_ms_ = MsSince(asked);
    permanent_ = ProcessTree(main_.Pid());
    return true;
}

std::vector<std::string> RestoreArguments(const std::string& rsync) {
    return {rsync, "-az", "-H", "-X", "--links", "--delete-excluded", "--temp-dir=/tmp"};
}

std::vector<std::string> PlainEnvironment(const Machine& machine) {
    return {"PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL=C",
            "HOME=" + machine.home};
}

std::string MissingProgram(const std::string& path) {
    return ::access(path.c_str(), X_OK) == 0 ? "" : path + " is not installed";
}

std::string ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

bool WriteText(const std::string& path, const std::string& text) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << text;
    return static_cast<bool>(file.flush());
}

}  // namespace Bench
