// Owns a child process, its process group and its pipe until Reap. Must not read the output
// (RunningCommand does). Runs on one thread.
#include "commands/ChildProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <mutex>
#include <utility>

#include "sdk/files/FileUtils.h"

namespace SDK {

namespace {

constexpr int kFirstInherited = 3;
constexpr long kStatmSize = 256;

std::vector<char*> Pointers(const std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (const std::string& text : texts) pointers.push_back(const_cast<char*>(text.c_str()));
    pointers.push_back(nullptr);
    return pointers;
}

/// Duplicates of `descriptors` above the numbers that they get in the child, so that no dup2 closes
/// another one. Fewer (errno) when one cannot be duplicated.
std::vector<FileDescriptor> CopiesAbove(const std::vector<FileDescriptor>& descriptors) {
    const int end = kFirstInherited + static_cast<int>(descriptors.size());
    std::vector<FileDescriptor> copies;
    for (const FileDescriptor& descriptor : descriptors) {
        FileDescriptor copy(::fcntl(descriptor.Get(), F_DUPFD_CLOEXEC, end));
        if (!copy.IsOpen()) break;
        copies.push_back(std::move(copy));
    }
    return copies;
}

/// 0 means no limit; a lower existing limit stays.
bool SetLimit(pid_t process, __rlimit_resource resource, std::uint64_t value) {
    if (value == 0) return true;
    rlimit limit{};
    if (::prlimit(process, resource, nullptr, &limit) != 0) return false;
    limit.rlim_max = std::min<rlim_t>(limit.rlim_max, value);
    limit.rlim_cur = std::min(limit.rlim_cur, limit.rlim_max);
    return ::prlimit(process, resource, &limit, nullptr) == 0;
}

/// In bytes; 0 when the process has ended.
std::uint64_t AddressSpaceOf(pid_t process) {
    std::string pages;
    FileUtils::ReadFile("/proc/" + std::to_string(process) + "/statm", pages, kStatmSize);
    return std::strtoull(pages.c_str(), nullptr, 10) *
           static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
}

/// The steps of posix_spawn in the child before the program starts.
class SpawnPlan {
  public:
    SpawnPlan(int input, int output, const std::vector<FileDescriptor>& inherited) {
        posix_spawn_file_actions_init(&actions_);
        posix_spawnattr_init(&attributes_);
        // Standard input comes last: without the agent's standard descriptors `output` may be 0.
        Note(posix_spawn_file_actions_adddup2(&actions_, output, STDOUT_FILENO));
        Note(posix_spawn_file_actions_adddup2(&actions_, output, STDERR_FILENO));
        Note(input < 0 ? posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, "/dev/null",
                                                          O_RDONLY, 0)
                       : posix_spawn_file_actions_adddup2(&actions_, input, STDIN_FILENO));
        int place = kFirstInherited;
        for (const FileDescriptor& descriptor : inherited) {
            Note(posix_spawn_file_actions_adddup2(&actions_, descriptor.Get(), place++));
        }
        Note(posix_spawn_file_actions_addclosefrom_np(&actions_, place));
        sigset_t none;
        sigset_t all;
        sigemptyset(&none);
        sigfillset(&all);
        Note(posix_spawnattr_setsigmask(&attributes_, &none));
        Note(posix_spawnattr_setsigdefault(&attributes_, &all));
        // A session leader also leads a process group of the same number.
        Note(posix_spawnattr_setflags(
            &attributes_, POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF));
    }
    ~SpawnPlan() {
        posix_spawn_file_actions_destroy(&actions_);
        posix_spawnattr_destroy(&attributes_);
    }
    SpawnPlan(const SpawnPlan&) = delete;
    SpawnPlan& operator=(const SpawnPlan&) = delete;

    int Run(pid_t& pid, char* const* arguments, char* const* environment) {
        if (error_ != 0) return error_;
        // One start at a time: until its program runs, a child has all descriptors of the agent,
        // also one that another thread writes a program through, whose start would then fail with
        // ETXTBSY. The call returns when the program runs.
        static std::mutex one_at_a_time;
        const std::lock_guard<std::mutex> lock(one_at_a_time);
        return ::posix_spawn(&pid, arguments[0], &actions_, &attributes_, arguments, environment);
    }

  private:
    void Note(int error) {
        if (error_ == 0) error_ = error;
    }

    posix_spawn_file_actions_t actions_{};
    posix_spawnattr_t attributes_{};
    int error_ = 0;
};

}  // namespace

ChildProcess::~ChildProcess() {
    if (pid_ <= 0) return;
    Kill();
    Reap();
}

bool ChildProcess::Start(const std::vector<std::string>& arguments,
                         const std::vector<std::string>& environment,
                         const std::vector<FileDescriptor>& inherited, int input) {
    const std::vector<FileDescriptor> copies = CopiesAbove(inherited);
    if (copies.size() != inherited.size()) return false;
    const int above = kFirstInherited + static_cast<int>(inherited.size());
    const FileDescriptor input_copy(input < 0 ? -1 : ::fcntl(input, F_DUPFD_CLOEXEC, above));
    if (input >= 0 && !input_copy.IsOpen()) return false;
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) return false;
    output_.Reset(ends[0]);
    const FileDescriptor write_end(ends[1]);
    if (::fcntl(output_.Get(), F_SETFL, O_NONBLOCK) != 0) return false;

    SpawnPlan plan(input_copy.Get(), write_end.Get(), copies);
    pid_t pid = -1;
    const int error = plan.Run(pid, Pointers(arguments).data(), Pointers(environment).data());
    if (error != 0) {
        errno = error;
        return false;
    }
    pid_ = pid;
    // Debian 12's <sys/pidfd.h> cannot be linked from C++.
    end_.Reset(static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0)));
    return true;
}

// posix_spawn sets no limits, so the program may run for a moment without them. Its memory is
// checked once it cannot grow further.
bool ChildProcess::Limit(const CommandLimits& limits) const {
    if (!SetLimit(pid_, RLIMIT_CPU, limits.cpu_seconds)) return false;
    if (limits.address_space_bytes == 0) return true;
    if (!SetLimit(pid_, RLIMIT_AS, limits.address_space_bytes)) return false;
    if (AddressSpaceOf(pid_) <= limits.address_space_bytes) return true;
    errno = ENOMEM;
    return false;
}

void ChildProcess::Kill() {
    ::killpg(pid_, SIGKILL);
}

int ChildProcess::Reap() {
    int status = -1;
    while (::waitpid(pid_, &status, 0) < 0) {
        if (errno == EINTR) continue;
        status = -1;
        break;
    }
    pid_ = -1;
    return status;
}

}  // namespace SDK
