// Owns the processes of a deploy's command: a supervisor with the overlay in its mount namespace,
// and the command below it. It must not judge what the command has changed.
#include "ctl/deploy/CommandRun.h"

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <sdk/files/FileDescriptor.h>
#include <sdk/files/FileUtils.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>

namespace Ctl {

namespace {

using Clock = std::chrono::steady_clock;
using Kind = CommandEnd::Kind;
using namespace std::chrono_literals;

constexpr auto kGrace = 5s;      ///< after SIGTERM
constexpr auto kEndLimit = 20s;  ///< for killed processes to be gone
constexpr int kParentDied = SIGUSR1;
constexpr int kCancel = SIGUSR2;
constexpr std::array<int, 4> kEnding = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};

/// Blocks the signals that are waited for, until it goes.
class SignalsBlocked {
  public:
    SignalsBlocked() {
        sigemptyset(&set_);
        for (const int one : kEnding) sigaddset(&set_, one);
        for (const int one : {SIGCHLD, kParentDied, kCancel}) sigaddset(&set_, one);
        ::sigprocmask(SIG_BLOCK, &set_, &before_);
    }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;
    ~SignalsBlocked() { Restore(); }

    void Restore() const { ::sigprocmask(SIG_SETMASK, &before_, nullptr); }

    /// The next signal; 0 after `limit`.
    int Wait(std::chrono::milliseconds limit) const {
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(limit);
        const timespec time{seconds.count(), std::chrono::nanoseconds(limit - seconds).count()};
        const int signal = ::sigtimedwait(&set_, nullptr, &time);
        return signal > 0 ? signal : 0;
    }

  private:
    sigset_t set_{};
    sigset_t before_{};
};

bool IsChildOf(const std::string& process, pid_t parent) {
    std::string text;
    constexpr long kMost = 4096;
    if (SDK::FileUtils::ReadFile("/proc/" + process + "/stat", text, kMost) != 0) return false;
    // The name, in brackets, may hold anything.
    const std::size_t name_end = text.rfind(')');
    if (name_end == std::string::npos || name_end + 4 > text.size()) return false;
    return std::strtol(text.c_str() + name_end + 4, nullptr, 10) == parent;
}

std::vector<pid_t> Children() {
    std::vector<pid_t> children;
    const pid_t self = ::getpid();
    const std::unique_ptr<DIR, int (*)(DIR*)> processes(::opendir("/proc"), ::closedir);
    if (processes == nullptr) return children;
    while (const dirent* entry = ::readdir(processes.get())) {
        const std::string name = entry->d_name;
        if (name.find_first_not_of("0123456789") != std::string::npos) continue;
        if (IsChildOf(name, self)) {
            children.push_back(static_cast<pid_t>(std::strtol(name.c_str(), nullptr, 10)));
        }
    }
    return children;
}

/// Ends all descendants: a process whose parent ended is a child of this subreaper. False when some
/// are left.
bool EndDescendants() {
    const auto until = Clock::now() + kEndLimit;
    while (Clock::now() < until) {
        pid_t ended = 0;
        do {
            ended = ::waitpid(-1, nullptr, WNOHANG);
        } while (ended > 0);
        if (ended < 0 && errno == ECHILD) return true;
        for (const pid_t child : Children()) ::kill(child, SIGKILL);
        ::usleep(2000);
    }
    return false;
}

/// What the supervisor tells at its end.
struct Report {
    Kind kind = Kind::kFailed;
    int code = 0;
    std::array<char, 1024> problem{};
};

/// The first process of the mount namespace.
class Supervisor {
  public:
    Supervisor(const OverlayPlan& plan, const std::vector<std::string>& words,
               std::chrono::seconds limit, const SignalsBlocked& signals)
        : plan_(plan), words_(words), until_(Clock::now() + limit), signals_(signals) {}

    CommandEnd Run(pid_t parent) {
        ::prctl(PR_SET_PDEATHSIG, kParentDied);
        ::prctl(PR_SET_CHILD_SUBREAPER, 1);
        if (::getppid() != parent) return {};
        const std::string problem = Enter();
        if (!problem.empty()) return {Kind::kFailed, 0, problem};
        CommandEnd end = RunCommand();
        if (!EndDescendants()) {
            return {Kind::kFailed, 0, "Processes of the command could not be ended."};
        }
        std::string busy = ::chdir("/") == 0 ? Overlay(plan_).Unmount(plan_.root) : "";
        return busy.empty() ? end : CommandEnd{Kind::kFailed, 0, std::move(busy)};
    }

  private:
    /// A namespace of its own, with the overlay, and the same working directory as before.
    std::string Enter() const {
        std::error_code error;
        const std::filesystem::path here = std::filesystem::current_path(error);
        if (::unshare(CLONE_NEWNS) != 0 ||
            ::mount("none", "/", nullptr, MS_REC | MS_SLAVE, nullptr) != 0) {
            return std::string("No mount namespace can be made: ") + std::strerror(errno) +
                   ". Use morvanectl pause and resume instead.";
        }
        const std::string mount = Overlay::ForeignMount(plan_);
        if (!mount.empty()) {
            return "Another file system is mounted at " + mount +
                   "; a deploy would not hold what is changed there.";
        }
        std::string problem = Overlay(plan_).MountOverRoot();
        if (problem.empty() && !here.empty() && ::chdir(here.c_str()) != 0) {
            problem = here.string() + " is not there: " + std::strerror(errno) + ".";
        }
        return problem;
    }

    CommandEnd RunCommand() {
        std::array<int, 2> pipe{};
        if (::pipe2(pipe.data(), O_CLOEXEC) != 0) return {Kind::kFailed, 0, std::strerror(errno)};
        const SDK::FileDescriptor reading(pipe[0]);
        SDK::FileDescriptor writing(pipe[1]);
        const pid_t self = ::getpid();
        command_ = ::fork();
        if (command_ < 0) return {Kind::kFailed, 0, std::strerror(errno)};
        if (command_ == 0) Execute(self, writing.Get());
        writing.Reset();
        int error = 0;
        if (::read(reading.Get(), &error, sizeof(error)) == sizeof(error)) {
            return {Kind::kCannotExecute, error};
        }
        return Await();
    }

    [[noreturn]] void Execute(pid_t parent, int report) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != parent) ::_exit(1);
        std::signal(SIGPIPE, SIG_DFL);
        signals_.Restore();
        std::vector<char*> argv;
        for (const std::string& word : words_) argv.push_back(const_cast<char*>(word.c_str()));
        argv.push_back(nullptr);
        ::execvp(argv.front(), argv.data());
        const int error = errno;
        (void)!::write(report, &error, sizeof(error));
        ::_exit(127);
    }

    /// Until the command ends, or is ended.
    CommandEnd Await() {
        std::optional<CommandEnd> ending;
        auto until = until_;
        while (true) {
            int status = 0;
            for (pid_t one = 0; (one = ::waitpid(-1, &status, WNOHANG)) > 0;) {
                if (one == command_) return ending ? *ending : EndOf(status);
            }
            const auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(until - Clock::now());
            if (left <= 0ms && ending) return *ending;  // EndDescendants kills it
            const int signal = left > 0ms ? signals_.Wait(left) : 0;
            if (signal == kParentDied) return {Kind::kInterrupted, SIGKILL};
            if (signal == SIGCHLD || (signal == 0 && left > 0ms) || ending) continue;
            ending =
                signal == 0 ? CommandEnd{Kind::kTimedOut} : CommandEnd{Kind::kInterrupted, signal};
            until = Clock::now() + kGrace;
            ::kill(command_, SIGTERM);
        }
    }

    static CommandEnd EndOf(int status) {
        if (WIFSIGNALED(status)) return {Kind::kSignalled, WTERMSIG(status)};
        return {Kind::kExited, WEXITSTATUS(status)};
    }

    const OverlayPlan& plan_;
    const std::vector<std::string>& words_;
    const Clock::time_point until_;
    const SignalsBlocked& signals_;
    pid_t command_ = -1;
};

void Send(int pipe, const CommandEnd& end) {
    Report report;
    report.kind = end.kind;
    report.code = end.code;
    std::strncpy(report.problem.data(), end.problem.c_str(), report.problem.size() - 1);
    (void)!::write(pipe, &report, sizeof(report));
}

CommandEnd Receive(int pipe, int interrupted_by) {
    Report report;
    CommandEnd end;
    if (::read(pipe, &report, sizeof(report)) == sizeof(report)) {
        end = {report.kind, report.code, report.problem.data()};
    } else {
        end.problem = "The process that ran the command was killed.";
    }
    if (end.kind == Kind::kInterrupted && interrupted_by != 0) end.code = interrupted_by;
    return end;
}

}  // namespace

CommandEnd RunInOverlay(const OverlayPlan& plan, const std::vector<std::string>& words,
                        std::chrono::seconds limit) {
    const SignalsBlocked signals;
    std::array<int, 2> pipe{};
    if (::pipe2(pipe.data(), O_CLOEXEC) != 0) return {Kind::kFailed, 0, std::strerror(errno)};
    const SDK::FileDescriptor reading(pipe[0]);
    SDK::FileDescriptor writing(pipe[1]);
    ::prctl(PR_SET_CHILD_SUBREAPER, 1);  // for a supervisor that is killed
    const pid_t self = ::getpid();
    const pid_t supervisor = ::fork();
    if (supervisor < 0) return {Kind::kFailed, 0, std::strerror(errno)};
    if (supervisor == 0) {
        Send(writing.Get(), Supervisor(plan, words, limit, signals).Run(self));
        ::_exit(0);
    }
    writing.Reset();
    int interrupted_by = 0;
    while (::waitpid(supervisor, nullptr, WNOHANG) == 0) {
        const int signal = signals.Wait(1s);
        if (signal == 0 || signal == SIGCHLD) continue;
        interrupted_by = signal;
        ::kill(supervisor, kCancel);
    }
    EndDescendants();
    return Receive(reading.Get(), interrupted_by);
}

}  // namespace Ctl
