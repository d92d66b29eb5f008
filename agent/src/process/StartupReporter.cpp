// Owns the connection between a starting agent and the process or terminal that waits for it. Must
// not decide what is a failure (AgentProcess does). Runs on the main thread.
#include "process/StartupReporter.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>

#include "process/ExitCodes.h"

namespace Agent {

namespace {

/// The message of a daemon to the process that waits for it: one byte of exit code, then the text.
void WriteReport(int fd, int exit_code, const std::string& text) {
    const std::string report = std::string(1, static_cast<char>(exit_code)) + text;
    // The waiting process may have ended already.
    [[maybe_unused]] const ssize_t ignored = ::write(fd, report.data(), report.size());
}

[[noreturn]] void Leave(int exit_code, const std::string& text) {
    (exit_code == kExitOk ? std::cout : std::cerr) << text << std::endl;
    std::_Exit(exit_code);
}

[[noreturn]] void WaitForReport(int fd) {
    std::string report;
    std::array<char, 1024> buffer{};
    while (true) {
        const ssize_t count = ::read(fd, buffer.data(), buffer.size());
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) break;
        report.append(buffer.data(), static_cast<std::size_t>(count));
    }
    if (report.empty()) Leave(kExitFailed, "The agent ended while it was starting.");
    Leave(static_cast<unsigned char>(report.front()), report.substr(1));
}

/// The child continues; the parent exits.
void Fork(const std::string& what) {
    const pid_t child = ::fork();
    if (child < 0) Leave(kExitFailed, what + ": " + std::strerror(errno));
    if (child > 0) std::_Exit(kExitOk);
}

void DetachFromTerminal() {
    const SDK::FileDescriptor null(::open("/dev/null", O_RDWR | O_CLOEXEC));
    if (!null.IsOpen()) return;
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) ::dup2(null.Get(), fd);
}

}  // namespace

void StartupReporter::Daemonize() {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        Leave(kExitFailed, std::string("cannot start a daemon: ") + std::strerror(errno));
    }
    SDK::FileDescriptor read_end(ends[0]);
    report_.Reset(ends[1]);
    const pid_t child = ::fork();
    if (child < 0)
        Leave(kExitFailed, std::string("cannot start a daemon: ") + std::strerror(errno));
    if (child > 0) {
        report_.Reset();
        ::waitpid(child, nullptr, 0);
        WaitForReport(read_end.Get());
    }
    ::setsid();
    Fork("cannot start a daemon");
    if (::chdir("/") != 0) Warn(std::string("cannot change to /: ") + std::strerror(errno));
}

void StartupReporter::Warn(const std::string& text) {
    std::cerr << "morvane_agent: " << text << std::endl;
}

void StartupReporter::Ready(const std::string& text) {
    if (!report_.IsOpen()) {
        std::cout << text << std::endl;
        return;
    }
    DetachFromTerminal();
    WriteReport(report_.Get(), kExitOk, text);
    report_.Reset();
}

int StartupReporter::Failed(int exit_code, const std::string& text) {
    if (report_.IsOpen()) {
        WriteReport(report_.Get(), exit_code, "morvane_agent: " + text);
        report_.Reset();
    } else {
        std::cerr << "morvane_agent: " << text << std::endl;
    }
    return exit_code;
}

}  // namespace Agent
