// Owns one started command, or the answer of its handler, and reads its output. ChildProcess owns
// the process, CommandEnvironment the environment, CommandHandlers the handler. Runs on one thread.
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
#include "sdk/time/CommandLimit.h"
#include "sdk/time/ThreadProgress.h"
#include "sdk/time/TimeUtils.h"

namespace SDK {

namespace {

constexpr const char* kShell = "/bin/sh";

/// Keeps the beginning of a command's output and discards the rest.
class OutputCollector {
  public:
    OutputCollector(int fd, std::string& output, std::size_t max_output)
        : fd_(fd), output_(output), max_output_(max_output) {}

    /// -1 after all writers have closed the pipe.
    int Descriptor() const { return fd_; }

    /// Appends the data of one read and returns its size; 0 when there is none.
    std::size_t Append() {
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

    /// Appends the data that is in the pipe now, but not what a process left behind writes later.
    void AppendRest() {
        int waiting = 0;
        if (fd_ < 0 || ::ioctl(fd_, FIONREAD, &waiting) != 0) return;
        for (auto left = static_cast<std::size_t>(waiting); left > 0;) {
            const std::size_t taken = Append();
            if (taken == 0) return;
            left -= std::min(left, taken);
        }
    }

  private:
    int fd_;
    std::string& output_;
    const std::size_t max_output_;
};

/// A program would get a word with a NUL byte cut short.
bool HoldsNul(const std::string& text) {
    return text.find('\0') != std::string::npos;
}

bool AnyHoldsNul(const std::vector<std::string>& words) {
    if (std::none_of(words.begin(), words.end(), HoldsNul)) return false;
    errno = EINVAL;
    return true;
}

/// The deadline of a command that starts now; kNoLimit for none.
std::int64_t DeadlineAfter(int timeout_ms) {
    const std::int64_t limit = CommandTimeLimit::Current().count();
    if (timeout_ms < 0 && limit == 0) return RunningCommand::kNoLimit;
    return TimeUtils::GetMonotonicMs() + (timeout_ms < 0 ? limit : timeout_ms);
}

/// The timeout for poll(2): -1 for none, 0 when the deadline has passed.
int Remaining(std::int64_t deadline_ms) {
    if (deadline_ms < 0) return -1;
    return static_cast<int>(std::max<std::int64_t>(0, deadline_ms - TimeUtils::GetMonotonicMs()));
}

/// Waits until the process ends and collects its output meanwhile. Returns 0, or the reason why the
/// wait ended before.
int WaitForEnd(const ChildProcess& child, OutputCollector& output, std::int64_t deadline) {
    ProcessGroupIdleMonitor monitor(child.Group());
    for (;;) {
        std::array<pollfd, 3> events{{{child.EndDescriptor(), POLLIN, 0},
                                      {output.Descriptor(), POLLIN, 0},
                                      {CommandInterrupter::CurrentDescriptor(), POLLIN, 0}}};
        const int remaining = Remaining(deadline);
        if (::poll(events.data(), events.size(), monitor.PollTimeout(remaining)) < 0 &&
            errno != EINTR) {
            return ExecuteCmdUtils::kStartFailed;
        }
        if (events[1].revents != 0) output.Append();
        if (events[0].revents != 0) return monitor.HasTerminated() ? ExecuteCmdUtils::kTimedOut : 0;
        if (events[2].revents != 0) return ExecuteCmdUtils::kInterrupted;
        if (remaining == 0 || !monitor.Check()) return ExecuteCmdUtils::kTimedOut;
    }
}

}  // namespace

RunningCommand::RunningCommand(const std::vector<std::string>& arguments, int timeout_ms,
                               const CommandLimits& limits, FileDescriptor input)
    : deadline_ms_(DeadlineAfter(timeout_ms)), limits_(limits), input_(std::move(input)) {
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
    // A shell also reports why a program cannot start, and runs a script without an interpreter
    // line.
    Start({kShell, "-c", CommandEnvironment::ShellLine(line)});
}

RunningCommand::~RunningCommand() = default;

void RunningCommand::Start(const std::vector<std::string>& arguments) {
    is_interrupted_ = CommandInterrupter::IsCurrentInterrupted();
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
    // A handler has no other way to report that it was interrupted.
    is_interrupted_ =
        answer->kind == CommandAnswer::Kind::kRefused && CommandInterrupter::IsCurrentInterrupted();
    answer_ = std::move(answer);
}

void RunningCommand::StartProgram(const std::vector<std::string>& arguments,
                                  const std::vector<std::string>& environment,
                                  const std::vector<FileDescriptor>& inherited) {
    auto child = std::make_unique<ChildProcess>();
    if (child->Start(arguments, environment, inherited, input_.Get()) && child->Limit(limits_)) {
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
    const ThreadProgress::Pause pause;
    OutputCollector collector(child_->OutputDescriptor(), output, max_output);
    const int ended = WaitForEnd(*child_, collector, deadline_ms_);
    if (ended != 0) child_->Kill();
    const int status = child_->Reap();
    collector.AppendRest();
    if (ended != 0) return ended;
    if (status == -1) return ExecuteCmdUtils::kStartFailed;
    if (WIFSIGNALED(status)) return ExecuteCmdUtils::kKilledBySignal;
    exit_code = WEXITSTATUS(status);
    return 0;
}

}  // namespace SDK
