// Owns the open lock file. Must not remove it: the next agent locks the same file. Runs on the
// main thread.
#include "process/InstanceLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace Agent {

namespace {

int ReadProcessId(int fd) {
    std::array<char, 16> text{};
    const ssize_t length = ::pread(fd, text.data(), text.size() - 1, 0);
    return length > 0 ? static_cast<int>(std::strtol(text.data(), nullptr, 10)) : 0;
}

}  // namespace

InstanceLock::Result InstanceLock::Take(const std::string& path, int& holder, std::string& error) {
    SDK::FileDescriptor file(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!file.IsOpen()) {
        error = path + ": " + std::strerror(errno);
        return Result::kFailed;
    }
    if (::flock(file.Get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno == EWOULDBLOCK) {
            holder = ReadProcessId(file.Get());
            return Result::kHeldByOther;
        }
        error = path + ": " + std::strerror(errno);
        return Result::kFailed;
    }
    const std::string pid = std::to_string(::getpid()) + "\n";
    if (::ftruncate(file.Get(), 0) != 0 ||
        ::pwrite(file.Get(), pid.data(), pid.size(), 0) != static_cast<ssize_t>(pid.size())) {
        error = path + ": " + std::strerror(errno);
        return Result::kFailed;
    }
    file_ = std::move(file);
    return Result::kTaken;
}

}  // namespace Agent
