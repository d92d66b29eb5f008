// Writes records to a datagram socket or a file.
#include <fcntl.h>
#include <sdk/files/FileDescriptor.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "notify/Senders.h"

namespace Notify {

namespace {

constexpr mode_t kMode = 0640;
constexpr off_t kMostBytes = 16 * 1024 * 1024;
constexpr long kSendSeconds = 2;  ///< a receiver that does not read must not hold a stop

std::string ErrorAt(const std::string& path) {
    return path + ": " + std::strerror(errno);
}

class SocketSender : public RecordSender {
  public:
    explicit SocketSender(std::string path) : path_(std::move(path)) {}

    std::string Send(const std::vector<std::string>& records) override {
        // Connects anew each time: the receiver may have been started again.
        const SDK::FileDescriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        if (path_.size() >= sizeof(address.sun_path)) return path_ + ": the path is too long";
        path_.copy(address.sun_path, path_.size());
        const timeval limit{kSendSeconds, 0};
        ::setsockopt(socket.Get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
        if (::connect(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) !=
            0) {
            return ErrorAt(path_);
        }
        for (const std::string& record : records) {
            if (::send(socket.Get(), record.data(), record.size(), MSG_NOSIGNAL) < 0) {
                return ErrorAt(path_);
            }
        }
        return "";
    }

  private:
    const std::string path_;
};

class FileSender : public RecordSender {
  public:
    explicit FileSender(std::string path) : path_(std::move(path)) {}

    std::string Send(const std::vector<std::string>& records) override {
        std::string lines;
        for (const std::string& record : records) lines += record + "\n";
        struct stat info {};
        if (::stat(path_.c_str(), &info) == 0 && info.st_size > 0 &&
            info.st_size + static_cast<off_t>(lines.size()) > kMostBytes) {
            std::rename(path_.c_str(), (path_ + ".1").c_str());
        }
        const int flags = O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
        const SDK::FileDescriptor file(::open(path_.c_str(), flags, kMode));
        if (!file.IsOpen() || ::fstat(file.Get(), &info) != 0) return ErrorAt(path_);
        if (!S_ISREG(info.st_mode)) return path_ + ": it is not a regular file";
        if ((info.st_mode & 07777) != kMode) ::fchmod(file.Get(), kMode);
        const ssize_t count = ::write(file.Get(), lines.data(), lines.size());
        if (count == static_cast<ssize_t>(lines.size())) return "";
        std::string error = count < 0 ? ErrorAt(path_) : path_ + ": the disk is full";
        // A part of a line would spoil the next one.
        if (count > 0 && ::ftruncate(file.Get(), info.st_size) != 0) return ErrorAt(path_);
        return error;
    }

  private:
    const std::string path_;
};

}  // namespace

std::unique_ptr<RecordSender> MakeSocketSender(const std::string& path) {
    return std::make_unique<SocketSender>(path);
}

std::unique_ptr<RecordSender> MakeFileSender(const std::string& path) {
    return std::make_unique<FileSender>(path);
}

}  // namespace Notify
