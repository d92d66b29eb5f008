// Splits the process into watchdog and guard before either has a thread or a fanotify group.
#include "SentryProcess.h"

#include <sdk/files/DirUtils.h>
#include <sdk/files/FileUtils.h>
#include <sdk/files/PathUtils.h>
#include <sentry/Channel.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <exception>
#include <iostream>

#include "Rooms.h"
#include "base/Places.h"
#include "base/SharedState.h"
#include "service/Service.h"
#include "watchdog/Watchdog.h"

namespace Sentry {

namespace {

constexpr int kOk = 0;
constexpr int kFailed = 1;
constexpr int kUsage = 2;
constexpr int kLost = 3;
constexpr mode_t kUmask = 077;
constexpr int kPriority = -10;

int Fail(const std::string& what) {
    std::cerr << "morvane_sentry: " << what << ": " << std::strerror(errno) << std::endl;
    return kFailed;
}

/// Blocks the signals to stop in all threads that start later.
SDK::FileDescriptor StopSignals() {
    sigset_t signals{};
    sigemptyset(&signals);
    for (const int signal : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&signals, signal);
    ::sigprocmask(SIG_BLOCK, &signals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    return SDK::FileDescriptor(::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
}

/// The guard's process. Ends with its watchdog: nobody else could free openers that wait for it.
int Guard(SharedState& state, pid_t watchdog, int signals, bool is_child) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != watchdog) return kLost;
    Service service(SocketPath(), MakeRooms(state), is_child);
    if (!service.Problem().empty()) {
        std::cerr << "morvane_sentry: " << service.Problem() << std::endl;
        return kFailed;
    }
    service.Run(signals);
    return kOk;
}

int Watch(pid_t guard, const SharedState& state, int signals) {
    Watchdog watchdog(guard, state, ProbeFile());
    switch (watchdog.Run(signals)) {
        case Watchdog::End::kStopped:
            return kOk;
        case Watchdog::End::kKilled:
            std::cerr << "morvane_sentry: the guard did not answer in " << state.answer_ms
                      << " ms and was killed" << std::endl;
            return kLost;
        case Watchdog::End::kDied:
            break;
    }
    const int status = watchdog.Status();
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    std::cerr << "morvane_sentry: the guard ended by signal " << WTERMSIG(status) << std::endl;
    return kLost;
}

int Run(bool is_child) {
    ::umask(kUmask);
    // All openers wait for it. Without the right to it, it goes on as it is.
    ::setpriority(PRIO_PROCESS, 0, kPriority);
    const std::string folder = SDK::PathUtils::GetInstallationPath() + "run";
    if (SDK::DirUtils::MakeDirs(folder, 0700) != 0) return Fail("cannot make " + folder);
    if (SDK::FileUtils::WriteFile(ProbeFile(), "", false) != 0) {
        return Fail("cannot write " + ProbeFile());
    }
    const SharedState::Mapped state = SharedState::Map();
    if (state == nullptr) return Fail("cannot map memory");
    const SDK::FileDescriptor signals = StopSignals();
    const pid_t watchdog = ::getpid();
    const pid_t guard = ::fork();
    if (guard < 0) return Fail("cannot fork");
    if (guard == 0) return Guard(*state, watchdog, signals.Get(), is_child);
    return Watch(guard, *state, signals.Get());
}

}  // namespace

int Main(int argc, const char* const* argv) {
    bool is_child = false;
    CLI::App app(
        "The sentry: holds opens of protected pages until they are what was approved. The agent "
        "speaks with it through run/sentry.sock of the installation.");
    app.add_flag("--child", is_child, "End when the agent disconnects");
    app.set_version_flag("--version", std::string("morvane_sentry ") + SENTREL_VERSION);
    try {
        app.parse(argc, argv);
        return Run(is_child);
    } catch (const CLI::ParseError& e) {
        return app.exit(e) == 0 ? kOk : kUsage;
    } catch (const std::exception& e) {
        std::cerr << "morvane_sentry: " << e.what() << std::endl;
        return kFailed;
    }
}

}  // namespace Sentry
