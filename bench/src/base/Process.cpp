// Owns the processes that the driver starts until they are reaped. Must not end others.
#include "base/Process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <utility>

namespace Bench {
namespace {

std::vector<char*> Pointers(const std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    for (const std::string& text : texts) pointers.push_back(const_cast<char*>(text.c_str()));
    pointers.push_back(nullptr);
    return pointers;
}

/// The three standard streams of a child.
class Streams {
  public:
    explicit Streams(const Command& command) {
        ::posix_spawn_file_actions_init(&actions_);
        Open(0, command.input, O_RDONLY);
        Open(1, command.output, O_WRONLY | O_CREAT | O_TRUNC);
        Open(2, command.error, O_WRONLY | O_CREAT | O_TRUNC);
    }
    ~Streams() { ::posix_spawn_file_actions_destroy(&actions_); }
    Streams(const Streams&) = delete;
    Streams& operator=(const Streams&) = delete;

    const posix_spawn_file_actions_t* Get() const { return &actions_; }

  private:
    void Open(int fd, const std::string& file, int flags) {
        const char* path = file.empty() ? "/dev/null" : file.c_str();
        ::posix_spawn_file_actions_addopen(&actions_, fd, path, flags, 0600);
    }

    posix_spawn_file_actions_t actions_;
};

}  // namespace

Child::Child(Child&& other) noexcept
    : pid_(std::exchange(other.pid_, -1)), ended_(std::exchange(other.ended_, std::nullopt)) {}

Child& Child::operator=(Child&& other) noexcept {
    if (this != &other) {
        Stop(milliseconds(0));
        pid_ = std::exchange(other.pid_, -1);
        ended_ = std::exchange(other.ended_, std::nullopt);
    }
    return *this;
}

Child Child::Start(const Command& command) {
    const Streams streams(command);
    posix_spawnattr_t attributes;
    ::posix_spawnattr_init(&attributes);
    ::posix_spawnattr_setpgroup(&attributes, 0);
    sigset_t usual;
    ::sigemptyset(&usual);
    ::sigaddset(&usual, SIGPIPE);
    ::posix_spawnattr_setsigdefault(&attributes, &usual);
    ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGDEF);
    Child child;
    pid_t pid = -1;
    if (::posix_spawn(&pid, command.arguments.front().c_str(), streams.Get(), &attributes,
                      Pointers(command.arguments).data(),
                      Pointers(command.environment).data()) == 0) {
        child.pid_ = pid;
    }
    ::posix_spawnattr_destroy(&attributes);
    return child;
}

std::optional<int> Child::Ended() {
    int status = 0;
    if (!ended_ && pid_ > 0 && ::waitpid(pid_, &status, WNOHANG) == pid_) {
        ended_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    return ended_;
}

std::optional<int> Child::Wait(milliseconds deadline) {
    WaitUntil(deadline, microseconds(100), [&] { return pid_ <= 0 || Ended(); });
    return ended_;
}

void Child::Signal(int number, bool group) const {
    if (pid_ > 0) ::kill(group ? -pid_ : pid_, number);
}

bool Child::Stop(milliseconds grace) {
    if (pid_ <= 0) return true;
    if (!Ended() && grace.count() > 0) {
        Signal(SIGTERM);
        // Pause would throw Interrupted, and this also runs after SIGINT.
        const auto end = Clock::now() + grace;
        while (!Ended() && Clock::now() < end) ::usleep(1000);
    }
    const bool in_time = ended_.has_value();
    Signal(SIGKILL, true);
    if (!ended_) ::waitpid(pid_, nullptr, 0);
    pid_ = -1;
    ended_.reset();
    return in_time;
}

std::optional<int> Run(const Command& command, milliseconds deadline) {
    Child child = Child::Start(command);
    return child.Wait(deadline);
}

}  // namespace Bench
