#pragma once

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sdk/files/FileDescriptor.h>
#include <signal.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>
#include <utmp.h>

#include <array>
#include <string>
#include <utility>
#include <vector>

#include "support/WaitFor.h"

namespace test {

/// A program on a terminal of its own. The destructor ends both.
class PseudoTerminal {
  public:
    explicit PseudoTerminal(std::vector<std::string> command) {
        std::vector<char*> argv;
        for (std::string& word : command) argv.push_back(word.data());
        argv.push_back(nullptr);
        int master = -1;
        int slave = -1;
        if (::openpty(&master, &slave, nullptr, nullptr, nullptr) != 0) std::abort();
        master_.Reset(master);
        slave_.Reset(slave);
        ::fcntl(master, F_SETFD, FD_CLOEXEC);
        pid_ = ::fork();
        if (pid_ != 0) return;
        if (::login_tty(slave) == 0) ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    ~PseudoTerminal() {
        if (pid_ <= 0) return;
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
    PseudoTerminal(const PseudoTerminal&) = delete;
    PseudoTerminal& operator=(const PseudoTerminal&) = delete;

    pid_t Pid() const { return pid_; }

    void Type(const std::string& text) const {
        [[maybe_unused]] const ssize_t count = ::write(master_.Get(), text.data(), text.size());
    }

    /// The terminal output so far.
    const std::string& Shown() {
        pollfd ready{master_.Get(), POLLIN, 0};
        while (::poll(&ready, 1, 0) == 1 && (ready.revents & POLLIN) != 0) {
            std::array<char, 4096> bytes{};
            const ssize_t count = ::read(master_.Get(), bytes.data(), bytes.size());
            if (count <= 0) break;
            shown_.append(bytes.data(), static_cast<std::size_t>(count));
        }
        return shown_;
    }

    bool Echoes() const {
        termios mode{};
        return ::tcgetattr(slave_.Get(), &mode) == 0 && (mode.c_lflag & ECHO) != 0;
    }

    /// The wait status; -1 after the deadline.
    int WaitForEnd(std::chrono::milliseconds deadline) {
        int status = -1;
        const auto ended = [&] {
            Shown();
            return ::waitpid(pid_, &status, WNOHANG) == pid_;
        };
        if (!WaitFor(ended, deadline)) return -1;
        pid_ = -1;
        return status;
    }

  private:
    SDK::FileDescriptor master_;
    SDK::FileDescriptor slave_;  ///< open, so that the terminal outlives the program
    std::string shown_;
    pid_t pid_ = -1;
};

}  // namespace test
