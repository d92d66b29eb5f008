#pragma once

#include <sdk/files/FileDescriptor.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <array>
#include <cstring>
#include <string>

namespace test {

/// A client of a Unix socket that sends arbitrary bytes.
class RawConnection {
  public:
    explicit RawConnection(const std::string& path)
        : socket_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
        const auto* generic = reinterpret_cast<const sockaddr*>(&address);
        if (::connect(socket_.Get(), generic, sizeof(address)) != 0) socket_.Reset();
    }

    /// False when the other side has closed.
    bool Send(const std::string& bytes) {
        std::size_t sent = 0;
        while (sent < bytes.size()) {
            const ssize_t count =
                ::send(socket_.Get(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
            if (count <= 0) return false;
            sent += static_cast<std::size_t>(count);
        }
        return true;
    }

    /// Shuts the sending direction down.
    void Close() { ::shutdown(socket_.Get(), SHUT_WR); }

    /// Reads until the other side closes.
    std::string Receive() {
        std::string text;
        std::array<char, 4096> buffer;
        for (ssize_t count = 0;
             (count = ::recv(socket_.Get(), buffer.data(), buffer.size(), 0)) > 0;) {
            text.append(buffer.data(), static_cast<std::size_t>(count));
        }
        return text;
    }

  private:
    SDK::FileDescriptor socket_;
};

}  // namespace test
