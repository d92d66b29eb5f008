// Owns a confined process and its process group. It must not judge what the process has written.
#include "ctl/remote/ConfinedRun.h"

#include <baseline/TreeWalk.h>
#include <fcntl.h>
#include <poll.h>
#include <sdk/files/PathAnchor.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <utility>

namespace Ctl {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kCannotConfine = 121;
constexpr int kPollMs = 100;
constexpr int kLookShare = 10;  ///< a tenth of the time at most goes into looks
constexpr std::size_t kMostOutput = 4096;
constexpr std::uint64_t kBlock = 512;  ///< of st_blocks
constexpr char kHome[] = "HOME=/nonexistent";

/// In the child; never returns.
[[noreturn]] void Become(const Confinement& confinement, int program, int output,
                         char* const* arguments) {
    const std::array<char*, 4> environment = {const_cast<char*>("PATH=/usr/bin:/bin"),
                                              const_cast<char*>("LC_ALL=C"),
                                              const_cast<char*>(kHome), nullptr};
    ::setsid();
    ::prctl(PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0);
    const int input = ::open("/dev/null", O_RDONLY);
    ::dup2(input, STDIN_FILENO);
    ::dup2(output, STDOUT_FILENO);
    ::dup2(output, STDERR_FILENO);
    for (int signal = 1; signal < NSIG; ++signal) ::signal(signal, SIG_DFL);
    if (confinement.Enter()) {
        ::syscall(SYS_execveat, program, "", arguments, environment.data(), AT_EMPTY_PATH);
    }
    const char* const why = std::strerror(errno);
    const ssize_t ignored = ::write(STDERR_FILENO, why, std::strlen(why));
    static_cast<void>(ignored);
    ::_exit(kCannotConfine);
}

void TakeOutput(int output, std::string& text) {
    std::array<char, kMostOutput> buffer{};
    ssize_t count = 0;
    while ((count = ::read(output, buffer.data(), buffer.size())) > 0) {
        text.append(buffer.data(),
                    std::min(static_cast<std::size_t>(count), kMostOutput - text.size()));
    }
}

}  // namespace

ConfinedRun::ConfinedRun(const Confinement::Request& request, const Bounds& bounds,
                         std::function<bool()> is_over,
                         std::function<void(std::uint64_t, std::uint64_t)> progress)
    : request_(request),
      confinement_(request),
      bounds_(bounds),
      is_over_(std::move(is_over)),
      progress_(std::move(progress)) {}

ConfinedRun::End ConfinedRun::Run(const std::vector<std::string>& words) {
    End end;
    std::array<int, 2> pipe{};
    const SDK::FileDescriptor program = ExecutableCopy(words.front());
    if (!program.IsOpen() || ::pipe2(pipe.data(), O_CLOEXEC | O_NONBLOCK) != 0) {
        end.problem = words.front() + " cannot be started: " + std::strerror(errno) + ".";
        return end;
    }
    const SDK::FileDescriptor output(pipe[0]);
    SDK::FileDescriptor write_end(pipe[1]);
    std::vector<char*> arguments;
    for (const std::string& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    const pid_t process = ::fork();
    if (process == 0) Become(confinement_, program.Get(), write_end.Get(), arguments.data());
    write_end.Reset();
    if (process < 0) {
        end.problem = words.front() + " cannot be started: " + std::strerror(errno) + ".";
        return end;
    }
    Watch(process, output.Get(), end);
    if (end.exit_code == kCannotConfine) {
        end.problem = words.front() + " cannot be confined: " + end.output + ".";
    }
    return end;
}

void ConfinedRun::Watch(int process, int output, End& end) {
    int status = 0;
    auto next_look = Clock::now();
    pid_t ended = 0;
    while (ended == 0) {
        pollfd waiting{output, POLLIN, 0};
        if (::poll(&waiting, 1, kPollMs) > 0 && (waiting.revents & POLLIN) == 0) {
            ::poll(nullptr, 0, kPollMs / kLookShare);  // closed by the program, which goes on
        }
        TakeOutput(output, end.output);
        if (Clock::now() >= next_look) {
            const auto begun = Clock::now();
            end.problem = is_over_() ? "It was interrupted." : WhyTooMuch();
            next_look = Clock::now() + kLookShare * (Clock::now() - begun);
        }
        if (!end.problem.empty()) ::killpg(process, SIGKILL);
        ended = ::waitpid(process, &status, end.problem.empty() ? WNOHANG : 0);
    }
    ::killpg(process, SIGKILL);
    TakeOutput(output, end.output);
    if (end.problem.empty()) end.problem = WhyTooMuch();
    if (ended > 0 && WIFEXITED(status)) end.exit_code = WEXITSTATUS(status);
}

/// A sentence; empty as long as it is within the bounds.
std::string ConfinedRun::WhyTooMuch() {
    const auto anchor = SDK::PathAnchor::Open(request_.writable);
    if (anchor == nullptr) return "";
    Baseline::TreeWalk walk({anchor.get()});
    std::uint64_t bytes = 0;
    std::uint64_t objects = 0;
    while (walk.Next()) {
        bytes += static_cast<std::uint64_t>(walk.Object().info.st_blocks) * kBlock;
        if (++objects > bounds_.objects || bytes > bounds_.bytes) {
            return "The server sends more than it was asked for.";
        }
    }
    progress_(bytes, objects);
    return "";
}

}  // namespace Ctl
