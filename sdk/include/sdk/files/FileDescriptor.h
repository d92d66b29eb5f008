#pragma once

#include <unistd.h>

#include <utility>

namespace SDK {

/// Owns one file descriptor and closes it; -1 means none. Movable. Not thread-safe.
class FileDescriptor {
  public:
    FileDescriptor() = default;
    explicit FileDescriptor(int fd) : fd_(fd) {}
    FileDescriptor(FileDescriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        if (this != &other) Reset(std::exchange(other.fd_, -1));
        return *this;
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor() { Reset(); }

    int Get() const { return fd_; }
    bool IsOpen() const { return fd_ >= 0; }
    int Release() { return std::exchange(fd_, -1); }
    void Reset(int fd = -1) {
        if (fd_ >= 0) ::close(fd_);
        fd_ = fd;
    }

  private:
    int fd_ = -1;
};

}  // namespace SDK
