// Owns one started command, or what a handler did in its place, and the reading of its output. Not
// what it is run with: its environment is CommandEnvironment's, its handler CommandHandlers', the
// process itself ChildProcess's. One thread.
#include "sdk/commands/RunningCommand.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "commands/ChildProcess.h"
#include "commands/CommandEnvironment.h"
#include "commands/CommandHandlers.h"
#include "commands/ProcessGroupIdleMonitor.h"
#include "sdk/commands/CommandLine.h"
#include "sdk/commands/ExecuteCmdUtils.h"
#include "sdk/time/CommandInterrupter.h"
#include "sdk/time/CommandTimeLimit.h"
#include "sdk/time/TimeUtils.h"

namespace SDK {

namespace {

constexpr const char* kShell = "/bin/sh";

/// Keeps the beginning of a command's output and throws the rest away.
class OutputCollector {
  public:
    OutputCollector(int fd, std::string& output, std::size_t max_output)
        : fd_(fd), output_(output), max_output_(max_output) {}

    /// -1 once all writers have closed.
    int Descriptor() const { return fd_; }

    /// Takes what one read gives; its size, 0 when there is nothing (any more).
    std::size_t Take() {
        std::array<char, 64 * 1024> buffer{};
        const ssize_t got = ::read(fd_, buffer.data(), buffer.size());
        if (got < 0 && (errno == EAGAIN || errno == EINTR)) return 0;
        if (got <= 0) {
            fd_ = -1;
            return 0;
        }
        const std::size_t room = max_output_ - std::min(max_output_, output_.size());
        output_.append(buffer.data(), std::min(room, static_cast<std::size_t>(got)));
        return static_cast<std::size_t>(got);
    }

    /// Takes what lies in the pipe now, and not what a process left behind goes on writing.
    void TakeRest() {
        int waiting = 0;
        if (fd_ < 0 || ::ioctl(fd_, FIONREAD, &waiting) != 0) return;
        for (auto left = static_cast<std::size_t>(waiting); left > 0;) {
            const std::size_t taken = Take();
            if (taken == 0) return;
            left -= std::min(left, taken);
        }
    }

  private:
    int fd_;
    std::string& output_;
    const std::size_t max_output_;
};

/// A word with a NUL byte would reach the program cut short, as another command.
bool HoldsNul(const std::string& text) {
    return text.find('\0') != std::string::npos;
}

bool AnyHoldsNul(const std::vector<std::string>& words) {
    if (std::none_of(words.begin(), words.end(), HoldsNul)) return false;
    errno = EINVAL;
    return true;
}

bool IsInterrupted(const CommandInterrupter* interrupter) {
    if (interrupter == nullptr) return false;
    pollfd event{interrupter->Descriptor(), POLLIN, 0};
    return ::poll(&event, 1, 0) > 0;
}

/// When a command that begins now must have ended; kNoLimit for never.
std::int64_t DeadlineAfter(int timeout_ms) {
    const std::int64_t limit = CommandTimeLimit::Current().count();
    if (timeout_ms < 0 && limit == 0) return RunningCommand::kNoLimit;
    return TimeUtils::GetMonotonicMs() + (timeout_ms < 0 ? limit : timeout_ms);
}

/// Milliseconds that poll may wait, -1 for any time, 0 when the time is up.
int Remaining(std::int64_t deadline_ms) {
    if (deadline_ms < 0) return -1;
    return static_cast<int>(std::max<std::int64_t>(0, deadline_ms - TimeUtils::GetMonotonicMs()));
}

/// Waits until the process has ended and collects its output meanwhile; 0, or why the wait ended.
int WaitForEnd(const ChildProcess& child, OutputCollector& output, std::int64_t deadline) {
    const CommandInterrupter* interrupter = CommandInterrupter::Current();
    ProcessGroupIdleMonitor watch(child.Group());
    for (;;) {
        std::array<pollfd, 3> events{
            {{child.EndDescriptor(), POLLIN, 0},
             {output.Descriptor(), POLLIN, 0},
             {interrupter == nullptr ? -1 : interrupter->Descriptor(), POLLIN, 0}}};
        const int remaining = Remaining(deadline);
        if (::poll(events.data(), events.size(), watch.Until(remaining)) < 0 && errno != EINTR) {
            return ExecuteCmdUtils::kStartFailed;
        }
        if (events[1].revents != 0) output.Take();
        if (events[0].revents != 0) return watch.HasAsked() ? ExecuteCmdUtils::kTimedOut : 0;
        if (events[2].revents != 0) return ExecuteCmdUtils::kInterrupted;
        if (remaining == 0 || !watch.Look()) return ExecuteCmdUtils::kTimedOut;
    }
}

}  // namespace

RunningCommand::RunningCommand(const std::vector<std::string>& arguments, int timeout_ms,
                               const CommandLimits& limits)
    : deadline_ms_(DeadlineAfter(timeout_ms)), limits_(limits) {
    Start(arguments);
    if (child_ == nullptr && !answer_ && !is_interrupted_ && !arguments.empty()) {
        Refuse(arguments.front() + ": " + std::strerror(errno));
    }
}

RunningCommand::RunningCommand(const std::string& line) : deadline_ms_(DeadlineAfter(kNoLimit)) {
    if (HoldsNul(line)) return;
    const std::vector<std::string> words = SplitPlainCommand(line);
    const std::string program = CommandHandlers::Beginning(line);
    const bool is_whole = program.empty() || (!words.empty() && words.front() == program);
    if (is_whole && !words.empty()) Start(words);
    if (child_ != nullptr || answer_ || is_interrupted_) return;
    const std::string named = CommandHandlers::NamedIn(line);
    if (!named.empty()) {
        Refuse("not given to a shell: " + named);
        return;
    }
    // What cannot be started is left to the shell as well: its words and its code tell why, and it
    // can run a script without an interpreter line.
    Start({kShell, "-c", CommandEnvironment::ShellLine(line)});
}

RunningCommand::~RunningCommand() = default;

void RunningCommand::Start(const std::vector<std::string>& arguments) {
    const CommandInterrupter* interrupter = CommandInterrupter::Current();
    is_interrupted_ = IsInterrupted(interrupter);
    if (is_interrupted_ || arguments.empty() || AnyHoldsNul(arguments)) return;
    const auto environment = CommandEnvironment::Of(arguments.front());
    std::optional<CommandAnswer> answer = CommandHandlers::Ask(arguments);
    if (!answer) return StartProgram(arguments, environment, {});
    if (answer->kind == CommandAnswer::Kind::kRun) {
        const auto& instead = answer->arguments.empty() ? arguments : answer->arguments;
        if (!AnyHoldsNul(instead)) StartProgram(instead, environment, answer->inherited);
        if (child_ == nullptr) Refuse(instead.front() + ": " + std::strerror(errno));
        return;
    }
    // A handler that gave up when it was interrupted has no other way to say so.
    is_interrupted_ = answer->kind == CommandAnswer::Kind::kRefused && IsInterrupted(interrupter);
    answer_ = std::move(answer);
}

void RunningCommand::StartProgram(const std::vector<std::string>& arguments,
                                  const std::vector<std::string>& environment,
                                  const std::vector<FileDescriptor>& inherited) {
    auto child = std::make_unique<ChildProcess>();
    if (child->Start(arguments, environment, inherited) && child->Limit(limits_)) {
        child_ = std::move(child);
    }
}

void RunningCommand::Refuse(const std::string& why) {
    answer_.emplace();
    answer_->kind = CommandAnswer::Kind::kRefused;
    answer_->output = why;
}

int RunningCommand::Wait(int& exit_code, std::string& output, std::size_t max_output) {
    exit_code = -1;
    output.clear();
    if (is_interrupted_) return ExecuteCmdUtils::kInterrupted;
    if (answer_) {
        output = answer_->output.substr(0, max_output);
        if (answer_->kind != CommandAnswer::Kind::kDone) return ExecuteCmdUtils::kStartFailed;
        exit_code = answer_->exit_code;
        return 0;
    }
    if (child_ == nullptr || child_->EndDescriptor() < 0) return ExecuteCmdUtils::kStartFailed;
    OutputCollector collector(child_->OutputDescriptor(), output, max_output);
    const int ended = WaitForEnd(*child_, collector, deadline_ms_);
    if (ended != 0) child_->Kill();
    const int status = child_->Reap();
    collector.TakeRest();
    if (ended != 0) return ended;
    if (status == -1) return ExecuteCmdUtils::kStartFailed;
    if (WIFSIGNALED(status)) return ExecuteCmdUtils::kKilledBySignal;
    exit_code = WEXITSTATUS(status);
    return 0;
}

}  // namespace SDK
