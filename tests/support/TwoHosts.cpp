#include "support/TwoHosts.h"

#include <fcntl.h>
#include <sched.h>
#include <sdk/files/FileDescriptor.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "support/Isolation.h"

namespace test {

namespace {

constexpr int kCannotEnter = 121;
constexpr int kCannotExecute = 122;

SDK::FileDescriptor Open(const std::string& path) {
    return SDK::FileDescriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
}

std::string NamespaceOf(pid_t pid, const char* kind) {
    return "/proc/" + std::to_string(pid) + "/ns/" + kind;
}

/// The first process of a host: writes the result of its set-up to `ready`, then waits until it is
/// killed. The kernel reaps orphans.
[[noreturn]] void RunInit(int ready, const char* stand_in, const char* queue_limit,
                          const char* temporary) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::signal(SIGCHLD, SIG_IGN);
    const bool made = ::unshare(CLONE_NEWNET) == 0 && UnshareMounts() &&
                      ::mount("proc", "/proc", "proc", 0, nullptr) == 0 &&
                      ::mount("none", "/run", "tmpfs", 0, "size=1m") == 0 &&
                      IsolateFiles(stand_in, queue_limit, temporary);
    const int error = made ? 0 : errno;
    if (::write(ready, &error, sizeof(error)) != sizeof(error) || !made) ::_exit(kCannotEnter);
    for (;;) ::pause();
}

[[noreturn]] void RunShell(const std::string& script) {
    ::execl("/bin/sh", "sh", "-c", script.c_str(), nullptr);
    ::_exit(kCannotExecute);
}

int ExitCode(pid_t pid) {
    int status = 0;
    if (pid <= 0 || ::waitpid(pid, &status, 0) != pid) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

Host::Host() {
    const std::string stand_in = scratch_.Write("stand_in", "");
    const std::string queue_limit = scratch_.Write("queue_limit", "16384\n");
    const std::string temporary = std::filesystem::temp_directory_path().string();
    const SDK::FileDescriptor own_pids = Open("/proc/self/ns/pid");
    int ready[2];
    if (::pipe2(ready, O_CLOEXEC) != 0 || ::unshare(CLONE_NEWPID) != 0) {
        error_ = errno;
        return;
    }
    const pid_t child = ::fork();
    if (child == 0) RunInit(ready[1], stand_in.c_str(), queue_limit.c_str(), temporary.c_str());
    ::setns(own_pids.Get(), CLONE_NEWPID);
    ::close(ready[1]);
    const bool told = ::read(ready[0], &error_, sizeof(error_)) == sizeof(error_);
    ::close(ready[0]);
    if (told && error_ == 0) {
        init_ = child;
    } else {
        ExitCode(child);
        if (error_ == 0) error_ = EIO;
    }
}

Host::~Host() {
    if (init_ <= 0) return;
    ::kill(init_, SIGKILL);
    ::waitpid(init_, nullptr, 0);
}

pid_t Host::Fork() const {
    const SDK::FileDescriptor own_pids = Open("/proc/self/ns/pid");
    const SDK::FileDescriptor pids = Open(NamespaceOf(init_, "pid"));
    if (::setns(pids.Get(), CLONE_NEWPID) != 0) return -1;
    const SDK::FileDescriptor network = Open(NamespaceOf(init_, "net"));
    const SDK::FileDescriptor mounts = Open(NamespaceOf(init_, "mnt"));
    const pid_t child = ::fork();
    // A ThreadSanitizer thread shares the working directory; setns refuses the mounts without
    // CLONE_FS.
    if (child == 0 && (::unshare(CLONE_FS) != 0 || ::setns(network.Get(), CLONE_NEWNET) != 0 ||
                       ::setns(mounts.Get(), CLONE_NEWNS) != 0)) {
        ::_exit(kCannotEnter);
    }
    ::setns(own_pids.Get(), CLONE_NEWPID);
    return child;
}

int Host::Run(const std::string& script) const {
    const pid_t child = Fork();
    if (child == 0) RunShell(script);
    return ExitCode(child);
}

int Host::RunInNetwork(const std::string& script) const {
    const SDK::FileDescriptor network = Open(NamespaceOf(init_, "net"));
    const pid_t child = ::fork();
    if (child == 0) {
        if (::setns(network.Get(), CLONE_NEWNET) != 0) ::_exit(kCannotEnter);
        RunShell(script);
    }
    return ExitCode(child);
}

std::string Host::PathFromOutside(const std::string& path) const {
    return "/proc/" + std::to_string(init_) + "/root" + path;
}

TwoHosts::TwoHosts() {
    if (!server.IsUp() || !client.IsUp()) return;
    const auto set_up = [](const char* address) {
        return std::string("ip link set lo up && ip link set eth0 up && ip address add ") +
               address + "/24 dev eth0";
    };
    const std::string add_link =
        "ip link add eth0 type veth peer name eth0 netns " + std::to_string(client.Init());
    connected_ = server.RunInNetwork(add_link) == 0 &&
                 server.RunInNetwork(set_up(kServerAddress)) == 0 &&
                 client.RunInNetwork(set_up(kClientAddress)) == 0;
}

bool TwoHosts::AreNotAllowed(std::string& reason) const {
    const int error = server.IsUp() ? client.Error() : server.Error();
    if (error != EPERM && error != ENOSYS && error != ENOSPC && error != EINVAL) return false;
    reason = std::string("network, process and mount namespaces are not permitted: ") +
             std::strerror(error);
    return true;
}

bool TwoHosts::SetLinkUp(bool up) const {
    return server.RunInNetwork(std::string("ip link set eth0 ") + (up ? "up" : "down")) == 0;
}

}  // namespace test
