// Owns one connected socket. Must not know what messages mean.
#include <poll.h>
#include <sdk/files/PathUtils.h>
#include <sdk/text/JsonUtils.h>
#include <sentry/Channel.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>

namespace Sentry {

namespace {

/// Space for one descriptor beside a message.
union Control {
    char bytes[CMSG_SPACE(sizeof(int))];
    cmsghdr alignment;
};

SDK::FileDescriptor FileOf(msghdr& header) {
    SDK::FileDescriptor file;
    for (cmsghdr* part = CMSG_FIRSTHDR(&header); part != nullptr;
         part = CMSG_NXTHDR(&header, part)) {
        if (part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_RIGHTS) continue;
        int descriptor = -1;
        std::memcpy(&descriptor, CMSG_DATA(part), sizeof(descriptor));
        file.Reset(descriptor);
    }
    return file;
}

}  // namespace

std::string SocketPath() {
    return SDK::PathUtils::GetInstallationPath() + "run/sentry.sock";
}

Channel::Channel(SDK::FileDescriptor socket) : socket_(std::move(socket)), buffer_(kMostBytes, 0) {
    ucred peer{};
    socklen_t size = sizeof(peer);
    if (::getsockopt(socket_.Get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) return;
    process_ = peer.pid;
    user_ = peer.uid;
}

std::unique_ptr<Channel> Channel::Connect(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        errno = ENAMETOOLONG;
        return nullptr;
    }
    path.copy(address.sun_path, path.size());
    SDK::FileDescriptor socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket.IsOpen() || ::connect(socket.Get(), reinterpret_cast<const sockaddr*>(&address),
                                      sizeof(address)) != 0) {
        return nullptr;
    }
    return std::make_unique<Channel>(std::move(socket));
}

bool Channel::Send(const Json::Value& body, int file) {
    std::string text = SDK::JsonUtils::JsonToString(body);
    if (text.size() > kMostBytes) {
        errno = EMSGSIZE;
        return false;
    }
    iovec data{text.data(), text.size()};
    msghdr header{};
    header.msg_iov = &data;
    header.msg_iovlen = 1;
    Control control{};
    if (file >= 0) {
        header.msg_control = control.bytes;
        header.msg_controllen = sizeof(control.bytes);
        cmsghdr* part = CMSG_FIRSTHDR(&header);
        part->cmsg_level = SOL_SOCKET;
        part->cmsg_type = SCM_RIGHTS;
        part->cmsg_len = CMSG_LEN(sizeof(file));
        std::memcpy(CMSG_DATA(part), &file, sizeof(file));
    }
    const std::lock_guard<std::mutex> lock(sending_);
    return ::sendmsg(socket_.Get(), &header, MSG_NOSIGNAL | MSG_DONTWAIT) >= 0;
}

Channel::Received Channel::Receive(Message& message, std::chrono::milliseconds limit) {
    pollfd ready{socket_.Get(), POLLIN, 0};
    if (::poll(&ready, 1, static_cast<int>(limit.count())) <= 0) return Received::kNothing;
    iovec data{buffer_.data(), buffer_.size()};
    Control control{};
    msghdr header{};
    header.msg_iov = &data;
    header.msg_iovlen = 1;
    header.msg_control = control.bytes;
    header.msg_controllen = sizeof(control.bytes);
    const ssize_t size = ::recvmsg(socket_.Get(), &header, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    if (size < 0 && (errno == EAGAIN || errno == EINTR)) return Received::kNothing;
    if (size <= 0) return Received::kClosed;
    message.file = FileOf(header);
    const bool is_object = SDK::JsonUtils::ParseJsonStr(
                               buffer_.data(), static_cast<std::size_t>(size), message.body) == 0 &&
                           message.body.isObject();
    return is_object && (header.msg_flags & MSG_TRUNC) == 0 ? Received::kMessage
                                                            : Received::kClosed;
}

void Channel::Close() {
    ::shutdown(socket_.Get(), SHUT_RDWR);
}

}  // namespace Sentry
