// The library is linked into this program and replaces nanosleep and waitpid.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <functional>
#include <string>

#include "support/TempDir.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr timespec kShort{0, 100000000};  // the longest that is cut
constexpr timespec kLong{0, 100000001};

extern "C" void TakeChildren(int /*signal*/) {
    const int error = errno;
    while (::waitpid(-1, nullptr, WNOHANG) > 0) {
    }
    errno = error;
}

extern "C" void Ignore(int /*signal*/) {}

void Handle(int signal, void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    ::sigaction(signal, &action, nullptr);
}

/// A child that ends after `delay`, at once without one.
void StartChild(timespec delay = {}) {
    const pid_t pid = ::fork();
    if (pid != 0) return;
    ::clock_nanosleep(CLOCK_MONOTONIC, 0, &delay, nullptr);
    ::_exit(0);
}

struct Sleep {
    int result;
    int error;
    timespec remaining;
    Clock::duration lasted;

    bool InFull(const timespec& time) const {
        return result == 0 && lasted >= std::chrono::nanoseconds(time.tv_nsec);
    }
    bool Cut(const timespec& time) const { return result == 0 && !InFull(time); }
    bool Interrupted() const { return result == -1 && error == EINTR && remaining.tv_nsec > 0; }
};

Sleep Nanosleep(const timespec& time) {
    Sleep sleep{};
    const auto start = Clock::now();
    errno = 0;
    sleep.result = ::nanosleep(&time, &sleep.remaining);
    sleep.error = errno;
    sleep.lasted = Clock::now() - start;
    return sleep;
}

/// On a busy machine even a shortened sleep may last too long, but not every time.
bool IsCutInTheEnd(const std::function<void()>& prepare) {
    for (int attempt = 0; attempt < 50; ++attempt) {
        prepare();
        if (Nanosleep(kShort).Cut(kShort)) return true;
    }
    return false;
}

TEST(ShortSleep, ChildEndsMeanwhile_CutsOneSleep) {
    Handle(SIGCHLD, TakeChildren);
    EXPECT_TRUE(IsCutInTheEnd([] { StartChild({0, 2000000}); }));
    while (::waitpid(-1, nullptr, 0) > 0) {
    }
    Nanosleep(kShort);
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_TRUE(Nanosleep(kShort).InFull(kShort));
}

TEST(ShortSleep, ChildTakenBefore_CutsTheNextSleepOnly) {
    StartChild();
    StartChild();
    ASSERT_GT(::waitpid(-1, nullptr, 0), 0);
    ASSERT_GT(::waitpid(-1, nullptr, 0), 0);
    EXPECT_TRUE(Nanosleep(kLong).InFull(kLong));
    EXPECT_EQ(Nanosleep(kShort).result, 0);
    EXPECT_TRUE(Nanosleep(kShort).InFull(kShort));
    EXPECT_TRUE(IsCutInTheEnd([] {
        StartChild();
        ASSERT_GT(::waitpid(-1, nullptr, 0), 0);
    }));
}

TEST(ShortSleep, ZombieThatNobodyTakes_CutsNothing) {
    StartChild();
    siginfo_t info{};
    ASSERT_EQ(::waitid(P_ALL, 0, &info, WEXITED | WNOWAIT), 0);
    EXPECT_TRUE(Nanosleep(kShort).InFull(kShort));
    EXPECT_EQ(::waitpid(info.si_pid, nullptr, 0), info.si_pid);
}

TEST(ShortSleep, OtherSignals_InterruptAsEver) {
    Handle(SIGALRM, Ignore);
    Handle(SIGCHLD, TakeChildren);
    const itimerval often{{0, 5000}, {0, 5000}};
    ::setitimer(ITIMER_REAL, &often, nullptr);
    EXPECT_TRUE(Nanosleep(kShort).Interrupted());
    EXPECT_TRUE(Nanosleep(kLong).Interrupted());
    const itimerval never{};
    ::setitimer(ITIMER_REAL, &never, nullptr);
    sigset_t mask;
    ::pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    EXPECT_EQ(::sigismember(&mask, SIGCHLD), 0);
    for (const timespec wrong : {timespec{0, -1}, timespec{0, 1000000000}, timespec{-1, 5}}) {
        const Sleep sleep = Nanosleep(wrong);
        EXPECT_EQ(sleep.result, -1);
        EXPECT_EQ(sleep.error, EINVAL);
    }
}

// A wait would last until the test is killed.
TEST(Open, PipeWithoutAWriter_IsOpenedForReadingAtOnceAndIsEmpty) {
    const test::TempDir dir;
    const std::string pipe = dir.Path("pipe");
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    char byte = 0;
    for (const int fd : {::open(pipe.c_str(), O_RDONLY | O_CLOEXEC),
                         ::openat(AT_FDCWD, pipe.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC)}) {
        EXPECT_EQ(::read(fd, &byte, 1), 0);
        ::close(fd);
    }
    const int made = ::open(dir.Path("new").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0640);
    struct stat info {};
    ASSERT_EQ(::fstat(made, &info), 0);
    EXPECT_EQ(info.st_mode & 0777U, 0640U);
    ::close(made);
}

}  // namespace
