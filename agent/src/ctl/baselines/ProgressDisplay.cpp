// Owns the line on the terminal and the thread that writes it. It must not print results.
#include "ctl/baselines/ProgressDisplay.h"

#include <sdk/text/StrUtils.h>
#include <sdk/time/TimeUtils.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <iostream>

#include "ctl/baselines/DifferenceFormat.h"

namespace Ctl {

using SDK::StrUtils;

namespace {

using namespace std::chrono_literals;

constexpr int kBarCells = 16;
constexpr int kUsualColumns = 80;
constexpr double kMsPerSecond = 1000;
constexpr double kPercent = 100;
constexpr double kMinute = 60;
constexpr char kErase[] = "\r\033[K";

int Columns() {
    winsize size{};
    const bool is_known = ::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    return (is_known ? size.ws_col : kUsualColumns) - 1;
}

std::string Duration(double seconds) {
    if (seconds < kMinute) return StrUtils::Format("%.0f s", seconds);
    return StrUtils::Format("%.0f min", seconds / kMinute);
}

std::string Bar(double share) {
    const int full = static_cast<int>(share * kBarCells);
    return "[" + std::string(static_cast<std::size_t>(full), '=') +
           std::string(static_cast<std::size_t>(kBarCells - full), ' ') + "] ";
}

}  // namespace

std::string FormatProgress(const ComparisonProgress& progress, double seconds, int columns) {
    const double done = static_cast<double>(progress.done);
    const double total = static_cast<double>(std::max(progress.total, progress.done));
    const double share = total > 0 ? done / total : 1;
    std::string text = StrUtils::Format("%3.0f %%  %zu of %zu", share * kPercent, progress.done,
                                        std::max(progress.total, progress.done));
    if (progress.done > 0 && seconds > 0) {
        text +=
            StrUtils::Format(", %.0f/s, %s/s, ", done / seconds,
                             FormatBytes(static_cast<double>(progress.bytes) / seconds).c_str()) +
            Duration(seconds * (total - done) / done) + " left";
    }
    if (columns <= 0) return text;
    return (Bar(share) + text).substr(0, static_cast<std::size_t>(columns));
}

ProgressDisplay::ProgressDisplay(std::function<ComparisonProgress()> progress)
    : progress_(std::move(progress)),
      is_terminal_(::isatty(STDERR_FILENO) != 0),
      thread_([this] { Show(); }) {}

ProgressDisplay::~ProgressDisplay() {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        has_ended_ = true;
    }
    ended_.notify_all();
    thread_.join();
}

void ProgressDisplay::Show() {
    const auto period = is_terminal_ ? std::chrono::milliseconds(200) : 10s;
    const std::int64_t begun = SDK::TimeUtils::GetMonotonicMs();
    bool is_shown = false;
    std::unique_lock<std::mutex> lock(mutex_);
    while (!ended_.wait_for(lock, period, [this] { return has_ended_; })) {
        const double seconds =
            static_cast<double>(SDK::TimeUtils::GetMonotonicMs() - begun) / kMsPerSecond;
        const std::string text = FormatProgress(progress_(), seconds, is_terminal_ ? Columns() : 0);
        std::cerr << (is_terminal_ ? kErase + text : text + "\n") << std::flush;
        is_shown = is_terminal_;
    }
    if (is_shown) std::cerr << kErase << std::flush;
}

}  // namespace Ctl
