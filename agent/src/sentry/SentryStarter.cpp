// Owns the sentry's process where the agent starts it. Must not speak with it (SentryLink does).
#include "sentry/SentryStarter.h"

#include <fcntl.h>
#include <linux/capability.h>
#include <sdk/files/PathUtils.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <thread>

namespace Agent {

namespace {

constexpr int kEndChecks = 100;
constexpr std::chrono::milliseconds kEndPause{20};

/// posix_spawn(3)'s attributes: no signal is blocked or ignored in the child, which leads its own
/// process group, so that Ctrl-C in a terminal reaches the agent alone.
class Attributes {
  public:
    Attributes() {
        sigset_t none{};
        sigset_t all{};
        sigemptyset(&none);
        sigfillset(&all);
        ::posix_spawnattr_init(&attributes_);
        ::posix_spawnattr_setsigmask(&attributes_, &none);
        ::posix_spawnattr_setsigdefault(&attributes_, &all);
        ::posix_spawnattr_setflags(
            &attributes_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
        ::posix_spawn_file_actions_init(&actions_);
        ::posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        ::posix_spawn_file_actions_addopen(&actions_, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    }
    ~Attributes() {
        ::posix_spawn_file_actions_destroy(&actions_);
        ::posix_spawnattr_destroy(&attributes_);
    }
    Attributes(const Attributes&) = delete;
    Attributes& operator=(const Attributes&) = delete;

    int Spawn(pid_t& child, const std::string& program, char* const* arguments) const {
        char* environment[] = {nullptr};
        return ::posix_spawn(&child, program.c_str(), &actions_, &attributes_, arguments,
                             environment);
    }

  private:
    posix_spawnattr_t attributes_{};
    posix_spawn_file_actions_t actions_{};
};

}  // namespace

bool SentryStarter::MayStart() {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> data{};
    if (::syscall(SYS_capget, &header, data.data()) != 0) return false;
    return (data[CAP_TO_INDEX(CAP_SYS_ADMIN)].effective & CAP_TO_MASK(CAP_SYS_ADMIN)) != 0;
}

SentryStarter::~SentryStarter() {
    if (!IsRunning()) return;
    ::kill(child_, SIGTERM);
    for (int i = 0; i < kEndChecks && IsRunning(); ++i) std::this_thread::sleep_for(kEndPause);
    if (!IsRunning()) return;
    ::kill(-child_, SIGKILL);
    ::waitpid(child_, nullptr, 0);
}

bool SentryStarter::IsRunning() {
    if (child_ > 0 && ::waitpid(child_, nullptr, WNOHANG) == 0) return true;
    child_ = -1;
    return false;
}

std::string SentryStarter::Start() {
    if (IsRunning()) return "";
    const std::string program = SDK::PathUtils::GetInstallationPath() + "bin/morvane_sentry";
    std::string name = program;
    std::string option = "--child";
    char* arguments[] = {name.data(), option.data(), nullptr};
    const int error = Attributes().Spawn(child_, program, arguments);
    if (error == 0) return "";
    child_ = -1;
    return "cannot start " + program + ": " + std::strerror(error);
}

}  // namespace Agent
